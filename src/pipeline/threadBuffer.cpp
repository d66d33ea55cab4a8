#include "pipeline/threadBuffer.h"

#include <chrono>

#include "pipeline/pipeline_internal.h"

ThreadBuffer::ThreadBuffer(const ReplicationSettings& phaseSettings, const SendJob& sendJob, std::uint64_t bufferCount)
    : settings(phaseSettings), job(sendJob), blockList(batchRecords(phaseSettings)) {
    for (std::uint64_t i = 0; i < bufferCount; ++i) {
        buffers_.push_back(std::make_unique<WorkBuffer>(bufferBytes(settings)));
        emptyList_.push_back(buffers_.back().get());
    }
}

TracedLock ThreadBuffer::lockTotalSent() {
    return {totalSentMutex_, "total sent"};
}

TracedLock ThreadBuffer::lockFullList() {
    return {fullMutex_, "full list"};
}

TracedLock ThreadBuffer::lockEmptyList() {
    return {emptyMutex_, "empty list"};
}

void ThreadBuffer::signalTotalSent() {
    LOG_THREAD(6, "signal total sent");
    totalSentCondition_.notify_one();
}

int ThreadBuffer::waitTotalSent(TracedLock* totalSentLock) {
    const std::cv_status ended =
        totalSentCondition_.wait_until(totalSentLock->inner(), wholeSecondsFromNow(timeoutSeconds));
    const int result = ended == std::cv_status::timeout ? ETIMEDOUT : 0;
    LOG_HERE(3, "Conditional Wait return value:%d", result);
    if (result == 0)
        return 0;
    totalSentLock->unlock();
    Stall stall = Stall::Running;
    {
        TracedLock access = blockList.lockAccess();
        stall = lookAfterTimeout(&access);
    }
    totalSentLock->lock();
    if (stall != Stall::Dead || totalSent >= totalToSend)
        return 0;
    LOG_HERE(0, "Deadlock detected. %d waiting threads, %d total threads", waitingThreads(), totalThreads);
    return -1;
}

void ThreadBuffer::waitFullList(TracedLock* fullLock) {
    LOG_THREAD(6, "Wait on full list");
    ++waitingFull_;
    (void)fullCondition_.wait_until(fullLock->inner(), wholeSecondsFromNow(timeoutSeconds + 1));
    --waitingFull_;
}

void ThreadBuffer::waitEmptyList(TracedLock* emptyLock) {
    LOG_THREAD(6, "Wait on empty list");
    ++waitingEmpty_;
    emptyCondition_.wait(emptyLock->inner());
    --waitingEmpty_;
}

void ThreadBuffer::putFull(WorkBuffer* buffer) {
    {
        const TracedLock lock = lockFullList();
        fullList_.push_back(buffer);
        ++moves_;
    }
    LOG_THREAD(6, "signal full list");
    fullCondition_.notify_one();
}

void ThreadBuffer::putEmpty(WorkBuffer* buffer) {
    {
        const TracedLock lock = lockEmptyList();
        emptyList_.push_back(buffer);
        ++moves_;
    }
    LOG_THREAD(6, "signal empty list");
    emptyCondition_.notify_one();
}

WorkBuffer* ThreadBuffer::takeFront(std::deque<WorkBuffer*>* list) {
    if (list->empty())
        return nullptr;
    WorkBuffer* const buffer = list->front();
    list->pop_front();
    ++moves_;
    return buffer;
}

WorkBuffer* ThreadBuffer::takeFull(const TracedLock&) {
    return takeFront(&fullList_);
}

WorkBuffer* ThreadBuffer::takeEmpty(const TracedLock&) {
    return takeFront(&emptyList_);
}

std::int32_t ThreadBuffer::getExitCode() {
    const std::lock_guard lock(exitMutex_);
    return exitCode_;
}

void ThreadBuffer::setExitCode(std::int32_t code) {
    const std::lock_guard lock(exitMutex_);
    if (exitCode_ >= 0)
        exitCode_ = code;
}

bool ThreadBuffer::finishReading() {
    const std::lock_guard lock(exitMutex_);
    if (exitCode_ != PHASE_NO_MORE)
        return false;
    exitCode_ = PHASE_READ;
    return true;
}

void ThreadBuffer::wakeAll() {
    { const std::lock_guard passing(fullMutex_); }  // who has looked and not yet waits, waits now
    fullCondition_.notify_all();
    { const std::lock_guard passing(emptyMutex_); }
    emptyCondition_.notify_all();
    { const std::lock_guard passing(totalSentMutex_); }
    totalSentCondition_.notify_all();
    blockList.wakeAll();
}

std::int32_t ThreadBuffer::waitingThreads() {
    std::int32_t count = 0;
    {
        const TracedLock lock = lockFullList();
        count += waitingFull_;
    }
    {
        const TracedLock lock = lockEmptyList();
        count += waitingEmpty_;
    }
    count += blockList.waiting();
    LOG_HERE(6, "count of waiting threads:%d", count);
    return count;
}

// Both lists are looked at under both locks, and the block list under its own: nobody who waits can have been given
// anything in between.
ThreadBuffer::Stall ThreadBuffer::findStall(const TracedLock&) {
    const TracedLock full = lockFullList();
    const TracedLock empty = lockEmptyList();
    if (waitingFull_ + waitingEmpty_ + blockList.waiting() != totalThreads)
        return Stall::Running;
    const bool canMove = (blockList.waiting() > 0 && blockList.remaining() > 0) || !fullList_.empty() ||
                         (waitingEmpty_ > 0 && !emptyList_.empty());
    return canMove ? Stall::Waking : Stall::Dead;
}

ThreadBuffer::Stall ThreadBuffer::lookAfterTimeout(TracedLock* access) {
    const Stall stall = findStall(*access);
    const std::uint64_t moves = moves_;
    const bool isStuck = stall == Stall::Waking && movesWhenWaking_ == moves;
    movesWhenWaking_ = stall == Stall::Waking && !isStuck ? std::optional(moves) : std::nullopt;
    if (isStuck) {
        LOG_HERE(0, "All %d threads wait and none has moved since the last look: they are woken", totalThreads);
        access->unlock();
        wakeAll();
        access->lock();
    }
    return stall;
}
