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

// Where one physical read starts and where its bytes go.
struct ReadPlan {
    off_t filePosition;  // of the first byte read
    std::size_t to;      // its place in the buffer
    std::size_t total;   // bytes wanted
    std::size_t known;   // bytes at the front that were read before
    std::size_t kept;    // bytes in front of `to` that were handed out and stay
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
    const std::size_t least = std::min(std::max(missing, SHORTEST_READ), filter->device.size);
    return roundUp(least, SHORT_READ_UNIT);
}

// Handed-out bytes in front of index `end` that are to stay while the rest moves to the front.
std::size_t bytesToKeep(const archive_filter& filter, std::size_t end) {
    const ArchiveBuffer& device = filter.device;
    if (filter.retainedShifts <= 0 || filter.isTransforming() || end < device.oldest)
        return 0;
    const std::size_t most = device.size / 4 / filter.fsBlockSize * filter.fsBlockSize;  // the rest is for what is read
    return std::min({filter.retainedBytes, end - device.oldest, most});
}

// Puts what the buffer holds, and the descriptor, where the read can go on. With O_DIRECT both the place in the file
// and the place in memory are multiples of the block.
int planRead(archive_filter* filter, std::size_t wanted, ReadPlan* plan) {
    ArchiveBuffer& device = filter->device;
    std::byte* const data = device.data.get();
    if (filter->direct()) {
        const auto block = static_cast<off_t>(filter->fsBlockSize);
        const off_t unread = filter->fd_offset - static_cast<off_t>(device.bytes);
        const off_t boundary = unread - unread % block;
        if (boundary != filter->fd_offset && lseek(filter->fd.get(), boundary, SEEK_SET) == -1) {
            const KeepErrno keep;
            LOG_HERE(0, "Failed to seek back %ld, a %zu boundary for O_DIRECT.\n", filter->fd_offset - boundary,
                     filter->fsBlockSize);
            return -1;
        }
        const auto front = static_cast<std::size_t>(unread - boundary);
        const std::size_t end = device.start - std::min(front, device.start);
        const std::size_t kept = bytesToKeep(*filter, end);
        *plan = {boundary, roundUp(kept, filter->fsBlockSize), 0,
                 static_cast<std::size_t>(filter->fd_offset - boundary), kept};
        std::memmove(data + plan->to - kept, data + end - kept, kept);
        plan->total = roundUp(plan->known + wanted, filter->fsBlockSize);
    } else {
        const std::size_t kept = bytesToKeep(*filter, device.start);
        std::memmove(data, device.begin() - kept, kept + device.bytes);
        *plan = {filter->fd_offset, kept + device.bytes, wanted, 0, kept};
    }
    if (filter->blocksize != 0)
        plan->total = roundUp(plan->total, filter->blocksize);
    plan->total = std::min(plan->total, device.size - plan->to);
    return 0;
}

// Reads until all is in or the file ends. `*got` counts what came, also when the end is -1.
int readPhysically(archive_filter* filter, const ReadPlan& plan, std::size_t* got) {
    const int fd = filter->fd.get();
    std::byte* to = filter->device.data.get() + plan.to;
    const std::size_t unit = filter->blocksize != 0 ? filter->blocksize : plan.total;
    while (*got < plan.total) {
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
            filter->set(ARCH_PHYSICAL_EOF);
            return 0;
        }
        *got += static_cast<std::size_t>(count);
    }
    return 0;
}

void dropDiscarded(archive_filter* filter) {
    ArchiveBuffer& device = filter->device;
    const auto dropped = std::min<std::int64_t>(filter->discardBytes, static_cast<std::int64_t>(device.bytes));
    if (dropped <= 0)
        return;
    filter->discardBytes -= dropped;
    device.start += static_cast<std::size_t>(dropped);
    device.bytes -= static_cast<std::size_t>(dropped);
    device.oldest = device.start;  // no part of the stream
}

// Makes the bytes that came the buffer's content.
void takeOver(archive_filter* filter, const ReadPlan& plan, std::size_t got) {
    ArchiveBuffer& device = filter->device;
    const std::size_t front = plan.known > 0 ? plan.known - device.bytes : 0;  // lies before the first unread byte
    if (got < plan.known) {
        // The file shrank, or the read failed. The next read must not deliver the bytes before the position again.
        if (filter->has(ARCH_PHYSICAL_EOF))
            LOG_HERE(0, "ERROR: O_DIRECT set but could not reset offset to block boundary.\n");
        filter->fd_offset = plan.filePosition + static_cast<off_t>(front);
        (void)lseek(filter->fd.get(), filter->fd_offset, SEEK_SET);  // it was there a moment ago
        device.empty();
        return;
    }
    filter->fd_offset = plan.filePosition + static_cast<off_t>(got);
    if (filter->direct()) {
        device.oldest = plan.to - plan.kept;
        device.start = plan.to + front;
        device.bytes = got - front;
    } else {
        device.oldest = 0;
        device.start = plan.kept;
        device.bytes += got;
    }
    dropDiscarded(filter);
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
