// cancel.h - giving a backup up on a target, as an operator asked.
#pragma once

#include <cstdint>
#include <string>

// Tells the target by the backup's identity, "tempUUID" if it has none. Returns 0, or -1 if the target wasn't reached
// (logged).
int cancelOnTarget(std::uint64_t backupNo, const std::string& target);
