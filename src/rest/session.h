// session.h - what all requests to a target share: the read side of a body, its pace, and the verdict on a response.
//
// Every exchange is one HTTP request on a new libcurl handle. A request reports two things: its own result (0 or a
// count, negative on failure) and libcurl's code through `curlStatus`; a caller looks at both, since a reply that was
// cut off can still read as a good one. Threads: requests may run in any number of threads; readSocketOptions runs
// between jobs only.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

// One thread's part of every exchange. `userData` belongs to the request that is running.
struct ThreadCurlData {
    std::uint64_t remainingB;  // bytes that the thread may still send in this second
    time_t lastSecond;         // the second that remainingB belongs to
    std::mutex* readLock;  // taken around block reads in the read callback of large blocks; null outside the pipeline
    void* userData;        // the read source
};

// Read source in memory; the callback consumes it.
struct RequestBody {
    const std::byte* data;
    std::uint64_t remaining;
};

// The verdicts of a response's header lines.
enum HeaderVerdict : std::int32_t {
    HEADER_GOOD = 0,
    HEADER_NOT_JUDGED = 1,
    HEADER_BAD_REQUEST = -3,     // 405
    HEADER_UNAVAILABLE = -4,     // 503
    HEADER_OUT_OF_ORDER = -5,    // the target holds newer backups of the instance
    HEADER_CANNOT_PROCESS = -6,  // the target can't use the metadata
};

// Reads the socket keys of section Replication. A key that is gone keeps its last value.
void readSocketOptions(const std::string& path);

// This thread's record, made on first use; null on failure (logged).
[[nodiscard]] ThreadCurlData* getThreadCurlData();

// The pace of a read callback. paceStart renews the allowance when a second has begun; paceSpend takes what was sent
// and, when that was all, sleeps into the next second.
[[nodiscard]] timeval paceStart(ThreadCurlData* data);
void paceSpend(ThreadCurlData* data, std::uint64_t sent, timeval now);

// libcurl's text for a code that a request stored in `curlStatus`.
[[nodiscard]] const char* curlText(int curlCode);
