// The send phase in one thread: batch by batch, buffer by buffer.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <optional>
#include <span>

#include "base/releaser.h"
#include "hash/hash_list.h"
#include "hash/hashed_contents.h"
#include "log/logger.h"
#include "pipeline/block_source.h"
#include "pipeline/checkpoint.h"
#include "pipeline/pipeline_internal.h"
#include "pipeline/send_phase.h"
#include "rest/blocks.h"
#include "rest/session.h"

namespace {

constexpr std::uint64_t LEAST_BUFFER = 8;    // bytes
constexpr std::uint64_t BLOCK_MARGIN = 512;  // bytes of the buffer that a block needs beside its own

struct BatchCounts {
    std::uint64_t duplicates = 0;
    std::uint64_t nonDuplicates = 0;
};

class SingleThreadedPhase {
public:
    SingleThreadedPhase(const ReplicationSettings& settings, const SendJob& job) : settings_(settings), job_(job) {}

    int run() {
        if (allocateBuffer() == -1 || allocateRecords() == -1 || openBlockSource(settings_, job_, &list_) == -1)
            return -1;
        while (!stopped_) {
            if (metaLeft_ == 0)
                beginBatch();
            if (!stopped_)
                sendBuffer(fillBuffer());
        }
        LOG_HERE(3, "Total unique blocks sent %lu, blocks not sent (already found on target) %lu.",
                 totals_.nonDuplicates, totals_.duplicates);
        closeHashList(&list_);
        return result_;
    }

private:
    // Ends the phase; a libcurl code says more than -1.
    void stop(int curlCode) {
        result_ = curlCode > 0 ? curlCode : -1;
        stopped_ = true;
    }

    int allocateBuffer() {
        LOG_HERE(3, "Starting send Buffer Blocks");
        bufferSize_ = bufferBytes(settings_);
        for (;;) {
            buffer_.reset(static_cast<std::byte*>(std::malloc(bufferSize_)));
            if (buffer_)
                return 0;
            LOG_HERE(0, "Cannot get memory: %lu. Resizing", bufferSize_);
            if (bufferSize_ < LEAST_BUFFER) {
                LOG_HERE(0, "Error: unable to get memory for block buffer");
                return -1;
            }
            bufferSize_ /= 2;
        }
    }

    // The memory is touched only where a batch comes to: a size that is far too large costs nothing.
    int allocateRecords() {
        auto capacity = static_cast<std::int64_t>(batchRecords(settings_));
        for (; capacity > 0; capacity = capacity / 2 - 1) {
            const auto count = static_cast<std::size_t>(capacity);
            recordMemory_.reset(static_cast<hashReferenceInfo*>(std::calloc(count, sizeof(hashReferenceInfo))));
            sendInfoMemory_.reset(static_cast<RequestBody*>(std::calloc(count, sizeof(RequestBody))));
            records_ = {recordMemory_.get(), count};
            sendInfo_ = {sendInfoMemory_.get(), count};
            if (recordMemory_ && sendInfoMemory_)
                return 0;
            LOG_HERE(0, "Resizing buffers");
        }
        LOG_HERE(0, "Error: unable to get memory for meta buffer");
        return -1;
    }

    // The next records of the list, checked with the target; what it lacks has a length in sendInfo_ afterwards.
    void beginBatch() {
        LOG_HERE(3, "Build meta data");
        if (settings_.checkpoint)
            checkpoint();
        if (stopped_)
            return;
        batchBytes_ = 0;
        metaIndex_ = 0;
        const std::int64_t count = getHashesFromList(&list_, records_);
        if (count < 1) {
            stopped_ = true;
            if (count < 0)
                result_ = -1;
            else if (isUnconfirmed_ && result_ == 0)
                endUnconfirmed();
            return;
        }
        metaLeft_ = static_cast<std::size_t>(count);
        askTarget();
    }

    // A shortfall at the target doesn't rewind the list: the counts are put back and the run goes on, so that a further
    // shortfall shows again, up to RetryCount times.
    void checkpoint() {
        if (tries_ > settings_.retryCount) {
            LOG_HERE(0, "Checkpoint retry failed, too many tries attempted.");
            logRecords(0, "Checkpoint metaBuffer");
            stop(-1);
            return;
        }
        const std::optional<std::int64_t> count = blocksOnTarget();
        if (!count)
            return;
        LOG_HERE(3, "Count/offset: %lu/%d", static_cast<std::uint64_t>(*count), static_cast<int>(totalBlocks_));
        if (static_cast<std::int64_t>(totalBlocks_) > *count)
            takeBatchBack(*count);
        else
            acceptBatch();
    }

    std::optional<std::int64_t> blocksOnTarget() {
        const BlockCount asked = askBlockCount(job_, settings_.retryCount, "");
        if (asked.isGood())
            return asked.count;
        if (asked.answer == -1)
            LOG_HERE(0, "postBlockCount failed, curl failure.");
        else
            LOG_HERE(0, "postBlockCount failed, target returned error.");
        stop(asked.curlCode);
        return std::nullopt;
    }

