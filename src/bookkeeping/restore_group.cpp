// restore_group.cpp - the chain of backups that a restore of one needs.
#include "bookkeeping/common.h"
#include "bookkeeping/common_internal.h"
#include "database/pghelper.h"

namespace {

constexpr const char* FUNCTION = "dqGetRestoreGroupOptimized";  // for the log lines of its helpers
constexpr int EXIT_CODE_WARNINGS = 50;
constexpr std::size_t APP_NAME_LENGTH = 47;
constexpr std::size_t INSTANCE_NAME_LENGTH = 127;

// The backup whose chain is wanted.
struct Subject {
    std::uint64_t backupNo;
    long status;
    long type;
    long properties;
    std::uint64_t nodeNo;
    bool deleted;

    [[nodiscard]] bool isLegacySql() const { return type == TYPE_SELECTIVE && (properties & P_LEGACY_SQL) != 0; }
};

constexpr const char* FIELDS =
    "b.backup_no as t_backup_no, b.status as t_status, b.exit_code as t_exit_code, b.type as t_type, b.start_time as "
    "t_start_time";

struct Filters {
    Statement<256> base;     // of the same origin, restorable, not deleted, ended
    Statement<256> success;  // and not failed

    int build(const Subject& subject);
};

int Filters::build(const Subject& subject) {
    if (base.build(" (properties & %u) = %lu AND (properties & %u) = 0 AND tape_no != %u AND (status & %u) > 0",
                   static_cast<unsigned>(P_IMPORTED), static_cast<unsigned long>(subject.properties & P_IMPORTED),
                   static_cast<unsigned>(P_SDS), TAPE_NO_DELETED, static_cast<unsigned>(ST_COMPLETE)) == -1 ||
        success.build("%s AND (status & %u) = 0", base.text(), static_cast<unsigned>(JOB_FAILED)) == -1) {
        DQ_ERROR(FUNCTION, "Failed to build filter string");
        return -1;
    }
    return 0;
}

const char* refusal(const Subject& subject) {
    if ((subject.properties & P_SDS) != 0)
        return "SDS backups cannot be restored";
    if (subject.deleted)
        return "Purged backups cannot be restored";
    if ((subject.status & ST_COMPLETE) == 0)
        return "Active backups cannot be restored";
    const bool standsAlone =
        subject.type == TYPE_MASTER || subject.type == TYPE_DIFFERENTIAL || subject.type == TYPE_SELECTIVE;
    if (!standsAlone && (subject.status & JOB_FAILED) != 0)
        return "Failed backups of this type cannot be restored";
    return nullptr;
}

int readSubject(std::uint64_t backupNo, Subject* subject) {
    const PgResultPtr result = pgQuery(
        "SELECT status, type, properties, start_time, node_no, tape_no FROM backups WHERE backup_no = %lu", backupNo);
    if (!result) {
        DQ_ERROR(FUNCTION, "Failed running query to determine backup type.");
        return -1;
    }
    if (pgTuples(result.get()) == 0) {
        DQ_ERROR(FUNCTION, "Backup #%lu not found in database.", backupNo);
        return -1;
    }
    *subject = {backupNo,
                pgIVal(result.get(), 0, "status"),
                pgIVal(result.get(), 0, "type"),
                pgIVal(result.get(), 0, "properties"),
                pgUVal(result.get(), 0, "node_no"),
                static_cast<std::uint32_t>(pgUVal(result.get(), 0, "tape_no")) == TAPE_NO_DELETED};
    if (const char* reason = refusal(*subject)) {
        DQ_ERROR(FUNCTION, "%s", reason);
        return -1;
    }
    return 0;
}

PgResultPtr queryLegacySql(const Subject& subject, const Filters& filters) {
    return pgVExec(
        "SELECT s.sql_type, %s FROM sql_backups AS s INNER JOIN sql_backups AS orig  ON(orig.node_no = s.node_no   AND "
        "LOWER(orig.database_name)     = LOWER(s.database_name)   AND LOWER(orig.server_instance_name)     = "
        "LOWER(s.server_instance_name)   AND orig.group_file_order = s.group_file_order  ) INNER JOIN backups AS b ON "
        "(s.sql_ref = b.backup_no) WHERE orig.sql_ref = %lu  AND (s.sql_type = %u   OR s.file_order_no >= (    SELECT "
        "file_order_no    FROM sql_backups WHERE node_no = orig.node_no     AND LOWER(database_name)       = "
        "LOWER(orig.database_name)     AND LOWER(server_instance_name)       = LOWER(orig.server_instance_name) AND "
        "group_file_order = orig.group_file_order AND file_order_no <= orig.file_order_no AND sql_type IN (%u, %u)    "
        "ORDER BY file_order_no DESC LIMIT 1   )  ) AND s.file_order_no <= orig.file_order_no AND %s ORDER BY "
        "backup_no",
        FIELDS, subject.backupNo, 1u, 1u, 2u, filters.success.text());
}

PgResultPtr queryFamily(const Subject& subject, const BackupFamily& family, const Filters& filters) {
    const auto [full, second, third] = family.types;
    switch (family.restore) {
        case ChainForm::three:
            return pgVExec("SELECT * FROM dq.dqGetRestoreGroupOptimized(%lu, '{%d,%d,%d}','%s')", subject.backupNo,
                           full, second, third, filters.success.text());
        case ChainForm::two:
            return pgVExec("SELECT * FROM dq.dqGetRestoreGroupOptimized(%lu, '{%d,%d}','%s')", subject.backupNo, full,
                           second, filters.success.text());
        case ChainForm::one:
            break;
    }
    // Such a backup is worth restoring even if it failed in part.
    if (subject.type == full)
        LOG_HERE(4, "%s: Backup #%lu is a %s\n", FUNCTION, subject.backupNo, family.name);
    return pgVExec("SELECT * FROM dq.dqGetRestoreGroupOptimized(%lu, '{%lu}','%s')", subject.backupNo,
                   static_cast<unsigned long>(subject.type), filters.base.text());
}

// Runs the query that fits the type. False (logged) for a type without one.
bool queryChain(const Subject& subject, const Filters& filters, PgResultPtr* result) {
    if (subject.isLegacySql()) {
        *result = queryLegacySql(subject, filters);
        return true;
    }
    const int type = static_cast<int>(subject.type);
    const BackupFamily* family = familyOf(type);
    std::string text;
    // An incremental is put together by synthesis; of the extensions one application is known.
    if (family == nullptr || type == TYPE_INCREMENTAL ||
        (family->types[0] == TYPE_EXTENSION_FULL &&
         GetZulBackupTypeStringBackupNo(type, subject.backupNo, &text) == -1)) {
        DQ_ERROR(FUNCTION, "Backup %lu has an unknown or unsupported backup type (%lu).", subject.backupNo,
                 static_cast<unsigned long>(subject.type));
        return false;
    }
    *result = queryFamily(subject, *family, filters);
    return true;
}

// The instance that all members of the chain belong to.
int readInstance(std::uint64_t backupNo, RestoreGroupRecord* record) {
    const PgResultPtr result = pgQuery(
        "SELECT b.instance_id, ai.app_id, al.name FROM backups b INNER JOIN application_instances ai USING "
        "(instance_id) INNER JOIN application_lookup al ON ai.app_id = al.app_id WHERE b.backup_no = %lu",
        backupNo);
    if (!result || pgTuples(result.get()) == 0) {
        DQ_ERROR(FUNCTION, "Failed to retrieve application information for backup %lu", backupNo);
        return -1;
    }
    record->instanceId = pgUVal(result.get(), 0, "instance_id");
    record->appId = static_cast<int>(pgIVal(result.get(), 0, "app_id"));
    record->appName = pgSDup(result.get(), 0, "name").substr(0, APP_NAME_LENGTH);
    const auto name = dqGetInstanceName(record->instanceId);
    if (!name) {
        DQ_ERROR(FUNCTION, "Failed to get instance name for backup %lu", backupNo);
        return -1;
    }
    record->instanceName = name->substr(0, INSTANCE_NAME_LENGTH);
    return 0;
}

int resultCode(long status, long exitCode) {
    if ((status & JOB_FAILED) != 0 || (status & ST_SUCCESS) == 0)
        return 2;
    return exitCode == EXIT_CODE_WARNINGS || (status & ST_WARNINGS) != 0 ? 1 : 0;
}

RestoreGroupRecord readMember(const pgResult* result, int row, const Subject& subject,
                              const RestoreGroupRecord& common) {
    RestoreGroupRecord record = common;
    record.backupNo = static_cast<std::uint32_t>(pgUVal(result, row, "t_backup_no"));
    record.nodeNo = subject.nodeNo;
    record.resultCode = resultCode(pgIVal(result, row, "t_status"), pgIVal(result, row, "t_exit_code"));
    record.jobTypeCode = subject.isLegacySql() ? static_cast<int>(pgIVal(result, row, "sql_type"))
                                               : jobTypeCode(static_cast<int>(pgIVal(result, row, "t_type")));
    record.startTime = pgIVal(result, row, "t_start_time");
    return record;
}

}  // namespace

int dqGetRestoreGroupOptimized(std::uint64_t backupNo, std::vector<RestoreGroupRecord>* list) {
    if (list == nullptr) {
        DQ_ERROR(FUNCTION, "List and count parameters cannot be null.");
        return -1;
    }
    list->clear();
    Subject subject{};
    if (readSubject(backupNo, &subject) == -1)
        return -1;
    const int hasInstances = columnExists("backups", "instance_id");
    if (hasInstances == -1) {
        DQ_ERROR(FUNCTION, "Failed to determine if backups table has application info.");
        return -1;
    }
    Filters filters;
    PgResultPtr result;
    if (filters.build(subject) == -1 || !queryChain(subject, filters, &result))
        return -1;
    if (!result) {
        DQ_ERROR(FUNCTION, "Failed querying for dependent backups.");
        return -1;
    }
    if (pgTuples(result.get()) == 0) {
        DQ_ERROR(FUNCTION, "Backup %lu not returned from query", backupNo);
        return -1;
    }
    RestoreGroupRecord common;
    if (hasInstances == 1 && readInstance(backupNo, &common) == -1)
        return -1;
    for (int row = 0; row < pgTuples(result.get()); ++row)
        list->push_back(readMember(result.get(), row, subject, common));
    return 0;
}
