// Replications that an operator ended by marking their row.

#include <new>
#include <vector>

#include "bookkeeping/replicationQueue.h"
#include "config/settings.h"
#include "daemon/daemon.h"
#include "log/logger.h"
#include "worker/cancel.h"
#include "worker/hactar.h"
#include "worker/worker_table.h"

namespace {

constexpr auto WORKER_PATIENCE = std::chrono::seconds(12);  // longer than a worker's cleanup can take

// The row is ended when its worker is: one that still ran could write another status over it.
void terminateOne(const QueueEntry& row) {
    if (!interruptWorker(static_cast<std::uint32_t>(row.backupNo), row.vault, WORKER_PATIENCE)) {
        LOG_HERE(0, "The worker of backup %lu is still changing hash data; trying again in the next pass",
                 row.backupNo);
        return;
    }
    (void)cancelOnTarget(row.backupNo, row.vault);  // the target may be gone; the row is ended here all the same
    if (removeHactar(row.backupNo) != 0)
        LOG_HERE(0, "failed to remove hactar");
    (void)set_status_rq(row.backupNo, row.vault, REPLICATION_TERMINATED);  // logged; the next pass finds the row again
}

}  // namespace

void handleTerminatedOperations() {
    const int limit = g_settings.maxConcurrent < 0 ? 0 : g_settings.maxConcurrent;
    std::vector<QueueEntry> rows;
    try {
        if (terminated_rq(static_cast<unsigned>(limit) + 1, &rows) < 1)
            return;
    } catch (const std::bad_alloc&) {
        LOG_HERE(0, "Unable to alloc memory");
        return;
    }
    for (const QueueEntry& row : rows)
        terminateOne(row);
}
