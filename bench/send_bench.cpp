// Throughput of the send phases, beside curl -T of the same bytes over as many connections, and restic copy.

#include <cstdio>
#include <fstream>
#include <map>
#include <stdexcept>
#include <thread>

#include "base/run_command.h"
#include "bench_lab.h"
#include "config/settings.h"
#include "pipeline/send_phase.h"
#include "worker/statistics.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

constexpr int SINGLE = 0;  // send threads: the phase without threads

struct Figures {
    std::vector<double> rates;  // MiB a second
    std::vector<double> cpus;   // CPU seconds of the client, of the source's database and of the vault a GiB
    std::vector<double> databaseCpus;
    std::vector<double> vaultCpus;
};

class SendBench {
public:
    SendBench(unsigned mebibytes, unsigned blockSize) : mebibytes_(mebibytes), lab_(blockSize) {
        backup_ = lab_.newBackup(mebibytes, 1);
        for (const int connections : {1, 2, 4})
            writeParts(connections);
    }

    // `only`: a number of send threads to measure alone, for a profiler; negative for all.
    void run(unsigned rounds, unsigned blockSize, int only) {
        if (only >= 0) {
            Figures figures;
            for (unsigned round = 0; round < rounds; ++round)
                sendOnce(only, &figures);
            print(std::to_string(only) + " send threads", figures, nullptr);
            return;
        }
        printf("send: %u MiB of new blocks of %u KiB, loopback, a vault that hashes and discards; medians of %u\n",
               mebibytes_, blockSize / 1024, rounds);
        constexpr int THREADS[] = {SINGLE, 2, 4};
        Figures ours[3];
        Figures peers[3];
        for (unsigned round = 0; round < rounds; ++round) {
            for (int i = 0; i < 3; ++i) {
                sendOnce(THREADS[i], &ours[i]);
                curlOnce(THREADS[i] == SINGLE ? 1 : THREADS[i], &peers[i]);
            }
        }
        for (int i = 0; i < 3; ++i) {
            const std::string name = THREADS[i] == SINGLE ? "one thread" : std::to_string(THREADS[i]) + " send threads";
            print(name, ours[i], &peers[i]);
            print("  curl -T, " + std::to_string(THREADS[i] == SINGLE ? 1 : THREADS[i]), peers[i], nullptr);
        }
        resticOnce(median(ours[1].rates));
    }

private:
    static void print(const std::string& name, const Figures& figures, const Figures* peer) {
        printf("  %-16s %7.1f MiB/s, CPU s/GiB: client %.2f, database %.2f, vault %.2f", name.c_str(),
               median(figures.rates), median(figures.cpus), median(figures.databaseCpus), median(figures.vaultCpus));
        if (peer != nullptr)
            printf("; %.2f of curl", median(figures.rates) / median(peer->rates));
        printf("\n");
    }

    void writeParts(int connections) {
        std::ifstream data(lab_.dataFile(), std::ios::binary);
        std::vector<char> part(fs::file_size(lab_.dataFile()) / static_cast<unsigned>(connections));
        for (int i = 0; i < connections; ++i) {
            data.read(part.data(), static_cast<std::streamsize>(part.size()));
            std::ofstream(partFile(connections, i), std::ios::binary)
                .write(part.data(), static_cast<std::streamsize>(part.size()));
            digests_[partFile(connections, i)] = lab::fileDigest(partFile(connections, i));
        }
    }

    [[nodiscard]] fs::path partFile(int connections, int part) const {
        return lab_.place() / ("part" + std::to_string(connections) + "." + std::to_string(part));
    }

    // A vault that knows no blocks.
    void freshVault() {
        lab_.lab().stopVault();
        lab_.lab().startVault({"--discard"});
    }

    template <typename Transfer>
    void measure(Figures* figures, double (*clientCpu)(), Transfer transfer) {
        const double client = clientCpu();
        const pid_t database = lab_.lab().source().cluster().pid();
        const pid_t vault = lab_.lab().vaultProcess().pid();
        const double databaseBefore = treeCpu(database);
        const double vaultBefore = treeCpu(vault);
        const auto start = Clock::now();
        transfer();
        const double perGib = 1024.0 / mebibytes_;
        figures->rates.push_back(mebibytes_ / secondsSince(start));
        figures->cpus.push_back((clientCpu() - client) * perGib);
        figures->databaseCpus.push_back((treeCpu(database) - databaseBefore) * perGib);
        figures->vaultCpus.push_back((treeCpu(vault) - vaultBefore) * perGib);
    }

