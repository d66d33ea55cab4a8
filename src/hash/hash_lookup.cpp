// Looking records up in dq.hash_values, many in one statement.
//
// Digests are asked for by a UNION ALL with an arm each. IDs, which every block of a backup is looked up by, go as one
// array to a prepared statement: parsing and planning arms took more of the server's time than finding the rows.
//
// Rows come back in any order (the server may run the arms in parallel), so a row finds its records by key: the records
// of a statement are sorted by the key, and equal keys share one arm and one row.

#include <algorithm>
#include <cstring>

#include "block/signal_catch.h"
#include "hash/hash_private.h"
#include "log/logger.h"

namespace {

using Records = std::vector<hashValue*>;
using RecordRange = std::span<hashValue* const>;
using Order = bool (*)(const hashValue*, const hashValue*);

constexpr std::uint32_t IN_FLAGS = 0xf;

bool byID(const hashValue* a, const hashValue* b) {
    return a->hashID < b->hashID;
}

bool byDigest(const hashValue* a, const hashValue* b) {
    if (a->hashedLength != b->hashedLength)
        return a->hashedLength < b->hashedLength;
    return std::memcmp(a->digest, b->digest, sizeof a->digest) < 0;
}

struct Lookup {
    hashValuesPrivate* handle;
    Order order;
    int hasLength;  // the table has compressed_length
    int unhandled = 0;
};

// How many of the records, from the front, share one statement of up to `limit` keys; equal keys count once.
std::size_t batchSize(RecordRange records, Order order, std::size_t limit) {
    std::size_t keys = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if ((i == 0 || order(records[i - 1], records[i])) && ++keys > limit)
            return i;
    }
    return records.size();
}

PgRowsPtr selectByID(const Lookup& lookup, RecordRange records) {
    std::vector<std::uint64_t> hashIDs;
    hashIDs.reserve(records.size());
    for (const hashValue* record : records)
        hashIDs.push_back(record->hashID);
    return lookup.handle->connection.runPrepared(
        "byID",
        lookup.hasLength == 1 ? "SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value, compressed_length "
                                "FROM dq.hash_values WHERE (hash_id = ANY($1::bigint[]))"
                              : "SELECT hash_id, hashed_length, sis_offset, hash_type, hash_value FROM dq.hash_values "
                                "WHERE (hash_id = ANY($1::bigint[]))",
        {idArray(hashIDs)}, RowFormat::binary);
}

int appendArm(const Lookup& lookup, const hashValue& record, const char* separator, std::size_t parameter) {
    const char* lengthColumn = lookup.hasLength == 1 ? ", compressed_length" : "";
    return lookup.handle->query.append(
        "%sSELECT hash_id, hashed_length, sis_offset, hash_type, hash_value%s FROM dq.hash_values WHERE (hash_type = "
        "'%s') AND (hashed_length = %lu) AND (hash_value = $%d::%s)",
        separator, lengthColumn, record.hashType, record.hashedLength, static_cast<int>(parameter),
        lookup.handle->types->hashValue);
}

PgRowsPtr selectByDigest(const Lookup& lookup, RecordRange records) {
    std::vector<std::span<const std::uint8_t>> parameters;
    const char* separator = "";
    for (std::size_t i = 0; i < records.size(); ++i) {
        const hashValue& record = *records[i];
        if (i > 0 && !byDigest(records[i - 1], records[i]))
            continue;
        parameters.emplace_back(record.digest, static_cast<std::size_t>(hashLength(record)));
        if (appendArm(lookup, record, separator, parameters.size()) == -1) {
            log_message(0, "Miscalculated statement length!\n");
            return nullptr;
        }
        separator = NEXT_ARM;
    }
    return lookup.handle->connection.runBinary(lookup.handle->query.text(), parameters);
}

// Runs the statement for one batch.
PgRowsPtr select(const Lookup& lookup, RecordRange records) {
    PgRowsPtr rows = lookup.order == &byID ? selectByID(lookup, records) : selectByDigest(lookup, records);
    if (succeeded(rows.get()))
        return rows;
    if (rows)
        log_message(0, "SELECT hash_values failed for %ld records\n  %s", static_cast<long>(records.size()),
                    lookup.handle->connection.error());
    return nullptr;
}

bool readNumber(const PGresult* rows, int row, int column, const char* what, std::uint64_t* number) {
    if (binaryNumber(rows, row, column, number))
        return true;
    log_message(0, "Query returned wrong length for %s: %d != %zd != %d\n", what, PQgetlength(rows, row, column),
                static_cast<ssize_t>(sizeof *number), PQfsize(rows, column));
    return false;
}

bool readType(const PGresult* rows, int row, hashValue* found) {
    const int length = PQgetlength(rows, row, 3);
    if (length > 0 && static_cast<std::size_t>(length) <= HASH_TYPE_SIZE)
        std::memcpy(found->hashType, PQgetvalue(rows, row, 3), static_cast<std::size_t>(length));
    if (hashLength(*found) != 0)
        return true;
    log_message(0, "Unknown hash type: %.*s\n", length, PQgetvalue(rows, row, 3));
    return false;
}

