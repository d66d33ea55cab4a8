#include "archive/archiverw.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

#include "archive/archive_internal.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"

namespace {

constexpr char CONFIG_SECTION[] = "Configuration Options";
constexpr int DEVICE_BUFFER_SIZE = 1048576;
constexpr int USER_BUFFER_SIZE = 524288;
constexpr int DECRYPT_BLOCK_SIZE = 131072;
constexpr int DECOMPRESS_BLOCK_SIZE = 65536;
constexpr int DECOMPRESSED_BLOCK_SIZE = 262144;
constexpr int LOW_WATER_MARK = 3;
constexpr std::size_t RETAINED_BYTES = 8192;
constexpr std::size_t LEAST_TRANSFORM = 512;  // a skip of as much needs no bytes that make sense
constexpr std::size_t LARGEST_DEVICE_GROWTH = 4 * TRANSFORM_LARGEST_BLOCK;

RedupOpener redupOpener = nullptr;  // written by archive_register_redup, before threads

std::size_t configuredSize(const char* key, int defaultSize) {
    const int size = ini_get_int(CONFIG_SECTION, key, defaultSize, g_master_ini);
    return static_cast<std::size_t>(size < 1 ? defaultSize : size);
}

bool isCharacterDevice(const char* path) {
    struct stat st {};
    return stat(path, &st) == 0 && S_ISCHR(st.st_mode);
}

int openForReading(archive_filter* filter, const char* path) {
    filter->fd.reset(open(path, O_RDONLY | O_CLOEXEC));
    if (!filter->fd.isOpen())
        return -1;
    filter->readAheadLowWaterMark =
        ini_get_int(CONFIG_SECTION, "readAheadLowWaterMark_archiverw", LOW_WATER_MARK, g_master_ini);
    filter->decryptBlockSize =
        roundUp(configuredSize("decryptBlockSize_archiverw", DECRYPT_BLOCK_SIZE), CDLIB_BLOCK_SIZE);
    filter->decompressBlockSize = configuredSize("decompressBlockSize_archiverw", DECOMPRESS_BLOCK_SIZE);
    filter->decompressedBlockSize = configuredSize("decompressedBlockSize_archiverw", DECOMPRESSED_BLOCK_SIZE);
    LOG_HERE(5, "read_odirect_archiverw: %d\n", static_cast<int>(filter->direct()));
    return 0;
}

// A backup is never overwritten.
int openForWriting(archive_filter* filter, const char* path, bool isDevice) {
    filter->set(ARCH_STREAM_MODE, isDevice);
    const int flags = O_WRONLY | O_CLOEXEC | (isDevice ? 0 : O_CREAT | O_EXCL);
    filter->fd.reset(open(path, flags, ARCHIVE_FILE_MODE));
    if (!filter->fd.isOpen()) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to open %s, flags 0x%x for writing: %s\n", path, static_cast<unsigned>(flags),
                 std::strerror(errno));
        return -1;
    }
    LOG_HERE(5, "write_odirect_archiverw: %d\n", static_cast<int>(filter->direct()));
    return 0;
}

int openFile(archive_filter* filter, const char* path) {
    const bool isDevice = isCharacterDevice(path);
    if (isDevice)
        filter->properties &= ~ARCHIVE_DIRECT_IO;
    const int opened = filter->mode == 'w' ? openForWriting(filter, path, isDevice) : openForReading(filter, path);
    if (opened == -1)
        return -1;
    archive_enable_direct(filter);
    struct stat st {};
    if (fstat(filter->fd.get(), &st) == 0 && st.st_blksize > 0)
        filter->fsBlockSize = static_cast<std::size_t>(st.st_blksize);
    filter->userBufferSize = roundUp(configuredSize("userbufsize_archiverw", USER_BUFFER_SIZE), USER_BUFFER_SIZE);
    filter->retainedBytes = RETAINED_BYTES;
    return archive_grow_device(filter, configuredSize("devbufsize_archiverw", DEVICE_BUFFER_SIZE));
}

