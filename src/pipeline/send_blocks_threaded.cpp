// The send phase in several threads: this is its driver, on the worker's own thread, which then is the meta thread.

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "config/directories.h"
#include "config/ini.h"
#include "pipeline/block_source.h"
#include "pipeline/pipeline_internal.h"
#include "pipeline/send_phase.h"
#include "pipeline/threadBuffer.h"

namespace {

constexpr int MOST_THREADS = 64;
constexpr int MOST_BUFFERS = 64;
constexpr int DEFAULT_TIMEOUT_SECONDS = 60;
constexpr int MOST_TIMEOUT_SECONDS = 24 * 60 * 60;

struct ThreadCounts {
    int read = 1;
    int send = 2;
    int buffers = -1;
};

int readKey(const char* key, int defaultValue) {
    return ini_get_int("Replication", key, defaultValue, g_master_ini);
}

ThreadCounts readCounts() {
    ThreadCounts counts;
    counts.read = readKey("ReadThreadCount", counts.read);
    counts.send = std::min(readKey("SendThreadCount", counts.send), MOST_THREADS);
    counts.buffers = std::min(readKey("ThreadBufferCount", counts.buffers), MOST_BUFFERS);
    if (counts.send < 1) {
        LOG_HERE(0, "SendThreadCount set to unexpected value:%d, must be >=1. Setting internal SendThreadCount=1",
                 counts.read);
        counts.send = 1;
    }
    if (counts.read != 1) {
        LOG_HERE(0,
                 "ReadThreadCount set to unexpected value:%d, only 1 is supported at this time. Setting internal "
                 "ReadThreadCount=1",
                 counts.read);
        counts.read = 1;
    }
    if (counts.buffers == -1) {
        counts.buffers = counts.read + counts.send + 1;
        LOG_HERE(3, "Using default ThreadBufferCount=%d", counts.buffers);
    } else if (counts.buffers < counts.read + counts.send) {
        LOG_HERE(0, "Unadvised buffer count:%d setting to: %d", counts.buffers, counts.read + counts.send);
        counts.buffers = counts.read + counts.send;
    }
    return counts;
}

// Waits that end at once would make the meta thread spin; some that are meant to have no limit overflow.
int readTimeout() {
    const int seconds = readKey("MetaThreadTimeoutSeconds", DEFAULT_TIMEOUT_SECONDS);
    return seconds < 1 ? DEFAULT_TIMEOUT_SECONDS : std::min(seconds, MOST_TIMEOUT_SECONDS);
}

// The read and send threads of a phase. However it is left, they are told to end if they haven't, and joined.
class PhaseThreads {
public:
    PhaseThreads(ThreadBuffer* shared, const ThreadCounts& wanted) : shared_(*shared) {
        threads_.reserve(static_cast<std::size_t>(wanted.read) + static_cast<std::size_t>(wanted.send));
        read_ = start(wanted.read, readThread, "Failed to create read thread");
        send_ = start(wanted.send, sendThread, "Failed to create send thread");
    }
    PhaseThreads(const PhaseThreads&) = delete;
    PhaseThreads& operator=(const PhaseThreads&) = delete;
    ~PhaseThreads() {
        if (!threads_.empty()) {
            shared_.setExitCode(PHASE_FAILED);
            join();
        }
    }

    void join() {
        if (shared_.getExitCode() < 0)
            shared_.wakeAll();
        for (std::thread& thread : threads_)
            thread.join();
        threads_.clear();
    }

    [[nodiscard]] int read() const { return read_; }
    [[nodiscard]] int send() const { return send_; }

private:
    // Runs `body` in up to `count` threads; returns their number.
    int start(int count, void (*body)(ThreadBuffer*), const char* failure) {
        int started = 0;
        for (int i = 0; i < count; ++i) {
            try {
                threads_.emplace_back(body, &shared_);
                ++started;
            } catch (const std::system_error& e) {
                LOG_HERE(0, "%s:%d", failure, e.code().value());
            } catch (const std::bad_alloc&) {
                LOG_HERE(0, "%s:%d", failure, ENOMEM);
            }
        }
        return started;
    }

    ThreadBuffer& shared_;
    std::vector<std::thread> threads_;
    int read_ = 0;
    int send_ = 0;
};

int runThreads(ThreadBuffer* shared, const ThreadCounts& wanted) {
    LOG_HERE(3, "Cursor set, start threads");
    shared->timeoutSeconds = readTimeout();
    PhaseThreads threads(shared, wanted);
    const int read = threads.read();
    const int send = threads.send();
    const bool canRun = read > 0 && send > 0;
    if (canRun)
        LOG_HERE(3, "Threads created. Read:%d, Send:%d", read, send);
    else
        LOG_HERE(0, "Failed to create at least 1 read and 1 send thread");
    if (read < wanted.read || send < wanted.send)
        LOG_HERE(0, "Warning: unexpected number of threads created. Read:%d, Send:%d", read, send);
    shared->totalThreads = read + send;
    if (canRun)
        metaThread(shared);
    else
        shared->setExitCode(PHASE_FAILED);
    threads.join();
    // The last buffers can fail after the meta thread has gone.
    return std::min(shared->getExitCode(), 0);
}

int runPhase(const ReplicationSettings& settings, const SendJob& job) {
    const ThreadCounts counts = readCounts();
    std::optional<ThreadBuffer> shared;
    try {
        shared.emplace(settings, job, static_cast<std::uint64_t>(counts.buffers));
    } catch (const std::exception& e) {
        LOG_HERE(0, "Caught initialization exception:%s", e.what());
        return -1;
    }
    if (openBlockSource(settings, job, &shared->hashList) == -1)
        return -1;
    const int result = runThreads(&*shared, counts);
    closeHashList(&shared->hashList);
    return result;
}

}  // namespace

int sendBlocksThreaded(const ReplicationSettings& settings, const SendJob& job) {
    LOG_HERE(3, "Starting threaded send Buffer Blocks");
    try {
        return runPhase(settings, job);
    } catch (const std::exception& e) {
        LOG_HERE(0, "The send phase failed: %s", e.what());
        return -1;
    }
}
