// statistics.h - what is written down of each finished attempt.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

// Bytes that this process has sent for its backup. Cleared at start, raised by the send phase and by sendHactar.
extern std::uint64_t g_bytesSent;

// Writes the row of sds_stats, and adds to the charts whether or not that works. Durations are seconds, g_bytesSent is
// the size. A second row in one process is written too, with a warning. Returns 0 or -1.
[[nodiscard]] int updateSdsStats(std::uint64_t backupNo, std::uint64_t presync, std::uint64_t sync,
                                 std::uint64_t postsync, time_t epoch, const std::string& message,
                                 const std::string& target);

// The next row is the first again.
void resetSdsStatsFlag();
