// Adding hashes and mappings, as one transaction under the lock of both tables.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "base/text.h"
#include "block/signal_catch.h"
#include "hash/hash_operation.h"
#include "hash/hash_private.h"
#include "log/logger.h"

namespace {

constexpr char BOTH_TABLES[] = "dq.hash_values, dq.backups_hash_values";

// One put on its way.
struct Put {
    hashValuesPrivate* handle;
    std::uint64_t backupNumber;
    std::uint64_t deduplicated;
    std::span<hashValue> records;
    std::span<hashOffset> offsets;
    std::vector<std::uint8_t> inserted;  // one byte an entry: its mapping went in
};

// Entries that share a key, by their numbers, next to each other; a statement names each key once.
using Entries = std::vector<std::size_t>;

int failed(const char* what, std::size_t count, const HashConnection& connection) {
    log_message(0, "INSERT INTO %s failed for %d records\n  %s", what, static_cast<int>(count), connection.error());
    return -1;
}

// New hashes, each content once: two equal ones in a statement would break the unique key. They stay in the caller's
// order, so that numbers follow the order of the backup and a list by number reads its file front to back.
int newHashes(const Put& put, std::vector<const hashValue*>* hashes) {
    for (std::size_t i = 0; i < put.records.size(); ++i) {
        const hashValue& record = put.records[i];
        if ((record.flags & hashValue_in) == 0)
            continue;
        if (!typeIsKnown(record, i))
            return -1;
        hashes->push_back(&record);
    }
    const auto key = [](const hashValue* h) {
        return std::tuple(h->hashedLength, std::string_view(reinterpret_cast<const char*>(h->digest), HASH_VALUE_SIZE));
    };
    std::sort(hashes->begin(), hashes->end(),
              [&](auto a, auto b) { return std::tuple(key(a), a) < std::tuple(key(b), b); });
    hashes->erase(std::unique(hashes->begin(), hashes->end(), [&](auto a, auto b) { return key(a) == key(b); }),
                  hashes->end());
    std::sort(hashes->begin(), hashes->end());
    return 0;
}

int insertHashBatch(hashValuesPrivate* handle, std::span<const hashValue* const> hashes) {
    const HashColumnTypes* types = handle->types;
    QueryBuffer& query = handle->query;
    if (query.append("INSERT INTO dq.hash_values (hash_type, hashed_length, hash_value) SELECT hash_type, "
                     "hashed_length, hash_value FROM dq.hash_values\nNATURAL RIGHT OUTER JOIN\n (") == -1)
        return -1;
    std::vector<std::span<const std::uint8_t>> digests;
    for (const hashValue* hash : hashes) {
        const char* separator = digests.empty() ? "" : NEXT_ARM;
        digests.emplace_back(hash->digest, static_cast<std::size_t>(hashLength(*hash)));
        if (query.append("%sSELECT '%s'::%s AS hash_type, %lu::%s AS hashed_length, $%d::%s AS hash_value", separator,
                         hash->hashType, types->hashType, hash->hashedLength, types->hashedLength,
                         static_cast<int>(digests.size()), types->hashValue) == -1) {
            log_message(0, "Miscalculated statement length!\n");
            return -1;
        }
    }
    if (query.append(") AS new_data WHERE (hash_values.hash_type IS NULL)") == -1)
        return -1;
    const PgRowsPtr result = handle->connection.runBinary(query.text(), digests);
    return succeeded(result.get()) ? 0 : failed("hash_values", hashes.size(), handle->connection);
}

int addNewHashes(const Put& put) {
    std::vector<const hashValue*> hashes;
    if (newHashes(put, &hashes) == -1)
        return -1;
    for (std::span<const hashValue* const> rest(hashes); !rest.empty();) {
        if (checkForSignal(SignalLayer::hashes) == 1)
            return -1;
        const auto batch = rest.first(std::min(rest.size(), beginArms(&put.handle->query)));
        if (batch.empty() || insertHashBatch(put.handle, batch) == -1)
            return -1;
        rest = rest.subspan(batch.size());
    }
    return writeSISoffsets(put.handle, put.records);
}

int requireAllFound(const Put& put) {
    if (lookUpRecords(put.handle, put.records) == -1)
        return -1;
    for (const hashValue& record : put.records)
        if ((record.flags & hashID_out) == 0) {
            log_message(0, "Couldn't fetch all entries from database!\n");
            return -1;
        }
    return 0;
}

// Of the hashes of these entries, sorted, those whose data some backup holds completely.
int checkForDataPSQL(const Put& put, const Entries& entries, std::vector<std::uint64_t>* withData) {
    std::vector<std::uint64_t> wanted;
    for (const std::size_t entry : entries)
        wanted.push_back(put.records[entry].hashID);
    std::sort(wanted.begin(), wanted.end());
    HashConnection& connection = put.handle->connection;
    const PgRowsPtr rows = connection.runPrepared(
        "checkForData",
        "SELECT hash_id FROM unnest($1::bigint[]) AS wanted (hash_id) WHERE EXISTS (SELECT FROM dq.backups_hash_values "
        "AS r WHERE (r.hash_id = wanted.hash_id) AND (r.hash_incomplete = FALSE) AND (r.deduplicated IS NULL))",
        {idArray(wanted)}, RowFormat::binary);
    if (!succeeded(rows.get())) {
        log_message(0, "%s(): query failed\n  %s", __func__, connection.error());
        return -1;
    }
    for (int row = 0; row < PQntuples(rows.get()); ++row)
        if (std::uint64_t hashID = 0; binaryNumber(rows.get(), row, 0, &hashID))
            withData->push_back(hashID);
    std::sort(withData->begin(), withData->end());
    for (const std::uint64_t hashID : wanted)
        if (!std::binary_search(withData->begin(), withData->end(), hashID))
            log_message(0, "%s(): Did NOT find Data for hashID %lu\n", __func__, hashID);
    return 0;
}

// The entries to be mapped: all of them, or with `deduplicated` those whose data exists somewhere.
int entriesToMap(const Put& put, Entries* entries) {
    Entries inBackups;  // of which a backup must hold the data
    for (std::size_t i = 0; i < put.records.size(); ++i) {
        if ((put.offsets[i].flags & offset_in) == 0) {
            log_message(0, "offset required to insert into backups_hash_values!\n");
            return -1;
        }
        const bool needsBackup = put.deduplicated != 0 && (put.records[i].flags & SISoffset_in) == 0;
        (needsBackup ? inBackups : *entries).push_back(i);
    }
    std::vector<std::uint64_t> withData;
    if (!inBackups.empty() && checkForDataPSQL(put, inBackups, &withData) == -1)
        return -1;
    for (const std::size_t entry : inBackups)
        if (std::binary_search(withData.begin(), withData.end(), put.records[entry].hashID))
            entries->push_back(entry);
    return 0;
}

auto mappingKey(const Put& put, std::size_t entry) {
    return std::pair(put.records[entry].hashID, put.offsets[entry].offset);
}

int buildMappings(const Put& put, std::span<const std::size_t> entries) {
    const bool complete = put.deduplicated != 0;
    const char* columns = complete ? ", deduplicated, hash_incomplete" : "";
    const std::string values =
        complete ? formatString(", %lu AS deduplicated, FALSE AS hash_incomplete", put.deduplicated) : std::string();
    QueryBuffer& query = put.handle->query;
    if (query.append(
            "INSERT INTO dq.backups_hash_values (backup_no, hash_id, file_offset%s) SELECT backup_no, hash_id, "
            "file_offset%s FROM dq.backups_hash_values\nNATURAL RIGHT JOIN\n (",
            columns, columns) == -1)
        return -1;
    const char* separator = "";
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (i > 0 && mappingKey(put, entries[i - 1]) == mappingKey(put, entries[i]))
            continue;
        const auto [hashID, offset] = mappingKey(put, entries[i]);
        if (query.append("%sSELECT %ld AS backup_no, %lu AS hash_id, %ld AS file_offset%s", separator,
                         static_cast<std::int64_t>(put.backupNumber), hashID, offset, values.c_str()) == -1)
            return -1;
        separator = NEXT_ARM;
    }
    // Which of them went in can't be asked afterwards: then all are there, the old ones and the new.
    return query.append(") AS new_data WHERE (backups_hash_values.file_offset IS NULL) RETURNING hash_id, file_offset");
}

