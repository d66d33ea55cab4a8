#include "daemon/policies.h"

#include <optional>
#include <string>
#include <vector>

#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "config/settings.h"
#include "database/pghelper.h"
#include "log/logger.h"

namespace {

const std::string& target() {
    return g_settings.targetName;
}

// Whether a newer backup of the instance is in the queue: the target takes an instance's backups in order only. A
// failure counts as yes.
bool hasNewerInQueue(std::uint64_t backupNo) {
    Statement<4096> statement;
    if (statement.build(
            "SELECT q.backup_no FROM dq.replication_queue q JOIN dq.backups b ON (q.backup_no=b.backup_no) "
            "WHERE q.backup_no>%ld AND q.vault = '%s' AND b.instance_id=(SELECT instance_id FROM dq.backups "
            "WHERE backup_no=%ld)",
            static_cast<long>(backupNo), target().c_str(), static_cast<long>(backupNo)) == -1)
        return true;
    const PgResultPtr rows = pgExec(statement.text());
    if (pgStatus(rows.get()) == -1) {
        LOG_HERE(0, "Failed query\n");
        return true;
    }
    return pgTuples(rows.get()) > 0;
}

void fifoConsider(std::uint64_t backupNo) {
    LOG_HERE(3, "Attempting to queue backup:%ld", static_cast<long>(backupNo));
    const int status = status_rq(backupNo, target());
    if (status == REPLICATION_COMPLETE) {
        (void)clearSyncNeeded(backupNo);  // both are tried again by the next pass
        (void)setSyncDone(backupNo);
        return;
    }
    if (status != 0)
        return;
    LOG_HERE(3, "Backup:%ld not in queue", static_cast<long>(backupNo));
    if (hasNewerInQueue(backupNo)) {
        LOG_HERE(0, "fifoEnqueue: Attempt was made to add backup %ld to the queue out of order.\n",
                 static_cast<long>(backupNo));
        (void)clearSyncNeeded(backupNo);
        return;
    }
    LOG_HERE(3, "Enqueue:%ld", static_cast<long>(backupNo));
    (void)enqueue_rq(backupNo, target());
}

int instancesByPriority(std::vector<std::uint64_t>* instances) {
    Statement<256> statement;
    if (statement.build("SELECT instance_id FROM dq.application_instances ORDER BY priority DESC") == -1)
        return -1;
    const PgResultPtr rows = pgExec(statement.text());
    if (pgStatus(rows.get()) == -1) {
        LOG_HERE(0, "Error: failed database Query\n");
        LOG_HERE(0, "%s", statement.text());
        return -1;
    }
    for (int row = 0; row < pgTuples(rows.get()); ++row)
        instances->push_back(pgUVal(rows.get(), row, "instance_id"));
    return 0;
}

// The newest backup of the instance that began before what is being built, if it waits for replication. Asked for every
// instance on every pass, so the statement is prepared. Stores it, or nothing; -1 on failure.
int newestCandidate(std::uint64_t instance, std::optional<std::uint64_t>* backupNo) {
    static_assert(ST_BUILDING == 512);  // stands in the text, where an index on what is being built can serve it
    const PgResultPtr rows = pgQuery(
        "SELECT backup_no,sync_status FROM dq.backups WHERE CASE WHEN (SELECT start_time FROM dq.backups WHERE "
        "instance_id=%lu AND (status & 512 )=512 ORDER BY start_time DESC LIMIT 1) IS NOT NULL THEN "
        "start_time<(SELECT start_time FROM dq.backups WHERE instance_id=%lu AND (status & 512 )=512 ORDER BY "
        "start_time DESC LIMIT 1) ELSE TRUE END AND(status & 512 )=0 AND instance_id=%lu  ORDER BY start_time DESC "
        "LIMIT 1",
        instance, instance, instance);
    if (pgStatus(rows.get()) == -1)
        return -1;
    LOG_HERE(3, "count: %ld", static_cast<long>(pgTuples(rows.get())));
    if (pgTuples(rows.get()) == 0)
        return 0;
    const long sync = pgIVal(rows.get(), 0, "sync_status");
    LOG_HERE(3, "Sync:%ld", sync);
    if (sync != ST_SYNC_NEEDED)
        return 0;
    *backupNo = pgUVal(rows.get(), 0, "backup_no");
    LOG_HERE(3, "Backup:%ld", static_cast<long>(**backupNo));
    return 0;
}

// Whether an early-sync backup of the instance, no newer than this one, still runs and waits. A failure counts as yes.
bool earlySyncIsRunning(std::uint64_t backupNo) {
    const long number = static_cast<long>(backupNo);
    Statement<2048> statement;
    if (statement.build("SELECT backup_no FROM dq.backups WHERE instance_id=(SELECT instance_id FROM dq.backups WHERE "
                        "backup_no=%ld) AND (properties & %d)=%d AND (status & %d )=0 AND (sync_status & %d)=%d AND "
                        "start_time<=(SELECT start_time FROM dq.backups WHERE backup_no=%ld) ",
                        number, P_EARLY_SYNC, P_EARLY_SYNC, JOB_ENDED, ST_SYNC_NEEDED, ST_SYNC_NEEDED, number) == -1)
        return true;
    const PgResultPtr rows = pgExec(statement.text());
    return pgStatus(rows.get()) == -1 || pgTuples(rows.get()) > 0;
}

bool isEarlySyncMaster(std::uint64_t backupNo) {
    Statement<2048> statement;
    if (statement.build("SELECT backup_no FROM dq.backups WHERE backup_no=%ld AND (properties&%d)=%d AND (status&%d)=0 "
                        "AND type IN (%u,%u,%u) AND (sync_status & %d)=%d",
                        static_cast<long>(backupNo), P_EARLY_SYNC, P_EARLY_SYNC, ST_BUILDING,
                        static_cast<unsigned>(TYPE_MASTER), static_cast<unsigned>(TYPE_ESX_FULL),
                        static_cast<unsigned>(TYPE_HYPERV_FULL), ST_SYNC_NEEDED, ST_SYNC_NEEDED) == -1)
        return false;
    const PgResultPtr rows = pgExec(statement.text());
    return pgStatus(rows.get()) == 0 && pgTuples(rows.get()) > 0;
}

int lifoConsider(std::uint64_t instance) {
    LOG_HERE(3, "Instance: %lu", instance);
    std::optional<std::uint64_t> newest;
    if (newestCandidate(instance, &newest) == -1) {
        LOG_HERE(0, "Failed to get backups");
        return -1;
    }
    if (!newest)
        return 0;
    const std::uint64_t candidate = *newest;
    if (status_rq(candidate, target()) == 0 && (!earlySyncIsRunning(candidate) || isEarlySyncMaster(candidate))) {
        LOG_HERE(3, "lifo enqueue: %lu\n", candidate);
        (void)enqueue_rq(candidate, target());
    }
    (void)prune_older_rq(candidate, target());  // what it leaves is pruned by the next pass
    return 0;
}

}  // namespace

