// queue_chains.cpp - queue operations that follow the chains between backups: enqueue, prune, resolve.
#include <set>

#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "database/pghelper.h"

namespace {

// A backup of a chain. The type field of a member that came from a restore group holds a job type code, of which only
// Master's is the number of a self-contained type.
struct Member {
    std::uint64_t backupNo;
    int type;
};

template <std::size_t N>
int readType(std::uint64_t backupNo, int* type) {
    Statement<N> statement;
    if (statement.build("SELECT type FROM dq.backups WHERE backup_no = %lu ", backupNo) == -1)
        return -1;
    const PgResultPtr result = pgExec(statement.text());
    if (!result || pgTuples(result.get()) == 0) {
        LOG_HERE(0, "Failed query:%s\n", statement.text());
        return -1;
    }
    *type = static_cast<int>(pgIVal(result.get(), 0, "type"));
    return 0;
}

int synthesisMembers(std::uint64_t backupNo, bool withTypes, std::vector<Member>* members) {
    std::vector<std::uint32_t> list;
    if (dqGetSynthesisGroup(backupNo, false, false, &list, nullptr) == -1)
        return -1;
    for (const std::uint32_t number : list)
        members->push_back({number, withTypes ? getBackupType(number) : 0});
    return 0;
}

int restoreMembers(std::uint64_t backupNo, std::vector<Member>* members) {
    std::vector<RestoreGroupRecord> list;
    if (dqGetRestoreGroupOptimized(backupNo, &list) == -1)
        return -1;
    for (const RestoreGroupRecord& record : list)
        members->push_back({record.backupNo, record.jobTypeCode});
    return 0;
}

// Adds a missing row; revives one that was skipped or terminated.
int enqueueMember(std::uint64_t backupNo, const std::string& vault) {
    const int status = status_rq(backupNo, vault);
    if (status == -1)
        return -1;
    if (status == 0)
        return insert_rq(backupNo, vault);
    if (status == REPLICATION_COMPLETE || (status & REPLICATION_BLOCKING) != 0)
        return 0;
    return set_status_rq(backupNo, vault, REPLICATION_NEEDED);
}

int runPruning(const Statement<4096>& statement) {
    LOG_HERE(4, "Query:%s", statement.text());
    if (pgExec(statement.text()))
        return 0;
    LOG_HERE(0, "Error: failed database Query\n");
    LOG_HERE(0, "%s", statement.text());
    return -1;
}

// Older waiting rows of the anchor's instance lose the sync-needed bit, and then their rows. Bare-metal backups keep
// both while they are queued; older ones that aren't queued lose the bit, so that they don't come back.
int pruneBefore(std::uint64_t anchorNo, const std::string& vault) {
    const int anchor = static_cast<int>(anchorNo);
    Statement<4096> statement;
    if (statement.build(
            "UPDATE dq.backups SET sync_status=(sync_status & ~%d) WHERE backup_no IN ( SELECT q.backup_no FROM "
            "dq.replication_queue q JOIN dq.backups b ON (q.backup_no = b.backup_no) WHERE b.instance_id=(SELECT "
            "instance_id FROM dq.backups WHERE backup_no=%d) AND b.start_time<(SELECT start_time FROM dq.backups WHERE "
            "backup_no=%d) AND q.status=%d AND q.vault='%s' AND b.type != %d) OR backup_no IN ( SELECT backup_no FROM "
            "dq.backups b WHERE backup_no NOT IN (SELECT backup_no FROM dq.replication_queue) AND "
            "b.instance_id=(SELECT "
            "instance_id FROM dq.backups WHERE backup_no=%d) AND b.start_time<(SELECT start_time FROM dq.backups WHERE "
            "backup_no=%d) AND b.type = %d ) ",
            ST_SYNC_NEEDED, anchor, anchor, REPLICATION_NEEDED, vault.c_str(), TYPE_BARE_METAL, anchor, anchor,
            TYPE_BARE_METAL) == -1 ||
        runPruning(statement) == -1)
        return -1;
    if (statement.build(
            "DELETE FROM dq.replication_queue WHERE backup_no IN ( SELECT q.backup_no FROM dq.replication_queue q JOIN "
            "dq.backups b ON (q.backup_no = b.backup_no) WHERE b.instance_id=(SELECT instance_id FROM dq.backups WHERE "
            "backup_no=%d) AND b.start_time<(SELECT start_time FROM dq.backups WHERE backup_no=%d) AND q.status=%d AND "
            "q.vault='%s' AND b.sync_status!=%d)",
            anchor, anchor, REPLICATION_NEEDED, vault.c_str(), ST_SYNC_NEEDED) == -1)
        return -1;
    return runPruning(statement);
}

int pruningMembers(std::uint64_t backupNo, int type, std::vector<Member>* members) {
    if (isSelfContainedType(type)) {
        members->push_back({backupNo, type});
    } else if (type == TYPE_INCREMENTAL) {
        if (synthesisMembers(backupNo, true, members) == -1) {
            LOG_HERE(0, "Could not determine synthesis group");
            return -1;
        }
        for (std::size_t i = 0; i < members->size(); ++i)
            LOG_HERE(4, "array[%d] = %d", static_cast<int>(i), static_cast<int>((*members)[i].backupNo));
    } else if (restoreMembers(backupNo, members) == -1) {
        LOG_HERE(0, "Could not determine restore group; Must be master.");
        return -1;
    }
    return 0;
}

// Newer rows of the instance go: the target refuses a backup that is older than one it has.
int deleteNewerRows(std::uint64_t backupNo, unsigned long instance, unsigned long start) {
    LOG_HERE(3, "Get list of backups on the replication_queue with start_time > %lu for instance_id %lu.", start,
             instance);
    const PgResultPtr newer = pgQuery(
        "SELECT q.backup_no FROM dq.replication_queue q JOIN dq.backups b ON (q.backup_no=b.backup_no) WHERE "
        "b.instance_id=%lu AND b.start_time>%lu",
        instance, start);
    const int count = newer ? pgTuples(newer.get()) : 0;
    if (count == 0) {
        LOG_HERE(0, "There are no out of order backups on the replication_queue with %lu.\n", backupNo);
        return -1;
    }
    LOG_HERE(3, "Delete %d backups from the replication_queue that are out of order with %lu.\n", count, backupNo);
    std::set<unsigned long> deleted;  // a backup with rows for several targets is listed with each of them
    for (int row = 0; row < count; ++row) {
        const unsigned long number = pgUVal(newer.get(), row, "backup_no");
        if (!deleted.insert(number).second)
            continue;
        LOG_HERE(3, "Delete backup %lu from the replication_queue.\n", number);
        const PgResultPtr result = pgQuery("DELETE FROM replication_queue WHERE backup_no=%lu", number);
        if (!result || pgAffected(result.get()) == 0) {
            LOG_HERE(0, "Query to delete backup %lu failed.\n", number);
            return -1;
        }
    }
    return 0;
}

int letWaitAgain(std::uint64_t backupNo) {
    const PgResultPtr result =
        pgQuery("UPDATE dq.replication_queue SET status=%d WHERE backup_no=%lu", REPLICATION_NEEDED, backupNo);
    if (!result || pgAffected(result.get()) == 0) {
        LOG_HERE(0, "The status for backup %lu was NOT updated in the replication_queue.\n", backupNo);
        return -1;
    }
    LOG_HERE(3, "The status for backup %lu was updated in the replication_queue.\n", backupNo);
    return 0;
}

}  // namespace

