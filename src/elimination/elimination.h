// elimination.h - blocks that need not even be asked about: those of earlier backups that the target holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/settings.h"

// Values of BlockEliminationType.
inline constexpr int LBE_NONE = 0;
inline constexpr int LBE_LAST_MASTER = 1;
inline constexpr int LBE_LAST_GROUP = 2;
inline constexpr int LBE_INSTANCE = 3;
inline constexpr int LBE_ALL = 4;

// Whether the settings let this backup use block elimination.
[[nodiscard]] bool useBlockElim(const ReplicationSettings& settings, std::uint64_t backupNo);

// The backups whose blocks can be left out, by `mode`. With a `target` (null: not checked) each of them is asked about,
// which costs one request, and one that the target doesn't hold or has not hashed leaves its entry 0, which names no
// backup. Returns the number of entries, 0 for no list, -1 on failure (logged).
[[nodiscard]] std::int64_t getLbeList(std::uint64_t backupNo, int mode, std::vector<std::uint64_t>* list,
                                      const std::string* target);
