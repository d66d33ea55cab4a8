// block_source.h - the list of blocks that a send phase walks.
#pragma once

#include <cstdint>
#include <string>

#include "hash/hash_list.h"

// Opens the backup's distinct list, without the blocks of earlier backups that the target is known to hold when block
// elimination applies. Returns 0, or -1 (logged).
[[nodiscard]] int openBlockSource(std::uint64_t backupNo, const std::string& target, HashListPtr* list);
