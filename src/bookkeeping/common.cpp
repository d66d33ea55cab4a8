// common.cpp - attributes of a backup, and the estimate of its final metadata.
#include "bookkeeping/common.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "bookkeeping/common_internal.h"
#include "config/directories.h"
#include "config/ini.h"
#include "database/pghelper.h"

namespace {

thread_local std::string lastError;
thread_local bool lastErrorLost = false;

void dqKeepError(const std::string& text) {
    try {
        lastError = text;
        lastErrorLost = false;
    } catch (const std::bad_alloc&) {
        lastErrorLost = true;
    }
}

constexpr const char* UCS_APPLICATION = "UCS Service Profile";
constexpr int PUBLIC_TYPE_EXTENSION_FULL = 25;  // as user interfaces number it

// The application of an extension backup's instance, null if it can't be found.
std::optional<std::string> applicationType(std::uint64_t backupNo) {
    const PgResultPtr result = pgVExec(
        "SELECT  al.type FROM dq.backups b INNER JOIN dq.application_instances ai USING (instance_id) INNER JOIN "
        "dq.application_lookup al USING (app_id) WHERE b.backup_no = %u",
        static_cast<unsigned>(backupNo));
    if (!result || pgTuples(result.get()) != 1)
        return std::nullopt;
    return pgSDup(result.get(), 0, "type");
}

bool isUcsFull(int type, std::uint64_t backupNo) {
    const std::string application = applicationType(backupNo).value_or("(null)");
    const bool full = type == PUBLIC_TYPE_EXTENSION_FULL || type == TYPE_EXTENSION_FULL;
    if (full && application == UCS_APPLICATION)
        return true;
    if (full)
        LOG_HERE(0, "ZUL FULL: %s\n", application.c_str());
    else if (type == TYPE_EXTENSION_DIFF)
        LOG_HERE(0, "ZUL DIFF: %s\n", application.c_str());
    else if (type == TYPE_EXTENSION_INCR)
        LOG_HERE(0, "ZUL INCR: %s\n", application.c_str());
    else
        LOG_HERE(0, "Unknown ZUL Type: %d\n", type);
    return false;
}

// A sum or count over the files of a backup; a sum over no rows is NULL and reads as 0.
bool fileFigure(const PgResultPtr& result, const char* column, std::uint64_t* figure) {
    if (pgTuples(result.get()) != 1)
        return false;
    *figure = pgUVal(result.get(), 0, column);
    return true;
}

// A file-structured backup: a header for each file, small files whole, and references for the blocks of the others.
std::uint64_t estimateFileHactar(std::uint64_t backupNo, std::uint64_t maxSubfileBytes) {
    constexpr std::uint64_t REFERENCE_BYTES = 224;
    std::uint64_t files = 0;
    std::uint64_t small = 0;
    std::uint64_t large = 0;
    const int limit = static_cast<int>(2 * sysconf(_SC_PAGESIZE) - 511);
    if (!fileFigure(pgQuery("SELECT count(*) FROM dq.backup_files WHERE (backup_no = %lu)", backupNo), "count",
                    &files)) {
        LOG_HERE(0, "ERROR: Can't get count of files for backup_no %lu.\n", backupNo);
        return 0;
    }
    if (!fileFigure(
            pgQuery("SELECT sum(size) FROM dq.backup_files WHERE (backup_no = %lu and size<%d)", backupNo, limit),
            "sum", &small)) {
        LOG_HERE(0, "ERROR: Can't get sum (<%d) of small files for backup_no %lu.\n", limit, backupNo);
        return 0;
    }
    if (!fileFigure(
            pgQuery("SELECT sum(size) FROM dq.backup_files WHERE (backup_no = %lu and size>=%d)", backupNo, limit),
            "sum", &large)) {
        LOG_HERE(0, "ERROR: Can't get sum of non-small (>=%d) files for backup_no %lu.\n", limit, backupNo);
        return 0;
    }
    return (files << 10 | 0x200) + small + large / maxSubfileBytes * REFERENCE_BYTES;
}

}  // namespace

void dqStoreError(const char* file, int line, const char* function, const std::string& text) {
    dqKeepError(text);
    log_message(0, "%s:%d: %s: Error: %s", file, line, function, text.c_str());
}

const char* dqLastError() {
    if (lastErrorLost)
        return "(unreportable error; could not allocate memory for error message)";
    return lastError.empty() ? "(null)" : lastError.c_str();
}

int getBackupTypeName(std::uint64_t backupNo, std::string* text) {
    const PgResultPtr result = pgVExec(
        "SELECT b.type AS btype, al.type AS atype FROM dq.backups b INNER JOIN dq.application_instances ai USING "
        "(instance_id) INNER JOIN dq.application_lookup al USING (app_id) WHERE backup_no=%ld",
        static_cast<long>(backupNo));
    if (!result || pgTuples(result.get()) != 1) {
        LOG_HERE(0, "Failed to get backup type:%s\n", result ? "not exactly one row" : "failed query");
        return -1;
    }
    const long type = pgIVal(result.get(), 0, "btype");
    const auto name = backupTypeText(static_cast<int>(type), pgSVal(result.get(), 0, "atype"));
    if (!name)
        LOG_HERE(0, "Error: Unknown type:%ld", type);
    *text = name.value_or("unknown");
    return 0;
}

int getBackupType(std::uint64_t backupNo) {
    const PgResultPtr result = pgQuery("SELECT type FROM dq.backups WHERE backup_no = %lu", backupNo);
    return result && pgTuples(result.get()) == 1 ? static_cast<int>(pgIVal(result.get(), 0, "type")) : -1;
}

