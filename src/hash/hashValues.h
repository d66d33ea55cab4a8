// hashValues.h - the operations that fetch, add and change hash values and their use in backups.
//
// A put is one transaction: after a failure nothing of it remains. Writers hold a lock on the tables, dq.hash_values
// before dq.backups_hash_values; readers hold none. SIGHUP, SIGINT and SIGTERM take effect at the end of an operation;
// one that is long gives up with -1 between two statements.
//
// Flags: a lookup clears the out bits of a record, takes its in bits as the key (hashID_in before hashValue_in), and
// sets the out bits of what it found. The in bits stay, so a record can be looked up again. A record without a row
// stays without out bits, which is no error.
//
// Threads: a handle belongs to one thread at a time; different handles may be used in parallel.
// Errors:  -1, with the reason logged. A database that has gone is connected to again, so a later try can help.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "base/releaser.h"
#include "block/hash_value.h"

struct hashValuesPrivate;  // connection and statement buffer
void freeHashValuesPrivate(hashValuesPrivate* handle);
using HashValuesPtr = std::unique_ptr<hashValuesPrivate, Releaser<&freeHashValuesPrivate>>;

// The handle is made on first use by each of these. A place in the store, once known, is SISoffset with SISoffset_out;
// without one SISoffset is NO_SIS_OFFSET.
[[nodiscard]] int getHashValues(HashValuesPtr* handle, std::span<hashValue> records);
[[nodiscard]] int getHashValues_hri(HashValuesPtr* handle, std::span<hashReferenceInfo> records);

// Adds the hashes that are new and maps records[i] to offsets[i] of the backup; both lists have the same length. With
// `deduplicated` not 0 a mapping is complete at once, and is made only for a hash whose data exists: in the store
// (SISoffset_in) or as a complete reference of some backup. offset_out tells which mappings were inserted; one that was
// there before is left alone. Afterwards the records hold what is stored.
[[nodiscard]] int putAllHashValues(HashValuesPtr* handle, std::uint64_t backupNumber, std::uint64_t deduplicated,
                                   std::span<hashValue> records, std::span<hashOffset> offsets);

// The same for hashes that must exist.
[[nodiscard]] int putBackupsHashValues(HashValuesPtr* handle, std::uint64_t backupNumber, std::uint64_t deduplicated,
                                       std::span<hashValue> records, std::span<hashOffset> offsets);

// Stores SISoffset and compressedLength of the records with both hashValue_in and SISoffset_in.
[[nodiscard]] int updateSISoffsets(HashValuesPtr* handle, std::span<hashValue> records);

// Changes `deduplicated` (with deduplicated_in) and completeness (with complete_in, to reference_complete) of the
// mappings of a backup, of one hash only with hashID_in. Equal offsets name one mapping. Otherwise one bound is
// applied: the first if it is above 0, else the last unless it is INT64_MAX. Returns the number changed, or -1.
[[nodiscard]] std::int64_t updateHashInfo(HashValuesPtr* handle, const hashReferenceInfo& record,
                                          std::int64_t firstOffset, std::int64_t lastOffset);

// Deletes mappings from firstOffset (0: the start) to lastOffset (INT64_MAX: the end). Returns the number, or -1.
[[nodiscard]] std::int64_t deleteHashValueMappings(HashValuesPtr* handle, std::uint64_t backupNumber,
                                                   std::int64_t firstOffset, std::int64_t lastOffset);

// What lies in the single instance store from an offset on.
struct SIShashReference {
    std::uint64_t hashID;
    std::uint64_t SISoffset;  // NO_SIS_OFFSET in entries that were not filled
    std::uint64_t hashedLength;
    std::uint64_t compressedLength;
};

// Fills the list in the order of offsets, and deletes on its way hashes that no backup uses. Returns the number filled.
[[nodiscard]] int getSIShashReferencesBySISoffset(HashValuesPtr* handle, std::uint64_t offset,
                                                  std::span<SIShashReference> output);

// Deletes up to `limit` hashes that neither a backup nor the store uses. Returns the number, or -1.
[[nodiscard]] int deleteOrphanedHashes(HashValuesPtr* handle, int limit);
