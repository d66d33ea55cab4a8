#include "hash/hash_list.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "base/text.h"
#include "block/signal_catch.h"
#include "hash/hashValues.h"
#include "hash/hash_connection.h"
#include "hash/hash_operation.h"
#include "log/logger.h"

namespace {

constexpr char LIST_CONNINFO[] =
    "service=localhost dbname=dqdb options='-c search_path=dq,public -c client_encoding=LATIN1'";
constexpr int EMPTY_FETCHES_AT_END = 2;  // one empty fetch alone doesn't end a list

// The server decides by its estimate whether it keeps the hashes of an excluded backup in a hashed table: 32 bytes for
// each must fit into work_mem, or, from version 13 on, into a multiple of it. Otherwise it scans them anew for each
// hash of the list, which for large backups takes days.
constexpr std::uint64_t EXCLUDED_ROW_BYTES = 64;

std::atomic<unsigned long> g_cursorNumber = 0;

}  // namespace

struct hashListHandle {
    std::uint64_t backupNumber = 0;
    int distinct = 0;
    std::vector<std::uint64_t> exclusions;
    std::string cursor;
    HashConnection connection{LIST_CONNINFO};
    HashValuesPtr hashValues;
    bool endOfBackup = false;
};

namespace {

int connectForList(HashConnection* connection) {
    if (connection->connect() == 0)
        return 0;
    log_message(0, "Can't connect to database\n");
    return -1;
}

PgRowsPtr query(HashConnection* connection, const std::string& text) {
    PgRowsPtr rows = connection->run(text);
    if (succeeded(rows.get()))
        return rows;
    log_message(0, "Error: failed database Query: %s\n", connection->error());
    return nullptr;
}

// NOT IN over a set that holds a NULL is never true: one row without a hash ID would empty the whole list, and the
// backup would pass for sent.
int dropUnknownExclusions(hashListHandle* list) {
    if (list->exclusions.empty())
        return 0;
    std::string numbers;
    for (const std::uint64_t backup : list->exclusions)
        numbers += formatString("%s%lu", numbers.empty() ? "" : ",", backup);
    const PgRowsPtr rows = query(&list->connection,
                                 "SELECT DISTINCT backup_no FROM dq.backups_hash_values WHERE (hash_id IS NULL) AND "
                                 "(backup_no IN (" +
                                     numbers + "))");
    if (!rows)
        return -1;
    for (int row = 0; row < PQntuples(rows.get()); ++row) {
        const std::uint64_t backup = std::strtoull(PQgetvalue(rows.get(), row, 0), nullptr, 10);
        log_message(0, "Backup %lu has a reference without a hash, not used as an exclusion of backup %lu\n", backup,
                    list->backupNumber);
        std::erase(list->exclusions, backup);
    }
    return 0;
}

// The largest number of hashes that the server expects of one excluded backup; 0 for none, -1 on failure.
std::int64_t mostExcluded(hashListHandle* list) {
    std::int64_t most = 0;
    for (const std::uint64_t backup : list->exclusions) {
        const PgRowsPtr plan =
            query(&list->connection,
                  formatString("EXPLAIN SELECT hash_id FROM dq.backups_hash_values WHERE backup_no=%lu", backup));
        if (!plan)
            return -1;
        const char* const rows =
            PQntuples(plan.get()) > 0 ? std::strstr(PQgetvalue(plan.get(), 0, 0), "rows=") : nullptr;
        most =
            std::max<std::int64_t>(most, rows != nullptr ? std::strtoll(rows + std::strlen("rows="), nullptr, 10) : 0);
    }
    return most;
}

// Gives the list's statement, and it alone, the memory that its exclusions need.
int makeRoomForExclusions(hashListHandle* list) {
    constexpr std::uint64_t MOST_KB = INT32_MAX;
    const std::int64_t most = mostExcluded(list);
    if (most <= 0)
        return static_cast<int>(most);
    const std::uint64_t wantedKB = std::min(static_cast<std::uint64_t>(most) * EXCLUDED_ROW_BYTES / 1024 + 1, MOST_KB);
    const PgRowsPtr set =
        query(&list->connection, formatString("SELECT set_config('work_mem', greatest(%lu, "
                                              "pg_size_bytes(current_setting('work_mem')) / 1024) || 'kB', true)",
                                              wantedKB));
    return set ? 0 : -1;
}

std::string declareStatement(const hashListHandle& list) {
    std::string text = formatString(
        "DECLARE %s SCROLL CURSOR WITH HOLD for SELECT %s* FROM dq.backups_hash_values WHERE "
        "(backup_no=%lu) AND (hash_incomplete='f') ",
        list.cursor.c_str(), list.distinct == 1 ? "DISTINCT ON (hash_id) " : "", list.backupNumber);
    for (const std::uint64_t backup : list.exclusions)
        text += formatString("AND hash_id NOT IN (SELECT hash_id FROM dq.backups_hash_values WHERE backup_no=%lu) ",
                             backup);
    text += list.distinct == 1 ? "AND hash_id IS NOT NULL order by hash_id"
                               : "AND hash_id IS NOT NULL order by file_offset";
    return text;
}

int openCursor(hashListHandle* list) {
    log_message(4, "Using postgres to create list");
    if (connectForList(&list->connection) == -1)
        return -1;
    if (!succeeded(list->connection.run("BEGIN").get())) {
        log_message(0, "BEGIN command failed: %s", list->connection.error());
        return -1;
    }
    list->cursor = formatString("metaLeft%lu", ++g_cursorNumber);
    if (dropUnknownExclusions(list) == 0 && makeRoomForExclusions(list) == 0 &&
        query(&list->connection, declareStatement(*list)))
        return 0;
    log_message(0, "Failed to create internal hash value list");
    list->cursor.clear();
    return -1;
}

// Takes one fetch into the records. Returns the number, or -1.
int takeRows(const hashListHandle& list, const PGresult* rows, std::span<hashReferenceInfo> records) {
    const int idColumn = PQfnumber(rows, "hash_id");
    const int offsetColumn = PQfnumber(rows, "file_offset");
    for (int row = 0; row < PQntuples(rows); ++row) {
        hashReferenceInfo& record = records[static_cast<std::size_t>(row)];
        std::uint64_t offset = 0;
        record = {};
        if (!binaryNumber(rows, row, idColumn, &record.hashID) || !binaryNumber(rows, row, offsetColumn, &offset)) {
            log_message(0, "Query returned wrong length for %s: %d != %zd != %d\n", "hash ID",
                        PQgetlength(rows, row, idColumn), static_cast<ssize_t>(sizeof offset), PQfsize(rows, idColumn));
            return -1;
        }
        record.flags = hashID_in;
        record.SISoffset = NO_SIS_OFFSET;
        record.backupNumber = list.backupNumber;
        record.fileOffset = static_cast<std::int64_t>(offset);
    }
    return PQntuples(rows);
}

// Fetches until the records are full or the list has ended. Returns the number, or -1.
int fetchRecords(hashListHandle* list, std::span<hashReferenceInfo> records) {
    std::size_t count = 0;
    int emptyFetches = 0;
    while (count < records.size() && !list->endOfBackup) {
        if (checkForSignal(SignalLayer::hashes) == 1)
            return -1;
        const std::string fetch =
            formatString("FETCH FORWARD %lu FROM %s", records.size() - count, list->cursor.c_str());
        const PgRowsPtr rows = list->connection.runBinary(fetch.c_str(), {});
        if (!succeeded(rows.get())) {
            log_message(0, "Error: failed database Query, backup not hashed?\n");
            return -1;
        }
        const int taken = takeRows(*list, rows.get(), records.subspan(count));
        if (taken == -1)
            return -1;
        emptyFetches = taken == 0 ? emptyFetches + 1 : 0;
        list->endOfBackup = emptyFetches == EMPTY_FETCHES_AT_END;
        count += static_cast<std::size_t>(taken);
    }
    return static_cast<int>(count);
}

}  // namespace

