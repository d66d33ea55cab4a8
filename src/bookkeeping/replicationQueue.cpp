// replicationQueue.cpp - the operations on single rows, and the pick.
#include "bookkeeping/replicationQueue.h"

#include <cstdarg>
#include <ctime>

#include "bookkeeping/common.h"
#include "database/pghelper.h"

std::string QUEUE_DATABASE = "dq.replication_queue";

namespace {

// Builds a statement in a buffer of N bytes and runs it for `operation`, which names it on the log. Null on failure.
template <std::size_t N>
[[gnu::format(printf, 2, 3)]] PgResultPtr runBuilt(const char* operation, const char* format, ...) {
    char statement[N];
    va_list arguments;
    va_start(arguments, format);
    const int length = vformatText(statement, sizeof statement, format, arguments);
    va_end(arguments);
    if (length == -1) {
        LOG_HERE(0, "Query too long for buffer");
        LOG_HERE(0, "%s was not done: its names are too long", operation);
        return nullptr;
    }
    LOG_HERE(4, "%s", statement);
    PgResultPtr result = pgExec(statement);
    if (!result)
        LOG_HERE(0, "Failed query\n");  // the statement stands on the log already
    return result;
}

int succeeded(const PgResultPtr& result) {
    return result ? 0 : -1;
}

std::string boundedVault(const std::string& vault) {
    return vault.substr(0, TARGET_NAME_SIZE - 1);
}

int changeStatus(const char* operation, std::uint64_t backupNo, const std::string& vault, int status) {
    return succeeded(runBuilt<512>(operation, "UPDATE %s SET status = %d WHERE backup_no = %lu AND vault = '%s' ",
                                   QUEUE_DATABASE.c_str(), status, backupNo, vault.c_str()));
}

// The first row of a pick: 1 with the entry, 0 for none, -1 on failure.
int readPick(const PgResultPtr& result, QueueEntry* entry) {
    if (!result)
        return -1;
    if (pgTuples(result.get()) == 0)
        return 0;
    *entry = {pgUVal(result.get(), 0, "backup_no"), pgSDup(result.get(), 0, "vault")};
    return 1;
}

// The outcome of marking a picked row. A row that wasn't changed isn't picked: it went away meanwhile, or it has no
// target name, and without its mark the next pick would give the same backup to a second worker.
std::int64_t finishPick(const PgResultPtr& marked, const QueueEntry& entry) {
    if (!marked)
        return -1;
    if (pgAffected(marked.get()) == 0) {
        LOG_HERE(0, "Backup %lu for target '%s' could not be marked active\n", entry.backupNo, entry.vault.c_str());
        return 0;
    }
    return static_cast<std::int64_t>(entry.backupNo);
}

}  // namespace

int create_replication_queue() {
    return succeeded(runBuilt<512>(__func__,
                                   "CREATE TABLE dq.replication_queue (backup_no BIGINT REFERENCES dq.backups "
                                   "(backup_no) ON DELETE CASCADE, vault TEXT, position SERIAL, status INTEGER)"));
}

int insert_rq(std::uint64_t backupNo, const std::string& vault) {
    int result = 0;
    LOG_HERE(4, "Build Query");
    if (!runBuilt<512>(__func__, "UPDATE backups SET sync_status=%d WHERE backup_no=%lu AND sync_status != %d",
                       ST_SYNC_NEEDED, backupNo, ST_SYNC_NEEDED)) {
        LOG_HERE(0, "Failed to update sync status of backup #%lu", backupNo);
        result = -1;
    }
    LOG_HERE(4, "Done Building");
    if (!runBuilt<512>(__func__, "INSERT INTO %s (backup_no, vault, status) VALUES (%lu,'%s',%d)",
                       QUEUE_DATABASE.c_str(), backupNo, vault.c_str(), REPLICATION_NEEDED))
        result = -1;
    return result;
}

int status_rq(std::uint64_t backupNo, const std::string& vault) {
    const PgResultPtr result = runBuilt<128>(__func__, "SELECT status FROM %s WHERE backup_no = %lu AND vault = '%s'",
                                             QUEUE_DATABASE.c_str(), backupNo, vault.c_str());
    if (!result)
        return -1;
    return pgTuples(result.get()) > 0 ? static_cast<int>(pgIVal(result.get(), 0, "status")) : 0;
}

int backup_status_rq(std::uint64_t backupNo) {
    const PgResultPtr result = pgQuery("SELECT status FROM dq.replication_queue WHERE backup_no=%lu", backupNo);
    if (!result) {
        LOG_HERE(0, "Query to get backup status for %lu failed.\n", backupNo);
        return 0;
    }
    if (pgTuples(result.get()) != 1) {
        LOG_HERE(0, "Failed to get backup status for %lu.\n", backupNo);
        return 0;
    }
    return static_cast<int>(pgIVal(result.get(), 0, "status"));
}

int set_status_rq(std::uint64_t backupNo, const std::string& vault, int status) {
    return succeeded(runBuilt<128>(__func__, "UPDATE %s SET status = %u WHERE backup_no = %lu AND vault = '%s'",
                                   QUEUE_DATABASE.c_str(), static_cast<unsigned>(status), backupNo, vault.c_str()));
}

int complete_rq(std::uint64_t backupNo, const std::string& vault) {
    return changeStatus(__func__, backupNo, vault, REPLICATION_COMPLETE);
}

int cleanup_rq(std::uint64_t backupNo, const std::string& vault) {
    return changeStatus(__func__, backupNo, vault, REPLICATION_TERMINATE);
}

