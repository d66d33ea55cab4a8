// hash_lock.h - advisory locks on hash IDs, across processes and between the threads of one.
//
// A hash ID is one byte of a lock file, at its low 30 bits: two IDs may share a byte and then block each other, which
// is accepted. Entries without hashID_in are counted and not locked.
//
// A handle neither loses its lock to another handle of the process nor gets an ID that the other one holds exclusively;
// it may take one again, also in the other mode. byte_lock.h tells how.
//
// Threads: handles of different threads may lock at the same time; one handle belongs to one thread.
// Errors:  the number of entries handled, -1 if not even the first one was; the caller unlocks what was handled. A
//          signal that the hash layer caught ends a wait.
#pragma once

#include <memory>
#include <span>

#include "base/releaser.h"
#include "block/hash_value.h"

struct lockedHashState;
void freeLockedHashState(lockedHashState* state);  // gives back what the handle still holds
using HashLockPtr = std::unique_ptr<lockedHashState, Releaser<&freeLockedHashState>>;

// The handle is made on first use. Both wait for other holders.
[[nodiscard]] int lockHashValuesShared(HashLockPtr* handle, std::span<const hashValue> list);
[[nodiscard]] int lockHashValuesExclusive(HashLockPtr* handle, std::span<const hashValue> list);
int unlockHashValues(HashLockPtr* handle, std::span<const hashValue> list);
