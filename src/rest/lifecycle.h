// lifecycle.h - the requests that frame the transfer of one backup.
//
// `url` is the target's name as configured. None of these retries. Numbers in replies are little-endian, as is this
// machine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Asks what the target knows of a backup. `identity` is sent as it stands, so callers include its terminating NUL;
// `backupNoOnTarget` 0 leaves the number out. Returns the backup's number there, 0 if it is unknown, negative on
// failure
// (-1 in particular when the request failed). *status and *properties change only on an answer.
[[nodiscard]] std::int64_t postBackupCheck(const std::string& url, std::string_view identity,
                                           std::uint64_t backupNoOnTarget, std::uint64_t* status,
                                           std::uint64_t* properties, int* curlStatus);

// Hands over the metadata document (its NUL included). Returns the number on the target, 0 for an answer that is none,
// or a negative code: -5 out of order, -6 the target can't process it; a retry can't help these two.
[[nodiscard]] std::int64_t startBackup(const std::string& url, std::string_view metadata, std::uint64_t reserveSize,
                                       int* curlStatus, bool force);

// How many unique blocks of the backup the target holds. Returns 0 and sets *count, or a negative code.
[[nodiscard]] int postBlockCount(const std::string& url, std::uint64_t backupNoOnTarget, int* curlStatus,
                                 std::int64_t* count);

// Tells the target that a replication was given up, with `message` as it stands. Returns 0 or a negative code.
[[nodiscard]] int endBackup(const std::string& url, const std::string& identity, std::string_view message,
                            int* curlStatus);
