// A second backup with a few changed blocks over a line with latency, with and without local block elimination; and how
// exactly a bandwidth limit is kept.

#include <cstdio>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>

#include "bandwidth/blockOut.h"
#include "bench_lab.h"
#include "config/settings.h"
#include "lab/proxy.h"
#include "pipeline/send_phase.h"
#include "worker/statistics.h"

namespace bench {
namespace {

constexpr unsigned BLOCK = 65536;

int portOf(const std::string& target) {
    return std::stoi(target.substr(target.rfind(':') + 1));
}

void send(BenchLab* lab, std::uint64_t backup, const std::string& target, int bandwidthTable = -1) {
    OperationProgress progress;
    const SendJob job{backup, target, lab->start(backup), &progress, &g_bytesSent, bandwidthTable};
    if (sendBlocksThreaded(g_settings, job) != 0)
        throw std::runtime_error("the send phase failed");
}

// Overwrites every hundredth block of the data.
void changeOnePercent(const std::filesystem::path& file, unsigned seed) {
    std::fstream data(file, std::ios::binary | std::ios::in | std::ios::out);
    std::mt19937_64 random(seed);
    const std::uint64_t blocks = std::filesystem::file_size(file) / BLOCK;
    for (std::uint64_t block = 50; block < blocks; block += 100) {
        const std::uint64_t value = random();
        data.seekp(static_cast<std::streamoff>(block * BLOCK + 100));
        data.write(reinterpret_cast<const char*>(&value), sizeof value);
    }
}

// The rate of what crosses the line, once the first second of the threads is over, which has no limit.
double measureRate(const lab::Proxy& line, unsigned seconds) {
    while (line.bytesSent() < 100000)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return line.measureRate(std::chrono::seconds(seconds));
}

}  // namespace

int measureSecondBackup(unsigned mebibytes) {
    BenchLab lab(BLOCK);
    const std::uint64_t first = lab.newBackup(mebibytes, 1);
    lab.lab().startVault();
    lab.lab().setReplication("SendThreadCount", "2");
    const std::string vault = lab.lab().vaultName();
    if (lab.lab().source().run(
            {lab::programDirectory() / "ferryd", "util", "replicate", std::to_string(first), vault}) != 0 ||
        !lab.lab().sameOnVault(first))
        throw std::runtime_error("the first backup didn't arrive");
    printf("second: %u MiB in blocks of 64 KiB, 1%% of them changed, 20 ms of added round trip\n", mebibytes);
    for (const bool eliminate : {false, true}) {
        changeOnePercent(lab.dataFile(), eliminate ? 101 : 100);
        const std::uint64_t backup = lab.newBackup();
        g_settings.localBlockElimination = eliminate;
        lab.lab().source().sql("UPDATE backups SET sync_status = 2 WHERE backup_no = " + std::to_string(first));
        const lab::Proxy line(portOf(vault), std::chrono::milliseconds(10));
        const auto start = Clock::now();
        send(&lab, backup, line.name());
        printf("  %s block elimination: %.2f s, %lu requests, %.1f KiB sent\n", eliminate ? "with   " : "without",
               secondsSince(start), line.connections(), static_cast<double>(line.bytesSent()) / 1024);
    }
    return 0;
}

int measurePace(unsigned seconds) {
    constexpr std::uint64_t LIMIT = 4 << 20;
    BenchLab lab(1 << 20);
    // Spare for the first second of each thread, which has no limit.
    const auto mebibytes = static_cast<unsigned>((seconds + 10) * LIMIT / (1 << 20));
    lab.lab().startVault({"--discard"});
    if (createBandwidthTable() == -1 || parseBlockOutPeriods(("=" + std::to_string(LIMIT)).c_str()) == -1)
        throw std::runtime_error("no bandwidth table");
    printf("pace: a limit of %lu bytes a second, over %u seconds\n", LIMIT, seconds);
    // The last one's buffer holds the whole backup: three threads have nothing to send, and leave their share to one.
    const struct {
        const char* what;
        int threads;
        std::uint64_t maxBlocks;
    } cases[] = {{"1 send thread", 1, 3 << 20},
                 {"2 send threads", 2, 3 << 20},
                 {"4 send threads", 4, 3 << 20},
                 {"4, one with work", 4, (mebibytes + 2UL) << 20}};
    const int table = getBandwidthTableId();
    bool good = true;
    unsigned seed = 1;
    for (const auto& c : cases) {
        lab.lab().setReplication("SendThreadCount", std::to_string(c.threads));
        g_settings.maxBlocks = c.maxBlocks;
        const std::uint64_t backup = lab.newBackup(mebibytes, seed++);
        const lab::Proxy line(portOf(lab.lab().vaultName()), std::chrono::milliseconds(0));
        std::thread sender([&] { send(&lab, backup, line.name(), table); });
        const double rate = measureRate(line, seconds);
        sender.join();
        const double off = 100 * (rate / static_cast<double>(LIMIT) - 1);
        printf("  %-16s %.0f bytes/s, %+.1f%%\n", c.what, rate, off);
        good = good && off > -5 && off < 5;
    }
    return good ? 0 : 1;
}

}  // namespace bench
