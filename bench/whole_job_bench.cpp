// whole_job_bench - what a replication costs, beside a peer in the same run, on this machine.
//
//   whole_job_bench send    [MIB [ROUNDS]]  blocks a second through the send phase, against curl -T of the same bytes
//   whole_job_bench memory  [MIB]           resident memory of a worker over its buffer
//   whole_job_bench queue   [BACKUPS]       an idle pass of the daemon over a full catalogue

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bookkeeping/replicationQueue.h"
#include "common/digest.h"
#include "daemon/configuration.h"
#include "daemon/daemon.h"
#include "daemon/policies.h"
#include "daemon/statistics.h"
#include "daemon/worker.h"
#include "foundation/directories.h"
#include "foundation/logger.h"
#include "foundation/pghelper.h"
#include "lab/lab.h"
#include "pipeline/send_phase.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr double MIB = 1 << 20;
constexpr const char* BLOCKS_OF_64_KIB = "  maxSubfileBytes=65536\n";
constexpr long PASSES = 20;

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double cpuSeconds() {
    rusage usage{};
    (void)getrusage(RUSAGE_SELF, &usage);
    const auto of = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return of(usage.ru_utime) + of(usage.ru_stime);
}

// CPU that another process has used.
double cpuSecondsOf(long pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(std::min(text.size(), text.rfind(')') + 2)));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

class Bench {
public:
    Bench() : place_(lab::temporaryDirectory("ferryd-bench")) {
        lab::LabOptions options;
        options.dedupSettings = BLOCKS_OF_64_KIB;
        lab_ = std::make_unique<lab::Lab>(place_ / "lab", options);
        // This process works on the source as a worker would.
        for (const auto& [name, value] : lab_->source().environment())
            setenv(name.c_str(), value.c_str(), 1);
        set_program_name("bench");
        if (init_application() == -1)
            throw std::runtime_error("the lab can't be used");
        (void)OpenProgramLog("bench", 1);
    }
    ~Bench() {
        pgCloseAll();
        lab_.reset();
        std::error_code ignored;
        fs::remove_all(place_, ignored);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    int send(unsigned mebibytes, unsigned rounds) {
        lab_->startVault();
        printf("send: %u MiB of new blocks of 64 KiB, %u rounds, one thread, loopback\n", mebibytes, rounds);
        std::vector<double> ratios;
        for (unsigned round = 1; round <= rounds; ++round) {
            const std::uint64_t backup = newBackup(mebibytes, round);
            const double cpuBefore = cpuSeconds();
            const double ours = sendOnce(backup);
            const double cpu = cpuSeconds() - cpuBefore;
            const double peer = curlOnce();
            ratios.push_back(peer / ours);
            printf("  round %u: send phase %.1f MiB/s, curl -T %.1f MiB/s, ratio %.2f; %.2f CPU seconds per GiB\n",
                   round, mebibytes / ours, mebibytes / peer, peer / ours, cpu * 1024 / mebibytes);
        }
        std::sort(ratios.begin(), ratios.end());
        printf("  median ratio to curl -T: %.2f\n", ratios[ratios.size() / 2]);
        return 0;
    }

    int memory(unsigned mebibytes) {
        lab_->startVault();
        const std::uint64_t backup = newBackup(mebibytes, 1);
        lab::Process worker = lab_->source().start(
            {lab::programDirectory() / "ferryd", "util", "replicate", std::to_string(backup), lab_->vaultName()},
            "replicate.out");
        double peak = 0;
        while (worker.running()) {
            peak = std::max(peak, highWater(worker.pid()));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const double buffer = 0xa00000 / MIB;
        printf(
            "memory: worker of a %u MiB backup in 64 KiB blocks: peak %.1f MiB, %.1f MiB over its buffer of %.0f MiB "
            "(limit 64)\n",
            mebibytes, peak, peak - buffer, buffer);
        if (!lab_->sameOnVault(backup)) {
            printf("memory: the vault's backup differs\n");
            return 1;
        }
        return peak - buffer < 64 ? 0 : 1;
    }

    int queue(long backups) {
        lab_->source().sql(
            "INSERT INTO nodes (node_name) SELECT 'client' || n FROM generate_series(1, 1000) n;"
            "INSERT INTO application_instances (node_no, app_id, identity) SELECT n, 1, gen_random_uuid()::text FROM "
            "generate_series(1, 1000) n;"
            "INSERT INTO backups (node_no, instance_id, type, status, sync_status, start_time, tape_no, total_megs) "
            "SELECT n % 1000 + 1, n % 1000 + 1, CASE WHEN n % 7000 < 1000 THEN 1 ELSE 3 END, 3136, 2, 1700000000 + n, "
            "1, 1000 FROM generate_series(1, " +
            std::to_string(backups) +
            ") n;"
            "INSERT INTO replication_queue (backup_no, vault, status) SELECT backup_no, '" +
            lab_->vaultName() + "', 2 FROM backups ORDER BY backup_no; ANALYZE");
        printf("queue: an idle pass over %ld finished backups of 1000 instances, mean of %ld\n", backups, PASSES);
        bool good = true;
        for (const int scheme : {QUEUE_SCHEME_RETENTION, QUEUE_SCHEME_RECENCY}) {
            lab_->setReplication("QueueScheme", std::to_string(scheme));
            good = pass(scheme) && good;
        }
        return good ? 0 : 1;
    }

private:
    // A hashed backup of fresh random bytes, ready to be sent.
    std::uint64_t newBackup(unsigned mebibytes, unsigned seed) {
        const fs::path directory = place_ / "data";
        fs::create_directories(directory);
        std::mt19937_64 random(seed * 7919 + static_cast<unsigned>(getpid()));
        std::vector<std::uint64_t> block((1 << 20) / sizeof(std::uint64_t));
        std::ofstream file(directory / "file", std::ios::binary | std::ios::trunc);
        for (unsigned i = 0; i < mebibytes; ++i) {
            std::generate(block.begin(), block.end(), std::ref(random));
            file.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
        }
        file.close();
        const std::uint64_t backup = lab_->ingest(directory);
        lab_->source().run({lab::programDirectory() / "fileDedup", "-H" + std::to_string(backup)});
        return backup;
    }

    double sendOnce(std::uint64_t backup) {
        readConfiguration();
        int curlCode = 0;
        targetNumber_ = sendInitialMetaInfo(backup, lab_->vaultName(), false, &curlCode);
        if (targetNumber_ < 1)
            throw std::runtime_error("the vault refuses the backup");
        OperationProgress progress;
        // Never opened: only the transfer is measured.
        const SendJob job{backup, lab_->vaultName(), targetNumber_, &progress, &g_bytesSent};
        const auto start = Clock::now();
        if (sendBlocks(g_settings, job) != 0)
            throw std::runtime_error("the send phase failed");
        return seconds(start);
    }

    // The same bytes as one block, which the vault hashes and keeps as well.
    double curlOnce() {
        const fs::path file = place_ / "data/file";
        const std::string url = lab_->vaultName() + "/cgi-bin/vaultServer/b-sha512-" +
                                std::to_string(fs::file_size(file)) + "-" + lab::fileDigest(file);
        const auto start = Clock::now();
        if (lab::run({"curl", "-s", "-f", "-o", "/dev/null", "-T", file, "-H",
                      "X-BackupNo: " + std::to_string(targetNumber_), url}) != 0)
            throw std::runtime_error("curl failed");
        return seconds(start);
    }

    static double highWater(pid_t pid) {
        std::ifstream status("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmHWM:"))
                return std::strtod(line.c_str() + 6, nullptr) / 1024;
        }
        return 0;
    }