// Notes the mappings that the statement returned, for every entry that asked for one.
int noteInserted(Put* put, std::span<const std::size_t> entries, const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
        std::uint64_t hashID = 0;
        std::uint64_t offset = 0;
        if (!binaryNumber(rows, row, 0, &hashID) || !binaryNumber(rows, row, 1, &offset)) {
            log_message(0, "ERROR: check for offset failed.\n");
            return -1;
        }
        const std::pair key(hashID, static_cast<std::int64_t>(offset));
        auto entry = std::lower_bound(entries.begin(), entries.end(), key,
                                      [&](std::size_t e, const auto& k) { return mappingKey(*put, e) < k; });
        for (; entry != entries.end() && mappingKey(*put, *entry) == key; ++entry)
            put->inserted[*entry] = 1;
    }
    return 0;
}

// Entries of one statement from the front of a sorted list; equal ones are never torn apart.
std::size_t batchSize(const Put& put, std::span<const std::size_t> entries, std::size_t limit) {
    std::size_t arms = 0;
    for (std::size_t i = 0; i < entries.size(); ++i)
        if ((i == 0 || mappingKey(put, entries[i - 1]) != mappingKey(put, entries[i])) && ++arms > limit)
            return i;
    return entries.size();
}

int addMappings(Put* put) {
    Entries sorted;
    if (entriesToMap(*put, &sorted) == -1)
        return -1;
    std::sort(sorted.begin(), sorted.end(),
              [&](std::size_t a, std::size_t b) { return mappingKey(*put, a) < mappingKey(*put, b); });
    for (std::span<const std::size_t> rest(sorted); !rest.empty();) {
        if (checkForSignal(SignalLayer::hashes) == 1)
            return -1;
        const auto batch = rest.first(batchSize(*put, rest, beginArms(&put->handle->query)));
        if (batch.empty())
            return -1;
        if (buildMappings(*put, batch) == -1) {
            log_message(0, "Miscalculated statement length!\n");
            return -1;
        }
        const PgRowsPtr rows = put->handle->connection.runBinary(put->handle->query.text(), {});
        if (!succeeded(rows.get()))
            return failed("backups_hash_values", batch.size(), put->handle->connection);
        if (noteInserted(put, batch, rows.get()) == -1)
            return -1;
        rest = rest.subspan(batch.size());
    }
    return 0;
}