    // Blocks were refused and no checkpoint has found them since: the worker must not go on to the backup's end.
    void endUnconfirmed() {
        LOG_HERE(0, "Blocks that the target refused are missing there");
        result_ = -1;
    }

    void takeBatchBack(std::int64_t count) {
        LOG_HERE(0, "Checkpoint found mismatch, retry meta batch");
        LOG_HERE(0, "Count/offset: %lu/%d", static_cast<std::uint64_t>(count), static_cast<int>(totalBlocks_));
        LOG_HERE(0, "Total checkpoint data size: %lu", batchBytes_);
        logRecords(6, "metaBuffer");
        const auto bytes = static_cast<std::int64_t>(batchBytes_);
        std::int64_t& progress = job_.progress->current_size;
        progress = progress > bytes ? progress - bytes : 0;
        totalBlocks_ -= std::min<std::uint64_t>(records_.size(), totalBlocks_);
        ++tries_;
    }

    void acceptBatch() {
        if (tries_ > 0) {
            LOG_HERE(0, "Checkpoint retries recovery after %d retries.", tries_);
            logRecords(3, "Checkpoint recovered metaBuffer");
        }
        tries_ = 0;
        isUnconfirmed_ = false;
        if (result_ != 0) {
            LOG_HERE(0, "Recovered from curl error. setting ret=0 (previous ret:%d)", result_);
            result_ = 0;
        }
    }

    void logRecords(int level, const char* what) const {
        for (std::size_t i = 0; i < metaIndex_; ++i)
            LOG_HERE(level, "%s location:%d hashID:%lu hashedLength:%lu SISoffset:%lu", what, static_cast<int>(i),
                     records_[i].hashID, records_[i].hashedLength, records_[i].SISoffset);
    }

    void askTarget() {
        LOG_HERE(3, "Post Check");
        std::optional<std::string> reply;
        int curlCode = 0;
        (void)postCheckOffset(job_.url, records_.first(metaLeft_), &reply, job_.backupNoOnTarget,
                              &curlCode);  // the reply tells
        if (!reply) {
            LOG_HERE(0, "Failed to check with POST\n");
            LOG_HERE(0, "Curl status: %s", curlText(curlCode));
            stop(curlCode);
            return;
        }
        BatchCounts counts;
        for (std::size_t i = 0; i < metaLeft_ && !stopped_; ++i)
            settle(i, (*reply)[i] == ON_TARGET, &counts);
        if (stopped_)
            return;
        totalBlocks_ += metaLeft_;
        LOG_HERE(1, "metaLeft: %d, duplicates=%d, nonDuplicates=%d", static_cast<int>(metaLeft_),
                 static_cast<int>(counts.duplicates), static_cast<int>(counts.nonDuplicates));
        totals_.duplicates += counts.duplicates;
        totals_.nonDuplicates += counts.nonDuplicates;
    }

    // Decides what becomes of one record: nothing, a place in a buffer, or a request of its own at once.
    void settle(std::size_t index, bool isOnTarget, BatchCounts* counts) {
        const hashReferenceInfo& record = records_[index];
        batchBytes_ += record.hashedLength;
        sendInfo_[index] = {};
        if (isOnTarget) {
            ++counts->duplicates;
            addProgress(record.hashedLength);
            return;
        }
        ++counts->nonDuplicates;
        if (record.hashedLength <= bufferSize_ && bufferSize_ - record.hashedLength >= BLOCK_MARGIN) {
            sendInfo_[index].remaining = record.hashedLength;
            return;
        }
        int curlCode = 0;
        const int answer =
            putLargeBlock(job_.url, record, {buffer_.get(), bufferSize_}, job_.backupNoOnTarget, &curlCode, nullptr);
        if (answer < 0 || curlCode != 0) {
            LOG_HERE(0, "Failed to put large block");
            stop(curlCode);
            return;
        }
        addProgress(record.hashedLength);
        (void)updateProgress(job_.progress);  // a courtesy
    }

    // Reads blocks into the buffer until it is full or the batch is through. Returns the index of the first record.
    std::size_t fillBuffer() {
        const std::size_t first = metaIndex_;
        used_ = 0;
        clusterAmt_ = 0;
        while (!stopped_ && used_ < bufferSize_ && metaLeft_ > 0) {
            const std::uint64_t length = sendInfo_[metaIndex_].remaining;
            if (length != 0) {
                if (length + used_ + BLOCK_MARGIN > bufferSize_)
                    break;
                readBlock(length);
            }
            ++metaIndex_;
            --metaLeft_;
        }
        return first;
    }

