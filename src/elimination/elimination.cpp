#include "elimination/elimination.h"

#include <optional>

#include "bookkeeping/common.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "replication/replication.h"
#include "rest/lifecycle.h"
#include "rest/session.h"

namespace {

// Values of BlockEliminationCandidate.
constexpr int CANDIDATE_REPLICATED = 1;
constexpr int CANDIDATE_MASTERS = 2;
constexpr int CANDIDATE_ALL = 3;

bool isMasterType(int type) {
    return type == TYPE_MASTER || type == TYPE_EXCHANGE_FULL || type == TYPE_SQL_FULL || type == TYPE_ESX_FULL ||
           type == TYPE_HYPERV_FULL;
}

bool isReplicatedRecord(std::uint64_t backupNo) {
    Statement<512> statement;
    if (statement.build("SELECT properties FROM dq.backups WHERE backup_no=%ld", static_cast<long>(backupNo)) == -1)
        return false;
    const PgResultPtr row = pgExec(statement.text());
    return pgStatus(row.get()) == 0 && pgTuples(row.get()) == 1 && (pgUVal(row.get(), 0, "properties") & P_SDS) != 0;
}

int masterStatement(std::uint64_t backupNo, Statement<512>* statement) {
    return statement->build(
        "SELECT backup_no FROM dq.backups WHERE sync_status=%u AND instance_id=(SELECT instance_id FROM dq.backups "
        "WHERE backup_no=%lu) AND type IN (%d,%d,%d,%d,%d) AND backup_no<%lu ORDER BY backup_no DESC LIMIT 1 ",
        static_cast<unsigned>(ST_SYNC_DONE), backupNo, TYPE_MASTER, TYPE_EXCHANGE_FULL, TYPE_SQL_FULL, TYPE_ESX_FULL,
        TYPE_HYPERV_FULL, backupNo);
}

PgResultPtr runOrLog(const Statement<512>& statement) {
    PgResultPtr rows = pgExec(statement.text());
    if (pgStatus(rows.get()) == -1) {
        LOG_HERE(0, "Error: failed database Query: %s\n", statement.text());
        return nullptr;
    }
    return rows;
}

// The statement of everything since the last master. 1: built, 0: there is no master, -1: failure.
int groupStatement(std::uint64_t backupNo, Statement<512>* statement) {
    if (masterStatement(backupNo, statement) == -1)
        return -1;
    const PgResultPtr master = runOrLog(*statement);
    if (!master)
        return -1;
    if (pgTuples(master.get()) != 1) {
        LOG_HERE(3, "No previous master has replicated");
        return 0;
    }
    const int built = statement->build(
        "SELECT backup_no FROM dq.backups WHERE sync_status=%d AND instance_id=(SELECT instance_id FROM dq.backups "
        "WHERE backup_no=%lu) AND backup_no>=%lu AND backup_no<%lu ",
        ST_SYNC_DONE, backupNo, pgUVal(master.get(), 0, "backup_no"), backupNo);
    return built == -1 ? -1 : 1;
}

// As groupStatement, for any mode.
int listStatement(std::uint64_t backupNo, int mode, Statement<512>* statement) {
    int built = -1;
    switch (mode) {
        case LBE_NONE:
            return 0;
        case LBE_LAST_MASTER:
            LOG_HERE(3, "Only vs. last master");
            built = masterStatement(backupNo, statement);
            break;
        case LBE_LAST_GROUP:
            LOG_HERE(3, "Only vs. last group");
            return groupStatement(backupNo, statement);
        case LBE_INSTANCE:
            LOG_HERE(3, "Only vs. this instance");
            built = statement->build(
                "SELECT backup_no FROM dq.backups WHERE sync_status=%d AND instance_id=(SELECT instance_id FROM "
                "dq.backups WHERE backup_no=%lu) ",
                ST_SYNC_DONE, backupNo);
            break;
        case LBE_ALL:
            LOG_HERE(3, "For all sync done");
            built = statement->build("SELECT backup_no FROM dq.backups WHERE sync_status=%d ", ST_SYNC_DONE);
            break;
        default:
            LOG_HERE(0, "Unrecognized mode value:%d", mode);
            break;
    }
    return built == -1 ? -1 : 1;
}

// A list that is too short costs questions; one that is wrong would leave the target without blocks.
bool isHeldByTarget(std::uint64_t backupNo, const std::string& target) {
    std::optional<std::string> identity;
    (void)getUniversalBackupIdentity(backupNo, &identity);  // a failure leaves none, which is asked about as such
    std::uint64_t status = 0;
    std::uint64_t properties = 0;
    int curlCode = 0;
    const std::string text = identity.value_or("");
    const std::int64_t number =
        postBackupCheck(target, std::string_view(text.c_str(), text.size() + 1), 0, &status, &properties, &curlCode);
    if (curlCode != 0 || number <= 0) {
        LOG_HERE(0, "Curl status: %s, postBackupCheck returned %ld.\n", curlText(curlCode), static_cast<long>(number));
        LOG_HERE(0, "Unable to perform target check for backup_no:%lu, skipping backup for Local Block Elimination",
                 backupNo);
        return false;
    }
    if ((status & ST_PRESENT) == 0 || !identity) {
        LOG_HERE(3, "Backup:%lu  not on target, skipping backup for Local Block Elimination", backupNo);
        return false;
    }
    if ((properties & P_ANY_HASHED) == 0) {
        LOG_HERE(3, "Backup:%lu is on the target but has not been hashed, skipping backup for Local Block Elimination",
                 backupNo);
        return false;
    }
    LOG_HERE(3, "Backup:%lu on target is %ld.\n", backupNo, static_cast<long>(number));
    return true;
}

}  // namespace

bool useBlockElim(const ReplicationSettings& settings, std::uint64_t backupNo) {
    LOG_HERE(4, "useBlockElim, Decide when to use local block elemination");
    LOG_HERE(4, "blockEliminationType:%d blockEliminationCandidate:%d localBlockElimination:%d",
             settings.blockEliminationType, settings.blockEliminationCandidate,
             static_cast<int>(settings.localBlockElimination));
    if (!settings.localBlockElimination)
        return false;
    switch (settings.blockEliminationCandidate) {
        case CANDIDATE_REPLICATED:
            return isReplicatedRecord(backupNo);
        case CANDIDATE_MASTERS:
            return isMasterType(getBackupType(backupNo));
        case CANDIDATE_ALL:
            return true;
        default:
            return false;
    }
}

std::int64_t getLbeList(std::uint64_t backupNo, int mode, std::vector<std::uint64_t>* list, const std::string* target) {
    LOG_HERE(3, "Getting list of LBE backups");
    Statement<512> statement;
    const int built = listStatement(backupNo, mode, &statement);
    if (built < 1)
        return built;
    const PgResultPtr rows = runOrLog(statement);
    if (!rows)
        return -1;
    const int count = pgTuples(rows.get());
    if (count == 0) {
        LOG_HERE(3, "No backups to list");
        return 0;
    }
    LOG_HERE(3, "Backups returned from query:%d", count);
    list->assign(static_cast<std::size_t>(count), 0);
    std::size_t appended = 0;
    for (int row = 0; row < count; ++row) {
        const std::uint64_t found = pgUVal(rows.get(), row, "backup_no");
        LOG_HERE(3, "Backup found for LBE:%lu", found);
        if (target == nullptr || isHeldByTarget(found, *target))
            (*list)[appended++] = found;
    }
    return count;
}
