#include "worker/job.h"

#include <cstdarg>

#include "base/text.h"
#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "rest/lifecycle.h"
#include "rest/session.h"
#include "worker/hactar.h"
#include "worker/statistics.h"

namespace {

constexpr const char* SLOT_NAMES[SLOT_COUNT] = {"prepare", "replicate", "processing", "wait", "no_activity"};
constexpr std::size_t END_TEXT_LENGTH = 7;  // the target reads just "Failed:"

// Tells everybody who must know of a failure.
void cleanUpAfterFailure(WorkerJob* job) {
    LOG_HERE(0, "Failed, cleaning up");
    LOG_HERE(3, "Notify target");
    job->curlCode = 0;
    const std::string_view text(job->failedStatusText);
    if (endBackup(job->vault, job->ubi, text.substr(0, END_TEXT_LENGTH), &job->curlCode) != 0 || job->curlCode != 0) {
        LOG_HERE(0, "Failed to notify target");
        LOG_HERE(0, "Curl status: %s", curlText(job->curlCode));
    }
    LOG_HERE(3, "Remove hactar");
    if (removeHactar(job->backupNo) != 0)
        LOG_HERE(0, "failed to remove hactar");
    LOG_HERE(3, "Update sds_stats");
    writeSdsStats(*job, job->failedStatusText);
    if (job->outcome == OUTCOME_RETRY)
        setQueueStatus(*job, REPLICATION_NEEDED);
}

}  // namespace

void ProgressRecords::open(ProgressSlot slot, const std::string& target, const std::string& hostName,
                           const std::string& typeText, std::uint64_t backupNo) {
    (void)openProgress(target, hostName, SLOT_NAMES[slot], typeText, backupNo, &records_[slot]);  // a courtesy
    const std::lock_guard guard(lock_);
    named_[slot] = records_[slot];
}

void ProgressRecords::close(ProgressSlot slot) {
    if (records_[slot].isOpen())
        (void)closeProgress(records_[slot]);  // a courtesy; a row that stays is swept within the hour
}

void ProgressRecords::closeAll() {
    for (std::size_t slot = 0; slot < SLOT_COUNT; ++slot)
        close(static_cast<ProgressSlot>(slot));
}

void ProgressRecords::closeAllFromStopThread() {
    const std::lock_guard guard(lock_);
    for (const OperationProgress& record : named_) {
        if (record.isOpen())
            (void)closeProgressWithin(record);
    }
}

void setFailedStatusText(WorkerJob* job, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = vformatText(job->failedStatusText, sizeof job->failedStatusText, format, arguments);
    va_end(arguments);
    if (length != -1)
        return;
    LOG_HERE(0, "Message too long for buffer");
    LOG_HERE(0, "Warning: Message too long for buffer");
    (void)formatText(job->failedStatusText, sizeof job->failedStatusText, "Failed: invalid message");
}

void checkOnTarget(WorkerJob* job, std::int64_t targetBackupNo) {
    job->targetStatus = 0;
    job->targetProperties = 0;
    job->curlCode = 0;
    const std::string_view identity(job->ubi.c_str(), job->ubi.size() + 1);
    job->uuidCheck = postBackupCheck(job->vault, identity, static_cast<std::uint64_t>(targetBackupNo),
                                     &job->targetStatus, &job->targetProperties, &job->curlCode);
    if (job->curlCode == 0)
        return;
    // What came of a reply that was cut off says nothing.
    job->uuidCheck = -1;
    job->targetStatus = 0;
    job->targetProperties = 0;
    LOG_HERE(0, "Curl status: %s", curlText(job->curlCode));
}

std::uint64_t localStatus(std::uint64_t backupNo) {
    const PgResultPtr row = pgVExec("SELECT status FROM dq.backups WHERE backup_no=%ld", static_cast<long>(backupNo));
    if (pgStatus(row.get()) == -1 || pgTuples(row.get()) != 1)
        return 0;
    return pgUVal(row.get(), 0, "status");
}

void setQueueStatus(const WorkerJob& job, int status) {
    if (set_status_rq(job.backupNo, job.vault, status) == -1)
        LOG_HERE(0, "The queue row of backup %lu for %s could not be set to %d", job.backupNo, job.vault.c_str(),
                 status);
}

void writeSdsStats(const WorkerJob& job, const char* message) {
    if (updateSdsStats(job.backupNo, job.presync, job.sync, job.postsync, time(nullptr), message, job.vault) == -1)
        LOG_HERE(0, "Failed to update sds_stats table");
}

void carryOutJob(WorkerJob* job) {
    if (prepareJob(job) && transferBackup(job))
        finishOnTarget(job);
    if (job->outcome != OUTCOME_DONE)
        cleanUpAfterFailure(job);
    LOG_HERE(3, "cleanup operation_progress");
    job->progress.closeAll();
}