int remove_rq(std::uint64_t backupNo, const std::string& vault) {
    return succeeded(runBuilt<512>(__func__, "DELETE FROM %s WHERE backup_no = %lu AND vault = '%s' ",
                                   QUEUE_DATABASE.c_str(), backupNo, vault.c_str()));
}

int reset_active_rq() {
    return succeeded(runBuilt<128>(__func__, "UPDATE %s SET status = %d WHERE status = %d ", QUEUE_DATABASE.c_str(),
                                   REPLICATION_NEEDED, REPLICATION_ACTIVE));
}

int delete_complete_rq() {
    return succeeded(
        runBuilt<128>(__func__, "DELETE FROM %s WHERE status = %d ", QUEUE_DATABASE.c_str(), REPLICATION_COMPLETE));
}

std::int64_t peek_rq(int offset) {
    const PgResultPtr result =
        runBuilt<128>(__func__, "SELECT backup_no FROM %s WHERE status = %d ORDER BY position LIMIT 1 OFFSET %d",
                      QUEUE_DATABASE.c_str(), REPLICATION_NEEDED, offset);
    if (!result)
        return -1;
    return pgTuples(result.get()) > 0 ? pgIVal(result.get(), 0, "backup_no") : 0;
}

int terminated_rq(unsigned max, std::vector<QueueEntry>* rows) {
    const PgResultPtr result =
        runBuilt<128>(__func__, "SELECT backup_no,vault FROM %s WHERE status = %d ORDER BY position LIMIT %u",
                      QUEUE_DATABASE.c_str(), REPLICATION_TERMINATE, max);
    if (!result)
        return -1;
    rows->clear();
    // The appliance has one target; the first row's name is taken for all.
    for (int row = 0; row < pgTuples(result.get()); ++row)
        rows->push_back({pgUVal(result.get(), row, "backup_no"), boundedVault(pgSDup(result.get(), 0, "vault"))});
    return static_cast<int>(rows->size());
}

// One statement, so that no row is ever without a position and the sequence isn't touched.
int swap_rq(std::uint64_t backupA, const std::string& vaultA, std::uint64_t backupB, const std::string& vaultB) {
    const char* table = QUEUE_DATABASE.c_str();
    return succeeded(runBuilt<512>(
        __func__,
        "UPDATE %s  SET position = CASE backup_no  WHEN %lu THEN  CASE vault  WHEN '%s' THEN  (SELECT position FROM %s "
        "WHERE backup_no = %lu AND vault = '%s')  ELSE position  END  WHEN %lu THEN  CASE vault  WHEN '%s' THEN  "
        "(SELECT position FROM %s WHERE backup_no = %lu AND vault = '%s')  ELSE position  END  END  WHERE backup_no IN "
        "(%lu,%lu)",
        table, backupA, vaultA.c_str(), table, backupB, vaultB.c_str(), backupB, vaultB.c_str(), table, backupA,
        vaultA.c_str(), backupA, backupB));
}

std::int64_t next_rq(std::string* vault) {
    QueueEntry entry;
    const int found = readPick(
        runBuilt<4096>(__func__,
                       "SELECT q.backup_no,q.vault FROM dq.replication_queue q JOIN dq.backups b ON "
                       "(q.backup_no=b.backup_no) WHERE q.status= %d AND b.tape_no!= %d AND b.instance_id NOT IN "
                       "(SELECT b.instance_id FROM dq.replication_queue q JOIN dq.backups b ON "
                       "(q.backup_no=b.backup_no) WHERE (q.status & %d) != 0) ORDER BY position LIMIT 1",
                       REPLICATION_NEEDED, -1, REPLICATION_BLOCKING),
        &entry);
    if (found != 1)
        return found;
    if (vault != nullptr)
        *vault = boundedVault(entry.vault);
    return finishPick(
        runBuilt<4096>(__func__, "UPDATE %s SET status = %d, rep_start = %lu WHERE backup_no = %ld AND vault = '%s'",
                       QUEUE_DATABASE.c_str(), REPLICATION_ACTIVE, static_cast<unsigned long>(time(nullptr)),
                       static_cast<long>(entry.backupNo), entry.vault.c_str()),
        entry);
}

std::int64_t next_any_rq(std::string* vault, int* type) {
    QueueEntry entry;
    const int found =
        readPick(runBuilt<2048>(__func__,
                                "SELECT q.backup_no,q.vault FROM dq.replication_queue q JOIN dq.backups b ON "
                                "(q.backup_no=b.backup_no) WHERE q.status= %d AND b.tape_no!= %d ORDER BY position "
                                "LIMIT 1",
                                REPLICATION_NEEDED, -1),
                 &entry);
    if (found != 1)
        return found;
    if (vault != nullptr)
        *vault = boundedVault(entry.vault);
    if (type != nullptr) {
        const PgResultPtr result =
            runBuilt<2048>(__func__, "SELECT type FROM dq.backups WHERE backup_no=%lu", entry.backupNo);
        if (pgTuples(result.get()) != 1)
            return -1;
        *type = static_cast<int>(pgIVal(result.get(), 0, "type"));
    }
    return finishPick(runBuilt<2048>(__func__, "UPDATE %s SET status = %d WHERE backup_no = %ld AND vault = '%s'",
                                     QUEUE_DATABASE.c_str(), REPLICATION_ACTIVE, static_cast<long>(entry.backupNo),
                                     entry.vault.c_str()),
                      entry);
}
