// What a worker holds in memory, and what an idle pass of the daemon costs.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench_lab.h"
#include "bookkeeping/replicationQueue.h"
#include "config/settings.h"
#include "daemon/daemon.h"
#include "daemon/policies.h"
#include "database/pghelper.h"
#include "worker/configuration.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr unsigned SMALL_BLOCK = 512;
constexpr double DIFFERENCE_LIMIT = 16;  // MiB
constexpr long PASSES = 20;
constexpr long PAUSED = 4;         // instances
constexpr long WAITING = 1600;     // rows behind them
constexpr double PICK_LIMIT = 10;  // milliseconds

double highWater(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmHWM:"))
            return std::strtod(line.c_str() + 6, nullptr) / 1024;
    return 0;
}

// A hashed backup of blocks of 512 bytes, each its own number in decimal. Made by statements, since a million blocks of
// the least size that the appliance cuts would be eight gigabytes.
std::uint64_t backupOfSmallBlocks(lab::Lab* lab, const fs::path& data, unsigned blocks) {
    const std::uint64_t backup = lab->ingest(data);
    const std::string number = std::to_string(backup);
    std::ofstream file(lab->source().backupFile(backup), std::ios::binary | std::ios::trunc);
    char text[SMALL_BLOCK + 1];
    for (unsigned i = 0; i < blocks; ++i) {
        snprintf(text, sizeof text, "%0*u", static_cast<int>(SMALL_BLOCK), i);
        file.write(text, SMALL_BLOCK);
    }
    file.close();
    lab->source().sql("UPDATE backups SET properties = properties | 512 WHERE backup_no = " + number +
                      ";WITH blocks AS (SELECT n, sha512(convert_to(lpad(n::text, 512, '0'), 'UTF8')) AS digest FROM "
                      "generate_series(0, " +
                      std::to_string(blocks - 1) +
                      ") n), new AS (INSERT INTO hash_values (hash_type, hashed_length, hash_value) SELECT 'sha512', "
                      "512, digest FROM "
                      "blocks ON CONFLICT DO NOTHING) SELECT 1;"
                      "INSERT INTO backups_hash_values (backup_no, hash_id, file_offset, hash_incomplete) SELECT " +
                      number + ", hash_id, n * 512::bigint, false FROM generate_series(0, " +
                      std::to_string(blocks - 1) +
                      ") n JOIN hash_values ON hash_value = sha512(convert_to(lpad(n::text, 512, '0'), 'UTF8'));"
                      "ANALYZE hash_values; ANALYZE backups_hash_values");
    return backup;
}

// The peak of a worker, which ends when there is no way to rebuild such a backup.
double peakOfWorker(lab::Lab* lab, std::uint64_t backup) {
    lab::Process worker = lab->source().start(
        {lab::programDirectory() / "ferryd", "util", "replicate", std::to_string(backup), lab->vaultName()},
        "replicate.out");
    double peak = 0;
    while (worker.running()) {
        peak = std::max(peak, highWater(worker.pid()));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return peak;
}

void onePass() {
    readConfiguration();
    updateQueue();
    handleTerminatedOperations();
    std::string target;
    (void)next_rq(&target);
}

bool measurePass(int scheme) {
    onePass();
    const PgResultPtr row = pgExec("SELECT pg_backend_pid() AS pid");
    const auto backend = static_cast<pid_t>(pgIVal(row.get(), 0, "pid"));
    const double clientBefore = ownCpu();
    const double serverBefore = treeCpu(backend);
    const auto start = Clock::now();
    for (long i = 0; i < PASSES; ++i)
        onePass();
    const double wall = secondsSince(start) * 1000 / PASSES;
    const double client = (ownCpu() - clientBefore) * 1000 / PASSES;
    const double server = (treeCpu(backend) - serverBefore) * 1000 / PASSES;
    printf("  scheme %d: %.1f ms; CPU %.1f ms (daemon %.1f, database %.1f)\n", scheme, wall, client + server, client,
           server);
    return scheme != QUEUE_SCHEME_RETENTION || client + server < 50;
}

// The pick of a daemon whose oldest work all waits behind paused instances: each of these rows is looked at and passed
// over before the one that is free is found.
bool measurePick(lab::Lab* lab, long backups) {
    const std::string newest = std::to_string(backups);
    const std::string oldest = std::to_string(backups - WAITING);
    const std::string paused = std::to_string(PAUSED);
    // Instances of their own, above those of the finished backups.
    lab->source().sql("UPDATE backups SET instance_id = 1000001 + backup_no % " + paused +
                      ", sync_status = 1 WHERE backup_no >= " + oldest + " AND backup_no < " + newest +
                      "; UPDATE replication_queue SET status = 1 WHERE backup_no >= " + oldest +
                      "; UPDATE replication_queue SET status = 128 WHERE backup_no >= " + oldest + " AND backup_no < " +
                      oldest + " + " + paused + "; ANALYZE");
    const auto backend = static_cast<pid_t>(pgIVal(pgExec("SELECT pg_backend_pid() AS pid").get(), 0, "pid"));
    const double cpuBefore = ownCpu() + treeCpu(backend);
    std::vector<double> walls;
    for (long i = 0; i < PASSES; ++i) {
        std::string target;
        const auto start = Clock::now();
        const std::int64_t picked = next_rq(&target);
        walls.push_back(secondsSince(start) * 1000);
        if (picked != backups)
            throw std::runtime_error("the pick gave " + std::to_string(picked));
        lab->source().sql("UPDATE replication_queue SET status = 1 WHERE backup_no = " + newest);
    }
    const double cpu = (ownCpu() + treeCpu(backend) - cpuBefore) * 1000 / PASSES;
    std::sort(walls.begin(), walls.end());
    printf("  pick behind %ld rows that wait in %ld paused instances: median %.1f ms; CPU %.1f ms (limit %.0f)\n",
           WAITING, PAUSED, walls[walls.size() / 2], cpu, PICK_LIMIT);
    return cpu < PICK_LIMIT;
}

}  // namespace

