// pipeline_internal.h - what the send phases and the threads of one have in common.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <mutex>

#include "config/settings.h"
#include "log/logger.h"

inline constexpr char ON_TARGET = '1';  // in a reply to post-check-offset; any other byte means that it must be sent

// A line of a thread, with its id behind the place in the source.
#define LOG_THREAD(level, format, ...) \
    LOG_HERE(level, "[%lu]: " format, static_cast<unsigned long>(gettid()) __VA_OPT__(, ) __VA_ARGS__)

// A size below 1 counts as the default: with 0 a phase would find nothing to do and call that success.
[[nodiscard]] inline std::uint64_t bufferBytes(const ReplicationSettings& settings) {
    return settings.maxBlocks < 1 ? ReplicationSettings{}.maxBlocks : settings.maxBlocks;
}
[[nodiscard]] inline std::uint64_t batchRecords(const ReplicationSettings& settings) {
    return static_cast<std::uint64_t>(settings.metaSize < 1 ? ReplicationSettings{}.metaSize : settings.metaSize);
}

// Deadlines of timed waits are whole seconds of the clock: of the exact one, since time() may still be in the second
// that a wait has just ended with.
[[nodiscard]] inline std::chrono::system_clock::time_point wholeSecondsFromNow(std::int32_t seconds) {
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now()) + std::chrono::seconds(seconds);
}

// A held mutex that tells the lock trace (level 6) of its coming and going.
class TracedLock {
public:
    TracedLock(std::mutex& mutex, const char* name) : name_(name), lock_(mutex, std::defer_lock) { lock(); }
    TracedLock(const TracedLock&) = delete;
    TracedLock& operator=(const TracedLock&) = delete;
    ~TracedLock() {
        if (lock_.owns_lock())
            unlock();
    }

    void lock() {
        LOG_THREAD(6, "lock %s", name_);
        lock_.lock();
    }
    void unlock() {
        lock_.unlock();
        LOG_THREAD(6, "unlock %s", name_);
    }
    // For the wait on a condition.
    [[nodiscard]] std::unique_lock<std::mutex>& inner() { return lock_; }

private:
    const char* name_;
    std::unique_lock<std::mutex> lock_;
};