int fifoEnqueue() {
    if (target().empty())
        return 0;
    Statement<512> statement;
    if (statement.build(
            "SELECT b.backup_no FROM dq.backups b left join dq.replication_queue q ON (b.backup_no=q.backup_no) WHERE "
            "q.position IS NULL AND sync_status=%d AND (instance_id NOT IN (SELECT DISTINCT instance_id FROM "
            "dq.backups "
            "WHERE (properties&%d)=%d AND (status&%d)=0) OR ((properties&%d)=%d AND (b.status&%d)=0 AND type IN "
            "(%u,%u,%u))) ORDER BY backup_no ASC",
            ST_SYNC_NEEDED, P_EARLY_SYNC, P_EARLY_SYNC, JOB_ENDED, P_EARLY_SYNC, P_EARLY_SYNC, ST_BUILDING,
            static_cast<unsigned>(TYPE_MASTER), static_cast<unsigned>(TYPE_ESX_FULL),
            static_cast<unsigned>(TYPE_HYPERV_FULL)) == -1)
        return -1;
    const PgResultPtr rows = pgExec(statement.text());
    if (pgStatus(rows.get()) == -1) {
        LOG_HERE(0, "Error: failed database Query, backup not hashed?\n");
        return -1;
    }
    const int count = pgTuples(rows.get());
    for (int row = 0; row < count; ++row)
        fifoConsider(pgUVal(rows.get(), row, "backup_no"));
    return count;
}

int lifoEnqueue() {
    if (target().empty())
        return 0;
    std::vector<std::uint64_t> instances;
    if (instancesByPriority(&instances) == -1) {
        LOG_HERE(0, "Failed to get instance list");
        return -1;
    }
    for (const std::uint64_t instance : instances) {
        if (lifoConsider(instance) == -1)
            return -1;
    }
    return 0;
}

void updateQueue() {
    LOG_HERE(3, "Updating queue");
    switch (g_settings.queueScheme) {
        case QUEUE_SCHEME_RETENTION:
            LOG_HERE(3, "Retention");
            (void)fifoEnqueue();  // logged; the next pass repeats it
            break;
        case QUEUE_SCHEME_RECENCY:
            LOG_HERE(3, "Recency");
            (void)fifoEnqueue();
            (void)lifoEnqueue();
            break;
        default:
            break;
    }
}