void freeHashList(hashListHandle* handle) {
    const std::unique_ptr<hashListHandle> owner(handle);
    if (owner->cursor.empty() || !owner->connection.isOpen())
        return;
    log_message(4, "close cursor for getting hashes.\n");
    // A failure needs no line: the connection goes, and all that it held with it.
    (void)owner->connection.run("CLOSE " + owner->cursor, OnSignal::finish);
    (void)owner->connection.run("END", OnSignal::finish);
}

int createHashList(HashListPtr* handle, std::uint64_t backupNumber, std::span<const std::uint64_t> exclusions,
                   int distinct) {
    if (handle == nullptr) {
        log_message(0, "No handle passed in");
        return -1;
    }
    if (*handle) {
        log_message(0, "WARNING:  %s:handle already exists (%p).", __func__, static_cast<void*>(handle->get()));
        return 0;
    }
    if (distinct != 0 && distinct != 1) {
        log_message(0, "Unknown distinct value:%d", distinct);
        return -1;
    }
    const HashOperation operation(__func__);
    if (!operation.canRun())
        return -1;
    HashListPtr list(new (std::nothrow) hashListHandle);
    if (!list) {
        log_message(0, "Failed to allocate memory for handle");
        return -1;
    }
    list->backupNumber = backupNumber;
    list->distinct = distinct;
    list->exclusions.assign(exclusions.begin(), exclusions.end());
    if (openCursor(list.get()) == -1)
        return -1;
    *handle = std::move(list);
    return 0;
}

int getHashesFromList(HashListPtr* handle, std::span<hashReferenceInfo> records) {
    if (handle == nullptr || !*handle) {
        log_message(0, "No handle passed in");
        return -1;
    }
    const HashOperation operation(__func__);
    if (!operation.canRun())
        return -1;
    const int count = fetchRecords(handle->get(), records);
    if (count <= 0)
        return count;
    const auto filled = records.first(static_cast<std::size_t>(count));
    if (getHashValues_hri(&(*handle)->hashValues, filled) == -1) {
        log_message(0, "Failed getHashValues_hri\n");
        return -1;
    }
    for (hashReferenceInfo& record : filled) {
        // Passed over, the block would be missing at the target of a backup that was sent without a failure.
        if ((record.flags & hashValue_out) == 0) {
            log_message(0, "Backup %lu has a block at offset %ld whose hash %lu is unknown\n", record.backupNumber,
                        record.fileOffset, record.hashID);
            return -1;
        }
        inFlagsToOut(&record);
    }
    return count;
}

void closeHashList(HashListPtr* handle) {
    if (handle != nullptr)
        handle->reset();
}

std::int64_t getHashCount(std::uint64_t backupNumber, int distinct) {
    if (backupNumber == 0) {
        log_message(0, "Invalid backup number");
        return -1;
    }
    if (distinct != 0 && distinct != 1) {
        log_message(0, "Query too long for buffer");
        return -1;
    }
    const HashOperation operation(__func__);
    HashConnection connection(LIST_CONNINFO);
    if (!operation.canRun() || connectForList(&connection) == -1)
        return -1;
    const char* counted = distinct == 1 ? "distinct hash_id" : "hash_id";
    const PgRowsPtr rows =
        query(&connection, formatString("SELECT count(%s) FROM dq.backups_hash_values WHERE backup_no=%ld", counted,
                                        static_cast<std::int64_t>(backupNumber)));
    return rows ? std::strtoll(PQgetvalue(rows.get(), 0, 0), nullptr, 10) : -1;
}
