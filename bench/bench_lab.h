// bench_lab.h - a lab to measure in, and what is measured with.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "lab/lab.h"

namespace bench {

inline constexpr double MIB = 1 << 20;
using Clock = std::chrono::steady_clock;

[[nodiscard]] double secondsSince(Clock::time_point start);
[[nodiscard]] double median(std::vector<double> values);

// CPU seconds of this process; of its ended children; of a process with its children.
[[nodiscard]] double ownCpu();
[[nodiscard]] double childrenCpu();
[[nodiscard]] double treeCpu(pid_t pid);

// Writes a file's pages out and forgets them, so that reading it is reading the disk.
void dropFromCache(const std::filesystem::path& file);

// A source and a vault; this process works on the source as a worker would.
class BenchLab {
public:
    explicit BenchLab(unsigned blockSize);
    BenchLab(const BenchLab&) = delete;
    BenchLab& operator=(const BenchLab&) = delete;
    ~BenchLab();

    [[nodiscard]] lab::Lab& lab() { return *lab_; }
    [[nodiscard]] const std::filesystem::path& place() const { return place_; }
    [[nodiscard]] std::filesystem::path dataFile() const { return place_ / "data/file"; }

    // Fills the data file with random bytes, the same for the same seed.
    void writeData(unsigned mebibytes, unsigned seed);
    // Makes a hashed backup of it, ready to be sent.
    std::uint64_t newBackup();
    std::uint64_t newBackup(unsigned mebibytes, unsigned seed) {
        writeData(mebibytes, seed);
        return newBackup();
    }

    // The backup's number on the vault, `target` in place of the vault's own name if given.
    std::int64_t start(std::uint64_t backup, const std::string& target = "");

private:
    std::filesystem::path place_;
    std::unique_ptr<lab::Lab> lab_;
};

// The parts; each returns the exit status.
int measureSend(unsigned mebibytes, unsigned rounds, unsigned blockKib, int only);  // 0 and -1 for all
int measureSecondBackup(unsigned mebibytes);
int measureMemory(unsigned fewBlocks, unsigned manyBlocks);
int measurePace(unsigned seconds);
int measureQueue(long backups);
int measureStore(unsigned mebibytes);

}  // namespace bench
