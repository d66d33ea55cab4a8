#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "archive/archive_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t SHORTEST_READ = 8192;
constexpr std::size_t SHORT_READ_UNIT = 512;
constexpr std::size_t BUFFER_ALIGNMENT = 4096;
constexpr std::size_t LARGEST_BUFFER = std::size_t{1} << 40;

// The last part of a file, not a whole block, is read without O_DIRECT.
ssize_t readOnceWithoutDirect(int fd, std::byte* to, std::size_t count) {
    if (archive_set_direct(fd, false) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "ERROR: O_DIRECT failed to be removed for last read.\n");
        return -1;
    }
    ssize_t got = 0;
    do
        got = read(fd, to, count);
    while (got == -1 && errno == EINTR);
    const KeepErrno keep;
    if (archive_set_direct(fd, true) == -1)
        LOG_HERE(0, "ERROR: failed to reset O_DIRECT.\n");
    return got;
}

// One physical read. Its first `head` bytes lie before the descriptor: they were read before, and are read again
// because direct I/O begins at whole blocks.
struct ReadPlan {
    off_t filePosition;
    std::size_t to;  // place in the buffer
    std::size_t total;
    std::size_t head;
};

std::size_t wantedSize(archive_filter* filter, std::size_t missing, bool forBuffer) {
    if (filter->lastSeekOutOfBuffer) {
        filter->lastSeekOutOfBuffer = false;
        filter->readCounter = forBuffer ? 1 : 0;
    }
    // A reader that hops through the file must not pay for a whole buffer at each hop.
    const int mark = filter->readAheadLowWaterMark;
    if (mark < 0 || filter->readCounter > static_cast<unsigned>(mark))
        return filter->device.size;
    // What is held didn't do: as much again saves reads of long units.
    const std::size_t least = std::min(std::max({missing, SHORTEST_READ, filter->device.bytes}), filter->device.size);
    return roundUp(least, SHORT_READ_UNIT);
}

// Handed-out bytes that are to stay in front of what is held.
std::size_t bytesToKeep(const archive_filter& filter) {
    const ArchiveBuffer& device = filter.device;
    if (filter.retainedShifts <= 0 || filter.isTransforming())
        return 0;
    return std::min({filter.retainedBytes, device.start - device.oldest, device.size / 4});  // the rest is for reading
}

// Moves what is held so that reading can go on behind it. With O_DIRECT the block in which the descriptor stands begins
// at a multiple of the block, in the file and in memory; otherwise a block is a byte. 0 or -1.
int planRead(archive_filter* filter, std::size_t wanted, ReadPlan* plan) {
    ArchiveBuffer& device = filter->device;
    const std::size_t block = filter->direct() ? filter->fsBlockSize : 1;
    const std::size_t unit = filter->blocksize != 0 ? filter->blocksize : block;
    const std::size_t head = static_cast<std::size_t>(filter->fd_offset) % block;
    const auto placeFor = [&](std::size_t held) { return roundUp(held - std::min(held, head), block); };
    std::size_t kept = bytesToKeep(*filter);
    if (placeFor(kept + device.bytes) + unit > device.size)
        kept = 0;
    const std::size_t held = kept + device.bytes;
    const std::size_t to = placeFor(held);
    if (to + unit > device.size && archive_grow_device(filter, std::max(2 * device.size, to + unit)) == -1)
        return -1;
    *plan = {filter->fd_offset - static_cast<off_t>(head), to,
             std::min(roundUp(head + wanted, unit), (device.size - to) / unit * unit), head};
    if (head != 0 && lseek(filter->fd.get(), plan->filePosition, SEEK_SET) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to seek back %ld, a %zu boundary for O_DIRECT.\n", static_cast<long>(head), block);
        return -1;
    }
    const std::size_t end = to + head;
    std::memmove(device.data.get() + end - held, device.begin() - kept, held);
    device.oldest = end - held;
    device.start = end - device.bytes;
    return 0;
}

