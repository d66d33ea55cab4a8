#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "archive/archive_internal.h"
#include "log/logger.h"

namespace {

constexpr off_t CONTEXT_READ = 512;          // read in front of a first seek, to learn what the file holds
constexpr off_t LONGEST_STEP_BACK = 131072;  // after which the coming reads keep what they handed out
constexpr off_t RETAINED_ANYWAY = 8192;
constexpr int RETAINED_SHIFTS = 10;
constexpr off_t SHORT_SKIP = 32769;  // forward in compressed data: fewer bytes are skipped by reading
constexpr off_t CRYPT_UNIT = CDLIB_BLOCK_SIZE;

off_t failSeek(int error) {
    return archive_fail(error);
}

// What the filter knew of the former place is void; the descriptor or the device buffer are at the new one.
void arriveAt(archive_filter* filter, off_t target) {
    archive_transform_restart(filter);
    filter->virt_offset = target;
    filter->end = {};
}

// Within the device buffer, `skip` from its next byte. Nothing is read.
bool moveInDevice(archive_filter* filter, off_t skip) {
    if (!filter->device.holds(skip))
        return false;
    filter->device.move(skip);
    return true;
}

int moveDescriptor(archive_filter* filter, off_t physical, off_t skip) {
    if (lseek(filter->fd.get(), physical, SEEK_SET) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to seek to offset %lld: %s\n", static_cast<long long>(physical), std::strerror(errno));
        return -1;
    }
    filter->fd_offset = physical;
    filter->device.empty();
    if (std::abs(skip) > static_cast<off_t>(filter->device.size))
        filter->lastSeekOutOfBuffer = true;
    return 0;
}

// The first seek reads the start of the file: its kind decides how positions are found. 0 or -1.
int learnContext(archive_filter* filter, off_t skip) {
    std::size_t got = 0;
    if (archive_read_stream(filter, nullptr, static_cast<std::size_t>(std::min(skip, CONTEXT_READ)), &got) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to read to requested seek offset, %d\n", -1);
        return -1;
    }
    if (!filter->has(ARCH_CONTEXT_READY))
        LOG_HERE(2, "Partial seek: more data needed to initialize context\n");
    return 0;
}

// The rest of the way, by reading. Returns where that led to.
off_t readUpTo(archive_filter* filter, off_t target) {
    const off_t missing = target - filter->virt_offset;
    if (missing < 0) {
        LOG_HERE(0, "Failed to seek: Internal error: negative read offset (%lld)\n", static_cast<long long>(missing));
        return failSeek(EBADMSG);
    }
    std::size_t got = 0;
    if (archive_read_stream(filter, nullptr, static_cast<std::size_t>(missing), &got) == -1) {
        const KeepErrno keep;
        LOG_HERE(0, "Failed to read to requested seek offset\n");
        return -1;
    }
    return filter->virt_offset < 0 ? failSeek(EBADMSG) : filter->virt_offset;  // below 0 the token was cut
}

// A reader that steps back a little is likely to do so again.
void retainFor(archive_filter* filter, off_t skip) {
    if (skip >= 0 || -skip > LONGEST_STEP_BACK)
        return;
    filter->retainedShifts = RETAINED_SHIFTS;
    if (-skip > RETAINED_ANYWAY)
        filter->retainedBytes = roundUp(static_cast<std::size_t>(-skip), 512);
}

// A cipher unit can only be decrypted as a whole, so the way begins at the start of one.
off_t seekUncompressed(archive_filter* filter, off_t target) {
    const off_t aligned = filter->isEncrypted() ? target - target % CRYPT_UNIT : target;
    const off_t deviceAt = filter->virt_offset +
                           (filter->isTransforming() ? static_cast<off_t>(filter->user.bytes + filter->rawBytes) : 0);
    if (!moveInDevice(filter, aligned - deviceAt) &&
        moveDescriptor(filter, aligned + static_cast<off_t>(filter->encr_extra_bytes), target - filter->virt_offset) ==
            -1)
        return -1;
    arriveAt(filter, aligned);
    return aligned == target ? target : readUpTo(filter, target);
}

// The descriptor stays where it is.
int loadIndex(archive_filter* filter) {
    if (filter->positioner)
        return 0;
    std::string error;
    auto index = LoadCompressionIndex(filter->fd.get(), &error);
    const bool isUsable = index && index->count() > 0 && index->chunkSize > 0 &&
                          (!filter->isEncrypted() || index->chunkSize % CDLIB_BLOCK_SIZE == 0) &&
                          std::ranges::is_sorted(index->entries) && index->entries.front() >= 0;
    if (!isUsable) {
        LOG_HERE(0, "Failed to load index: %s\n", index ? "its chunks make no sense" : error.c_str());
        return archive_fail(EBADMSG);
    }
    filter->positioner = std::move(index);
    return 0;
}

// Nothing can be read there until another seek, whatever the descriptor stands at.
off_t seekPastEnd(archive_filter* filter, off_t target) {
    const compression_index& index = *filter->positioner;
    LOG_HERE(4, "Requested seek offset %lld out of range (%zu index entries of size %zu each)\n",
             static_cast<long long>(target), index.count(), index.chunkSize);
    const auto end = static_cast<off_t>(index.count() * index.chunkSize);
    filter->device.empty();
    arriveAt(filter, end - static_cast<off_t>(filter->encr_extra_bytes));
    filter->fd_offset = end;
    filter->end.past = filter->end.physical = true;
    return filter->virt_offset;
}

// To the start of a compressed stream at `physical`.
int jump(archive_filter* filter, off_t physical, off_t skip) {
    const off_t deviceAt = filter->fd_offset - static_cast<off_t>(filter->device.bytes);
    const bool isInDevice = filter->device.bytes > 0 && physical < filter->fd_offset;
    return isInDevice && moveInDevice(filter, physical - deviceAt) ? 0 : moveDescriptor(filter, physical, skip);
}

off_t seekCompressed(archive_filter* filter, off_t target) {
    const auto extra = static_cast<off_t>(filter->encr_extra_bytes);
    const off_t skip = target - filter->virt_offset;
    off_t chunkStart = 0;  // in the stream with its token
    off_t physical = 0;
    if (target != 0) {  // the start is where it is without an index
        if (loadIndex(filter) == -1)
            return -1;
        const compression_index& index = *filter->positioner;
        const auto chunk = static_cast<off_t>(index.chunkSize);
        const off_t wanted = (extra + target) / chunk;
        if (wanted >= static_cast<off_t>(index.count()))
            return seekPastEnd(filter, target);
        const bool isInChunk = extra + filter->virt_offset >= 0 && (extra + filter->virt_offset) / chunk == wanted;
        if (!filter->end.past && skip > 0 && (isInChunk || skip < SHORT_SKIP))
            return readUpTo(filter, target);
        chunkStart = wanted * chunk;
        physical = wanted == 0 ? 0 : index.entries[static_cast<std::size_t>(wanted)];
    }
    if (jump(filter, physical, skip) == -1)
        return -1;
    arriveAt(filter, chunkStart - extra);
    return readUpTo(filter, target);
}

}  // namespace

