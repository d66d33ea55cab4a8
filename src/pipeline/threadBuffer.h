// threadBuffer.h - what the threads of a send phase share: lists, locks, counters and the exit code.
//
// Locks, in the order taken: block list access, total sent, full list, empty list; exit and read are leaves. Only the
// block list's access lock is held across a request. wakeAll takes the mutex of each condition for a moment, so it is
// never called with one of them held.
// Units: bytes, blocks, seconds.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hash/hash_list.h"
#include "pipeline/blockList.h"
#include "pipeline/send_phase.h"
#include "pipeline/workBuffer.h"

// Values of the exit code. A negative one ends all threads and is never replaced.
inline constexpr std::int32_t PHASE_RUNNING = 0;
inline constexpr std::int32_t PHASE_NO_MORE = 1;  // the meta thread has nothing to add
inline constexpr std::int32_t PHASE_READ = 2;     // the read thread has finished its last buffer
inline constexpr std::int32_t PHASE_FAILED = -1;

class ThreadBuffer {
public:
    // Throws std::runtime_error when memory is short. The job outlives this.
    ThreadBuffer(const ReplicationSettings& settings, const SendJob& job, std::uint64_t bufferCount);

    [[nodiscard]] TracedLock lockTotalSent();
    [[nodiscard]] TracedLock lockFullList();
    [[nodiscard]] TracedLock lockEmptyList();

    // Waits for a signal until now + timeoutSeconds. -1 if none came and the threads are stalled, else 0.
    [[nodiscard]] int waitTotalSent(TracedLock* totalSentLock);
    void signalTotalSent();

    void waitFullList(TracedLock* fullLock);  // at most timeoutSeconds + 1
    void waitEmptyList(TracedLock* emptyLock);

    // The lists: filled at the back, which wakes one waiter, and emptied at the front, null for none.
    void putFull(WorkBuffer* buffer);
    void putEmpty(WorkBuffer* buffer);
    [[nodiscard]] WorkBuffer* takeFull(const TracedLock& fullLock);
    [[nodiscard]] WorkBuffer* takeEmpty(const TracedLock& emptyLock);
    [[nodiscard]] bool hasFull(const TracedLock&) const { return !fullList_.empty(); }
    [[nodiscard]] bool hasEmpty(const TracedLock&) const { return !emptyList_.empty(); }

    [[nodiscard]] std::int32_t getExitCode();
    void setExitCode(std::int32_t code);
    // PHASE_NO_MORE becomes PHASE_READ in one step; anything else stays. True if it was so.
    [[nodiscard]] bool finishReading();

    void wakeAll();

    // How many of the threads wait for another one just now.
    [[nodiscard]] std::int32_t waitingThreads();

    // Running: some thread runs. Waking: all wait, but one has something to wake up for; it was signalled and hasn't
    // run yet, or the signal was lost. Dead: all wait and none ever will.
    enum class Stall { Running, Waking, Dead };
    // What the threads are at, seen at one moment. The block list's access lock is held.
    [[nodiscard]] Stall findStall(const TracedLock& access);

    // The same after a wait that ended by its limit. Threads that were found waking at the last such look too, and
    // have moved nothing since, are woken: a lost signal costs time and no more. The access lock, which is held, is
    // given up for that.
    Stall lookAfterTimeout(TracedLock* access);

    const ReplicationSettings& settings;
    const SendJob& job;
    HashListPtr hashList;  // the meta thread's
    BlockList blockList;
    std::mutex readLock;  // blocks are read by one thread at a time

    std::uint64_t totalSent = 0;       // under the total sent lock: blocks handed over
    std::uint64_t totalToSend = 0;     // under the total sent lock: blocks that the target needs
    std::int32_t totalThreads = 0;     // read and send threads that run; set before the meta thread begins
    std::int32_t timeoutSeconds = 60;  // set before the threads begin

private:
    [[nodiscard]] WorkBuffer* takeFront(std::deque<WorkBuffer*>* list);

    std::vector<std::unique_ptr<WorkBuffer>> buffers_;
    std::mutex totalSentMutex_;
    std::condition_variable totalSentCondition_;
    std::mutex fullMutex_;
    std::condition_variable fullCondition_;
    std::deque<WorkBuffer*> fullList_;
    std::int32_t waitingFull_ = 0;
    std::mutex emptyMutex_;
    std::condition_variable emptyCondition_;
    std::deque<WorkBuffer*> emptyList_;
    std::int32_t waitingEmpty_ = 0;
    std::atomic<std::uint64_t> moves_ = 0;          // of buffers, in or out of a list
    std::optional<std::uint64_t> movesWhenWaking_;  // the meta thread's: at its last look, if that found them waking
    std::mutex exitMutex_;
    std::int32_t exitCode_ = PHASE_RUNNING;
};

// The threads' bodies. They let no exception out: what fails makes the exit code negative.
void readThread(ThreadBuffer* threadBuffer);
void sendThread(ThreadBuffer* threadBuffer);
void metaThread(ThreadBuffer* threadBuffer);

// The wait before a checkpoint, until what was needed so far was handed over. 0 or -1.
[[nodiscard]] int syncThreads(ThreadBuffer* threadBuffer);
