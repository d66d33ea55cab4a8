// The meta thread: fills the block list batch by batch, and makes the checkpoints between two batches.

#include <unistd.h>

#include <exception>

#include "pipeline/pipeline_internal.h"
#include "pipeline/threadBuffer.h"
#include "rest/lifecycle.h"

namespace {

enum class Next { GoOn, Succeed, Fail };

bool hasFailed(ThreadBuffer* shared) {
    if (shared->getExitCode() >= 0)
        return false;
    LOG_THREAD(0, "MetaThread: caught error, exiting");
    return true;
}

class Meta {
public:
    explicit Meta(ThreadBuffer* shared)
        : shared_(*shared),
          list_(shared->blockList),
          job_(shared->job),
          progress_(*shared->job.progress),
          populated_(static_cast<std::int64_t>(list_.capacity())) {}

    // 0 when there is no more to send, -1 on failure.
    int run() {
        TracedLock access = list_.lockAccess();
        Next next = Next::GoOn;
        while (next == Next::GoOn) {
            next = pass(&access);
            isFirst_ = false;
        }
        return next == Next::Succeed ? 0 : -1;
    }

private:
    Next pass(TracedLock* access) {
        LOG_THREAD(6, "MetaThread: next pass");
        if (hasFailed(&shared_))
            return failWithDump();
        if (!isFirst_ && waitForEmpty(access) == Next::Fail)
            return Next::Fail;
        progress_.current_size += static_cast<std::int64_t>(list_.totalLength());
        if (shared_.settings.checkpoint && !isFirst_ && checkpoint(access) == Next::Fail)
            return Next::Fail;
        if (list_.remaining() == 0 && populated_ > 0)
            return populate();
        return Next::GoOn;
    }

    Next failWithDump() {
        list_.dump(0);
        return Next::Fail;
    }

    Next waitForEmpty(TracedLock* access) {
        if (list_.waitEmpty(access, shared_.timeoutSeconds) == 0)
            return Next::GoOn;
        LOG_HERE(3, "Timeout in metaThread, check for deadlocks");
        if (list_.remaining() == 0 || !shared_.isStalled(*access))
            return Next::GoOn;  // an empty list is this thread's own work
        LOG_HERE(0, "Deadlock detected");
        return failWithDump();
    }

    Next checkpoint(TracedLock* access) {
        access->unlock();
        const int synchronized = syncThreads(&shared_);
        access->lock();
        if (synchronized != 0) {
            LOG_THREAD(0, "MetaThread: Checkpoint failed synchronizing threads");
            return failWithDump();
        }
        // A pass after a time-out may find the batch counted, with records left that the target had all along.
        if (!list_.isCounted())
            totalCheckpointBlocks_ += list_.size();
        list_.setCounted();
        if (tries_ > shared_.settings.retryCount) {
            LOG_THREAD(0, "MetaThread: Checkpoint retry failed, too many retries attempted.");
            return failWithDump();
        }
        std::int64_t count = -1;
        if (askForCount(&count) == Next::Fail)
            return Next::Fail;
        LOG_THREAD(3, "MetaThread: %lu blocks reported on target, %lu blocks expected.",
                   static_cast<std::uint64_t>(count), totalCheckpointBlocks_);
        if (static_cast<std::int64_t>(totalCheckpointBlocks_) > count)
            sendAgain(count);
        else
            acceptBatch(count);
        return Next::GoOn;
    }

    Next askForCount(std::int64_t* count) {
        int tried = 0;
        int answer = 0;
        for (; tried < shared_.settings.retryCount; ++tried) {
            if (tried > 1)
                sleep(static_cast<unsigned>(tried));
            int curlCode = 0;
            *count = -1;
            answer = postBlockCount(job_.url, static_cast<std::uint64_t>(job_.backupNoOnTarget), &curlCode, count);
            if (answer != -1 && *count >= 0)
                break;
            LOG_THREAD(0, "MetaThread: postBlockCount failed, retry.");
        }
        if (answer == -1) {
            LOG_THREAD(0, "MetaThread: postBlockCount failed, curl failure.");
            return Next::Fail;
        }
        if (*count < 0) {
            LOG_THREAD(0, "MetaThread: postBlockCount failed, target returned error.");
            return Next::Fail;
        }
        if (tried > 0)
            LOG_THREAD(0, "MetaThread: postBlockCount retry successful.");
        return Next::GoOn;
    }

