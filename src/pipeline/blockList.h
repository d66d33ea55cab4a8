// blockList.h - the batch of block records that the meta thread prepares and the read thread walks.
//
// Threads: everything is used under the access lock, save wakeAll, and `waiting`, which may be read at any time. The
//          conditions are named after what their waiters want: the read thread waits for a full list, the meta thread
//          for an empty one.
// Units:   bytes, records.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

#include "base/releaser.h"
#include "hash/hashValues.h"
#include "hash/hash_list.h"
#include "rest/session.h"

class TracedLock;

class BlockList {
public:
    // Settles for fewer records when memory is short. Throws std::runtime_error if there is none.
    explicit BlockList(std::uint64_t capacity);

    [[nodiscard]] TracedLock lockAccess();

    [[nodiscard]] std::uint64_t capacity() const { return capacity_; }
    [[nodiscard]] std::uint64_t size() const { return size_; }
    [[nodiscard]] std::uint64_t remaining() const { return size_ - index_; }
    [[nodiscard]] std::int32_t blocksToSend() const { return blocksToSend_; }
    [[nodiscard]] std::uint64_t totalLength() const;  // of all records
    [[nodiscard]] std::int32_t waiting() const { return waiting_; }

    [[nodiscard]] hashReferenceInfo* currentRecord() { return &records_.get()[index_]; }
    [[nodiscard]] const RequestBody& currentSendInfo() const { return sendInfo_.get()[index_]; }
    void next() { ++index_; }

    // What is left, with the send lengths beside it: 0 for a record that needn't be sent.
    [[nodiscard]] std::span<hashReferenceInfo> upcomingRecords() { return {currentRecord(), remaining()}; }
    [[nodiscard]] std::span<const RequestBody> upcomingSendInfo() const { return {&currentSendInfo(), remaining()}; }

    void waitFull(TracedLock* access);                                      // without limit
    [[nodiscard]] int waitEmpty(TracedLock* access, std::int32_t seconds);  // 0 if signalled, else -1
    void signalFull() { full_.notify_one(); }
    void signalEmpty() { empty_.notify_one(); }
    void wakeAll();  // never with the access lock held

    // One log line a record.
    void dump(int level) const;

    // The next records of the list, checked with the target. Returns how many, 0 at the end, -1 on failure.
    [[nodiscard]] std::int64_t populate(const std::string& url, std::int64_t backupNo, HashListPtr* hashList);

    // Makes the same records ready to be sent again: looks them up anew and asks the target again. 0 or -1.
    [[nodiscard]] int reset(const std::string& url, std::int64_t backupNo);

    // Asks the target which of the records it lacks. 0, libcurl's code, or -1; then none counts as to be sent.
    [[nodiscard]] int checkBlocksOnTarget(const std::string& url, std::int64_t backupNo);

private:
    void allocate();
    void settle(std::uint64_t index, bool isOnTarget);
    [[nodiscard]] std::span<hashReferenceInfo> records() const { return {records_.get(), size_}; }

    std::mutex access_;
    std::condition_variable full_;
    std::condition_variable empty_;
    std::atomic<std::int32_t> waiting_ = 0;
    std::uint64_t capacity_;
    MallocPtr<hashReferenceInfo> records_;
    MallocPtr<RequestBody> sendInfo_;
    std::uint64_t index_ = 0;
    std::uint64_t size_ = 0;
    std::int32_t blocksOnTarget_ = 0;
    std::int32_t blocksToSend_ = 0;
    HashValuesPtr hashValues_;  // for looking records up anew
};
