// hashTable.h - the place of a hash table in memory in front of the stores.
//
// No table is kept: it answers "not known, go on" to every question and takes every record. Callers ask all the same,
// so that a table can come back in one place.
#pragma once

#include "block/hash_value.h"

struct SIShashTable;  // no record exists

// 1: not known here, ask the store. -1 for null arguments, logged.
[[nodiscard]] int getSIShashTable(SIShashTable** table, hashValue* value);
// 0: stored.
[[nodiscard]] int putSIShashTable(SIShashTable** table, const hashValue* value);
// 1: was not here.
[[nodiscard]] int clearSIShashTable(SIShashTable** table, const hashValue* value);
void freeSIShashTable(SIShashTable** table);
