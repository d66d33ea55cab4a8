#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "archive/archive_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t WRITE_UNIT = 524288;
constexpr off_t SIZE_STEP = 10485760;

// Direct I/O takes whole blocks at multiples of a block alone. 0 or -1.
int dropDirect(archive_filter* filter) {
    if (!filter->direct())
        return 0;
    if (archive_set_direct(filter->fd.get(), false) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "ERROR: O_DIRECT failed to be removed for last write.\n");
        return -1;
    }
    filter->properties &= ~ARCHIVE_DIRECT_IO;
    return 0;
}

ssize_t writeOnce(int fd, const std::byte* from, std::size_t count) {
    ssize_t took = 0;
    do
        took = write(fd, from, count);
    while (took == -1 && errno == EINTR);
    if (took == 0)
        errno = EIO;
    return took;
}

// Direct I/O refuses what a limit cuts to a part of a block; the rest of the file does without it then.
bool canGoOnWithoutDirect(archive_filter* filter) {
    return errno == EINVAL && filter->direct() && dropDirect(filter) == 0;
}

// The first `count` bytes of the device buffer. What couldn't be written moves to its start, stays, and is owed.
int writeOut(archive_filter* filter, std::size_t count) {
    ArchiveBuffer& device = filter->device;
    // A device that was full may have taken a part of a block.
    if (filter->fd_offset % static_cast<off_t>(filter->fsBlockSize) != 0 && dropDirect(filter) == -1)
        return -1;
    const std::size_t unit = filter->blocksize != 0 ? filter->blocksize : count;
    std::size_t done = 0;
    while (done < count) {
        const ssize_t took = writeOnce(filter->fd.get(), device.begin() + done, std::min(unit, count - done));
        if (took <= 0 && !canGoOnWithoutDirect(filter))
            break;
        done += static_cast<std::size_t>(std::max<ssize_t>(took, 0));
    }
    const KeepErrno keep;
    filter->fd_offset += static_cast<off_t>(done);
    filter->owedBytes = count - done;
    device.take(done);
    std::memmove(device.data.get(), device.begin(), device.bytes);
    device.oldest = device.start = 0;
    if (done == count)
        return 0;
    LOG_HERE(0, "Could not write: %s\n", std::strerror(errno));
    filter->writeFailed = true;
    return -1;
}

// The partial block at the end of what is buffered.
int writePart(archive_filter* filter, FlushMode mode) {
    ArchiveBuffer& device = filter->device;
    std::size_t count = device.bytes;
    if (mode == FlushMode::final) {
        if (filter->blocksize != 0 && filter->has(ARCH_PAD_BLOCKS)) {
            count = filter->blocksize;
            if (archive_grow_device(filter, count) == -1)
                return -1;
            std::memset(device.end(), 0, count - device.bytes);
            device.bytes = count;
        }
        if (dropDirect(filter) == -1)
            return -1;
    }
    return writeOut(filter, count);
}

}  // namespace

int archive_flush_device(archive_filter* filter, FlushMode mode) {
    ArchiveBuffer& device = filter->device;
    filter->writeFailed = false;
    const std::size_t block = filter->blocksize != 0 ? filter->blocksize : WRITE_UNIT;
    const std::size_t whole = filter->owedBytes + (device.bytes - filter->owedBytes) / block * block;
    if (mode == FlushMode::normal && whole == 0)
        return 0;
    if (filter->has(ARCH_ADJUSTING_SIZE))
        archive_adjust_size(filter, 0);
    if (whole > 0 && writeOut(filter, whole) == -1)
        return -1;
    if (mode != FlushMode::normal && device.bytes > 0 && writePart(filter, mode) == -1)
        return -1;
    if (mode == FlushMode::final && filter->has(ARCH_ADJUSTING_SIZE))
        archive_adjust_size(filter, -1);
    return 0;
}

void archive_adjust_size(archive_filter* filter, long sizeGrowthEstimate) {
    if (filter == nullptr || filter->mode != 'w') {
        LOG_HERE(0, "File open only for reading, can't adjust size.\n");
        return;
    }
    const KeepErrno keep;
    off_t size = filter->fd_size;
    if (sizeGrowthEstimate <= -1) {
        size = filter->fd_offset;
    } else {
        filter->set(ARCH_ADJUSTING_SIZE);
        if (size == 0)
            size = SIZE_STEP;
        for (const off_t more : {static_cast<off_t>(filter->device.bytes), static_cast<off_t>(sizeGrowthEstimate)}) {
            off_t needed = 0;
            if (__builtin_add_overflow(filter->fd_offset, more, &needed) || needed > size)
                (void)__builtin_add_overflow(needed, SIZE_STEP, &size);
        }
    }
    if (size == filter->fd_size)
        return;
    filter->fd_size = size;
    if (ftruncate(filter->fd.get(), size) == -1)
        LOG_HERE(0, "ERROR: failed to set size to %ld: %s!\n", static_cast<long>(size), std::strerror(errno));
}
