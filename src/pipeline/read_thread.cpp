// The read thread: copies blocks from where they are kept to work buffers.

#include <exception>

#include "pipeline/pipeline_internal.h"
#include "pipeline/threadBuffer.h"

namespace {

class Reader {
public:
    explicit Reader(ThreadBuffer* shared) : shared_(*shared), list_(shared->blockList) {}

    void run() {
        while (!isDone_) {
            WorkBuffer* const buffer = takeEmptyBuffer();
            if (buffer != nullptr)
                fillAndPass(buffer);
        }
    }

    [[nodiscard]] bool hasFailed() const { return hasFailed_; }

private:
    // Null with isDone_ set, or to look again.
    WorkBuffer* takeEmptyBuffer() {
        TracedLock lock = shared_.lockEmptyList();
        if (!shared_.hasEmpty(lock) && shared_.getExitCode() >= 0) {
            LOG_THREAD(4, "ReadThread:Empty list size:%d. Unable to obtain a work buffer, waiting for work buffer", 0);
            shared_.waitEmptyList(&lock);
        }
        const std::int32_t exitCode = shared_.getExitCode();
        if (exitCode < 0) {
            LOG_THREAD(3, "ReadThread: caught error, exiting");
            isDone_ = true;
            return nullptr;
        }
        if (!shared_.hasEmpty(lock)) {
            isDone_ = exitCode == PHASE_NO_MORE;
            LOG_THREAD(
                4, "%s",
                isDone_ ? "ReadThread: No work to do, no work to come, exit" : "ReadThread: Spurious Wake Condition");
            return nullptr;
        }
        return shared_.takeEmpty(lock);
    }

    void fillAndPass(WorkBuffer* buffer) {
        fill(buffer);
        if (buffer->blocks() == 0)
            return;
        LOG_THREAD(4, "ReadThread:work buffer full, add to full list");
        shared_.putFull(buffer);
    }

    void fill(WorkBuffer* buffer) {
        TracedLock access = list_.lockAccess();
        bool isFilling = true;
        bool isReading = false;
        while (isFilling) {
            if (list_.remaining() == 0) {
                endReading(buffer, &isReading);
                isFilling = waitForRecords(*buffer, &access) && checkRecords();
            } else if (list_.currentSendInfo().remaining == 0) {
                LOG_THREAD(5, "ReadThread: Block already on target, skipping");
                list_.next();
            } else {
                beginReading(buffer, &isReading);
                isFilling = add(buffer);
            }
        }
        endReading(buffer, &isReading);
    }

    // What is going to be read is looked up together, once a buffer and batch.
    void beginReading(WorkBuffer* buffer, bool* isReading) {
        if (*isReading)
            return;
        buffer->beginReading(list_.upcomingRecords(), list_.upcomingSendInfo(), &shared_.readLock);
        *isReading = true;
    }

    static void endReading(WorkBuffer* buffer, bool* isReading) {
        if (*isReading)
            buffer->endReading();
        *isReading = false;
    }

    // The list is used up. True after a wait; false if the buffer must go as it is.
    bool waitForRecords(const WorkBuffer& buffer, TracedLock* access) {
        list_.signalEmpty();
        const std::int32_t exitCode = shared_.getExitCode();
        if (exitCode < 0 || exitCode == PHASE_NO_MORE) {
            if (exitCode < 0)
                LOG_THREAD(3, "ReadThread: caught error(%d), exiting", exitCode);
            else
                LOG_THREAD(3, "ReadThread: finished, no work to come");
            isDone_ = true;
            return false;
        }
        if (buffer.blocks() > 0) {
            // The checkpoint can't pass until these are on their way.
            LOG_THREAD(4, "ReadThread: read buffer not full but flush is needed for a checkpoint. Sending %lu blocks.",
                       buffer.blocks());
            return false;
        }
        list_.waitFull(access);
        return true;
    }

    // After a wait. False if there will be no more.
    bool checkRecords() {
        if (list_.remaining() != 0)
            return true;
        const std::int32_t exitCode = shared_.getExitCode();
        if (exitCode < 0) {
            LOG_THREAD(3, "ReadThread: Block List is empty, exit code:%d, exiting", exitCode);
            isDone_ = true;
            return false;
        }
        if (exitCode == PHASE_NO_MORE)
            LOG_THREAD(4, "ReadThread: Block List is empty, exit code:%d, No more data to read.", exitCode);
        else
            LOG_THREAD(4, "ReadThread: Block List is empty, exit code:%d, Spurious Wake Condition.", exitCode);
        return true;
    }

    // False when the buffer takes no more; its record stays current for the next one.
    bool add(WorkBuffer* buffer) {
        const WorkBuffer::Added added = buffer->addBlock(list_.currentRecord(), &shared_.readLock);
        switch (added) {
            case WorkBuffer::Done:
                list_.next();
                return true;
            case WorkBuffer::Full:
                LOG_THREAD(5, "ReadThread: Block not added, buffer is full:%ld", static_cast<long>(added));
                return false;
            default:
                LOG_THREAD(0, "ReadThread: failed to add block to work buffer:%ld", static_cast<long>(added));
                hasFailed_ = true;
                isDone_ = true;
                return false;
        }
    }

    ThreadBuffer& shared_;
    BlockList& list_;
    bool isDone_ = false;
    bool hasFailed_ = false;
};

bool runReader(ThreadBuffer* shared) {
    try {
        Reader reader(shared);
        reader.run();
        return !reader.hasFailed();
    } catch (const std::exception& e) {
        LOG_THREAD(0, "ReadThread: %s", e.what());
        return false;
    }
}

}  // namespace

void readThread(ThreadBuffer* threadBuffer) {
    LOG_THREAD(3, "Starting read thread");
    if (!runReader(threadBuffer))
        threadBuffer->setExitCode(PHASE_FAILED);
    LOG_THREAD(3, "ReadThread:Finished");
    if (threadBuffer->finishReading())
        LOG_THREAD(3, "Read Thead exited safely, notify send threads");
    threadBuffer->wakeAll();  // once the exit code is the last one
}
