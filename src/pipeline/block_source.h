// block_source.h - the list of blocks that a send phase walks.
#pragma once

#include "hash/hash_list.h"
#include "pipeline/send_phase.h"

// Opens the backup's distinct list, without the blocks of earlier backups that the target is known to hold when block
// elimination applies. Returns 0, or -1 (logged).
[[nodiscard]] int openBlockSource(const ReplicationSettings& settings, const SendJob& job, HashListPtr* list);
