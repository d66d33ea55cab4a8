#include "pipeline/workBuffer.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "pipeline/pipeline_internal.h"

namespace {

constexpr std::uint64_t LEAST_CAPACITY = 8;

std::unique_lock<std::mutex> lockRead(std::mutex* readLock) {
    return readLock != nullptr ? std::unique_lock(*readLock) : std::unique_lock<std::mutex>();
}

}  // namespace

WorkBuffer::WorkBuffer(std::uint64_t capacity) : capacity_(capacity) {
    data_.reset(static_cast<std::byte*>(std::calloc(1, capacity_)));
    while (!data_ && capacity_ > LEAST_CAPACITY) {
        LOG_THREAD(0, "Cannot get memory: %lu. Resizing", capacity_);
        capacity_ /= 2;
        data_.reset(static_cast<std::byte*>(std::calloc(1, capacity_)));
    }
    if (!data_)
        throw std::runtime_error("Unable to allocate buffer");
}

void WorkBuffer::beginReading(std::span<hashReferenceInfo> records, std::span<const RequestBody> sendInfo,
                              std::mutex* readLock) {
    std::vector<hashValue*> wanted;
    std::uint64_t used = used_;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::uint64_t length = sendInfo[i].remaining;
        if (length == 0)
            continue;
        if (!fits(used, length))
            break;
        used += BLOCK_HEADER_SIZE + length;
        wanted.push_back(&records[i]);
    }
    const auto guard = lockRead(readLock);
    (void)announceHashedContents(&readContext_, wanted);  // logged; each block is then looked up by itself
}

void WorkBuffer::endReading() {
    withdrawHashedContents(&readContext_);
}

WorkBuffer::Added WorkBuffer::addBlock(hashReferenceInfo* record, std::mutex* readLock) {
    if (largeBlock_) {
        LOG_THREAD(6, "Large block already added. Return full");
        return Full;
    }
    const std::uint64_t length = record->hashedLength;
    if (blocks_ == 0 && !fits(0, length)) {
        largeBlock_ = *record;
        blocks_ = 1;
        return Done;
    }
    if (!fits(used_, length)) {
        LOG_THREAD(5,
                   "Unabled to add block(%lu) and block-header (%d) to buffer of size:%lu. Buffer already contains:%lu",
                   length, static_cast<int>(BLOCK_HEADER_SIZE), capacity_, used_);
        return Full;
    }
    return readBlock(record, readLock);
}

WorkBuffer::Added WorkBuffer::readBlock(hashReferenceInfo* record, std::mutex* readLock) {
    const std::uint64_t length = record->hashedLength;
    const std::span<std::byte> place(data_.get() + used_, BLOCK_HEADER_SIZE + length);
    writeBlockHeader(*record, place.first(BLOCK_HEADER_SIZE));
    std::int64_t got = 0;
    {
        const auto guard = lockRead(readLock);
        outFlagsToIn(record);
        got = readHashedContents(&readContext_, record, place.subspan(BLOCK_HEADER_SIZE), 0);
    }
    if (got < 1) {
        dumpHashValue(0, *record);
        LOG_THREAD(0, "Failed to read hashed contents. readHashedContents return value:%ld", got);
        return Failed;
    }
    if (static_cast<std::uint64_t>(got) != length) {
        LOG_THREAD(0, "Failed to read hashed contents. Short read:%lu", static_cast<std::uint64_t>(got));
        return Failed;
    }
    used_ += BLOCK_HEADER_SIZE + length;
    ++blocks_;
    return Done;
}

int WorkBuffer::sendMultiBlock(const std::string& url, std::int64_t backupNo, int* curlStatus, std::mutex* readLock) {
    LOG_THREAD(4, "sendMultBlock");
    *curlStatus = 0;
    if (blocks_ == 0)
        return 0;
    if (largeBlock_) {
        LOG_THREAD(4, "large block send");
        return putLargeBlock(url, *largeBlock_, {data_.get(), capacity_}, backupNo, curlStatus, readLock);
    }
    LOG_THREAD(4, "multi block send");
    return putMultiBlocks(url, {data_.get(), used_}, static_cast<std::int64_t>(blocks_), backupNo, curlStatus);
}

void WorkBuffer::clear() {
    // Behind `used_` the bytes are zero already, save after a large block, whose window is the whole buffer.
    std::memset(data_.get(), 0, largeBlock_ ? capacity_ : used_);
    blocks_ = 0;
    used_ = 0;
    largeBlock_.reset();
}
