#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include "archive/archive_internal.h"
#include "archive/tar_header.h"
#include "log/logger.h"

namespace {

constexpr std::size_t TRANSFORM_UNIT = 524288;
constexpr std::size_t LEAST_ZEROS = 4096;

// Through the transform into the device buffer. A failure is final: the stream can't be taken up again.
int transformOut(archive_filter* filter, std::span<const std::byte> data) {
    if (transform_write(&filter->transform, data, &filter->device, &filter->encr_extra_bytes) == 0)
        return 0;
    filter->isBroken = true;
    return -1;
}

// Hands bytes on, unit by unit, as long as the device takes them. `*accepted` counts those that are with the filter
// now.
int accept(archive_filter* filter, std::span<const std::byte> data, std::size_t* accepted) {
    ArchiveBuffer& user = filter->user;
    *accepted = 0;
    while (*accepted < data.size()) {
        const std::span<const std::byte> rest = data.subspan(*accepted);
        std::size_t count = TRANSFORM_UNIT;
        if (user.bytes == 0 && rest.size() >= TRANSFORM_UNIT) {
            if (transformOut(filter, rest.first(count)) == -1)
                return -1;
        } else {
            if (user.size == 0 && archive_grow_buffer(&user, filter->userBufferSize, 0) == -1)
                return -1;
            count = std::min(TRANSFORM_UNIT - user.bytes, rest.size());
            std::ranges::copy(rest.first(count), user.end());
            user.bytes += count;
            if (user.bytes == TRANSFORM_UNIT && transformOut(filter, user.content()) == -1)
                return -1;
            if (user.bytes == TRANSFORM_UNIT)
                user.empty();
        }
        *accepted += count;
        filter->virt_offset += static_cast<off_t>(count);
        if (archive_flush_device(filter, FlushMode::normal) == -1)
            return -1;
    }
    return 0;
}

// Puts all whole blocks of the user buffer through the transform now, and the token if it's still to come.
int forceTransform(archive_filter* filter) {
    ArchiveBuffer& user = filter->user;
    const std::size_t count = user.bytes / TAR_BLOCK * TAR_BLOCK;
    if (transformOut(filter, user.content().first(count)) == -1)
        return -1;
    user.bytes -= count;
    if (user.bytes > 0)
        std::memmove(user.data.get(), user.data.get() + count, user.bytes);
    return 0;
}

int writeZeros(archive_filter* filter, off_t count) {
    if (filter->zeroBuffer.empty())
        filter->zeroBuffer.resize(std::max(filter->fsBlockSize, LEAST_ZEROS));
    while (count > 0) {
        const auto piece = std::min(static_cast<std::size_t>(count), filter->zeroBuffer.size());
        std::size_t accepted = 0;
        if (accept(filter, std::span(filter->zeroBuffer).first(piece), &accepted) == -1)
            return -1;
        count -= static_cast<off_t>(accepted);
    }
    return 0;
}

// Leaves the blocks between the present position, which is a multiple of the block, and `target` out of the file.
int leaveHole(archive_filter* filter, off_t target) {
    const auto block = static_cast<off_t>(filter->fsBlockSize);
    const auto extra = static_cast<off_t>(filter->encr_extra_bytes);
    const off_t from = extra + filter->virt_offset;
    const off_t to = (extra + target) / block * block;
    if (to <= from)
        return 0;
    if (forceTransform(filter) == -1 || archive_flush_device(filter, FlushMode::forced) == -1)
        return -1;
    if (lseek(filter->fd.get(), to - from, SEEK_CUR) == -1)
        return -1;
    filter->fd_offset += to - from;
    filter->virt_offset = to - extra;
    return 0;
}

bool canLeaveHole(const archive_filter& filter, off_t length) {
    return (filter.transform.flags & TRANSFORM_COMPRESS) == 0 && !filter.has(ARCH_STREAM_MODE) &&
           length > static_cast<off_t>(filter.fsBlockSize);
}

int moveTo(archive_filter* filter, off_t target) {
    if (canLeaveHole(*filter, target - filter->virt_offset)) {
        // The token's length decides where the file's blocks begin.
        const bool isTokenMissing = (filter->transform.flags & TRANSFORM_ENCRYPT) != 0 && filter->encr_extra_bytes == 0;
        if (isTokenMissing && forceTransform(filter) == -1)
            return -1;
        const std::size_t position = filter->encr_extra_bytes + static_cast<std::size_t>(filter->virt_offset);
        const auto toBoundary = static_cast<off_t>(roundUp(position, filter->fsBlockSize) - position);
        if (writeZeros(filter, toBoundary) == -1 || leaveHole(filter, target) == -1)
            return -1;
    }
    return writeZeros(filter, target - filter->virt_offset);
}

// Carries out the seek that waits. One that failed goes on waiting, from where it came to.
int archive_lazy_write_seek(archive_filter* filter) {
    if (filter->lazySeek != LazySeek::pending)
        return 0;
    if (filter->seek_virt_offset < filter->virt_offset) {
        filter->writeFailed = false;  // wrong use, which no second try can help
        LOG_HERE(0, "Can't seek backwards for writes\n");
        return archive_fail(EINVAL);
    }
    filter->lazySeek = LazySeek::flushing;
    const int result = moveTo(filter, filter->seek_virt_offset);
    filter->lazySeek = result == 0 ? LazySeek::none : LazySeek::pending;
    return result;
}

int prepare(archive_filter* filter) {
    if (filter->has(ARCH_CONTEXT_READY) || archive_context_init(filter) == 0)
        return 0;
    filter->isBroken = true;
    return -1;
}

// The waiting seek, and then the bytes that were taken behind a failure.
int settle(archive_filter* filter) {
    if (prepare(filter) == -1)
        return -1;
    if (archive_lazy_write_seek(filter) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed lazy write seek\n");
        return -1;
    }
    if (filter->unwritten.empty())
        return 0;
    const std::vector<std::byte> waiting = std::exchange(filter->unwritten, {});
    std::size_t accepted = 0;
    const int result = accept(filter, waiting, &accepted);
    filter->unwritten.assign(waiting.begin() + static_cast<std::ptrdiff_t>(accepted), waiting.end());
    return result;
}

int writeData(archive_filter* filter, std::span<const std::byte> data) {
    std::size_t accepted = 0;
    const bool isSettled = settle(filter) == 0;
    if (isSettled && accept(filter, data, &accepted) == 0)
        return 0;
    const KeepErrno keep;
    if (archive_is_recoverable(*filter)) {
        const std::span<const std::byte> rest = data.subspan(accepted);
        filter->unwritten.insert(filter->unwritten.end(), rest.begin(), rest.end());
    }
    return -1;
}

// What the filter has from its caller and not given to the transform yet. 0 or -1.
int finishData(archive_filter* filter) {
    if (!filter->unwritten.empty() && settle(filter) == -1)
        return -1;
    if (transformOut(filter, filter->user.content()) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed flushing archive data to disk\n");
        return -1;
    }
    filter->user.empty();
    return 0;
}

// The index of a large file doesn't have to be in memory as a whole.
int finishIndex(archive_filter* filter) {
    for (;;) {
        const int result = transform_finish(&filter->transform, &filter->device);
        if (result == 0)
            return 0;
        if (result == -1) {
            const KeepErrno keep;
            filter->isBroken = true;
            LOG_HERE(0, "Failed flushing archive data to disk\n");
            return -1;
        }
        if (archive_flush_device(filter, FlushMode::normal) == -1)
            return -1;
    }
}

}  // namespace