int measureMemory(unsigned fewBlocks, unsigned manyBlocks) {
    BenchLab lab(65536);
    lab.lab().startVault();
    lab.writeData(1, 1);
    double peaks[2] = {};
    int i = 0;
    printf("memory: peak resident size of a worker, blocks of %u bytes, 2 send threads, buffers of 10 MiB\n",
           SMALL_BLOCK);
    for (const unsigned blocks : {fewBlocks, manyBlocks}) {
        const std::uint64_t backup = backupOfSmallBlocks(&lab.lab(), lab.dataFile().parent_path(), blocks);
        peaks[i] = peakOfWorker(&lab.lab(), backup);
        const std::string held =
            lab.lab().source().value("SELECT bytes_syncd FROM sds_stats ORDER BY done_epoch DESC LIMIT 1");
        printf("  %u blocks: %.1f MiB (%s bytes sent)\n", blocks, peaks[i], held.c_str());
        ++i;
    }
    printf("  difference %.1f MiB (limit %.0f)\n", peaks[1] - peaks[0], DIFFERENCE_LIMIT);
    return peaks[1] - peaks[0] < DIFFERENCE_LIMIT ? 0 : 1;
}

int measureQueue(long backups) {
    BenchLab lab(65536);
    lab.lab().source().sql(
        "INSERT INTO nodes (node_name) SELECT 'client' || n FROM generate_series(1, 1000) n;"
        "INSERT INTO application_instances (node_no, app_id, identity) SELECT n, 1, gen_random_uuid()::text FROM "
        "generate_series(1, 1000) n;"
        "INSERT INTO backups (node_no, instance_id, type, status, sync_status, start_time, tape_no, total_megs) "
        "SELECT n % 1000 + 1, n % 1000 + 1, CASE WHEN n % 7000 < 1000 THEN 1 ELSE 3 END, 3136, 2, 1700000000 + n, "
        "1, 1000 FROM generate_series(1, " +
        std::to_string(backups) +
        ") n;"
        "INSERT INTO replication_queue (backup_no, vault, status) SELECT backup_no, '" +
        lab.lab().vaultName() + "', 2 FROM backups ORDER BY backup_no; ANALYZE");
    printf("queue: an idle pass over %ld finished backups of 1000 instances, mean of %ld\n", backups, PASSES);
    bool good = true;
    for (const int scheme : {QUEUE_SCHEME_RETENTION, QUEUE_SCHEME_RECENCY}) {
        lab.lab().setReplication("QueueScheme", std::to_string(scheme));
        good = measurePass(scheme) && good;
    }
    good = measurePick(&lab.lab(), backups) && good;
    return good ? 0 : 1;
}

}  // namespace bench
