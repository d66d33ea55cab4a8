// A send thread: posts full work buffers to the target.

#include <exception>

#include "bandwidth/blockOut.h"
#include "pipeline/pipeline_internal.h"
#include "pipeline/threadBuffer.h"
#include "rest/session.h"

namespace {

// A thread counts among those who share the limit only while it has something to send.
class BandwidthShare {
public:
    explicit BandwidthShare(int tableId) : tableId_(tableId) { attach(); }
    BandwidthShare(const BandwidthShare&) = delete;
    BandwidthShare& operator=(const BandwidthShare&) = delete;
    ~BandwidthShare() { detach(); }

    void attach() { attachBandwidthTable(tableId_); }
    static void detach() { detachBandwidthTable(); }

private:
    int tableId_;
};

class Sender {
public:
    explicit Sender(ThreadBuffer* shared) : shared_(*shared), share_(shared->job.bandwidthTable) {}

    // Returns 0, or -1 if a buffer couldn't be sent.
    int run() {
        while (!isDone_) {
            WorkBuffer* const buffer = takeFullBuffer();
            if (buffer == nullptr)
                continue;
            if (send(buffer) == -1)
                return -1;
            account(*buffer);
            buffer->clear();
            shared_.putEmpty(buffer);
        }
        return 0;
    }

private:
    // Null with isDone_ set, or to look again.
    WorkBuffer* takeFullBuffer() {
        TracedLock lock = shared_.lockFullList();
        if (!shared_.hasFull(lock) && shared_.getExitCode() >= 0) {
            LOG_THREAD(5, "SendThread:Wait on Full list");
            if (leavesAtEnd())
                return nullptr;
            share_.detach();
            shared_.waitFullList(&lock);
            share_.attach();
        }
        if (shared_.getExitCode() < 0) {
            LOG_THREAD(3, "SendThread: caught error, exiting");
            isDone_ = true;
            return nullptr;
        }
        if (!shared_.hasFull(lock)) {
            if (!leavesAtEnd())
                LOG_THREAD(4, "SendThread: Spurious Wake Condition");
            return nullptr;
        }
        return shared_.takeFull(lock);
    }

    bool leavesAtEnd() {
        if (shared_.getExitCode() != PHASE_READ)
            return false;
        LOG_THREAD(3, "SendThread: No work to do, no work to come, exit");
        isDone_ = true;
        return true;
    }

    int send(WorkBuffer* buffer) {
        int curlCode = 0;
        if (post(buffer, &curlCode))
            return 0;
        if (curlCode != 0)
            LOG_THREAD(0, "SendThread: sendMultiBlock failed (Curl status:%s), retrying.", curlText(curlCode));
        if (post(buffer, &curlCode))
            return 0;
        LOG_THREAD(0, "SendThread: sendMultiBlock failed retry (Curl status:%s)", curlText(curlCode));
        return -1;
    }

    bool post(WorkBuffer* buffer, int* curlCode) {
        const SendJob& job = shared_.job;
        return buffer->sendMultiBlock(job.url, job.backupNoOnTarget, curlCode, &shared_.readLock) >= 0 &&
               *curlCode == 0;
    }

    void account(const WorkBuffer& buffer) {
        {
            const TracedLock lock = shared_.lockTotalSent();
            shared_.totalSent += buffer.blocks();
            *shared_.job.bytesSent += buffer.used();
        }
        shared_.signalTotalSent();
    }

    ThreadBuffer& shared_;
    BandwidthShare share_;
    bool isDone_ = false;
};

int runSender(ThreadBuffer* shared) {
    try {
        return Sender(shared).run();
    } catch (const std::exception& e) {
        LOG_THREAD(0, "SendThread: %s", e.what());
        return -1;
    }
}

}  // namespace

void sendThread(ThreadBuffer* threadBuffer) {
    LOG_THREAD(3, "Starting send thread");
    if (runSender(threadBuffer) == -1)
        threadBuffer->setExitCode(PHASE_FAILED);
    threadBuffer->wakeAll();
}