    void readBlock(std::uint64_t length) {
        hashReferenceInfo& record = records_[metaIndex_];
        const std::span<std::byte> free(buffer_.get() + used_, bufferSize_ - used_);
        const bool isClustered = settings_.cluster == 1;
        if (isClustered) {
            writeBlockHeader(record, free.first(BLOCK_HEADER_SIZE));
            used_ += BLOCK_HEADER_SIZE;
            ++clusterAmt_;
        }
        const std::span<std::byte> place(buffer_.get() + used_, length);
        const std::int64_t got = readHashedContents(&contents_, &record, place, 0, 0);
        if (got < 1) {
            LOG_HERE(0, "readHashedContents failed");
            LOG_HERE(0, "hashID %lu", record.hashID);
            LOG_HERE(0, "SISoffset: %lu", record.SISoffset);
            stop(-1);
            return;
        }
        if (static_cast<std::uint64_t>(got) != length) {
            LOG_HERE(0, "readHashedContents unexpected behavior");
            stop(-1);
            return;
        }
        sendInfo_[metaIndex_].data = place.data();
        used_ += length;
        *job_.bytesSent += length;
        addProgress(length);
    }

    void sendBuffer(std::size_t first) {
        if (stopped_)
            return;
        LOG_HERE(3, "Sending Blocks");
        LOG_HERE(3, "clusterAmt:%ld", clusterAmt_);
        if (settings_.cluster == 1)
            sendCluster();
        else
            sendOneByOne(first);
        if (stopped_)
            return;
        LOG_HERE(3, "Update progress");
        (void)updateProgress(job_.progress);  // a courtesy
    }

    void sendCluster() {
        if (clusterAmt_ == 0)
            return;
        int curlCode = 0;
        if (!putCluster(&curlCode)) {
            if (curlCode != 0)
                LOG_HERE(0, "Curl status: %s", curlText(curlCode));
            LOG_HERE(0, "backupNo:%d putMultiBlocks failed: retrying...", static_cast<int>(job_.backupNo));
            if (!putCluster(&curlCode))
                passOverOrStop(curlCode);
        }
        clusterAmt_ = 0;
    }

    bool putCluster(int* curlCode) {
        *curlCode = 0;
        return putMultiBlocks(job_.url, {buffer_.get(), used_}, clusterAmt_, job_.backupNoOnTarget, curlCode) >= 0 &&
               *curlCode == 0;
    }

    // With checkpoints the next one finds the shortfall, so the failure is let pass; its code stands until then.
    void passOverOrStop(int curlCode) {
        if (settings_.checkpoint) {
            isUnconfirmed_ = true;
            if (curlCode != 0)
                result_ = curlCode;
            return;
        }
        LOG_HERE(0, "backupNo:%d putMultiBlocks failed retry, abort replication job", static_cast<int>(job_.backupNo));
        stop(-1);
    }

    void sendOneByOne(std::size_t first) {
        LOG_HERE(3, "Put blocks");
        const std::size_t count = metaIndex_ - first;
        int curlCode = 0;
        const std::int64_t sent = putBlocks(job_.url, sendInfo_.subspan(first, count), records_.subspan(first, count),
                                            0, job_.backupNoOnTarget, &curlCode);
        if (sent != static_cast<std::int64_t>(count)) {
            LOG_HERE(0, "putBlocks failed");
            LOG_HERE(0, "Curl status: %s", curlText(curlCode));
            stop(curlCode);
        }
    }

    void addProgress(std::uint64_t bytes) { job_.progress->current_size += static_cast<std::int64_t>(bytes); }

    const ReplicationSettings& settings_;
    const SendJob& job_;
    HashListPtr list_;
    HashedContentsPtr contents_;
    MallocPtr<std::byte> buffer_;
    std::uint64_t bufferSize_ = 0;
    std::uint64_t used_ = 0;
    MallocPtr<hashReferenceInfo> recordMemory_;
    MallocPtr<RequestBody> sendInfoMemory_;
    std::span<hashReferenceInfo> records_;
    std::span<RequestBody> sendInfo_;  // beside records_: what is to be sent; a length of 0 is nothing
    std::size_t metaLeft_ = 0;         // records of the batch not yet handled
    std::size_t metaIndex_ = 0;        // the next of them
    std::int64_t clusterAmt_ = 0;      // blocks in the buffer
    int tries_ = 0;
    bool isUnconfirmed_ = false;  // a refused buffer was let pass, and no good count came since
    std::uint64_t totalBlocks_ = 0;
    std::uint64_t batchBytes_ = 0;
    BatchCounts totals_;
    int result_ = 0;
    bool stopped_ = false;
};

}  // namespace

int sendBlocks(const ReplicationSettings& settings, const SendJob& job) {
    try {
        return SingleThreadedPhase(settings, job).run();
    } catch (const std::exception& e) {
        LOG_HERE(0, "The send phase failed: %s", e.what());
        return -1;
    }
}
