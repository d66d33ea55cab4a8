// The middle part of a job: the backup's record on the target, its blocks, its final metadata.

#include <optional>

#include "bandwidth/blockOut.h"
#include "bookkeeping/common.h"
#include "bookkeeping/replicationQueue.h"
#include "config/settings.h"
#include "log/logger.h"
#include "pipeline/send_phase.h"
#include "replication/replication.h"
#include "rest/lifecycle.h"
#include "rest/session.h"
#include "worker/hactar.h"
#include "worker/job.h"
#include "worker/statistics.h"
#include "worker/worker.h"

namespace {

constexpr int LOCAL_JOB_POLL = 5;  // seconds, default of CheckInterval
constexpr int THREADED = 1;        // of ThreadedSendBlocks

const char* network(const WorkerJob& job) {
    return curlText(job.curlCode);
}

// The target's refusal of the metadata. Two kinds need a person: the instance pauses.
void startRefused(WorkerJob* job, std::int64_t result) {
    const long number = static_cast<long>(job->backupNo);
    if (result == HEADER_OUT_OF_ORDER) {
        LOG_HERE(0, "Failed to process meta info on target, out of order backup sequence detected.");
        setFailedStatusText(job, "Failed: %s.",
                            "Unable to process initial meta info on target, out of order backup sequence detected.  "
                            "This instance is \"paused\" and may require manual intervention to resume");
        LOG_HERE(0, "set REPLICATION_OUT_OF_ORDER for %ld.", number);
        setQueueStatus(*job, REPLICATION_OUT_OF_ORDER);
        job->outcome = OUTCOME_PAUSED;
    } else if (result == HEADER_CANNOT_PROCESS) {
        LOG_HERE(0, "Failed to process meta info on target.");
        setFailedStatusText(job, "Failed: %s.",
                            "Unable to process initial meta info on target.  This instance is \"paused\" and may "
                            "require manual intervention to resume");
        LOG_HERE(0, "set REPLICATION_NEED_ASSIST for %ld.", number);
        setQueueStatus(*job, REPLICATION_NEED_ASSIST);
        job->outcome = OUTCOME_PAUSED;
    } else {
        LOG_HERE(0, "Failed to send initial meta info, error=%ld", static_cast<long>(result));
        setFailedStatusText(job, "Failed: %s. Network: %s",
                            "Unable to send initial meta info. This replication will now retry", network(*job));
        job->outcome = OUTCOME_RETRY;
    }
}

// A backup that the target is building already goes on where it stood.
bool startOnTarget(WorkerJob* job) {
    if ((job->targetStatus & ST_BUILDING) == 0 || job->uuidCheck == 0) {
        const Seconds watch;
        job->curlCode = 0;
        const std::int64_t result = sendInitialMetaInfo(job->backupNo, job->vault, false, &job->curlCode);
        job->presync += watch.passed();
        if (result < 1) {
            startRefused(job, result);
            return false;
        }
        job->targetBackupNo = result;
    }
    LOG_HERE(3, "Local backup %ld will be %ld on target", static_cast<long>(job->backupNo),
             static_cast<long>(job->targetBackupNo));
    if (job->ubi.empty()) {
        LOG_HERE(3, "First time this instance has replicated");
        std::optional<std::string> identity;
        (void)getUniversalBackupIdentity(job->backupNo, &identity);  // logged; an unknown one stays empty
        job->ubi = identity.value_or("");
    }
    return true;
}

int sendInChosenPhase(const SendJob& sendJob) {
    if (replicationKey("ThreadedSendBlocks", THREADED) == THREADED) {
        LOG_HERE(3, "Using threads for send phase; Pipeline feature enabled");
        return sendBlocksThreaded(g_settings, sendJob);
    }
    LOG_HERE(3, "Using single threaded send phase; Pipeline feature disabled");
    attachBandwidthTable(sendJob.bandwidthTable);
    const int result = sendBlocks(g_settings, sendJob);
    detachBandwidthTable();
    return result;
}

bool sendAllBlocks(WorkerJob* job) {
    const Seconds watch;
    const SendJob sendJob{job->backupNo, job->vault,         job->targetBackupNo, job->progress.record(SLOT_REPLICATE),
                          &g_bytesSent,  job->bandwidthTable};
    const int result = sendInChosenPhase(sendJob);
    job->progress.close(SLOT_REPLICATE);
    job->progress.open(SLOT_PROCESSING, *job);
    if (result == 0) {
        job->sync += watch.passed();
        return true;
    }
    LOG_HERE(0, "sendBlocks failed\n");
    if (result > 0)
        job->curlCode = result;
    setFailedStatusText(job, "Failed: %s. Network: %s", "Unable to send blocks. This replication will now retry",
                        network(*job));
    job->outcome = OUTCOME_RETRY;
    return false;
}

// A replication may begin while the backup itself is still being finished here.
bool waitForLocalJob(const WorkerJob& job) {
    LOG_HERE(3, "Send blocks complete, check if local backup is complete (updatedb has finished).");
    for (;;) {
        const std::uint64_t status = localStatus(job.backupNo);
        if (status == 0) {
            LOG_HERE(0, "Unable to get backup status. Is database up?");
            return false;
        }
        if ((status & JOB_FAILED) != 0) {
            LOG_HERE(0, "Backup is failed");
            return false;
        }
        if ((status & JOB_SUCCESS) != 0) {
            LOG_HERE(3, "Local backup is complete and successful, build HaCTAR");
            return true;
        }
        const int interval = replicationKey("CheckInterval", LOCAL_JOB_POLL);
        LOG_HERE(3, "Backup status is neither JOB_SUCCESS nor JOB_FAILED, check again in %d seconds.", interval);
        pollPause(interval);
    }
}

bool makeHactar(WorkerJob* job) {
    const Seconds watch;
    const bool made = waitForLocalJob(*job) && createHactar(job->backupNo) == 0;
    job->presync += watch.passed();
    if (made)
        return true;
    LOG_HERE(0, "createHactar failed\n");
    setFailedStatusText(job, "Failed: %s.", "Unable to create final metadata. This replication will now retry");
    job->outcome = OUTCOME_RETRY;
    return false;
}

bool transferHactar(WorkerJob* job) {
    const Seconds watch;
    attachBandwidthTable(job->bandwidthTable);
    const int result =
        sendHactar(job->backupNo, job->vault, job->targetBackupNo, job->presync + job->sync, &job->curlCode);
    detachBandwidthTable();
    job->sync += watch.passed();
    if (result == 0)
        return true;
    LOG_HERE(0, "sendHactar failed\n");
    setFailedStatusText(job, "Failed: %s. Network: %s",
                        "Unable to send final metadata. This replication will now retry", network(*job));
    job->outcome = OUTCOME_RETRY;
    return false;
}

}  // namespace