int getBackupDevice(std::uint64_t backupNo) {
    const PgResultPtr result = pgQuery(
        "SELECT device_no FROM dq.devices WHERE dev_name=(SELECT tape_drive_name FROM dq.filesets  WHERE "
        "fileset_no=(SELECT fileset_no FROM dq.backups WHERE backup_no=%ld))",
        static_cast<long>(backupNo));
    return result && pgTuples(result.get()) > 0 ? static_cast<int>(pgIVal(result.get(), 0, "device_no")) : -1;
}

std::int64_t getBackupMegs(std::uint64_t backupNo) {
    const PgResultPtr result =
        pgQuery("SELECT total_megs FROM dq.backups WHERE backup_no=%ld", static_cast<long>(backupNo));
    return result && pgTuples(result.get()) > 0 ? pgIVal(result.get(), 0, "total_megs") : 0;
}

int getBackupStatusAndProperties(std::uint64_t backupNo, int* status, std::int64_t* properties) {
    const int failCheckStatus = ini_get_int("Replication", "failCheckStatus", 0, g_master_ini);
    if (failCheckStatus != 0) {
        LOG_HERE(0, "failCheckStatus:%d, return FAILED.", failCheckStatus);
        return -1;
    }
    const PgResultPtr result =
        pgQuery("SELECT status, properties FROM dq.backups WHERE backup_no=%ld", static_cast<long>(backupNo));
    if (!result || pgTuples(result.get()) != 1)
        return -1;
    *status = static_cast<int>(pgIVal(result.get(), 0, "status"));
    *properties = pgIVal(result.get(), 0, "properties");
    return 0;
}

int dq_is_backup_encrypted(std::uint64_t backupNo, bool* encrypted) {
    const int number = static_cast<int>(backupNo);
    const PgResultPtr result = pgVExec("SELECT (properties & %lu) > 0 AS encrypted FROM backups WHERE backup_no = %d",
                                       static_cast<unsigned long>(P_ENCRYPTED), number);
    if (!result || pgTuples(result.get()) != 1) {
        DQ_ERROR(__func__, "Backup number %d not found\n", number);
        return -1;
    }
    *encrypted = pgBVal(result.get(), 0, "encrypted");
    return 0;
}

std::optional<std::string> dqGetInstanceName(std::uint64_t instanceId) {
    const PgResultPtr result = pgQuery(
        "SELECT key1, key2, key3, key4, type FROM application_lookup JOIN application_instances USING(app_id) WHERE "
        "instance_id = %lu",
        instanceId);
    if (!result || pgTuples(result.get()) != 1) {
        dqKeepError(formatString("Could not retrieve name of instance_id %lu", instanceId));
        LOG_HERE(0, "%s: Could not retrieve name of instance_id %lu\n", __func__, instanceId);
        return std::nullopt;
    }
    const std::string type = pgSDup(result.get(), 0, "type");
    const char* key1 = pgSVal(result.get(), 0, "key1");
    const char* key2 = pgSVal(result.get(), 0, "key2");
    const auto isOneOf = [&type](std::initializer_list<const char*> names) {
        for (const char* name : names)
            if (type == name)
                return true;
        return false;
    };
    if (isOneOf({"file-level", "System Metadata"}))
        return type;
    if (key1 != nullptr && isOneOf({"Exchange", "Oracle", "SharePoint", UCS_APPLICATION, "NDMP Device"}))
        return key1;
    if (key1 != nullptr && key2 != nullptr && isOneOf({"SQL Server", "VMware", "Hyper-V"}))
        return formatString("%s|%s", key1, key2);
    return std::nullopt;
}

int getZulJobTypeCodeBackupNo(int type, std::uint64_t backupNo) {
    return isUcsFull(type, backupNo) ? jobTypeCode(TYPE_EXTENSION_FULL) : 0;
}

int GetZulBackupTypeStringBackupNo(int type, std::uint64_t backupNo, std::string* text) {
    const bool known = isUcsFull(type, backupNo);
    *text = known ? "UCS Service Profile Full" : "Unknown";
    return known ? 0 : -1;
}

std::uint64_t estimateHactarSize(std::uint64_t backupNo, int kind) {
    constexpr std::uint64_t REFERENCE_BYTES = 112;
    const PgResultPtr result =
        pgQuery("SELECT properties, type, total_megs from dq.backups WHERE (backup_no = %lu)", backupNo);
    if (!result || pgTuples(result.get()) == 0) {
        LOG_HERE(0, "ERROR: Can't get backup %lu's properties\n", backupNo);
        return 0;
    }
    const std::uint64_t whole = pgUVal(result.get(), 0, "total_megs") << 20 | 0x200;
    if (kind == ESTIMATE_WHOLE_BACKUP)
        return whole;
    const int type = static_cast<int>(pgIVal(result.get(), 0, "type"));
    const std::uint64_t maxSubfileBytes = getMaxSubfileBytes(type, pgIVal(result.get(), 0, "properties"));
    if (isFileLevelType(type))
        return estimateFileHactar(backupNo, maxSubfileBytes);
    return whole / maxSubfileBytes * REFERENCE_BYTES;
}

namespace {

int changeSyncStatus(std::uint64_t backupNo, const char* change, int bit) {
    const PgResultPtr result =
        pgVExec("UPDATE dq.backups SET sync_status=(sync_status %s%d) WHERE backup_no=%lu", change, bit, backupNo);
    if (pgStatus(result.get()) == -1) {
        LOG_HERE(0, "Failed to change the sync status of backup %lu", backupNo);
        return -1;
    }
    return 0;
}

}  // namespace

int clearSyncNeeded(std::uint64_t backupNo) {
    return changeSyncStatus(backupNo, "& ~", ST_SYNC_NEEDED);
}

int setSyncDone(std::uint64_t backupNo) {
    return changeSyncStatus(backupNo, "| ", ST_SYNC_DONE);
}
