// The way of the bytes to a reader.

#include <algorithm>
#include <climits>
#include <cstring>

#include "archive/archive_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t LEAST_TRANSFORM = 512;  // a skip of as much needs no bytes that make sense
constexpr std::size_t LARGEST_DEVICE_GROWTH = 4 * TRANSFORM_LARGEST_BLOCK;

// The end of the file has come, and too little is left to go on. 0 or -1.
int endOfFile(archive_filter* filter) {
    if (filter->isTransforming())
        return archive_transform_end(filter);
    filter->end.stream = true;
    return 0;
}

// Moves some bytes on their way from the file to the caller. 0, or 1 if the device buffer holds too little.
int step(archive_filter* filter, std::size_t missing, bool forBuffer) {
    if (!filter->has(ARCH_CONTEXT_READY))
        return filter->device.bytes == 0 && !filter->end.physical ? 1 : archive_context_init(filter);
    if (!filter->isTransforming())
        return filter->device.bytes == 0 ? 1 : 0;
    if (filter->device.bytes == 0 && !filter->transform.isPending && !filter->end.physical)
        return 1;
    return archive_transform_some(filter, forBuffer || missing < LEAST_TRANSFORM ? 0 : missing);
}

// Makes sure that there are clean bytes, or that end.stream is set. 0 or -1.
int provide(archive_filter* filter, std::size_t missing, bool forBuffer) {
    while (!filter->end.stream) {
        const int result = step(filter, missing, forBuffer);
        if (result == -1)
            return -1;
        if (result == 0 && filter->has(ARCH_CONTEXT_READY) && archive_clean_buffer(filter)->bytes > 0)
            return 0;
        if (result == 0)
            continue;
        if (filter->end.physical || filter->device.bytes > LARGEST_DEVICE_GROWTH) {
            if (endOfFile(filter) == -1)
                return -1;
        } else if (archive_fill_device(filter, missing, forBuffer) == -1) {
            return -1;
        }
    }
    return 0;
}

// Nothing is left. Not final: a caller may seek, or the file may have grown by the next call. 0, or -1 if the end came
// too early.
int atEnd(archive_filter* filter) {
    const bool isDamaged = filter->end.damaged;
    filter->end = {};
    return isDamaged ? archive_fail(EBADMSG) : 0;
}

// The seek to 0 that waits goes on waiting if it fails.
int rewindNow(archive_filter* filter) {
    const bool isFailed = filter->redup ? filter->redup->seek(0, SEEK_SET) == -1
                                        : filter->virt_offset != 0 && archive_seek_reading(filter, 0) == -1;
    if (isFailed)
        return -1;
    filter->cheatSeek0 = 0;
    return 0;
}

}  // namespace

ArchiveBuffer* archive_clean_buffer(archive_filter* filter) {
    return filter->isTransforming() ? &filter->user : &filter->device;
}

int archive_read_stream(archive_filter* filter, std::byte* buffer, std::size_t count, std::size_t* taken) {
    for (*taken = 0; *taken < count;) {
        ArchiveBuffer* clean = archive_clean_buffer(filter);
        if (clean->bytes == 0 || !filter->has(ARCH_CONTEXT_READY)) {
            if (provide(filter, count - *taken, buffer != nullptr) == -1)
                return -1;
            clean = archive_clean_buffer(filter);
            if (clean->bytes == 0 || !filter->has(ARCH_CONTEXT_READY)) {
                LOG_HERE(5, "EOF at virtual offset %lld (%lld physical) indicated by transform state\n",
                         static_cast<long long>(filter->virt_offset), static_cast<long long>(filter->fd_offset));
                return *taken > 0 ? 0 : atEnd(filter);
            }
        }
        const std::size_t piece = std::min(count - *taken, clean->bytes);
        if (buffer != nullptr)
            std::memcpy(buffer + *taken, clean->begin(), piece);
        clean->take(piece);
        filter->virt_offset += static_cast<off_t>(piece);
        *taken += piece;
        if (buffer == nullptr && count >= LEAST_TRANSFORM && filter->isEncrypted())
            clean->oldest = clean->start;  // it may not have been decrypted
    }
    return 0;
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
    if (filter->cheatSeek0 == 1 && rewindNow(filter) == -1)
        return -1;
    if (filter->redup)
        return filter->redup->read(buffer, count);
    if (filter->end.past)
        return 0;
    std::size_t taken = 0;
    // A seek that failed may have stopped inside the token, which is no part of the stream.
    if (filter->virt_offset < 0 &&
        archive_read_stream(filter, nullptr, static_cast<std::size_t>(-filter->virt_offset), &taken) == -1)
        return -1;
    if (buffer != nullptr && filter->readCounter != UINT_MAX)
        ++filter->readCounter;
    const int result = archive_read_stream(filter, static_cast<std::byte*>(buffer), count, &taken);
    if (filter->retainedShifts > 0)
        --filter->retainedShifts;
    // What came before a failure is good, and the caller's; the next call meets the failure again.
    return result == -1 && taken == 0 ? -1 : static_cast<ssize_t>(taken);
}