    static void onePass() {
        readConfiguration();
        updateQueue();
        handleTerminatedOperations();
        std::string target;
        (void)next_rq(&target);
    }

    static bool pass(int scheme) {
        onePass();
        const PgResultPtr row = pgExec("SELECT pg_backend_pid() AS pid");
        const long backend = pgIVal(row.get(), 0, "pid");
        const double clientBefore = cpuSeconds();
        const double serverBefore = cpuSecondsOf(backend);
        const auto start = Clock::now();
        for (long i = 0; i < PASSES; ++i)
            onePass();
        const double wall = seconds(start) * 1000 / PASSES;
        const double client = (cpuSeconds() - clientBefore) * 1000 / PASSES;
        const double server = (cpuSecondsOf(backend) - serverBefore) * 1000 / PASSES;
        printf("  scheme %d: %.1f ms; CPU %.1f ms (daemon %.1f, database %.1f)\n", scheme, wall, client + server,
               client, server);
        return scheme != QUEUE_SCHEME_RETENTION || client + server < 50;
    }

    fs::path place_;
    std::unique_ptr<lab::Lab> lab_;
    std::int64_t targetNumber_ = 0;
};

unsigned argument(int argc, char** argv, int index, unsigned defaultValue) {
    return argc > index ? static_cast<unsigned>(std::strtoul(argv[index], nullptr, 10)) : defaultValue;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    try {
        if (what == "send")
            return Bench().send(argument(argc, argv, 2, 512), std::max(argument(argc, argv, 3, 3), 1U));
        if (what == "memory")
            return Bench().memory(argument(argc, argv, 2, 1024));
        if (what == "queue")
            return Bench().queue(argument(argc, argv, 2, 100000));
    } catch (const std::exception& e) {
        fprintf(stderr, "whole_job_bench: %s\n", e.what());
        return 1;
    }
    fprintf(stderr, "Usage: whole_job_bench send [MIB [ROUNDS]] | memory [MIB] | queue [BACKUPS]\n");
    return 2;
}