int openRedup(archive_filter* filter, const char* path, const char* mode) {
    if (redupOpener == nullptr) {
        LOG_HERE(0, "Can't open %s, a deduplicated backup: not supported\n", path);
        return archive_fail(ENOTSUP);
    }
    filter->redup = redupOpener(path, mode, filter->properties);
    return filter->redup ? 0 : -1;
}

// More of the file behind what the device buffer holds, which may be a part of a long block. 0 or -1.
int fill(archive_filter* filter, std::size_t missing, bool forBuffer) {
    ArchiveBuffer& device = filter->device;
    // With O_DIRECT the first block may be read again for its last bytes.
    const std::size_t used = device.bytes + (filter->direct() && device.bytes > 0 ? filter->fsBlockSize : 0);
    if (used >= device.size && archive_grow_device(filter, 2 * device.size) == -1)
        return -1;
    return archive_fill_device(filter, missing, forBuffer);
}

// The end of the file has come, and too little is left to go on. 0 or -1.
int endOfFile(archive_filter* filter) {
    if (filter->isTransforming())
        return archive_transform_end(filter);
    filter->set(ARCH_END_OF_STREAM);
    return 0;
}

// Moves some bytes on their way from the file to the caller. 0, or 1 if the device buffer holds too little.
int step(archive_filter* filter, std::size_t missing, bool forBuffer) {
    if (!filter->has(ARCH_CONTEXT_READY))
        return filter->device.bytes == 0 && !filter->has(ARCH_PHYSICAL_EOF) ? 1 : archive_context_init(filter);
    if (!filter->isTransforming())
        return filter->device.bytes == 0 ? 1 : 0;
    if (filter->device.bytes == 0 && !filter->transform.isPending && !filter->has(ARCH_PHYSICAL_EOF))
        return 1;
    return archive_transform_some(filter, forBuffer || missing < LEAST_TRANSFORM ? 0 : missing);
}

// Makes sure that there are clean bytes, or that ARCH_END_OF_STREAM is set. 0 or -1.
int provide(archive_filter* filter, std::size_t missing, bool forBuffer) {
    while (!filter->has(ARCH_END_OF_STREAM)) {
        const int result = step(filter, missing, forBuffer);
        if (result == -1)
            return -1;
        if (result == 0 && filter->has(ARCH_CONTEXT_READY) && archive_clean_buffer(filter)->bytes > 0)
            return 0;
        if (result == 0)
            continue;
        if (filter->has(ARCH_PHYSICAL_EOF) || filter->device.bytes > LARGEST_DEVICE_GROWTH) {
            if (endOfFile(filter) == -1)
                return -1;
        } else if (fill(filter, missing, forBuffer) == -1) {
            return -1;
        }
    }
    return 0;
}

// What a read that came to the end gives: the bytes before it, then 0, or a failure if it came too early.
ssize_t atEnd(archive_filter* filter, std::size_t taken) {
    if (taken > 0) {
        LOG_HERE(5, "EOF at virtual offset %lld (%lld physical) indicated by transform state\n",
                 static_cast<long long>(filter->virt_offset), static_cast<long long>(filter->fd_offset));
        return static_cast<ssize_t>(taken);
    }
    // Not final: a caller may seek, or the file may have grown by the next call.
    filter->clearEnd();
    return std::exchange(filter->isDamagedEnd, false) ? archive_fail(EBADMSG) : 0;
}

ssize_t readStream(archive_filter* filter, std::byte* buffer, std::size_t count) {
    std::size_t taken = 0;
    while (taken < count) {
        ArchiveBuffer* clean = archive_clean_buffer(filter);
        if (clean->bytes == 0 || !filter->has(ARCH_CONTEXT_READY)) {
            if (provide(filter, count - taken, buffer != nullptr) == -1)
                return -1;
            clean = archive_clean_buffer(filter);
            if (clean->bytes == 0 || !filter->has(ARCH_CONTEXT_READY))
                return atEnd(filter, taken);
        }
        const std::size_t piece = std::min(count - taken, clean->bytes);
        if (buffer != nullptr)
            std::memcpy(buffer + taken, clean->begin(), piece);
        clean->take(piece);
        filter->virt_offset += static_cast<off_t>(piece);
        taken += piece;
        if (buffer == nullptr && count >= LEAST_TRANSFORM && filter->isEncrypted())
            clean->oldest = clean->start;  // it may not have been decrypted
    }
    return static_cast<ssize_t>(taken);
}

}  // namespace