    void sendOnce(int threads, Figures* figures) {
        freshVault();
        lab_.lab().setReplication("SendThreadCount", std::to_string(threads == SINGLE ? 1 : threads));
        number_ = lab_.start(backup_);
        dropFromCache(lab_.lab().source().backupFile(backup_));
        OperationProgress progress;  // never opened: only the transfer is measured
        const SendJob job{backup_, lab_.lab().vaultName(), number_, &progress, &g_bytesSent};
        measure(figures, &ownCpu, [&] {
            if ((threads == SINGLE ? sendBlocks : sendBlocksThreaded)(g_settings, job) != 0)
                throw std::runtime_error("the send phase failed");
        });
    }

    // Each part as one block, over a connection and by a process of its own.
    void curlOnce(int connections, Figures* figures) {
        freshVault();
        for (int i = 0; i < connections; ++i)
            dropFromCache(partFile(connections, i));
        measure(figures, &childrenCpu, [&] {
            std::vector<std::thread> clients;
            std::vector<int> results(static_cast<std::size_t>(connections));
            for (int i = 0; i < connections; ++i)
                clients.emplace_back([this, connections, i, &results] {
                    results[static_cast<std::size_t>(i)] = curl(partFile(connections, i));
                });
            for (std::thread& client : clients)
                client.join();
            for (const int result : results)
                if (result != 0)
                    throw std::runtime_error("curl failed");
        });
    }

    int curl(const fs::path& file) {
        const std::string url = lab_.lab().vaultName() + "/cgi-bin/vaultServer/b-sha512-" +
                                std::to_string(fs::file_size(file)) + "-" + digests_.at(file);
        return lab::run(
            {"curl", "-s", "-f", "-o", "/dev/null", "-T", file, "-H", "X-BackupNo: " + std::to_string(number_), url});
    }

    // The same data with other people's programs, where they are installed.
    void resticOnce(double ourRate) {
        if (runCommand("command -v restic >/dev/null && command -v rclone >/dev/null") != 0) {
            printf("  restic copy: restic or rclone isn't installed\n");
            return;
        }
        const std::string directory = shellQuoted((lab_.place() / "restic").string());
        const std::string port = std::to_string(lab::freePort());
        const std::string remote = "rest:http://127.0.0.1:" + port + "/";
        const std::string environment = "export RESTIC_PASSWORD=bench RESTIC_FROM_PASSWORD=bench HOME=" + directory +
                                        " && mkdir -p " + directory + "/far && cd " + directory + " && ";
        lab::Process server({"sh", "-c",
                             environment + "exec rclone serve restic --addr 127.0.0.1:" + port + " " + directory +
                                 "/far >rclone.log 2>&1"},
                            {});
        const bool ready = runCommand(environment + "restic -q init -r near && restic -q backup -r near " +
                                      shellQuoted(lab_.dataFile().parent_path().string()) +
                                      " && for i in $(seq 100); do restic -q init -r " + remote +
                                      " --from-repo near --copy-chunker-params 2>/dev/null && exit 0; sleep 0.1; done; "
                                      "exit 1") == 0;
        if (!ready) {
            printf("  restic copy: the repositories can't be made\n");
            return;
        }
        const auto start = Clock::now();
        const int status = runCommand(environment + "restic -q copy -r " + remote + " --from-repo near");
        const double rate = mebibytes_ / secondsSince(start);
        if (status != 0)
            printf("  restic copy failed\n");
        else
            printf("  restic copy to rclone serve restic: %.1f MiB/s; 2 send threads are %.1f times as fast\n", rate,
                   ourRate / rate);
    }

    unsigned mebibytes_;
    BenchLab lab_;
    std::uint64_t backup_ = 0;
    std::int64_t number_ = 0;
    std::map<fs::path, std::string> digests_;
};

}  // namespace

int measureSend(unsigned mebibytes, unsigned rounds, unsigned blockKib, int only) {
    for (const unsigned blockSize : {65536U, 1U << 20})
        if (blockKib == 0 || blockKib == blockSize / 1024)
            SendBench(mebibytes, blockSize).run(rounds, blockSize, only);
    return 0;
}

}  // namespace bench
