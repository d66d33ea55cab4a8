// Looking up blocks that will be read next, many in one statement.
//
// What a single read asks for twice, the record and its place in the open backup's file, one statement tells here of
// all of them. The file is locked before the statement runs, as for a single read: a place in that file was seen under
// the lock, and holds as long as the lock does. All else that the statement tells may be out of date at once.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "base/text.h"
#include "hash/hash_generation.h"
#include "hash/hash_operation.h"
#include "hash/hashed_contents_internal.h"
#include "log/logger.h"

namespace {

// The lateral queries with their limits make the server look each hash up by its index: left to choose, it joins the
// whole tables as soon as their statistics are out of date, which on a catalogue that grows is always.
std::string statement(bool hasLength) {
    const char* const lengthColumn = hasLength ? ", compressed_length" : "";
    return formatString(
        "SELECT h.hash_id, h.hashed_length, h.sis_offset, r.file_offset%s FROM unnest($1::bigint[]) AS wanted (id), "
        "LATERAL (SELECT hash_id, hashed_length, sis_offset%s FROM dq.hash_values WHERE (hash_id = wanted.id) LIMIT 1) "
        "h LEFT JOIN LATERAL (SELECT file_offset FROM dq.backups_hash_values WHERE (backup_no = $2) AND (hash_id = "
        "h.hash_id) AND (deduplicated IS NULL) AND (hash_incomplete = FALSE) LIMIT 1) r ON TRUE",
        lengthColumn, lengthColumn);
}

using Records = std::vector<hashValue*>;

std::uint64_t number(const PGresult* rows, int row, int column) {
    return static_cast<std::uint64_t>(std::strtoll(PQgetvalue(rows, row, column), nullptr, 10));
}

void fillRecord(const PGresult* rows, int row, hashValue* record) {
    record->flags |= hashID_out;
    const bool inStore = PQgetisnull(rows, row, 2) == 0;
    record->flags = (record->flags & ~STORE_FLAGS) | (inStore ? SISoffset_out : 0);
    record->SISoffset = inStore ? number(rows, row, 2) : NO_SIS_OFFSET;
    const bool hasLength = PQnfields(rows) > 4 && PQgetisnull(rows, row, 4) == 0;
    record->compressedLength = hasLength ? number(rows, row, 4) : 0;
}

// Takes the rows over. A hash of another length than the record's is another hash under a number that was used again:
// it stays as it is, so that its read finds out. A block in the store is read from there, so it gets no place.
void takeRows(hashedContents* handle, const Records& sorted, const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
        const std::uint64_t hashID = number(rows, row, 0);
        auto found = std::ranges::lower_bound(sorted, hashID, {}, &hashValue::hashID);
        if (found == sorted.end() || (*found)->hashID != hashID || (*found)->hashedLength != number(rows, row, 1))
            continue;
        for (; found != sorted.end() && (*found)->hashID == hashID; ++found)
            fillRecord(rows, row, *found);
        if (PQgetisnull(rows, row, 2) != 0 && PQgetisnull(rows, row, 3) == 0)
            handle->confirmed.push_back({hashID, static_cast<std::int64_t>(number(rows, row, 3))});
    }
    std::ranges::stable_sort(handle->confirmed, {}, &ConfirmedPlace::hashID);
}

// Has some backup open and locked, if there is one to read the first of the blocks from.
void lockBackup(hashedContents* handle, std::span<hashValue* const> records) {
    if (lockOpenBackup(handle))
        return;
    for (const hashValue* record : records) {
        if ((record->flags & STORE_FLAGS) == 0) {
            (void)findBackupCandidate(handle, record->hashID, 0);  // logged; then each read searches for itself
            return;
        }
    }
}

int announce(hashedContents* handle, std::span<hashValue* const> records) {
    HashConnection& connection = handle->hashValues->connection;
    const int hasLength = hasCompressedLength(&connection);
    if (hasLength == -1)
        return -1;
    lockBackup(handle, records);
    Records sorted(records.begin(), records.end());
    std::ranges::sort(sorted, {}, &hashValue::hashID);
    std::vector<std::uint64_t> hashIDs;
    std::ranges::transform(sorted, std::back_inserter(hashIDs), &hashValue::hashID);
    const PgRowsPtr rows = connection.runPrepared(
        "announced", statement(hasLength == 1).c_str(),
        {idArray(hashIDs), std::to_string(static_cast<std::int64_t>(handle->backup ? handle->backupNumber : 0))});
    if (!succeeded(rows.get())) {
        log_message(0, "Can't look up %zu hash values\n%s", records.size(), connection.error());
        return -1;
    }
    takeRows(handle, sorted, rows.get());
    return 0;
}

}  // namespace

std::optional<std::int64_t> hashedContents::confirmedPlace(std::uint64_t hashID) const {
    const auto place = std::ranges::lower_bound(confirmed, hashID, {}, &ConfirmedPlace::hashID);
    const bool isThere = backupLocked && place != confirmed.end() && place->hashID == hashID;
    return isThere ? std::optional(place->fileOffset) : std::nullopt;
}

int announceHashedContents(HashedContentsPtr* handle, std::span<hashValue* const> records) {
    withdrawHashedContents(handle);
    if (handle == nullptr)
        return -1;
    // Of generation 1 nothing can be asked for together: each block is found when it is read.
    if (records.empty() || getMetadataGeneration() == GENERATION_FILES)
        return 0;
    const HashOperation operation(__func__);
    if (!operation.canRun() || openHandle(handle) == -1 || operation.connect(&(*handle)->hashValues) == -1)
        return -1;
    const int result = announce(handle->get(), records);
    if ((*handle)->confirmed.empty() && (*handle)->backupLocked)
        unlockBackup(handle->get());
    return result;
}

void withdrawHashedContents(HashedContentsPtr* handle) {
    if (handle == nullptr) {
        log_message(0, "withdrawHashedContents(NULL): %s\n", std::strerror(EINVAL));
        return;
    }
    if (!*handle)
        return;
    if ((*handle)->backupLocked)
        unlockBackup(handle->get());
    (*handle)->confirmed.clear();
}
