// hashed_contents_internal.h - the reading handle, and the search for a backup to read from.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "archive/archiverw.h"
#include "hash/hash_private.h"
#include "hash/hashed_contents.h"
#include "sis/SIS.h"

// A record with one of these lies in the single instance store.
inline constexpr std::uint32_t STORE_FLAGS = SISoffset_in | SISoffset_out;

// Data of one block that was read ahead. Synthetic hash IDs are used again, so the digest counts too when it is known.
struct ReadAhead {
    std::unique_ptr<std::byte[]> bytes;
    std::uint32_t capacity = 0;
    std::uint32_t length = 0;  // valid bytes, 0 none
    std::int64_t offset = 0;   // of the first one in the block
    hashValue block{};         // whose data it is
};

// The place of a block that was announced, in the open backup's file.
struct ConfirmedPlace {
    std::uint64_t hashID;
    std::int64_t fileOffset;
};

struct hashedContents {
    HashValuesPtr hashValues;  // its connection serves the search too
    ArchiveFilterPtr backup;
    std::string backupPath;
    std::uint64_t backupNumber = 0;
    bool backupLocked = false;
    SISPtr store;  // opened when the first block lies in it
    ReadAhead ahead;
    std::vector<ConfirmedPlace> confirmed;  // ascending; seen under the lock, and gone with it
    std::uint64_t maxSubfileBytes = 0;      // asked of the platform once a handle, 0 not yet

    // Where the block lies for certain: seen in the tables while the open backup's file was locked, which it still is.
    // Of any other block, announced or not, nothing is certain: it can have moved since.
    [[nodiscard]] std::optional<std::int64_t> confirmedPlace(std::uint64_t hashID) const;
};

// Makes the handle if there is none yet. 0 or -1.
[[nodiscard]] int openHandle(HashedContentsPtr* handle);

// Opens a backup's file by its number, on whichever disk it lies. Null if there is none.
[[nodiscard]] ArchiveFilterPtr openBackupFile(HashConnection* connection, std::uint64_t backupNumber,
                                              std::string* path);

void closeBackup(hashedContents* handle);

// Locks the file that was kept open. False, and nothing is open any more, if it can't be locked or was replaced.
[[nodiscard]] bool lockOpenBackup(hashedContents* handle);

void unlockBackup(hashedContents* handle);

// Finds a backup that holds the block, opens and locks its file and seeks to `offset` within the block.
// Returns 1 with that done, 0 if no backup holds the block, -1 on failure or if none of them could be used.
[[nodiscard]] int findBackupCandidate(hashedContents* handle, std::uint64_t hashID, std::int64_t offset);
