// distinctTable.h - a table of fixed size that tells whether a key was seen, and knows when it can't be sure.
//
// When a key finds no free bucket near its home, it takes the home over. The key that is dropped leaves a mark at its
// own home, so a later miss there answers "perhaps" and not "no". Key 0 is the empty bucket: it is never seen.
//
// Threads: a table belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

#include "base/releaser.h"

struct distinctTable;
void freeDistinctTable(distinctTable* table);
using DistinctTablePtr = std::unique_ptr<distinctTable, Releaser<&freeDistinctTable>>;

// Makes the table, or empties one that is large enough. Has at least 4096 buckets, and the suggested number if memory
// allows; it never grows. Returns 0 or -1.
[[nodiscard]] int createDistinctTable(DistinctTablePtr* table, std::uint64_t suggestedSize);

inline constexpr int DISTINCT_NEW = 0;  // certainly not seen; it is now
inline constexpr int DISTINCT_SEEN = 1;
inline constexpr int DISTINCT_UNKNOWN = 2;  // perhaps seen, perhaps dropped; it is there now
// One of these, or -1 for no table.
[[nodiscard]] int distinctTableLookup(distinctTable* table, std::uint64_t key);

// Logs how full the table is and how often it dropped a key or couldn't be sure. Returns 0, or -1 for no table.
int distinctTableStats(const distinctTable* table);
