// hactar.h - the tools around the transfer of blocks, and the final metadata file ("HaCTAR") of a backup:
// <device path>/hactar_<backup_no>, whose content is the business of the tool that makes it.
#pragma once

#include <cstdint>
#include <string>

inline constexpr int HASH_LOCKED = 3;  // fileDedup: another process holds the backup

// Has a backup hashed if it isn't. 0 hashed, HASH_LOCKED, another exit status of the tool, or -1.
[[nodiscard]] int hashBackup(std::uint64_t backupNo);

// Makes the file. No two tools ever work on the file of one backup: waits for a run that a dead worker left. 0 or -1.
[[nodiscard]] int createHactar(std::uint64_t backupNo);

// Sends the file; `elapsed` seconds were spent on the backup. Stores libcurl's code. 0 or -1.
[[nodiscard]] int sendHactar(std::uint64_t backupNo, const std::string& target, std::int64_t targetBackupNo,
                             std::uint64_t elapsed, int* curlCode);

// Removes the file; one that isn't there is removed. 0 or -1.
[[nodiscard]] int removeHactar(std::uint64_t backupNo);