bool readDigest(const PGresult* rows, int row, hashValue* found) {
    const int length = PQgetlength(rows, row, 4);
    if (length != hashLength(*found)) {
        log_message(0, "Query returned wrong length for %s: %d != %zd != %d\n", "hash value", length,
                    static_cast<ssize_t>(hashLength(*found)), PQfsize(rows, 4));
        return false;
    }
    std::memcpy(found->digest, PQgetvalue(rows, row, 4), static_cast<std::size_t>(length));
    return true;
}

// One row as a record with its out flags.
bool readRow(const Lookup& lookup, const PGresult* rows, int row, hashValue* found) {
    *found = {};
    found->flags = hashID_out | hashValue_out;
    found->SISoffset = NO_SIS_OFFSET;
    if (!readNumber(rows, row, 0, "hash ID", &found->hashID) ||
        !readNumber(rows, row, 1, "hashed length", &found->hashedLength) || !readType(rows, row, found) ||
        !readDigest(rows, row, found))
        return false;
    if (PQgetisnull(rows, row, 2) == 0) {
        if (!readNumber(rows, row, 2, "SIS offset", &found->SISoffset))
            return false;
        found->flags |= SISoffset_out;
    }
    return lookup.hasLength != 1 || PQgetisnull(rows, row, 5) != 0 ||
           readNumber(rows, row, 5, "compressed length", &found->compressedLength);
}

void merge(const hashValue& found, hashValue* record) {
    record->flags |= found.flags;
    record->hashID = found.hashID;
    record->hashedLength = found.hashedLength;
    std::memcpy(record->hashType, found.hashType, sizeof record->hashType);
    std::memcpy(record->digest, found.digest, sizeof record->digest);
    // A place that the caller is about to store is not lost to a row that has none yet.
    if ((found.flags & SISoffset_out) == 0 && (record->flags & SISoffset_in) != 0)
        return;
    record->SISoffset = found.SISoffset;
    record->compressedLength = found.compressedLength;
}

int handleRows(Lookup* lookup, RecordRange records, const PGresult* rows) {
    for (int row = 0; row < PQntuples(rows); ++row) {
        hashValue found{};
        if (!readRow(*lookup, rows, row, &found))
            return -1;
        const auto [first, last] = std::equal_range(records.begin(), records.end(), &found, lookup->order);
        if (first == last)
            ++lookup->unhandled;
        for (auto record = first; record != last; ++record)
            merge(found, *record);
    }
    return 0;
}

int lookUpSorted(Lookup* lookup, Records* records) {
    std::sort(records->begin(), records->end(), lookup->order);
    RecordRange rest(*records);
    while (!rest.empty()) {
        if (checkForSignal(SignalLayer::hashes) == 1)
            return -1;
        const std::size_t limit = lookup->order == &byID ? IDS_PER_STATEMENT : beginArms(&lookup->handle->query);
        const RecordRange batch = rest.first(batchSize(rest, lookup->order, limit));
        if (batch.empty())
            return -1;
        const PgRowsPtr rows = select(*lookup, batch);
        if (!rows || handleRows(lookup, batch, rows.get()) == -1)
            return -1;
        rest = rest.subspan(batch.size());
    }
    if (lookup->unhandled > 0)
        log_message(0, "%d query results not handled\n", lookup->unhandled);
    return 0;
}

}  // namespace

std::string idArray(std::span<const std::uint64_t> hashIDs) {
    std::string text = "{";
    for (std::size_t i = 0; i < hashIDs.size(); ++i) {
        if (i > 0 && hashIDs[i] == hashIDs[i - 1])
            continue;
        if (i > 0)
            text += ',';
        text += std::to_string(static_cast<std::int64_t>(hashIDs[i]));
    }
    return text += '}';
}

int lookUpRecords(hashValuesPrivate* handle, const Records& records) {
    Records withID;
    Records withDigest;
    for (std::size_t i = 0; i < records.size(); ++i) {
        hashValue& record = *records[i];
        record.flags &= IN_FLAGS;
        if (getSIShashTable(&handle->table, &record) != 1)
            continue;
        if ((record.flags & hashID_in) != 0)
            withID.push_back(&record);
        else if ((record.flags & hashValue_in) != 0 && typeIsKnown(record, i))
            withDigest.push_back(&record);
    }
    if (withID.empty() && withDigest.empty())
        return 0;
    const int hasLength = hasCompressedLength(&handle->connection);
    if (hasLength == -1)
        return -1;
    Lookup ids{handle, &byID, hasLength};
    Lookup digests{handle, &byDigest, hasLength};
    return lookUpSorted(&ids, &withID) == -1 || lookUpSorted(&digests, &withDigest) == -1 ? -1 : 0;
}

int lookUpRecords(hashValuesPrivate* handle, std::span<hashValue> records) {
    Records pointers;
    pointers.reserve(records.size());
    for (hashValue& record : records)
        pointers.push_back(&record);
    return lookUpRecords(handle, pointers);
}
