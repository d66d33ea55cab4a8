#include <fcntl.h>
#include <unistd.h>

#include <limits>

#include "archive/archive_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t USER_BUFFER_UNIT = 524288;

int setBlockSize(archive_filter* filter, std::int64_t size) {
    if (size < 0 || size > std::numeric_limits<std::int32_t>::max())
        return archive_fail(EINVAL);
    const std::size_t former = filter->blocksize;
    filter->blocksize = roundUp(static_cast<std::size_t>(size), filter->fsBlockSize);
    if (filter->blocksize == 0 || filter->device.size % filter->blocksize == 0)
        return 0;
    if (archive_grow_device(filter, filter->device.size) == 0)
        return 0;
    filter->blocksize = former;
    return -1;
}

// A file grown ahead of its writes ends where it was written when it is left for another one.
void leaveFile(archive_filter* filter) {
    if (filter->mode == 'w' && filter->fd.isOpen() && filter->fd_size != 0)
        archive_adjust_size(filter, -1);
    filter->fd.reset();
}

int reopen(archive_filter* filter, const std::string& path, bool direct) {
    int flags = O_RDONLY | O_CLOEXEC;
    if (filter->mode == 'w')
        flags = O_WRONLY | O_CLOEXEC | (filter->has(ARCH_STREAM_MODE) ? 0 : O_CREAT | O_EXCL);
    FileDescriptor file(open(path.c_str(), flags, ARCHIVE_FILE_MODE));
    if (!file.isOpen())
        return -1;
    leaveFile(filter);
    filter->fd = std::move(file);
    filter->fd_offset = 0;
    filter->fd_size = 0;
    filter->positioner.reset();
    filter->end = {};
    filter->device.oldest = filter->device.start;  // what lies before is of the former file
    filter->properties &= ~ARCHIVE_DIRECT_IO;
    if (direct) {
        filter->properties |= ARCHIVE_DIRECT_IO;
        archive_enable_direct(filter);
    }
    return 0;
}

int growUserBuffer(archive_filter* filter, std::int64_t size) {
    if (size < 0 || size > std::numeric_limits<std::int32_t>::max())
        return archive_fail(EINVAL);
    filter->userBufferSize =
        std::max(filter->userBufferSize, roundUp(static_cast<std::size_t>(size), USER_BUFFER_UNIT));
    if (filter->user.size == 0)
        return 0;  // made when it is needed
    return archive_grow_buffer(&filter->user, filter->userBufferSize, filter->rawBytes);
}

// Of a deduplicated filter only the file's own reader can be shaped.
int passOn(archive_filter* filter, int request, std::int64_t value) {
    switch (request) {
        case ARCHIVE_SET_BLOCK_SIZE:
        case ARCHIVE_GROW_DEVICE_BUFFER:
        case ARCHIVE_GROW_USER_BUFFER:
        case ARCHIVE_SET_DECOMPRESSED_SIZE:
        case ARCHIVE_SET_LOW_WATER_MARK:
            return archive_fcntl(filter->redup->inner(), request, value);
        default:
            LOG_HERE(4, "redupFcntl: Invalid request type for archive_fcntl(): %d\n", request);
            return archive_fail(ENOSYS);
    }
}

int unknownRequest(int request) {
    LOG_HERE(0, "Invalid request type for archive_fcntl(): %d\n", request);
    return archive_fail(ENOSYS);
}

}  // namespace

int archive_fcntl(archive_filter* filter, int request, std::int64_t value) {
    if (filter == nullptr)
        return archive_fail(EBADF);
    if (filter->redup)
        return passOn(filter, request, value);
    switch (request) {
        case ARCHIVE_SET_BLOCK_SIZE:
            return setBlockSize(filter, value);
        case ARCHIVE_SET_STREAM_MODE:
            filter->set(ARCH_STREAM_MODE, value != 0);
            return 0;
        case ARCHIVE_SET_BLOCK_PADDING:
            filter->set(ARCH_PAD_BLOCKS, value != 0);
            return 0;
        case ARCHIVE_CLOSE_DESCRIPTOR:
            leaveFile(filter);
            return 0;
        case ARCHIVE_SET_CLOEXEC:
            return fcntl(filter->fd.get(), F_SETFD, FD_CLOEXEC);
        case ARCHIVE_DISCARD:
            if (value < 0)
                return archive_fail(EINVAL);
            filter->discardBytes = value;
            return 0;
        case ARCHIVE_CONTINUE_ON_ERROR:
            filter->continue_on_error = value != 0;
            if (value == 0)
                filter->writeFailed = false;
            return 0;
        case ARCHIVE_GROW_DEVICE_BUFFER:
            return value < 0 ? archive_fail(EINVAL) : archive_grow_device(filter, static_cast<std::size_t>(value));
        case ARCHIVE_GROW_USER_BUFFER:
            return growUserBuffer(filter, value);
        case ARCHIVE_SET_DECOMPRESSED_SIZE:
            if (value < 0)
                return archive_fail(EINVAL);
            filter->decompressedBlockSize = static_cast<std::size_t>(value);
            return 0;
        case ARCHIVE_SET_LOW_WATER_MARK:
            filter->readAheadLowWaterMark = static_cast<int>(value);
            return 0;
        default:
            return unknownRequest(request);
    }
}

int archive_fcntl(archive_filter* filter, int request, const std::string& path) {
    if (filter == nullptr)
        return archive_fail(EBADF);
    if (filter->redup)
        return passOn(filter, request, 0);
    if (request != ARCHIVE_REOPEN && request != ARCHIVE_REOPEN_DIRECT)
        return unknownRequest(request);
    return reopen(filter, path, request == ARCHIVE_REOPEN_DIRECT);
}
