// The first part of a job: is there a backup to replicate, who is it, does the target have it, and is it hashed.

#include <unistd.h>

#include <optional>

#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "config/settings.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "replication/replication.h"
#include "worker/hactar.h"
#include "worker/job.h"

namespace {

constexpr std::size_t HOST_NAME_SIZE = 4096;
constexpr int RETRY_DELAY = 5;  // seconds, default of TimeDelay here: it paces retries, not passes
constexpr int LOCK_WAIT = 10;   // seconds, default of CheckInterval while another process hashes

bool isDeleted(std::uint64_t backupNo) {
    const PgResultPtr row = pgVExec("SELECT tape_no FROM dq.backups WHERE backup_no=%ld", static_cast<long>(backupNo));
    return pgTuples(row.get()) == 1 && static_cast<std::uint32_t>(pgUVal(row.get(), 0, "tape_no")) == TAPE_NO_DELETED;
}

// A backup that can't be replicated leaves the queue without a word to anybody.
bool checkLocalBackup(const WorkerJob& job) {
    const long number = static_cast<long>(job.backupNo);
    const std::uint64_t status = localStatus(job.backupNo);
    LOG_HERE(3, "Local backup status:%lu", status);
    if (status == 0)
        LOG_HERE(0, "Local backup: %ld not found. Will not try to replicate", number);
    else if ((status & JOB_FAILED) != 0)
        LOG_HERE(0, "Local backup: %ld is failed. Will not replicate", number);
    else if (isDeleted(job.backupNo))
        LOG_HERE(0, "Local backup: %ld has been deleted. Will not replicate", number);
    else
        return true;
    setQueueStatus(job, REPLICATION_SKIPPED);
    (void)clearSyncNeeded(job.backupNo);  // logged
    return false;
}

void openPrepareRecord(WorkerJob* job) {
    (void)getBackupTypeName(job->backupNo, &job->typeText);  // logged; the record does without
    char hostName[HOST_NAME_SIZE] = "";
    (void)gethostname(hostName, sizeof hostName - 1);  // the name is for people to read
    job->hostName = hostName;
    job->progress.open(SLOT_PREPARE, *job);
}

void askTarget(WorkerJob* job) {
    int tries = 0;
    do {
        LOG_HERE(3, "Try: %d", tries);
        checkOnTarget(job, 0);
        ++tries;
    } while (job->curlCode != 0 && tries < g_settings.retryCount);
}

void identify(WorkerJob* job) {
    std::optional<std::string> identity;
    const int result = getUniversalBackupIdentity(job->backupNo, &identity);
    if (result == 0 && !identity) {
        LOG_HERE(3, "First time instance replication.");
    } else {
        if (result == -1)
            LOG_HERE(0,
                     "Warning: Unable to get Universal Backup Identity. Using 'tempUUID'\nReporting may be inaccurate");
        job->ubi = identity.value_or("");
        askTarget(job);
    }
    LOG_HERE(3, "identityString:%s", job->ubi.c_str());
    LOG_HERE(3, "Backup Status:%lu", job->targetStatus);
    LOG_HERE(3, "Backup Properties:%lu", job->targetProperties);
    LOG_HERE(3, "uuidCheck:%ld", static_cast<long>(job->uuidCheck));
    job->targetBackupNo = job->uuidCheck;
}

// Whether the answer lets the job go on.
bool decide(WorkerJob* job) {
    if (job->uuidCheck >= 0 && (job->targetStatus & ST_PRESENT) == 0)
        return true;
    if ((job->targetStatus & ST_ON_SYSTEM) != 0) {
        LOG_HERE(0, "Backup already on system");
        (void)clearSyncNeeded(job->backupNo);  // logged; the queue row says that it is done
        (void)setSyncDone(job->backupNo);
        setQueueStatus(*job, REPLICATION_COMPLETE);
        job->replicated = true;
        LOG_HERE(0, "Finished: backup %ld is %ld on target", static_cast<long>(job->backupNo),
                 static_cast<long>(job->targetBackupNo));
        return false;
    }
    LOG_HERE(0, "Failed uuid check, aborting; trying again later");
    setQueueStatus(*job, REPLICATION_NEEDED);
    g_settings.timeDelay = replicationKey("TimeDelay", RETRY_DELAY);
    if (g_settings.timeDelay > 0)
        sleep(static_cast<unsigned>(g_settings.timeDelay));  // holding the slot is what paces the retry
    return false;
}

// This version has no client of the storage manager: every job goes on without a reservation, and says so.
void reserve(const WorkerJob& job) {
    LOG_HERE(3, "Estimated hactar size:%lu", estimateHactarSize(job.backupNo, ESTIMATE_HACTAR_FILE));
    LOG_HERE(0, "Warning: unable to init smgr, proceed without reservation");
}

// The ending of a job that failed before the target was told of it.
void giveUpUntold(WorkerJob* job) {
    attempt("Failed to update sds_stats table", [job] { writeSdsStats(*job, job->failedStatusText); });
    attempt("Failed to update the queue row", [job] { setQueueStatus(*job, REPLICATION_NEEDED); });
}

// Waiting for the backup's lock isn't hashing: only the tool's own runs count.
bool hash(WorkerJob* job) {
    for (;;) {
        const Seconds watch;
        const int result = hashBackup(job->backupNo);
        job->presync += watch.passed();
        if (result == 0) {
            LOG_HERE(3, "Backup is hashed, continue");
            return true;
        }
        if (result != HASH_LOCKED)
            break;
        const int interval = replicationKey("CheckInterval", LOCK_WAIT);
        LOG_HERE(3, "Backup is locked, waiting:%d", interval);
        pollPause(interval);
    }
    LOG_HERE(0, "Failed to hash backup");
    setFailedStatusText(job, "Failed: %s", "Failed to hash backup");
    giveUpUntold(job);
    return false;
}

bool allSteps(WorkerJob* job) {
    if (!checkLocalBackup(*job))
        return false;
    openPrepareRecord(job);
    identify(job);
    if (!decide(job))
        return false;
    reserve(*job);
    return hash(job);
}

}  // namespace

bool prepareJob(WorkerJob* job) {
    try {
        return allSteps(job);
    } catch (const std::exception& e) {
        failForException(job, e);
        giveUpUntold(job);
        return false;
    }
}
