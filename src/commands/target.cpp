// Commands on backups and targets.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "base/file_descriptor.h"
#include "base/paths.h"
#include "base/releaser.h"
#include "base/signal_flags.h"
#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "commands/util_internal.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "replication/replication.h"
#include "rest/lifecycle.h"
#include "rest/session.h"
#include "worker/cancel.h"
#include "worker/configuration.h"
#include "worker/hactar.h"
#include "worker/worker.h"

namespace {

using StreamPtr = std::unique_ptr<FILE, Releaser<&fclose>>;

constexpr int FAILED = 1;
constexpr mode_t CSV_MODE = 0644;

// One backup of the queue, with what a target says of it.
struct SourceRow {
    long backupNo, instanceId, startTime, properties, queueStatus, status, type;
};
struct TargetAnswer {
    std::int64_t number = -1;
    std::uint64_t status = 0;
    std::uint64_t properties = 0;
    int curlCode = 0;
};

TargetAnswer askTarget(const char* target, const std::string& identity) {
    TargetAnswer answer;
    answer.number = postBackupCheck(target, std::string_view(identity.c_str(), identity.size() + 1), 0, &answer.status,
                                    &answer.properties, &answer.curlCode);
    return answer;
}

SourceRow sourceRow(const pgResult* rows, int row) {
    return {pgIVal(rows, row, "backup_no"),
            pgIVal(rows, row, "instance_id"),
            pgIVal(rows, row, "start_time"),
            pgIVal(rows, row, "properties"),
            pgIVal(rows, row, "replication_queue_status"),
            pgIVal(rows, row, "backups_status"),
            pgIVal(rows, row, "type")};
}

// The CSV has the queue's status before the backup's, other than its header says; scripts rely on that.
void writeCsv(FILE* csv, const SourceRow& source, const TargetAnswer* answer) {
    if (csv == nullptr)
        return;
    fprintf(csv, "%ld,%ld,%ld,%ld,%ld,%ld,%ld,", source.backupNo, source.instanceId, source.startTime,
            source.properties, source.queueStatus, source.status, source.type);
    if (answer == nullptr)
        fprintf(csv, ",,\n");
    else
        fprintf(csv, "%ld,%lu,%lu\n", static_cast<long>(answer->number), answer->properties, answer->status);
}

// What stands behind the numbers of a backup on the target.
const char* targetRemark(std::uint64_t backupNo, const TargetAnswer& answer, bool hasIdentity) {
    if ((answer.status & ST_PRESENT) == 0 || !hasIdentity) {
        LOG_HERE(3, "Backup:%lu  not on target, skipping backup", backupNo);
        return "(backup marked ST_FAILED)";
    }
    if ((answer.properties & P_ANY_HASHED) == 0) {
        LOG_HERE(3, "Backup:%lu is on the target but has not been hashed", backupNo);
        return "(P_HASHED/P_DEDUPLICATED is clear)";
    }
    LOG_HERE(3, "Backup:%lu on target", backupNo);
    return "";
}

void printStatus(const SourceRow& source, const char* target, const std::string& identity, FILE* csv) {
    printf(
        "SOURCE: backup_no = %ld instance_id = %ld start_time = %ld properties = %ld replication_queue_status = %ld "
        "backups_status = %ld type = %ld",
        source.backupNo, source.instanceId, source.startTime, source.properties, source.queueStatus, source.status,
        source.type);
    const TargetAnswer answer = askTarget(target, identity);
    const auto number = static_cast<std::uint64_t>(source.backupNo);
    if (answer.curlCode != 0 || answer.number <= 0) {
        LOG_HERE(0, "Curl Status: %s", curlText(answer.curlCode));
        LOG_HERE(0, "Unable to perform target check for source_backup_no:%lu, skipping backup to get the status",
                 number);
        printf("\tTARGET: backup not on target\n");
        writeCsv(csv, source, nullptr);
        return;
    }
    printf("\tTARGET: backup_no = %ld properties = %lu status = %lu%s\n", static_cast<long>(answer.number),
           answer.properties, answer.status, targetRemark(number, answer, !identity.empty()));
    writeCsv(csv, source, &answer);
}

// A new file in the place of whatever is there: the directory is everybody's, and a link in it must not lead the
// operator to another file.
StreamPtr openCsv() {
    const std::string path = systemPath(paths::REPLICATION_RESULT_CSV);
    std::string temporary = path + ".XXXXXX";
    FileDescriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    StreamPtr csv;
    if (file.isOpen() && fchmod(file.get(), CSV_MODE) == 0 && rename(temporary.c_str(), path.c_str()) == 0)
        csv.reset(fdopen(file.get(), "w"));
    if (csv) {
        (void)file.release();
        fprintf(csv.get(),
                "backup_no,instance_id,start_time,properties,backups_status,replication_queue_status,type,backup_no,"
                "properties,status\n");
    } else {
        LOG_HERE(0, "Can't create %s: %s", path.c_str(), strerror(errno));
        if (file.isOpen())
            (void)unlink(temporary.c_str());
        printf(".csv file not created\n");
    }
    return csv;
}

// What can't be written, on a full disk, makes a failure of a command that went well.
int closeCsv(StreamPtr csv, int result) {
    if (!csv)
        return result;
    const bool written = ferror(csv.get()) == 0;
    if (fclose(csv.release()) == 0 && written)
        return result;
    LOG_HERE(0, "The CSV file could not be written");
    fprintf(stderr, "ferryd util: the CSV file can't be written\n");
    return result < 0 ? result : FAILED;
}

// The number of rows, FAILED if it was broken off, or -1.
int listRows(const pgResult* rows, const char* target, FILE* csv) {
    const int count = pgTuples(rows);
    for (int row = 0; row < count; ++row) {
        if (stopRequested())
            return FAILED;
        const SourceRow source = sourceRow(rows, row);
        std::optional<std::string> identity;
        const int result = getUniversalBackupIdentity(static_cast<std::uint64_t>(source.backupNo), &identity);
        if (result == 0 && !identity) {
            LOG_HERE(0, "First time instance replication.");
            return -1;
        }
        if (result == -1)
            LOG_HERE(0,
                     "Warning: Unable to get Universal Backup Identity. Using 'tempUUID'\nReporting may be inaccurate");
        printStatus(source, target, identity.value_or(""), csv);
    }
    return count;
}

int resolveOutOfOrder(const char* target, std::uint64_t backupNo) {
    LOG_HERE(3, "Resolve out of order replicated backups for backup_no %ld.", static_cast<long>(backupNo));
    int curlCode = 0;
    const int number = static_cast<int>(sendInitialMetaInfo(backupNo, target, true, &curlCode));
    if (number > 0) {
        LOG_HERE(0, "Target backup record created.  Target backup_no = %d", number);
        printf("Target backup record created.  Target backup_no = %d.\n", number);
        return resolve_out_of_order_rq(backupNo);
    }
    LOG_HERE(0, "Target FAILED to create backup record.  error = %d", number);
    LOG_HERE(0, "Check vaultServer logs on the target for more information on failure.");
    printf("fix-paused-instance failed, error=%d\n", number);
    return -1;
}

}  // namespace

