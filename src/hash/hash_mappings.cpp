// Changing and deleting mappings, and the two ways of finding hashes that nothing uses any more.

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "base/text.h"
#include "block/signal_catch.h"
#include "hash/hash_operation.h"
#include "hash/hash_private.h"
#include "log/logger.h"

namespace {

constexpr std::int64_t NO_LAST_OFFSET = std::numeric_limits<std::int64_t>::max();
constexpr std::size_t UPDATE_LIMIT = 512;
constexpr std::size_t DELETE_LIMIT = 128;

std::string updateStatement(const hashReferenceInfo& record, std::int64_t first, std::int64_t last) {
    const bool changesData = (record.referenceFlags & deduplicated_in) != 0;
    std::string text = "UPDATE dq.backups_hash_values SET";
    if (changesData && record.deduplicated != 0)
        text = formatString("UPDATE dq.backups_hash_values  SET deduplicated = %ld",
                            static_cast<std::int64_t>(record.deduplicated));
    else if (changesData)
        text = "UPDATE dq.backups_hash_values  SET deduplicated = DEFAULT";
    if ((record.referenceFlags & complete_in) != 0)
        text += formatString("%c hash_incomplete = %s", changesData ? ',' : ' ',
                             (record.referenceFlags & reference_complete) != 0 ? "FALSE" : "TRUE");
    text += formatString(" WHERE (backup_no = %ld)", static_cast<std::int64_t>(record.backupNumber));
    if ((record.flags & hashID_in) != 0)
        text += formatString(" AND (hash_id = %ld)", static_cast<std::int64_t>(record.hashID));
    // One bound only: the operators' tools rely on a first offset above 0 reaching to the end.
    if (first == last)
        text += formatString(" AND (file_offset = %ld) ", first);
    else if (first >= 1)
        text += formatString(" AND (file_offset >= %ld) ", first);
    else if (last != NO_LAST_OFFSET)
        text += formatString(" AND (file_offset <= %ld) ", last);
    return text;
}

std::int64_t rowsChanged(const PGresult* result) {
    return std::strtoll(PQcmdTuples(const_cast<PGresult*>(result)), nullptr, 10);
}

const char* plural(std::int64_t count) {
    return count == 1 ? "" : "s";
}

// Deletes the hashes from dq.hash_values that no backup maps, of those given. The tables are locked. Returns the
// number, or -1.
int deleteUnused(hashValuesPrivate* handle, const std::vector<std::uint64_t>& hashIDs) {
    const PgRowsPtr result = handle->connection.runPrepared(
        "deleteUnused",
        "DELETE FROM dq.hash_values WHERE (hash_id = ANY($1::bigint[])) AND NOT EXISTS (SELECT FROM "
        "dq.backups_hash_values AS r WHERE (r.hash_id = hash_values.hash_id))",
        {idArray(hashIDs)});
    if (!succeeded(result.get())) {
        log_message(0, "%s(): can't delete %zu hashes\n  %s", __func__, hashIDs.size(), handle->connection.error());
        return -1;
    }
    return static_cast<int>(rowsChanged(result.get()));
}

int deleteOrphansOnTheWay(hashValuesPrivate* handle, const std::vector<std::uint64_t>& hashIDs) {
    if (hashIDs.empty())
        return 0;
    // Seen without a lock: one of them may have found a user since, so the look is repeated under it.
    HashTransaction transaction(&handle->connection);
    if (transaction.begin("dq.hash_values, dq.backups_hash_values") == -1 || deleteUnused(handle, hashIDs) == -1)
        return -1;
    return transaction.commit();
}

std::string storeQuery(std::uint64_t offset, int count, bool hasLength) {
    const char* lengthColumn = hasLength ? ", compressed_length" : "";
    return formatString(
        "SELECT hash_id, hashed_length, sis_offset, backup_no%s FROM dq.backups_hash_values NATURAL RIGHT OUTER JOIN "
        "(SELECT hash_id, hashed_length, sis_offset%s FROM dq.hash_values WHERE (sis_offset >= %lu) ORDER BY "
        "sis_offset LIMIT %d) AS SISfileHashes ORDER BY sis_offset LIMIT %d",
        lengthColumn, lengthColumn, offset, count, count);
}

// Reads the rows of the store list: one a use of a hash, in the order of offsets.
int readStoreRows(const PGresult* rows, bool hasLength, std::span<SIShashReference> output,
                  std::vector<std::uint64_t>* orphans) {
    int filled = 0;
    for (int row = 0; row < PQntuples(rows); ++row) {
        SIShashReference reference{};
        if (!binaryNumber(rows, row, 0, &reference.hashID) || !binaryNumber(rows, row, 1, &reference.hashedLength) ||
            !binaryNumber(rows, row, 2, &reference.SISoffset) ||
            (hasLength && PQgetisnull(rows, row, 4) == 0 && !binaryNumber(rows, row, 4, &reference.compressedLength))) {
            log_message(0, "Query returned wrong length for %s: %d != %zd != %d\n", "hash ID",
                        PQgetlength(rows, row, 0), static_cast<ssize_t>(sizeof reference.hashID), PQfsize(rows, 0));
            return -1;
        }
        if (PQgetisnull(rows, row, 3) != 0)
            orphans->push_back(reference.hashID);
        else if (filled == 0 || output[static_cast<std::size_t>(filled) - 1].hashID != reference.hashID)
            output[static_cast<std::size_t>(filled++)] = reference;
    }
    return filled;
}

}  // namespace