std::int64_t sendInitialMetaInfo(std::uint64_t backupNo, const std::string& vault, bool force, int* curlCode) {
    const std::uint64_t size =
        estimateHactarSize(backupNo, ESTIMATE_HACTAR_FILE) + estimateHactarSize(backupNo, ESTIMATE_WHOLE_BACKUP);
    std::string blob;
    std::size_t blobSize = 0;
    if (exportReplicationMetadata(static_cast<std::int64_t>(backupNo), &blob, &blobSize) == -1) {
        LOG_HERE(0, "ERROR: exportReplicationMetadata failed.");
        return -1;
    }
    LOG_HERE(3, "Post start backup");
    const std::int64_t number = startBackup(vault, std::string_view(blob.c_str(), blobSize), size, curlCode, force);
    return number > 0 && *curlCode != 0 ? -1 : number;  // a reply that was cut off may name another backup
}

bool transferBackup(WorkerJob* job) {
    job->progress.close(SLOT_PREPARE);
    job->progress.open(SLOT_REPLICATE, *job);
    LOG_HERE(3, "Replicating backup: %ld to target: %s", static_cast<long>(job->backupNo), job->vault.c_str());
    return startOnTarget(job) && sendAllBlocks(job) && makeHactar(job) && transferHactar(job);
}