int utilExportUbi(Arguments arguments) {
    std::uint64_t backupNo = 0;
    if (!numberArgument(arguments[0], &backupNo))
        return FAILED;
    std::optional<std::string> identity;
    const int result = getUniversalBackupIdentity(backupNo, &identity);
    if (result == -1)
        LOG_HERE(0, "Failed to get UBI");
    else if (!identity)
        LOG_HERE(0, "Backup not found. No UBI to generate.");
    printf("%s\n", identity.value_or("").c_str());
    return result;
}

int utilCheckUbi(Arguments arguments) {
    TargetAnswer answer;
    int result = 0;
    if (arguments.size() == 2) {
        answer = askTarget(arguments[1], arguments[0]);
        result = answer.curlCode != 0 || answer.number < 0 ? -1 : 0;
    } else {
        std::uint64_t backupNo = 0;
        int status = 0;
        std::int64_t properties = 0;
        if (UBIstringToBackupNumber(arguments[0], &backupNo) == -1 ||
            (backupNo != 0 && getBackupStatusAndProperties(backupNo, &status, &properties) == -1))
            result = -1;
        answer.number = static_cast<std::int64_t>(backupNo);
        answer.status = static_cast<std::uint64_t>(status);
        answer.properties = static_cast<std::uint64_t>(properties);
    }
    printf("%ld %lu %lu\n", static_cast<long>(answer.number), answer.status, answer.properties);
    return result;
}

