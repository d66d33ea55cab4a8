// The send phase in several threads: this is its driver, on the worker's own thread, which then is the meta thread.

#include <algorithm>
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
    counts.send = readKey("SendThreadCount", counts.send);
    counts.buffers = readKey("ThreadBufferCount", counts.buffers);
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

// Runs `body` in up to `count` threads.
std::vector<std::thread> startThreads(int count, void (*body)(ThreadBuffer*), ThreadBuffer* shared,
                                      const char* failure) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        try {
            threads.emplace_back(body, shared);
        } catch (const std::system_error& e) {
            LOG_HERE(0, "%s:%d", failure, e.code().value());
        }
    }
    return threads;
}

int runThreads(ThreadBuffer* shared, const ThreadCounts& wanted) {
    LOG_HERE(3, "Cursor set, start threads");
    shared->timeoutSeconds = readKey("MetaThreadTimeoutSeconds", 60);
    std::vector<std::thread> readers = startThreads(wanted.read, readThread, shared, "Failed to create read thread");
    std::vector<std::thread> senders = startThreads(wanted.send, sendThread, shared, "Failed to create send thread");
    const int read = static_cast<int>(readers.size());
    const int send = static_cast<int>(senders.size());
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
    if (shared->getExitCode() < 0)
        shared->wakeAll();
    for (std::thread& thread : readers)
        thread.join();
    for (std::thread& thread : senders)
        thread.join();
    // The last buffers can fail after the meta thread has gone.
    return std::min(shared->getExitCode(), 0);
}

}  // namespace

int sendBlocksThreaded(const ReplicationSettings& settings, const SendJob& job) {
    LOG_HERE(3, "Starting threaded send Buffer Blocks");
    const ThreadCounts counts = readCounts();
    std::optional<ThreadBuffer> shared;
    try {
        shared.emplace(settings, job, static_cast<std::uint64_t>(counts.buffers));
    } catch (const std::exception& e) {
        LOG_HERE(0, "Caught initialization exception:%s", e.what());
        return -1;
    }
    if (openBlockSource(job.backupNo, job.url, &shared->hashList) == -1)
        return -1;
    const int result = runThreads(&*shared, counts);
    closeHashList(&shared->hashList);
    return result;
}
