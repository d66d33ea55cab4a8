// Replications that an operator ended by marking their row.

#include <new>
#include <optional>
#include <string_view>
#include <vector>

#include "bookkeeping/replicationQueue.h"
#include "daemon/daemon.h"
#include "daemon/hactar.h"
#include "daemon/worker_table.h"
#include "foundation/logger.h"
#include "foundation/settings.h"
#include "replication/replication.h"
#include "rest/lifecycle.h"
#include "rest/session.h"

namespace {

constexpr const char* UNKNOWN_IDENTITY = "tempUUID";
constexpr std::string_view TERMINATED_TEXT("backup operation terminated", 28);  // its NUL travels too

void terminateOne(const QueueEntry& row) {
    interruptWorker(static_cast<std::uint32_t>(row.backupNo), row.vault);
    (void)cancelOnTarget(row.backupNo, row.vault);  // the target may be gone; the row is ended here all the same
    if (removeHactar(row.backupNo) != 0)
        LOG_HERE(0, "failed to remove hactar");
    (void)set_status_rq(row.backupNo, row.vault, REPLICATION_TERMINATED);  // logged; the next pass finds the row again
}

}  // namespace

int cancelOnTarget(std::uint64_t backupNo, const std::string& target) {
    std::optional<std::string> identity;
    if (getUniversalBackupIdentity(backupNo, &identity) == -1 || !identity) {
        LOG_HERE(0, "Warning: Unable to get Universal Backup Identity. Using 'tempUUID'");
        identity = UNKNOWN_IDENTITY;
    }
    int curlCode = 0;
    const int result = endBackup(target, *identity, TERMINATED_TEXT, &curlCode);
    if (result == 0 && curlCode == 0)
        return 0;
    LOG_HERE(0, "Failed to notify target");
    if (curlCode != 0)
        LOG_HERE(0, "Curl status: %s", curlText(curlCode));
    return -1;
}

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
