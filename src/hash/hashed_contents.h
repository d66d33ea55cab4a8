// hashed_contents.h - the bytes of a block, wherever they are kept.
//
// They lie in the single instance store, or in the file of some backup that references the block completely and not
// deduplicated. Any such backup will do, and it may be deleted at any moment: the file is read under a shared flock, at
// a reference that was seen again after the lock was there. A file that someone else locks exclusively is passed over.
//
// Threads: a handle belongs to one thread at a time. It keeps a database connection, the backup file that was read last
//          (open, not locked) and read-ahead data.
// Errors:  -1, with the reason logged; trouble with one candidate is logged at level 3 and the next one is tried.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "base/releaser.h"
#include "block/hash_value.h"

struct hashedContents;
void freeHashedContents(hashedContents* handle);
using HashedContentsPtr = std::unique_ptr<hashedContents, Releaser<&freeHashedContents>>;

// Reads up to buffer.size() bytes of the block from `offset` on. Returns the bytes delivered, fewer only at the end of
// the block; 0 for an unknown hash, or a block whose data nobody has; -1 on failure. The handle is made on first use.
//
// The record's key may stand in in or out flags. A record with neither ID flag is looked up by its digest. With
// `refresh` it is always looked up again, since the block can have moved since; without, the record must be complete.
// What was looked up is left in the record, with out flags.
[[nodiscard]] std::int64_t readHashedContents(HashedContentsPtr* handle, hashValue* record, std::span<std::byte> buffer,
                                              std::int64_t offset, int refresh = 1);

// Looks up blocks that will be read next through this handle, all at once. Those that lie in one backup's file are
// confirmed together, so that reading them needs no statement a block, and its lock is kept until the announcement is
// withdrawn, replaced or the handle closed: keep that short. Records are filled like those that are read. A block that
// wasn't announced, or lies elsewhere (in the store or in another file), is read as ever, since it can move meanwhile.
// The records have an ID; their order doesn't matter. Returns 0, or -1 with nothing announced, after which reading
// works as ever.
[[nodiscard]] int announceHashedContents(HashedContentsPtr* handle, std::span<hashValue* const> records);

// Nothing to withdraw is no fault.
void withdrawHashedContents(HashedContentsPtr* handle);

void closeHashedContents(HashedContentsPtr* handle);