off_t archive_seek_reading(archive_filter* filter, off_t target) {
    off_t physical = 0;
    if (__builtin_add_overflow(target, static_cast<off_t>(filter->encr_extra_bytes), &physical))
        return failSeek(EINVAL);
    if (target < 0) {
        LOG_HERE(0, "Failed seeking: cannot seek before start of file (offset %lld)\n", static_cast<long long>(target));
        return failSeek(EINVAL);
    }
    if (target == filter->virt_offset) {
        LOG_HERE(0, "archive_seek() INTERNAL ERROR: skip_bytes==0, offset=%lld.\n", static_cast<long long>(target));
        return failSeek(EINVAL);
    }
    if (!filter->has(ARCH_CONTEXT_READY)) {
        if (learnContext(filter, target - filter->virt_offset) == -1)
            return -1;
        if (!filter->has(ARCH_CONTEXT_READY))
            return 0;
    }
    const off_t skip = target - filter->virt_offset;
    if (skip == 0)
        return target;
    retainFor(filter, skip);
    ArchiveBuffer* const clean = archive_clean_buffer(filter);
    if (!filter->end.past && clean->holds(skip)) {
        filter->end = {};
        clean->move(skip);
        filter->virt_offset = target;
        return target;
    }
    if (filter->has(ARCH_STREAM_MODE)) {
        if (skip > 0)
            return readUpTo(filter, target);
        LOG_HERE(0, "Cannot seek backward in archive on non-seeking device\n");
        return failSeek(EINVAL);
    }
    return filter->isCompressed() ? seekCompressed(filter, target) : seekUncompressed(filter, target);
}

off_t archive_seek(archive_filter* filter, off_t offset, int whence) {
    if (filter == nullptr)
        return failSeek(EINVAL);
    if (filter->mode == 'w' && !filter->redup)
        return archive_seek_writing(filter, offset, whence);
    if (whence == SEEK_END)
        LOG_HERE(0, "archive_seek(,%lld,SEEK_END) is unsupported\n", static_cast<long long>(offset));
    if (whence != SEEK_SET && whence != SEEK_CUR)
        return failSeek(EINVAL);
    // Inside the token, where a seek failed, the stream hasn't begun.
    const off_t position = filter->redup ? filter->redup->offset() : std::max<off_t>(filter->virt_offset, 0);
    const off_t present = filter->cheatSeek0 == 1 ? 0 : position;
    off_t target = offset;
    if (whence == SEEK_CUR && __builtin_add_overflow(present, offset, &target))
        return failSeek(EINVAL);
    if (whence == SEEK_CUR && offset == 0)
        return present;
    if (target == 0 && position != 0 && filter->cheatSeek0 != -1) {
        filter->cheatSeek0 = 1;
        return 0;
    }
    const int waiting = filter->cheatSeek0;
    if (waiting == 1)
        filter->cheatSeek0 = 0;
    if (target == position)
        return target;
    const off_t result = filter->redup ? filter->redup->seek(target, SEEK_SET) : archive_seek_reading(filter, target);
    if (result == -1)
        filter->cheatSeek0 = waiting;  // a seek that fails doesn't undo the one before
    return result;
}