ssize_t archive_write(archive_filter* filter, const void* data, std::size_t count) {
    if (filter == nullptr || count > SSIZE_MAX)
        return archive_fail(EINVAL);
    if (filter->mode != 'w' || filter->redup) {
        LOG_HERE(0, "%s\n",
                 filter->mode != 'w' ? "File open only for reading, can't write" : "Can't write deduplicated file");
        return archive_fail(EINVAL);
    }
    if (count == 0)
        return 0;
    if (filter->isBroken || filter->finishStep != FinishStep::data)
        return archive_fail(EIO);
    return writeData(filter, {static_cast<const std::byte*>(data), count}) == -1 ? -1 : static_cast<ssize_t>(count);
}

off_t archive_seek_writing(archive_filter* filter, off_t offset, int whence) {
    if (whence != SEEK_CUR) {
        LOG_HERE(0, "Can't seek in archive write mode\n");
        return archive_fail(EINVAL);
    }
    if (!filter->unwritten.empty() && settle(filter) == -1)
        return -1;  // the position isn't known before these are written
    const off_t from = std::max(filter->seek_virt_offset, filter->virt_offset);
    off_t target = 0;
    constexpr off_t ROOM_FOR_TOKEN = off_t{1} << 32;
    if (__builtin_add_overflow(from, offset, &target) || target < 0 || target > LONG_MAX - ROOM_FOR_TOKEN)
        return archive_fail(EINVAL);
    filter->set(ARCH_ADJUSTING_SIZE, !filter->has(ARCH_STREAM_MODE));
    filter->lazySeek = LazySeek::pending;
    filter->seek_virt_offset = target;
    return target;
}

int archive_finish_writing(archive_filter* filter) {
    if (filter->isBroken)
        return archive_fail(EIO);
    if (!filter->has(ARCH_CONTEXT_READY)) {  // nothing was written: neither token nor index
        if (filter->fd_size != 0)
            archive_adjust_size(filter, -1);
        return 0;
    }
    if (filter->finishStep == FinishStep::data) {
        if (finishData(filter) == -1)
            return -1;
        filter->finishStep = FinishStep::index;
    }
    if (filter->finishStep == FinishStep::index) {
        if (finishIndex(filter) == -1)
            return -1;
        filter->finishStep = FinishStep::flush;
    }
    if (archive_flush_device(filter, FlushMode::final) == -1) {
        const KeepErrno keep;
        if (archive_is_recoverable(*filter))
            LOG_HERE(0, "Error is recoverable\n");
        return -1;
    }
    LOG_HERE(3, "Finished writing archive data, %lld actual bytes, %lld virtual bytes\n",
             static_cast<long long>(filter->fd_offset), static_cast<long long>(filter->virt_offset));
    return 0;
}

ssize_t archive_rewrite(archive_filter* filter) {
    if (filter == nullptr || filter->mode != 'w' || filter->redup)
        return archive_fail(EINVAL);
    if (!archive_is_recoverable(*filter)) {
        LOG_HERE(0, "No prior correctable error\n");
        return archive_fail(EINVAL);
    }
    const std::size_t count = filter->device.bytes;
    LOG_HERE(0, "Rewriting %zu bytes\n", count);
    const FlushMode mode = filter->finishStep == FinishStep::flush ? FlushMode::final : FlushMode::normal;
    if (archive_flush_device(filter, mode) == -1 || (!filter->unwritten.empty() && settle(filter) == -1)) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to rewrite data\n");
        return -1;
    }
    return static_cast<ssize_t>(count);
}
