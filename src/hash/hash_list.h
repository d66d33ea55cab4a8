// hash_list.h - a backup as a stream of its hashes, in batches.
//
// A plain list comes in the order of the backup's file; a distinct list has each hash once, in the order of hash IDs.
// Hashes that occur in an excluded backup are left out altogether. Only completely hashed blocks are listed.
//
// Threads: a handle belongs to one thread at a time.
// Errors:  -1, with the reason logged; the list can't be gone on with after that.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "base/releaser.h"
#include "block/hash_value.h"

struct hashListHandle;
void freeHashList(hashListHandle* handle);
using HashListPtr = std::unique_ptr<hashListHandle, Releaser<&freeHashList>>;

// Opens the list; `distinct` is 0 or 1. A handle that is open already stays as it is, with a warning. An excluded
// backup in which a hash is unknown can't be compared with and is dropped from the exclusions, since excluding too
// little only costs time. The exclusions are copied.
[[nodiscard]] int createHashList(HashListPtr* handle, std::uint64_t backupNumber,
                                 std::span<const std::uint64_t> exclusions, int distinct);

// Fills records from the front, flags in out form. Returns how many, 0 at the end.
[[nodiscard]] int getHashesFromList(HashListPtr* handle, std::span<hashReferenceInfo> records);

void closeHashList(HashListPtr* handle);

// The number of hashes in a backup, or with `distinct` of different ones.
[[nodiscard]] std::int64_t getHashCount(std::uint64_t backupNumber, int distinct);