    // The target lacks something of what it was sent: the whole last batch goes again. Only rounds without progress
    // count towards the limit.
    void sendAgain(std::int64_t count) {
        LOG_THREAD(0,
                   "MetaThread: Checkpoint found mismatch, retry last batch of blocks. Total checkpoint data size: "
                   "%lu. %lu blocks reported on target, %lu blocks expected.",
                   list_.totalLength(), static_cast<std::uint64_t>(count), totalCheckpointBlocks_);
        list_.dump(6);
        // Bytes against blocks: kept so.
        if (progress_.current_size > static_cast<std::int64_t>(totalCheckpointBlocks_))
            progress_.current_size -= static_cast<std::int64_t>(list_.totalLength());
        else
            progress_.current_size = 0;
        totalCheckpointBlocks_ -= list_.size();
        populated_ = list_.reset(job_.url, job_.backupNoOnTarget);
        addToSend();
        if (lastReported_ < count) {
            LOG_THREAD(0,
                       "MetaThread: Checkpoint retry making some progress, last checkpoint was %lu bytes, clear retry "
                       "count.",
                       static_cast<std::uint64_t>(lastReported_));
            tries_ = 0;
            lastReported_ = count;
        } else {
            ++tries_;
        }
        list_.signalFull();
    }

    void acceptBatch(std::int64_t count) {
        if (tries_ > 0) {
            LOG_THREAD(0, "MetaThread: Checkpoint retries recovery after %d retries.", tries_);
            list_.dump(3);
        }
        lastReported_ = count;
        populated_ = static_cast<std::int64_t>(list_.capacity());
        tries_ = 0;
    }

    Next populate() {
        populated_ = list_.populate(job_.url, job_.backupNoOnTarget, &shared_.hashList);
        addToSend();
        if (populated_ == 0) {
            LOG_THREAD(3, "MetaThread:no more blocks to send");
            return Next::Succeed;
        }
        if (populated_ < 0) {
            LOG_THREAD(0, "MetaThread:Failed to populate block list");
            return Next::Fail;
        }
        LOG_THREAD(3, "MetaThread: populated block list with %lu blocks to send",
                   static_cast<std::uint64_t>(populated_));
        list_.signalFull();
        (void)updateProgress(&progress_);  // a courtesy
        return Next::GoOn;
    }

    // After a reset too, or the next checkpoint would run before the blocks are out.
    void addToSend() {
        const TracedLock lock = shared_.lockTotalSent();
        shared_.totalToSend += static_cast<std::uint64_t>(list_.blocksToSend());
    }

    ThreadBuffer& shared_;
    BlockList& list_;
    const SendJob& job_;
    OperationProgress& progress_;
    std::uint64_t totalCheckpointBlocks_ = 0;
    std::int64_t lastReported_ = 0;
    int tries_ = 0;
    std::int64_t populated_;
    bool isFirst_ = true;
};

int runMeta(ThreadBuffer* shared) {
    try {
        return Meta(shared).run();
    } catch (const std::exception& e) {
        LOG_THREAD(0, "MetaThread: %s", e.what());
        return -1;
    }
}

}  // namespace

int syncThreads(ThreadBuffer* threadBuffer) {
    TracedLock lock = threadBuffer->lockTotalSent();
    for (;;) {
        if (hasFailed(threadBuffer))
            return -1;
        if (threadBuffer->totalSent >= threadBuffer->totalToSend) {
            LOG_THREAD(4, "MetaThread: Initiating checkpoint");
            return 0;
        }
        LOG_THREAD(4, "MetaThread: Wait on total sent");
        if (threadBuffer->waitTotalSent(&lock) == -1) {
            LOG_HERE(0, "Deadlock. Fail checkpoint.");
            return -1;
        }
    }
}

void metaThread(ThreadBuffer* threadBuffer) {
    const std::int32_t code = runMeta(threadBuffer) == 0 ? PHASE_NO_MORE : PHASE_FAILED;
    LOG_THREAD(code == PHASE_FAILED ? 0 : 3, "MetaThread: Set exit code %d", code);
    threadBuffer->setExitCode(code);
    threadBuffer->wakeAll();
}