// Reads until all is in or the file ends. `*got` counts what came, also when the end is -1.
int readPhysically(archive_filter* filter, const ReadPlan& plan, std::size_t* got) {
    const int fd = filter->fd.get();
    std::byte* to = filter->device.data.get() + plan.to;
    const std::size_t unit = filter->blocksize != 0 ? filter->blocksize : plan.total;
    // In blocks nothing but whole ones is asked for, also behind a short one: of a tape the rest of a block is lost.
    const std::size_t least = filter->blocksize != 0 ? unit : 1;
    while (plan.total - *got >= least) {
        const std::size_t piece = std::min(unit, plan.total - *got);
        ssize_t count = read(fd, to + *got, piece);
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1 && filter->direct())
            count = readOnceWithoutDirect(fd, to + *got, piece);
        if (count == -1) {
            const KeepErrno keep;
            const char* reason = std::strerror(errno);
            LOG_HERE(0, "Failed reading after %lld physical bytes, devbuf=%p, blocksize=%zu: %s\n",
                     static_cast<long long>(plan.filePosition) + static_cast<long long>(*got),
                     static_cast<void*>(filter->device.data.get()), filter->blocksize, reason);
            LOG_HERE(0, "Failed reading after %lld bytes: %s\n", static_cast<long long>(filter->virt_offset), reason);
            return -1;
        }
        if (count == 0) {
            LOG_HERE(5, "Short read at EOF after %lld physical bytes\n",
                     static_cast<long long>(plan.filePosition) + static_cast<long long>(*got));
            filter->end.physical = true;
            return 0;
        }
        *got += static_cast<std::size_t>(count);
    }
    return 0;
}

// Makes the bytes that came the buffer's content, less those of a volume's head that are to be dropped.
void takeOver(archive_filter* filter, const ReadPlan& plan, std::size_t got) {
    ArchiveBuffer& device = filter->device;
    if (got < plan.head) {
        // The file shrank, or the read failed. The next read must not deliver the bytes before the position again.
        if (filter->end.physical)
            LOG_HERE(0, "ERROR: O_DIRECT set but could not reset offset to block boundary.\n");
        (void)lseek(filter->fd.get(), filter->fd_offset, SEEK_SET);  // it was there a moment ago
        return;
    }
    filter->fd_offset = plan.filePosition + static_cast<off_t>(got);
    const std::size_t fresh = got - plan.head;
    const auto dropped = std::min(static_cast<std::size_t>(filter->discardBytes), fresh);
    if (dropped > 0)
        std::memmove(device.end(), device.end() + dropped, fresh - dropped);
    filter->discardBytes -= static_cast<std::int64_t>(dropped);
    device.bytes += fresh - dropped;
}

}  // namespace

int archive_set_direct(int fd, bool on) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1)
        return -1;
    return fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT);
}

void archive_enable_direct(archive_filter* filter) {
    if (filter->direct() && archive_set_direct(filter->fd.get(), true) == -1) {
        LOG_HERE(3, "NOTICE: failed to set O_DIRECT, %s without O_DIRECT: %s.\n",
                 filter->mode == 'w' ? "write" : "read", std::strerror(errno));
        filter->properties &= ~ARCHIVE_DIRECT_IO;
    }
}

int archive_grow_buffer(ArchiveBuffer* buffer, std::size_t size, std::size_t behind) {
    if (size <= buffer->size)
        return 0;
    void* block = nullptr;
    const int error = size > LARGEST_BUFFER ? ENOMEM : posix_memalign(&block, BUFFER_ALIGNMENT, size);
    if (error != 0) {
        LOG_HERE(0, "ERROR:  failed to reallocate buffer (%zu bytes): %s.\n", size, std::strerror(error));
        return archive_fail(ENOMEM);
    }
    MallocPtr<std::byte> grown(static_cast<std::byte*>(block));
    if (buffer->data)
        std::memcpy(grown.get(), buffer->data.get(), buffer->start + buffer->bytes + behind);
    buffer->data = std::move(grown);
    buffer->size = size;
    return 0;
}

int archive_grow_device(archive_filter* filter, std::size_t size) {
    const std::size_t unit = filter->blocksize != 0 ? filter->blocksize : filter->fsBlockSize;
    return archive_grow_buffer(&filter->device, roundUp(std::min(size, LARGEST_BUFFER - unit), unit), 0);
}

int archive_fill_device(archive_filter* filter, std::size_t missing, bool forBuffer) {
    if (!filter->fd.isOpen())
        return archive_fail(EBADF);
    ReadPlan plan{};
    if (planRead(filter, wantedSize(filter, missing, forBuffer), &plan) == -1)
        return -1;
    std::size_t got = 0;
    const int result = readPhysically(filter, plan, &got);
    const KeepErrno keep;
    takeOver(filter, plan, got);
    return result;
}
