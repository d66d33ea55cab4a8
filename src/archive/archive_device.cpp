#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "archive/archive_internal.h"
#include "foundation/logger.h"

namespace {

constexpr std::size_t SHORTEST_READ = 8192;
constexpr std::size_t SHORT_READ_UNIT = 512;
constexpr std::size_t BUFFER_ALIGNMENT = 4096;
constexpr std::size_t LARGEST_BUFFER = std::size_t{1} << 40;

int setDirect(int fd, bool on) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1)
        return -1;
    return fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT);
}

// The last part of a file, not a whole block, is read without O_DIRECT.
ssize_t readOnceWithoutDirect(int fd, std::byte* to, std::size_t count) {
    if (setDirect(fd, false) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "ERROR: O_DIRECT failed to be removed for last read.\n");
        return -1;
    }
    ssize_t got = 0;
    do
        got = read(fd, to, count);
    while (got == -1 && errno == EINTR);
    const KeepErrno keep;
    if (setDirect(fd, true) == -1)
        LOG_HERE(0, "ERROR: failed to reset O_DIRECT.\n");
    return got;
}

// Where one physical read starts and where its bytes go.
struct ReadPlan {
    off_t filePosition;  // of the first byte read
    std::size_t to;      // its place in the buffer
    std::size_t total;   // bytes wanted
    std::size_t known;   // bytes at the front that were read before
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

// Puts what the buffer holds, and the descriptor, where the read can go on.
int planRead(archive_filter* filter, std::size_t wanted, ReadPlan* plan) {
    DeviceBuffer& device = filter->device;
    if (filter->direct()) {
        const auto block = static_cast<off_t>(filter->fsBlockSize);
        const off_t unread = filter->fd_offset - static_cast<off_t>(device.bytes);
        const off_t boundary = unread - unread % block;
        if (boundary != filter->fd_offset && lseek(filter->file.get(), boundary, SEEK_SET) == -1) {
            const KeepErrno keep;
            LOG_HERE(0, "Failed to seek back %ld, a %zu boundary for O_DIRECT.\n", filter->fd_offset - boundary,
                     filter->fsBlockSize);
            return -1;
        }
        *plan = {boundary, 0, 0, static_cast<std::size_t>(filter->fd_offset - boundary)};
        plan->total = roundUp(plan->known + wanted, filter->fsBlockSize);
    } else {
        std::memmove(device.data.get(), device.data.get() + device.start, device.bytes);
        *plan = {filter->fd_offset, device.bytes, wanted, 0};
    }
    if (filter->blocksize != 0)
        plan->total = roundUp(plan->total, filter->blocksize);
    plan->total = std::min(plan->total, device.size - plan->to);
    return 0;
}

// Reads until all is in or the file ends. `*got` counts what came, also when the end is -1.
int readPhysically(archive_filter* filter, const ReadPlan& plan, std::size_t* got) {
    const int fd = filter->file.get();
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
            filter->physicalEof = true;
            return 0;
        }
        *got += static_cast<std::size_t>(count);
    }
    return 0;
}

void dropDiscarded(archive_filter* filter) {
    DeviceBuffer& device = filter->device;
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
    DeviceBuffer& device = filter->device;
    const std::size_t front = plan.known > 0 ? plan.known - device.bytes : 0;  // lies before the first unread byte
    if (got < plan.known) {
        // The file shrank, or the read failed. The next read must not deliver the bytes before the position again.
        if (filter->physicalEof)
            LOG_HERE(0, "ERROR: O_DIRECT set but could not reset offset to block boundary.\n");
        filter->fd_offset = plan.filePosition + static_cast<off_t>(front);
        (void)lseek(filter->file.get(), filter->fd_offset, SEEK_SET);  // it was there a moment ago
        device.empty();
        return;
    }
    filter->fd_offset = plan.filePosition + static_cast<off_t>(got);
    device.oldest = 0;
    device.start = front;
    device.bytes = plan.to + got - front;
    dropDiscarded(filter);
}

}  // namespace

void archive_enable_direct(archive_filter* filter) {
    if (filter->direct() && setDirect(filter->file.get(), true) == -1) {
        LOG_HERE(3, "NOTICE: failed to set O_DIRECT, read without O_DIRECT: %s.\n", std::strerror(errno));
        filter->properties &= ~ARCHIVE_DIRECT_IO;
    }
}

int archive_grow_device(archive_filter* filter, std::size_t size) {
    DeviceBuffer& device = filter->device;
    size = roundUp(std::min(size, LARGEST_BUFFER), filter->blocksize != 0 ? filter->blocksize : filter->fsBlockSize);
    if (size <= device.size)
        return 0;
    void* block = nullptr;
    const int error = posix_memalign(&block, BUFFER_ALIGNMENT, size);
    if (error != 0) {
        LOG_HERE(0, "ERROR:  failed to reallocate buffer (%zu bytes): %s.\n", size, std::strerror(error));
        errno = ENOMEM;
        return -1;
    }
    MallocPtr<std::byte> grown(static_cast<std::byte*>(block));
    if (device.bytes > 0)
        std::memcpy(grown.get(), device.data.get() + device.start, device.bytes);
    device.data = std::move(grown);
    device.size = size;
    device.oldest = device.start = 0;
    return 0;
}

int archive_fill_device(archive_filter* filter, std::size_t missing, bool forBuffer) {
    if (!filter->file.isOpen()) {
        errno = EBADF;
        return -1;
    }
    ReadPlan plan{};
    if (planRead(filter, wantedSize(filter, missing, forBuffer), &plan) == -1)
        return -1;
    std::size_t got = 0;
    const int result = readPhysically(filter, plan, &got);
    const KeepErrno keep;
    takeOver(filter, plan, got);
    return result;
}
