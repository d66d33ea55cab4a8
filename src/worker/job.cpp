#include "worker/job.h"

#include <algorithm>
#include <cstdarg>
#include <new>
#include <thread>

#include "base/text.h"
#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "config/directories.h"
#include "config/ini.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "rest/lifecycle.h"
#include "rest/session.h"
#include "worker/hactar.h"
#include "worker/statistics.h"

namespace {

constexpr const char* SLOT_NAMES[SLOT_COUNT] = {"prepare", "replicate", "processing", "wait", "no_activity"};
constexpr std::size_t END_TEXT_LENGTH = 7;  // the target reads just "Failed:"

void notifyTarget(WorkerJob* job) {
    LOG_HERE(3, "Notify target");
    job->curlCode = 0;
    const std::string_view text(job->failedStatusText);
    if (endBackup(job->vault, job->ubi, text.substr(0, END_TEXT_LENGTH), &job->curlCode) != 0 || job->curlCode != 0) {
        LOG_HERE(0, "Failed to notify target");
        LOG_HERE(0, "Curl status: %s", curlText(job->curlCode));
    }
}

// Tells everybody who must know of a failure.
void cleanUpAfterFailure(WorkerJob* job) {
    LOG_HERE(0, "Failed, cleaning up");
    attempt("Failed to notify target", [job] { notifyTarget(job); });
    LOG_HERE(3, "Remove hactar");
    attempt("failed to remove hactar", [job] {
        if (removeHactar(job->backupNo) != 0)
            LOG_HERE(0, "failed to remove hactar");
    });
    LOG_HERE(3, "Update sds_stats");
    attempt("Failed to update sds_stats table", [job] { writeSdsStats(*job, job->failedStatusText); });
    if (job->outcome == OUTCOME_RETRY)
        attempt("Failed to update the queue row", [job] { setQueueStatus(*job, REPLICATION_NEEDED); });
}

// The parts that the target knows of.
void carryOnTarget(WorkerJob* job) {
    try {
        if (transferBackup(job))
            finishOnTarget(job);
    } catch (const std::exception& e) {
        failForException(job, e);
        if (job->outcome == OUTCOME_DONE)
            job->outcome = OUTCOME_RETRY;
    }
}

}  // namespace

void ProgressRecords::open(ProgressSlot slot, const WorkerJob& job) {
    OperationProgress filled;
    if (fillProgress(job.vault, job.hostName, SLOT_NAMES[slot], job.typeText, job.backupNo, &filled) == -1)
        return;
    {
        // Before there is a row, so that the stop thread knows of every row.
        const std::lock_guard guard(lock_);
        records_[slot] = std::move(filled);
    }
    update(slot);
}

void ProgressRecords::update(ProgressSlot slot) {
    (void)updateProgress(&records_[slot]);
}

void ProgressRecords::close(ProgressSlot slot) {
    if (wasOpened(slot))
        (void)closeProgress(records_[slot]);  // a row that stays is swept within the hour
}

void ProgressRecords::closeAll() {
    for (std::size_t slot = 0; slot < SLOT_COUNT; ++slot)
        close(static_cast<ProgressSlot>(slot));
}

void ProgressRecords::closeAllAtExit(std::chrono::milliseconds limit) {
    const std::lock_guard guard(lock_);
    (void)closeProgressAtExit(records_, limit);
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

int replicationKey(const char* key, int defaultValue) {
    return ini_get_int("Replication", key, defaultValue, g_master_ini);
}

void pollPause(int seconds) {
    constexpr auto LEAST = std::chrono::milliseconds(100);
    std::this_thread::sleep_for(std::max<std::chrono::milliseconds>(std::chrono::seconds(seconds), LEAST));
}

void failForException(WorkerJob* job, const std::exception& reason) {
    const bool memory = dynamic_cast<const std::bad_alloc*>(&reason) != nullptr;
    LOG_HERE(0, "Backup %lu: the job can't go on: %s", job->backupNo, reason.what());
    setFailedStatusText(job, "Failed: %s. This replication will now retry.", memory ? "Out of memory" : reason.what());
    job->replicated = false;
}

void carryOutJob(WorkerJob* job) {
    if (prepareJob(job))
        carryOnTarget(job);
    if (job->outcome != OUTCOME_DONE)
        cleanUpAfterFailure(job);
    LOG_HERE(3, "cleanup operation_progress");
    attempt("cleanup operation_progress", [job] { job->progress.closeAll(); });
}
