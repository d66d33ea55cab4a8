// The meta thread: fills the block list batch by batch, and makes the checkpoints between two batches.

#include <exception>

#include "pipeline/checkpoint.h"
#include "pipeline/pipeline_internal.h"
#include "pipeline/threadBuffer.h"

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
          counts_(shared->settings.retryCount) {}

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
        if (list_.remaining() == 0 && mayPopulate_)
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
        if (list_.remaining() == 0)
            return Next::GoOn;  // an empty list is this thread's own work
        if (shared_.lookAfterTimeout(access) != ThreadBuffer::Stall::Dead)
            return Next::GoOn;
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
        // A pass after a time-out may come with records left that the target had all along.
        counts_.expectBatch(list_.size());
        if (counts_.isExhausted()) {
            LOG_THREAD(0, "MetaThread: Checkpoint retry failed, too many retries attempted.");
            return failWithDump();
        }
        std::int64_t count = -1;
        if (askForCount(&count) == Next::Fail)
            return Next::Fail;
        compare(count);
        return Next::GoOn;
    }

    Next askForCount(std::int64_t* count) {
        const BlockCount asked = askBlockCount(job_, shared_.settings.retryCount, "MetaThread: ");
        if (!asked.isGood()) {
            if (asked.answer == -1)
                LOG_THREAD(0, "MetaThread: postBlockCount failed, curl failure.");
            else
                LOG_THREAD(0, "MetaThread: postBlockCount failed, target returned error.");
            return Next::Fail;
        }
        if (asked.tries > 0)
            LOG_THREAD(0, "MetaThread: postBlockCount retry successful.");
        *count = asked.count;
        return Next::GoOn;
    }

    void compare(std::int64_t count) {
        const std::uint64_t expected = counts_.expected();
        LOG_THREAD(3, "MetaThread: %lu blocks reported on target, %lu blocks expected.",
                   static_cast<std::uint64_t>(count), expected);
        int rounds = 0;
        std::int64_t last = 0;
        const CheckpointCounts::Outcome outcome = counts_.judge(count, list_.size(), &rounds, &last);
        if (outcome == CheckpointCounts::Outcome::Good) {
            mayPopulate_ = true;
            if (rounds > 0) {
                LOG_THREAD(0, "MetaThread: Checkpoint retries recovery after %d retries.", rounds);
                list_.dump(3);
            }
            return;
        }
        LOG_THREAD(0,
                   "MetaThread: Checkpoint found mismatch, retry last batch of blocks. Total checkpoint data size: "
                   "%lu. %lu blocks reported on target, %lu blocks expected.",
                   list_.totalLength(), static_cast<std::uint64_t>(count), expected);
        if (outcome == CheckpointCounts::Outcome::ShortWithProgress)
            LOG_THREAD(0,
                       "MetaThread: Checkpoint retry making some progress, last checkpoint was %lu bytes, clear retry "
                       "count.",
                       static_cast<std::uint64_t>(last));
        sendAgain(expected);
    }

    // The target lacks something of what it was sent: the whole last batch goes again.
    void sendAgain(std::uint64_t expected) {
        list_.dump(6);
        // Bytes against blocks: kept so.
        if (progress_.current_size > static_cast<std::int64_t>(expected))
            progress_.current_size -= static_cast<std::int64_t>(list_.totalLength());
        else
            progress_.current_size = 0;
        counts_.beginBatch();
        (void)list_.reset(job_.url, job_.backupNoOnTarget);  // a failure leaves nothing to send: the next round tells
        mayPopulate_ = false;
        addToSend();
        list_.signalFull();
    }

    Next populate() {
        counts_.beginBatch();
        const std::int64_t count = list_.populate(job_.url, job_.backupNoOnTarget, &shared_.hashList);
        addToSend();
        if (count == 0) {
            LOG_THREAD(3, "MetaThread:no more blocks to send");
            return Next::Succeed;
        }
        if (count < 0) {
            LOG_THREAD(0, "MetaThread:Failed to populate block list");
            return Next::Fail;
        }
        LOG_THREAD(3, "MetaThread: populated block list with %lu blocks to send", static_cast<std::uint64_t>(count));
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
    CheckpointCounts counts_;
    bool mayPopulate_ = true;  // not while a short batch goes again
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
