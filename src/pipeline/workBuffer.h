// workBuffer.h - the body of one multiblock request, filled by the read thread and sent by a send thread.
//
// A buffer goes round: empty list, read thread, full list, send thread, empty list. It is in one place at a time, so it
// has no lock of its own. Blocks are read straight to their place in the body, which is sent from there.
// Units: bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "base/releaser.h"
#include "hash/hashed_contents.h"
#include "rest/blocks.h"

class WorkBuffer {
public:
    enum Added : int { Failed = -1, Full = 0, Done = 1 };

    // Settles for half the size, and half of that, when memory is short. Throws std::runtime_error if there is none.
    explicit WorkBuffer(std::uint64_t capacity);

    // The blocks that will be added next, in this order: those that fit are looked up together, and what is found stays
    // valid until endReading, which releases the file that is read from. Without it each block is looked up by itself.
    void beginReading(std::span<hashReferenceInfo> records, std::span<const RequestBody> sendInfo,
                      std::mutex* readLock);
    void endReading();

    // Reads a block behind those that are there, under `readLock`. One that doesn't fit an empty buffer makes this the
    // buffer of that block alone; it is read while it is sent.
    [[nodiscard]] Added addBlock(hashReferenceInfo* record, std::mutex* readLock);

    // Posts the contents. Returns 0 or a negative code; *curlStatus is libcurl's.
    [[nodiscard]] int sendMultiBlock(const std::string& url, std::int64_t backupNo, int* curlStatus,
                                     std::mutex* readLock);

    // Empties the buffer; its bytes are zero afterwards.
    void clear();

    [[nodiscard]] std::uint64_t blocks() const { return blocks_; }
    [[nodiscard]] std::uint64_t used() const { return used_; }  // 0 for a large block
    [[nodiscard]] bool hasLargeBlock() const { return largeBlock_.has_value(); }

private:
    // Whether a block of that length fits behind `used` bytes. A buffer is never filled to its last byte.
    [[nodiscard]] bool fits(std::uint64_t used, std::uint64_t length) const {
        return used + BLOCK_HEADER_SIZE < capacity_ && length < capacity_ - used - BLOCK_HEADER_SIZE;
    }
    [[nodiscard]] Added readBlock(hashReferenceInfo* record, std::mutex* readLock);

    std::uint64_t capacity_;
    MallocPtr<std::byte> data_;
    std::uint64_t blocks_ = 0;
    std::uint64_t used_ = 0;
    HashedContentsPtr readContext_;
    std::optional<hashValue> largeBlock_;  // a copy: the list may be refilled while this waits to be sent
};