std::int64_t updateHashInfo(HashValuesPtr* handle, const hashReferenceInfo& record, std::int64_t firstOffset,
                            std::int64_t lastOffset) {
    if ((record.referenceFlags & (deduplicated_in | complete_in)) == 0) {
        log_message(0, "%s(): deduplicated_in and complete_in are both 0, nothing to do.\n", __func__);
        return 0;
    }
    const HashOperation operation(__func__);
    if (operation.connect(handle) == -1)
        return -1;
    const std::string statement = updateStatement(record, firstOffset, lastOffset);
    if (statement.size() >= UPDATE_LIMIT) {
        log_message(0, "Buffer too small for UPDATE statement\n");
        return -1;
    }
    const auto backupNumber = static_cast<std::int64_t>(record.backupNumber);
    const PgRowsPtr result = (*handle)->connection.run(statement);
    if (!succeeded(result.get())) {
        log_message(0, "%s(): Can't complete hash mapping(s) for backup %ld\n", __func__, backupNumber);
        log_message(0, "%s(): query: %s\n", __func__, statement.c_str());
        return -1;
    }
    const std::int64_t changed = rowsChanged(result.get());
    log_message(4, "%s(): %d hash mapping%s completed for backup %ld\n", __func__, static_cast<int>(changed),
                plural(changed), backupNumber);
    return changed;
}

std::int64_t deleteHashValueMappings(HashValuesPtr* handle, std::uint64_t backupNumber, std::int64_t firstOffset,
                                     std::int64_t lastOffset) {
    const HashOperation operation(__func__);
    if (operation.connect(handle) == -1)
        return -1;
    const auto backup = static_cast<std::int64_t>(backupNumber);
    std::string statement = formatString("DELETE FROM dq.backups_hash_values WHERE (backup_no = %ld)", backup);
    if (firstOffset > 0)
        statement += formatString(" AND (file_offset >= %ld)", firstOffset);
    if (lastOffset != NO_LAST_OFFSET)
        statement += formatString(" AND (file_offset <= %ld)", lastOffset);
    if (statement.size() >= DELETE_LIMIT) {
        log_message(0, "Buffer too small for file_offset in DELETE statement\n");
        return -1;
    }
    const PgRowsPtr result = (*handle)->connection.run(statement);
    if (!succeeded(result.get())) {
        log_message(0, "%s(): Can't delete hash mappings of backup %ld\n  %s", __func__, backup,
                    (*handle)->connection.error());
        return -1;
    }
    const std::int64_t deleted = rowsChanged(result.get());
    log_message(4, "%s(): %d hash mapping%s deleted for backup %ld\n", __func__, static_cast<int>(deleted),
                plural(deleted), backup);
    return deleted;
}

int getSIShashReferencesBySISoffset(HashValuesPtr* handle, std::uint64_t offset, std::span<SIShashReference> output) {
    const HashOperation operation(__func__);
    if (operation.connect(handle, output.size()) == -1)
        return -1;
    hashValuesPrivate& connected = **handle;
    const int hasLength = hasCompressedLength(&connected.connection);
    if (hasLength == -1)
        return -1;
    for (SIShashReference& reference : output)
        reference = {0, NO_SIS_OFFSET, 0, 0};
    const std::string query = storeQuery(offset, static_cast<int>(output.size()), hasLength == 1);
    // 0 tells the caller that nothing more lies in the store, so a page of orphans alone is looked at again without
    // them.
    for (;;) {
        const PgRowsPtr rows = connected.connection.runBinary(query.c_str(), {});
        if (!succeeded(rows.get())) {
            log_message(0, "%s(): query failed\n  %s", __func__, connected.connection.error());
            return -1;
        }
        std::vector<std::uint64_t> orphans;
        const int filled = readStoreRows(rows.get(), hasLength == 1, output, &orphans);
        if (filled == -1 || deleteOrphansOnTheWay(&connected, orphans) == -1 ||
            checkForSignal(SignalLayer::hashes) == 1)
            return -1;
        if (filled > 0 || orphans.empty())
            return filled;
    }
}

int deleteOrphanedHashes(HashValuesPtr* handle, int limit) {
    const HashOperation operation(__func__);
    if (operation.connect(handle, 0) == -1)
        return -1;
    HashTransaction transaction(&(*handle)->connection);
    if (transaction.begin("dq.hash_values, dq.backups_hash_values") == -1)
        return -1;
    const std::string query = formatString(
        "SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value, backup_no FROM dq.backups_hash_values "
        "NATURAL RIGHT OUTER JOIN (SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value FROM "
        "dq.hash_values WHERE (sis_offset IS NULL)) AS nonSISfileHashes WHERE (backup_no IS NULL) LIMIT %d",
        limit);
    const PgRowsPtr rows = (*handle)->connection.runBinary(query.c_str(), {});
    if (!succeeded(rows.get())) {
        log_message(0, "%s(): query failed\n  %s", __func__, (*handle)->connection.error());
        return -1;
    }
    std::vector<std::uint64_t> orphans(static_cast<std::size_t>(PQntuples(rows.get())));
    for (int row = 0; row < PQntuples(rows.get()); ++row)
        if (!binaryNumber(rows.get(), row, 0, &orphans[static_cast<std::size_t>(row)])) {
            log_message(0, "%s(): query failed\n  a hash ID of a wrong length\n", __func__);
            return -1;
        }
    const int deleted = deleteUnused(handle->get(), orphans);
    if (deleted == -1 || transaction.commit() == -1)
        return -1;
    log_message(4, "%d orphaned hash%s deleted\n", deleted, deleted == 1 ? "" : "es");
    return deleted;
}
