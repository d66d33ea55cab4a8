#include "worker/statistics.h"

#include "bookkeeping/common.h"
#include "database/pghelper.h"
#include "log/logger.h"

std::uint64_t g_bytesSent = 0;

namespace {

bool g_isWritten = false;

void updateCharts(std::uint64_t backupNo, std::uint64_t presync, std::uint64_t sync) {
    const PgResultPtr megs =
        pgVExec("SELECT total_megs FROM dq.backups WHERE backup_no=%ld", static_cast<long>(backupNo));
    if (pgStatus(megs.get()) == -1 || pgTuples(megs.get()) != 1)
        return;
    const unsigned long long readSize = static_cast<unsigned long long>(pgUVal(megs.get(), 0, "total_megs")) << 20;
    LOG_HERE(3, "Updating summary_charts table:\n read_size=%llu\n write_size=%lu\n read_time=%lu\n write_time=%lu\n",
             readSize, g_bytesSent, presync, sync);
    const PgResultPtr updated = pgVExec("SELECT update_summary_charts('replication', %llu, %lu, %lu, %lu)", readSize,
                                        g_bytesSent, presync, sync);
    if (pgStatus(updated.get()) == 0)
        LOG_HERE(3, "Replication successfully updated summary_charts table.\n");
    else
        LOG_HERE(0, "Replication failed to update summary_charts table!\n");
}

}  // namespace

void resetSdsStatsFlag() {
    g_isWritten = false;
}

int updateSdsStats(std::uint64_t backupNo, std::uint64_t presync, std::uint64_t sync, std::uint64_t postsync,
                   time_t epoch, const std::string& message, const std::string& target) {
    LOG_HERE(3, "Insert into sds_stats");
    if (g_isWritten)
        LOG_HERE(0, "Double insert into sds_stats attempted.");
    g_isWritten = true;
    std::string type;
    (void)getBackupTypeName(backupNo, &type);  // an unknown one has no number, which the row can do without
    updateCharts(backupNo, presync, sync);
    const long number = static_cast<long>(backupNo);
    Statement<4096> statement;
    if (statement.build(
            "INSERT INTO dq.sds_stats (client_name,  backup_no,  sync_type, presync_seconds, sync_seconds, "
            "postsync_seconds, done_epoch, bytes_on_arx, bytes_syncd, bytes_on_arv, message, destination)  VALUES "
            "((SELECT CASE WHEN (properties & %d)=0 THEN node_name ELSE gcname END AS client_name FROM dq.nodes where "
            "node_no=(SELECT node_no FROM dq.backups WHERE  backup_no=%ld)), %ld, (SELECT type_id FROM dq.sync_type "
            "WHERE type_name='%s'), %lu, %lu, %lu, %lu, (SELECT total_megs FROM dq.backups WHERE "
            "backup_no=%ld)*1048576, %lu, (SELECT total_megs FROM dq.backups WHERE backup_no=%ld)*1048576, $$%s$$, "
            "'%s')",
            P_IMPORTED, number, number, type.c_str(), presync, sync, postsync, static_cast<unsigned long>(epoch),
            number, g_bytesSent, number, message.c_str(), target.c_str()) == -1)
        return -1;
    if (pgStatus(pgExec(statement.text()).get()) == -1) {
        LOG_HERE(0, "Failed insert into sds_stats; Query:%s", statement.text());
        return -1;
    }
    return 0;
}