int internalPutHashValuesAndBackupsHashValuesPSQL(Put* put, bool addHashes) {
    HashTransaction transaction(&put->handle->connection);
    if (transaction.begin(BOTH_TABLES) == -1 || (addHashes && addNewHashes(*put) == -1) ||
        requireAllFound(*put) == -1 || addMappings(put) == -1)
        return -1;
    return transaction.commit();
}

int putHashValues(HashValuesPtr* handle, Put put, bool addHashes, const char* function) {
    if (handle == nullptr || put.records.size() != put.offsets.size()) {
        log_message(0, "%s(%p, %p, %d): %s\n", function, static_cast<const void*>(handle),
                    static_cast<const void*>(put.records.data()), static_cast<int>(put.records.size()),
                    std::strerror(EINVAL));
        return -1;
    }
    const HashOperation operation(function);
    if (operation.connect(handle) == -1)
        return -1;
    put.handle = handle->get();
    put.inserted.resize(put.records.size());
    for (hashOffset& offset : put.offsets)
        offset.flags &= ~offset_out;
    if (put.records.empty())
        return 0;
    if (internalPutHashValuesAndBackupsHashValuesPSQL(&put, addHashes) == -1)
        return -1;
    for (std::size_t i = 0; i < put.inserted.size(); ++i)
        if (put.inserted[i] != 0)
            put.offsets[i].flags |= offset_out;
    return requireAllFound(put);
}

}  // namespace

int putAllHashValues(HashValuesPtr* handle, std::uint64_t backupNumber, std::uint64_t deduplicated,
                     std::span<hashValue> records, std::span<hashOffset> offsets) {
    return putHashValues(handle, {nullptr, backupNumber, deduplicated, records, offsets, {}}, true, __func__);
}

int putBackupsHashValues(HashValuesPtr* handle, std::uint64_t backupNumber, std::uint64_t deduplicated,
                         std::span<hashValue> records, std::span<hashOffset> offsets) {
    return putHashValues(handle, {nullptr, backupNumber, deduplicated, records, offsets, {}}, false, __func__);
}
