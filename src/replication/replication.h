// replication.h - the identity of a backup that holds on every system, the order of backups within an instance, and the
// document that describes a backup to the target.
//
// The universal backup identity ("UBI") is the text "%s_%lu_%lu" of the instance's identity (a UUID of 36 characters),
// the backup's start time and its type. Identities are compared without regard to case.
// Threads: as pghelper, one at a time.
// Errors:  0, or -1 logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Stores the UBI, or nothing if the instance has never replicated. The output is emptied first.
[[nodiscard]] int getUniversalBackupIdentity(std::uint64_t backupNo, std::optional<std::string>* identity);

// Finds the replicated backup of a UBI, the one of the highest number; stores 0 when there is none. The output is set
// to 0 first. A UBI comes from another system: nothing in it is trusted.
[[nodiscard]] int UBIstringToBackupNumber(const char* ubi, std::uint64_t* backupNo);

inline constexpr std::size_t UUID_LENGTH = 36;
inline constexpr std::size_t UUID_BUFFER_SIZE = UUID_LENGTH + 1;

// A new random UUID in lower case; `length` is that of the buffer, at least UUID_BUFFER_SIZE.
[[nodiscard]] int genUUID(char* buffer, std::size_t length);

// Whether the text has the groups 8-4-4-4-12. The characters themselves aren't looked at.
[[nodiscard]] bool isValidUUID(std::string_view text);

// Looks for good backups of the instance that started later: no older one may arrive after them. With markFailed they
// are marked as failed. The number left in the way, or -1.
[[nodiscard]] int enforceGroupOrdering(std::uint64_t instanceId, std::int64_t startTime, bool markFailed);

// The document that start-backup carries, with the size of its text plus the NUL that travels too. A client or instance
// that replicates for the first time gets its UUID in the catalogue. The outputs are emptied first.
[[nodiscard]] int exportReplicationMetadata(std::int64_t backupNo, std::string* blob, std::size_t* size);