int utilExportMetadata(Arguments arguments) {
    std::uint64_t backupNo = 0;
    if (!numberArgument(arguments[0], &backupNo))
        return FAILED;
    std::string blob;
    std::size_t size = 0;
    if (exportReplicationMetadata(static_cast<std::int64_t>(backupNo), &blob, &size) == -1) {
        fprintf(stderr, "ferryd util: the metadata of backup %lu can't be exported, see the log\n", backupNo);
        return -1;
    }
    printf("%s", blob.c_str());
    return 0;
}

int utilReplicate(Arguments arguments) {
    std::uint64_t backupNo = 0;
    if (!numberArgument(arguments[0], &backupNo) || !targetArgument(arguments[1]))
        return FAILED;
    readConfiguration();
    std::string target = arguments[1];
    bool replicated = false;
    LOG_HERE(3, "Worker return:%d", runWorker(backupNo, &target, false, &replicated));
    return replicated ? 0 : FAILED;
}

int utilStartBackup(Arguments arguments) {
    std::uint64_t backupNo = 0;
    if (!numberArgument(arguments[1], &backupNo))
        return FAILED;
    int curlCode = 0;
    const int number = static_cast<int>(sendInitialMetaInfo(backupNo, arguments[0], false, &curlCode));
    printf("%d\n", number);
    return number > 0 ? 0 : FAILED;
}

int utilFixPausedInstance(Arguments arguments) {
    std::uint64_t backupNo = 0;
    if (!numberArgument(arguments[1], &backupNo))
        return FAILED;
    const long number = static_cast<long>(backupNo);
    const int status = backup_status_rq(backupNo);
    if (status < 1) {
        LOG_HERE(0, "Failed to get replication status of Backup %ld.", number);
        return -1;
    }
    if (status == REPLICATION_NEED_ASSIST) {
        LOG_HERE(0, "Unable to repair root cause for REPLICATION_NEED_ASSIST status for Backup %ld.", number);
        return -1;
    }
    if (status != REPLICATION_OUT_OF_ORDER) {
        LOG_HERE(0, "Unexpected status %d for Backup %ld, no action taken.", status, number);
        LOG_HERE(0, "This option repairs status REPLICATION_OUT_OF_ORDER (%d).", REPLICATION_OUT_OF_ORDER);
        return -1;
    }
    return resolveOutOfOrder(arguments[0], backupNo);
}

int utilSendHactar(Arguments arguments) {
    std::uint64_t backupNo = 0;
    std::uint64_t targetBackupNo = 0;
    if (!numberArgument(arguments[1], &backupNo) || !numberArgument(arguments[2], &targetBackupNo))
        return FAILED;
    if (createHactar(backupNo) == -1) {
        LOG_HERE(0, "Failed to create hactar");
        return -1;
    }
    int curlCode = 0;
    return sendHactar(backupNo, arguments[0], static_cast<std::int64_t>(targetBackupNo), 0, &curlCode);
}

int utilCancelBackup(Arguments arguments) {
    std::uint64_t backupNo = 0;
    return numberArgument(arguments[1], &backupNo) ? cancelOnTarget(backupNo, arguments[0]) : FAILED;
}

int utilListBackupStatus(Arguments arguments) {
    Statement<512> statement;
    if (statement.build(
            "SELECT dq.replication_queue.backup_no,dq.replication_queue.status as "
            "replication_queue_status,dq.backups.instance_id, dq.backups.properties,dq.backups.status as "
            "backups_status,dq.backups.type,dq.backups.start_time FROM dq.replication_queue INNER JOIN dq.backups ON "
            "dq.replication_queue.backup_no=dq.backups.backup_no order by dq.backups.instance_id, "
            "dq.replication_queue.position ") == -1)
        return -1;
    const PgResultPtr rows = pgExec(statement.text());
    if (pgStatus(rows.get()) == -1) {
        LOG_HERE(0, "Error: failed database Query: %s\n", statement.text());
        return -1;
    }
    if (pgTuples(rows.get()) == 0) {
        LOG_HERE(0, "No backups to list");
        return 0;
    }
    StreamPtr csv = openCsv();
    const int result = listRows(rows.get(), arguments[0], csv.get());
    return closeCsv(std::move(csv), result);
}
