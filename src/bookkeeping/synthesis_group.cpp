// synthesis_group.cpp - the backups that make up a synthesized view of an incremental.
#include "bookkeeping/common.h"
#include "bookkeeping/common_internal.h"
#include "database/pghelper.h"

namespace {

// Why the backup can't be the end of a synthesis, null if it can.
const char* refusal(const pgResult* backup) {
    const long status = pgIVal(backup, 0, "status");
    const long properties = pgIVal(backup, 0, "properties");
    if ((status & JOB_FAILED) != 0)
        return "Input backup was not successful.";
    if ((status & ST_COMPLETE) == 0)
        return "Input backup is not complete.";
    if (static_cast<std::uint32_t>(pgUVal(backup, 0, "tape_no")) == TAPE_NO_DELETED)
        return "Input backup has been logically deleted.";
    if ((properties & P_SYNTHESIS_CAPABLE) == 0)
        return "Input backup is not synthesis-capable.";
    if ((properties & P_SDS) != 0)
        return "Cannot restore SDS backups.";
    return nullptr;
}

PgResultPtr queryGroup(std::uint64_t backupNo, const pgResult* backup, const BackupFamily& family, bool skipDiffs,
                       bool skipMasters) {
    const unsigned long node = pgUVal(backup, 0, "node_no");
    const unsigned long instance = pgUVal(backup, 0, "instance_id");
    const unsigned long synthetic = P_SYNTHETIC;
    const auto [master, differential, incremental] = family.types;
    const std::string types = formatString("%d,%d,%d", master, differential, incremental);
    return pgVExec(
        "SELECT backup_no FROM successful_backups WHERE type IN(%s) AND node_no=%lu AND instance_id=%lu AND backup_no "
        "<= %lu AND (CASE WHEN %d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND (CASE WHEN %d=1 THEN "
        "type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND ((backup_no >= COALESCE((SELECT backup_no FROM "
        "successful_backups WHERE type IN(%d,%d) AND node_no=%lu AND instance_id=%lu AND backup_no <= %lu AND (CASE "
        "WHEN %d=1 THEN type != %d OR (properties & %lu) = 0 ELSE 1=1 END) AND (CASE WHEN %d=1 THEN type != %d OR "
        "(properties & %lu) = 0 ELSE 1=1 END) ORDER BY backup_no DESC LIMIT 1), 0)) OR (backup_no = (SELECT backup_no "
        "FROM successful_backups WHERE type=%d AND node_no=%lu AND instance_id=%lu AND backup_no <= %lu ORDER BY "
        "backup_no DESC LIMIT 1))) ORDER BY backup_no",
        types.c_str(), node, instance, backupNo, skipDiffs, differential, synthetic, skipMasters, master, synthetic,
        master, differential, node, instance, backupNo, skipDiffs, differential, synthetic, skipMasters, master,
        synthetic, master, node, instance, backupNo);
}

}  // namespace

int dqGetSynthesisGroup(std::uint64_t backupNo, bool skipDiffs, bool skipMasters, std::vector<std::uint32_t>* list,
                        std::string* groupText) {
    if (list != nullptr)
        list->clear();
    const PgResultPtr backup = pgQuery(
        "SELECT node_no, instance_id, status, tape_no, properties, type FROM backups WHERE backup_no = %lu", backupNo);
    if (!backup) {
        DQ_ERROR(__func__, "Failed running query to verify backup attributes.");
        return -1;
    }
    if (pgTuples(backup.get()) != 1) {
        DQ_ERROR(__func__, "Invalid backup id: %lu.", backupNo);
        return -1;
    }
    const BackupFamily* family = familyOf(static_cast<int>(pgIVal(backup.get(), 0, "type")));
    if (family == nullptr || !family->synthesis) {
        DQ_ERROR(__func__, "Input backup must be a supported type.");
        return -1;
    }
    if (const char* reason = refusal(backup.get())) {
        DQ_ERROR(__func__, "%s", reason);
        return -1;
    }
    if (skipDiffs)
        LOG_HERE(4, "Ignoring synthetic differential backups\n");
    if (skipMasters)
        LOG_HERE(4, "Ignoring synthetic master backups\n");

    const PgResultPtr group = queryGroup(backupNo, backup.get(), *family, skipDiffs, skipMasters);
    const int count = group ? pgTuples(group.get()) : 0;
    if (!group || (count == 0 && !skipMasters)) {
        DQ_ERROR(__func__, "No backups found for synthesis group.");
        return -1;
    }
    std::string text;
    for (int row = 0; row < count; ++row) {
        if (list != nullptr)
            list->push_back(static_cast<std::uint32_t>(pgUVal(group.get(), row, "backup_no")));
        text += (row != 0 ? "," : "") + pgSDup(group.get(), row, "backup_no");
    }
    if (groupText != nullptr)
        *groupText = text;
    return 0;
}
