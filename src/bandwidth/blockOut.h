// blockOut.h - how fast replication may send, hour by hour through the week.
//
// The limits of a week lie in a System V shared memory segment that the daemon creates and rewrites; every sending
// thread attaches, and what a limit allows is divided among those attached. A thread that isn't attached has no limit.
// Threads: each thread has a handle of its own; entries of the table are read without a lock, so a reader may see a
//          half-written schedule for a moment.
#pragma once

#include <cstdint>
#include <ctime>

inline constexpr int BANDWIDTH_DAYS = 7;    // 0 is Sunday
inline constexpr int BANDWIDTH_HOURS = 24;  // of local time
inline constexpr std::uint64_t NO_BANDWIDTH_LIMIT = ~std::uint64_t{0};
inline constexpr std::uint64_t LEAST_BANDWIDTH = 4096;  // bytes per second

using BandwidthTable = std::uint64_t[BANDWIDTH_DAYS][BANDWIDTH_HOURS];  // bytes per second

struct BandwidthHandle {
    void* attached;         // the shared segment, null if none
    BandwidthTable* table;  // the table in use: the segment's, or the process's own, which holds no limits
    std::int32_t shmid;     // -1 none
    std::int32_t readOnly;
};

// This thread's handle, made on first use and detached with the thread; null on failure (logged).
[[nodiscard]] BandwidthHandle* getBandwidthHandle();

// Creates and attaches the shared table, without limits; it goes with the last process attached. 0 or -1.
[[nodiscard]] int createBandwidthTable();

// The segment that this thread is attached to, -1 for none.
[[nodiscard]] int getBandwidthTableId();

// Attaches this thread for sending, read-only; without the segment it sends at no limit. An id below 0 means that there
// is none.
void attachBandwidthTable(int shmid);
void detachBandwidthTable();

// Takes a schedule over into the table this thread may write (otherwise it is only checked). Returns 0; a text that is
// malformed (logged) leaves no limits and gives -1.
[[nodiscard]] int parseBlockOutPeriods(const char* text);

// Bytes per second that the calling thread may send now, NO_BANDWIDTH_LIMIT for all.
[[nodiscard]] std::uint64_t threadBandwidthLimit(std::time_t now);
