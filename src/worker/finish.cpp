// The last part of a job: waiting while the target builds the backup, and the verdict.

#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "log/logger.h"
#include "rest/session.h"
#include "worker/hactar.h"
#include "worker/job.h"

namespace {

constexpr int POLL = 5;               // seconds, default of CheckInterval
constexpr int BUILD_TIMEOUT = 10000;  // seconds, default of CheckTimeout
constexpr int UNUSABLE_ANSWERS = 5;   // in a row, default of invalidUUIDcheckRetryCount

void logAnswer(int level, const WorkerJob& job, const char* what, const char* tail) {
    LOG_HERE(level, "%s, uuidCheck:%ld, Status:%ld, Properties:%ld%s", what, static_cast<long>(job.uuidCheck),
             static_cast<long>(job.targetStatus), static_cast<long>(job.targetProperties), tail);
}

void noteLongBuild(WorkerJob* job, const Seconds& waiting) {
    const int timeout = replicationKey("CheckTimeout", BUILD_TIMEOUT);
    if (timeout >= 0 && waiting.passed() <= static_cast<std::uint64_t>(timeout))
        return;
    job->progress.close(SLOT_WAIT);
    job->progress.close(SLOT_PROCESSING);
    if (!job->progress.wasOpened(SLOT_NO_ACTIVITY))
        job->progress.open(SLOT_NO_ACTIVITY, *job);
}

// Until the target stops building, or too many answers in a row tell nothing. The wait itself has no limit.
void waitForTarget(WorkerJob* job, const Seconds& waiting) {
    const int limit = replicationKey("invalidUUIDcheckRetryCount", UNUSABLE_ANSWERS);
    int unusable = 0;
    while (unusable < limit) {
        LOG_HERE(3, "uuidCheckLoop");
        checkOnTarget(job, job->targetBackupNo);
        job->progress.update(SLOT_WAIT);
        if (job->uuidCheck != job->targetBackupNo) {
            logAnswer(0, *job, "Could not determine if target is building backup", " retry");
            ++unusable;
        } else if ((job->targetStatus & ST_BUILDING) == 0) {
            logAnswer(3, *job, "Target is not building backup", "");
            return;
        } else {
            logAnswer(3, *job, "Target is building backup", "");
            unusable = 0;
        }
        noteLongBuild(job, waiting);
        pollPause(replicationKey("CheckInterval", POLL));
    }
}

void fail(WorkerJob* job, const char* text) {
    setFailedStatusText(job, "Failed: %s. Network: %s", text, curlText(job->curlCode));
    job->outcome = OUTCOME_RETRY;
}

void logTargetStatus(const WorkerJob& job) {
    LOG_HERE(0, "Backup status on target:%ld", static_cast<long>(job.targetStatus));
}

void succeed(WorkerJob* job, const Seconds& waiting) {
    job->postsync = waiting.passed();
    (void)clearSyncNeeded(job->backupNo);  // logged; the queue row says that it is done
    (void)setSyncDone(job->backupNo);
    writeSdsStats(*job, "Success: ");
    setQueueStatus(*job, REPLICATION_COMPLETE);
    job->replicated = true;
    LOG_HERE(0, "Finished: backup %ld is %ld on target", static_cast<long>(job->backupNo),
             static_cast<long>(job->targetBackupNo));
}

void judge(WorkerJob* job, const Seconds& waiting) {
    if (job->uuidCheck == -1) {
        LOG_HERE(0, "Status of backup on target unknown.");
        fail(job, "backup status check failed. This replication will now retry");
    } else if ((job->targetStatus & ST_CANCELLED) != 0) {
        LOG_HERE(0, "Backup CANCELLED on the target");
        logTargetStatus(*job);
        setFailedStatusText(job, "CANCELLED: %s. Network: %s", "Backup cancelled on the target",
                            curlText(job->curlCode));
        setQueueStatus(*job, REPLICATION_TERMINATED);
        job->outcome = OUTCOME_RETRY;
    } else if ((job->targetStatus & ST_FAILED) != 0) {
        LOG_HERE(0, "Backup failed on the target");
        logTargetStatus(*job);
        fail(job, "Failed building on the target. This replication will now retry");
    } else if ((job->targetStatus & ST_PRESENT) != 0) {
        succeed(job, waiting);
    } else {
        LOG_HERE(0, "Backup is not in progress or complete on the target");
        logTargetStatus(*job);
        fail(job, "Backup is not in progress or complete on the target. This replication will now retry");
    }
}

void dropHactar(WorkerJob* job) {
    if (replicationKey("SaveHactar", 0) != 0 || removeHactar(job->backupNo) == 0)
        return;
    LOG_HERE(0, "failed to remove hactar");
    setFailedStatusText(job, "Failed: %s.", "Unable to clear local metadata. This replication will now retry");
    job->outcome = OUTCOME_RETRY;
    job->replicated = false;
}

}  // namespace

void finishOnTarget(WorkerJob* job) {
    job->progress.close(SLOT_PROCESSING);
    LOG_HERE(3, "backup %ld is being built as %ld on target", static_cast<long>(job->backupNo),
             static_cast<long>(job->targetBackupNo));
    job->progress.open(SLOT_WAIT, *job);
    const Seconds waiting;
    waitForTarget(job, waiting);
    job->progress.close(SLOT_WAIT);
    job->progress.close(SLOT_PROCESSING);
    job->progress.close(SLOT_NO_ACTIVITY);
    judge(job, waiting);
    dropHactar(job);
}
