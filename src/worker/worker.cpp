#include "worker/worker.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "bandwidth/blockOut.h"
#include "base/signal_flags.h"
#include "base/signals.h"
#include "bookkeeping/replicationQueue.h"
#include "config/program_log.h"
#include "config/settings.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "worker/job.h"
#include "worker/stop_thread.h"
#include "worker/worker_table.h"

namespace {

constexpr const char* WORKER_LOG = "ferryd-worker";
constexpr int DEFAULT_INSTANCES = 1;

// Whether the target has the backup now.
bool runAsWorker(std::uint64_t backupNo, const std::string& vault, int bandwidthTable) {
    clearWorkers();
    WorkerJob job;
    job.backupNo = backupNo;
    job.vault = vault;
    job.bandwidthTable = bandwidthTable;
    try {
        const StopThread stopThread(&job);
        detachBandwidthTable();
        if (!g_mode.attached)
            (void)OpenProgramLog(WORKER_LOG, DEFAULT_INSTANCES);  // the log has its own fall-back
        carryOutJob(&job);
    } catch (const std::exception& e) {
        LOG_HERE(0, "Backup %lu: the job can't begin: %s", backupNo, e.what());
        attempt("Failed to update the queue row", [&job] { setQueueStatus(job, REPLICATION_NEEDED); });
    }
    return job.replicated;
}

}  // namespace

int runWorker(std::uint64_t backupNo, std::string* vault, bool doFork, bool* replicated) {
    if (!doFork)
        g_settings.maxConcurrent = 1;
    LOG_HERE(3, "vault:%s fork:%d", vault->c_str(), doFork ? 1 : 0);
    if (workerCount() >= g_settings.maxConcurrent)
        return WORKER_NOT_STARTED;
    if (backupNo == 0) {
        const std::int64_t next = next_rq(vault);
        LOG_HERE(3, "Got Backup %ld", static_cast<long>(next));
        if (next < 1)
            return WORKER_NOT_STARTED;
        backupNo = static_cast<std::uint64_t>(next);
    }
    (void)fflush(stdout);
    (void)fflush(stderr);
    log_flush();
    pgCloseAll();
    const int bandwidthTable = getBandwidthTableId();
    if (!doFork) {
        LOG_HERE(3, "Skiping worker fork, traverseing child path");
        const bool done = runAsWorker(backupNo, *vault, bandwidthTable);
        if (replicated != nullptr)
            *replicated = done;
        return WORKER_DONE;
    }
    pid_t pid = 0;
    {
        // Blocked across the fork: the child lets them in when its own way to end is ready.
        const BlockedSignals blocked(parentSignals());
        pid = fork();
        if (pid == -1)
            LOG_HERE(0, "Can't fork a worker for backup %lu: %s; its slot and its row wait for the next start",
                     backupNo, strerror(errno));
        if (pid != 0) {
            addWorker({pid, static_cast<std::uint32_t>(backupNo), *vault});
            return WORKER_FORKED;
        }
        (void)runAsWorker(backupNo, *vault, bandwidthTable);  // the row tells
    }
    return WORKER_DONE;
}