ArchiveBuffer* archive_clean_buffer(archive_filter* filter) {
    return filter->isTransforming() ? &filter->user : &filter->device;
}

void archive_register_redup(RedupOpener opener) {
    redupOpener = opener;
}

ArchiveFilterPtr archive_open(const char* path, const char* mode, std::uint64_t properties) {
    if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w')) {
        LOG_HERE(0, "Invalid mode '%s' passed to archive_open for %s\n", mode != nullptr ? mode : "(null)", path);
        errno = EINVAL;
        return nullptr;
    }
    ArchiveFilterPtr filter(new (std::nothrow) archive_filter);
    if (!filter) {
        errno = ENOMEM;
        return nullptr;
    }
    filter->mode = mode[0];
    filter->properties = properties;
    const bool isDeduplicated = (properties & ARCHIVE_DEDUPLICATED) != 0;
    if ((isDeduplicated ? openRedup(filter.get(), path, mode) : openFile(filter.get(), path)) == -1) {
        const KeepErrno keep;
        filter.reset();
    }
    return filter;
}

ssize_t archive_read(archive_filter* filter, void* buffer, std::size_t count) {
    if (filter == nullptr || count > SSIZE_MAX)
        return archive_fail(EINVAL);
    if (filter->mode != 'r') {
        LOG_HERE(0, "File open only for writing, can't read\n");
        return archive_fail(EINVAL);
    }
    if (count == 0)
        return 0;
    if (filter->cheatSeek0 == 1) {
        filter->cheatSeek0 = 0;
        if (filter->redup ? filter->redup->seek(0, SEEK_SET) == -1
                          : filter->virt_offset != 0 && archive_seek_reading(filter, 0) == -1)
            return -1;
    }
    if (filter->redup)
        return filter->redup->read(buffer, count);
    if (filter->isPastEnd)
        return 0;
    if (buffer != nullptr && filter->readCounter != UINT_MAX)
        ++filter->readCounter;
    const ssize_t result = readStream(filter, static_cast<std::byte*>(buffer), count);
    if (filter->retainedShifts > 0)
        --filter->retainedShifts;
    return result;
}

void ArchiveFilterDeleter::operator()(archive_filter* filter) const noexcept {
    transform_close(&filter->transform, false);
    delete filter;
}

int archive_close(ArchiveFilterPtr* filter) {
    archive_filter* const f = filter->get();
    if (f == nullptr)
        return 0;
    int error = 0;
    if (f->mode == 'w' && !f->redup && archive_finish_writing(f) == -1) {
        error = errno;
        if (archive_is_recoverable(*f)) {
            LOG_HERE(0, "Failed to close archive filter, error is recoverable\n");
            return archive_fail(error);
        }
        if (!f->continue_on_error)
            LOG_HERE(0, "Clearing filter as continue_on_error was set to NOT continue");
    }
    transform_close(&f->transform, f->mode == 'w' && error == 0);
    const int descriptor = f->fd.release();
    if (descriptor != -1 && close(descriptor) == -1 && errno != EINTR && error == 0)
        error = errno;
    filter->reset();
    return error == 0 ? 0 : archive_fail(error);
}

off_t archive_physical_offset(const archive_filter* filter) {
    if (filter == nullptr)
        return 9;
    return filter->redup ? filter->redup->offset() : filter->fd_offset;
}

void archive_never_defer_seek(archive_filter* filter) {
    filter->cheatSeek0 = -1;
}

int archive_fd(const archive_filter* filter) {
    if (filter == nullptr)
        return -1;
    return filter->redup ? archive_fd(filter->redup->inner()) : filter->fd.get();
}