int enqueue_rq(std::uint64_t backupNo, const std::string& vault) {
    int type = 0;
    if (readType<128>(backupNo, &type) == -1)
        return -1;
    if (isSelfContainedType(type)) {
        const int status = status_rq(backupNo, vault);
        return status == 0 ? insert_rq(backupNo, vault) : status == -1 ? -1 : 0;
    }
    std::vector<Member> members;
    if (type == TYPE_INCREMENTAL) {
        LOG_HERE(4, "dqGetSynthesisGroup");
        if (synthesisMembers(backupNo, false, &members) == -1)
            LOG_HERE(0, "ERROR:Could not determine synthesis group; Skipping backup %lu", backupNo);
    } else {
        LOG_HERE(4, "dqGetRestoreGroupOptimized");
        if (restoreMembers(backupNo, &members) == -1)
            LOG_HERE(0, "ERROR:Could not determine restore group; Skipping backup %lu", backupNo);
    }
    LOG_HERE(4, "Enqueue Results: count:%d", static_cast<int>(members.size()));
    int result = 0;
    for (std::size_t i = 0; i < members.size(); ++i) {
        LOG_HERE(4, "array[%d] = %d", static_cast<int>(i), static_cast<int>(members[i].backupNo));
        if (enqueueMember(members[i].backupNo, vault) == -1)
            result = -1;
    }
    return result;
}

int prune_older_rq(std::uint64_t backupNo, const std::string& vault) {
    LOG_HERE(4, "dqGetRestoreGroupOptimized");
    int type = 0;
    if (readType<256>(backupNo, &type) == -1)
        return -1;
    LOG_HERE(4, "type:%d", type);
    LOG_HERE(4, "backup_no:%lu", backupNo);
    std::vector<Member> members;
    if (pruningMembers(backupNo, type, &members) == -1)
        return -1;
    LOG_HERE(4, "count: %d", static_cast<int>(members.size()));
    for (const Member& member : members)
        if (isSelfContainedType(member.type))
            return pruneBefore(member.backupNo, vault);
    return 0;
}

int resolve_out_of_order_rq(std::uint64_t backupNo) {
    LOG_HERE(3, "get start_time and instance_id for backup %lu.\n", backupNo);
    const PgResultPtr backup = pgQuery("SELECT start_time, instance_id FROM dq.backups WHERE backup_no=%lu", backupNo);
    if (!backup) {
        LOG_HERE(0, "Query to get backup information for %lu failed.\n", backupNo);
        return -1;
    }
    if (pgTuples(backup.get()) != 1) {
        LOG_HERE(0, "Failed to get backup information for %lu.\n", backupNo);
        return -1;
    }
    const unsigned long start = pgUVal(backup.get(), 0, "start_time");
    const unsigned long instance = pgUVal(backup.get(), 0, "instance_id");
    LOG_HERE(3, "Look for backups with start_time > %lu for instance_id %lu that have replicated successfully.", start,
             instance);
    const PgResultPtr replicated = pgQuery(
        "SELECT q.backup_no FROM dq.replication_queue q JOIN dq.backups b ON (q.backup_no=b.backup_no) WHERE "
        "b.instance_id=%lu AND b.start_time>%lu AND q.status = %d",
        instance, start, REPLICATION_COMPLETE);
    if (!replicated) {
        LOG_HERE(0, "Query to find out of order backups on the replication_queue with %lu failed.\n", backupNo);
        return -1;
    }
    if (pgTuples(replicated.get()) == 0)
        LOG_HERE(3, "There are no backups on the replication_queue that are out of order with %lu.\n", backupNo);
    else if (deleteNewerRows(backupNo, instance, start) == -1)
        return -1;
    return letWaitAgain(backupNo);
}
