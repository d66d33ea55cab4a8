#include "bench_lab.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>

#include "base/file_descriptor.h"
#include "config/directories.h"
#include "config/program_log.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "worker/configuration.h"
#include "worker/worker.h"

namespace bench {
namespace {

namespace fs = std::filesystem;

double cpuOf(int who) {
    rusage usage{};
    (void)getrusage(who, &usage);
    const auto of = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    return of(usage.ru_utime) + of(usage.ru_stime);
}

// Fields of /proc/PID/stat from the parent's pid on.
std::vector<double> statOf(const std::string& pid) {
    std::ifstream file("/proc/" + pid + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<double> fields;
    if (const std::size_t name = text.rfind(')'); name != std::string::npos && name + 4 < text.size()) {
        std::istringstream rest(text.substr(name + 4));
        for (double field = 0; rest >> field;)
            fields.push_back(field);
    }
    return fields;
}

}  // namespace

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double ownCpu() {
    return cpuOf(RUSAGE_SELF);
}

double childrenCpu() {
    return cpuOf(RUSAGE_CHILDREN);
}

double treeCpu(pid_t pid) {
    constexpr std::size_t PARENT = 0, USER = 10, SYSTEM = 11, CHILD_USER = 12, CHILD_SYSTEM = 13;
    double ticks = 0;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        const std::vector<double> fields = statOf(name);
        if (fields.size() <= CHILD_SYSTEM)
            continue;
        if (name == std::to_string(pid))
            ticks += fields[USER] + fields[SYSTEM] + fields[CHILD_USER] + fields[CHILD_SYSTEM];
        else if (fields[PARENT] == pid)
            ticks += fields[USER] + fields[SYSTEM];
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void dropFromCache(const fs::path& file) {
    const FileDescriptor fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() == -1 || fsync(fd.get()) == -1 || posix_fadvise(fd.get(), 0, 0, POSIX_FADV_DONTNEED) != 0)
        throw std::runtime_error("can't drop " + file.string() + " from the cache");
}

BenchLab::BenchLab(unsigned blockSize) : place_(lab::temporaryDirectory("ferryd-bench")) {
    lab::LabOptions options;
    options.dedupSettings = "  maxSubfileBytes=" + std::to_string(blockSize) + "\n";
    lab_ = std::make_unique<lab::Lab>(place_ / "lab", options);
    for (const auto& [name, value] : lab_->source().environment())
        setenv(name.c_str(), value.c_str(), 1);
    set_program_name("bench");
    if (init_application() == -1)
        throw std::runtime_error("the lab can't be used");
    (void)OpenProgramLog("bench", 1);
    readConfiguration();
}

BenchLab::~BenchLab() {
    pgCloseAll();
    fs::current_path("/");  // a worker's place is inside the lab
    for (const auto& [name, value] : lab_->source().environment())
        unsetenv(name.c_str());
    lab_.reset();
    std::error_code ignored;
    fs::remove_all(place_, ignored);
}

void BenchLab::writeData(unsigned mebibytes, unsigned seed) {
    fs::create_directories(dataFile().parent_path());
    std::mt19937_64 random(seed);
    std::vector<std::uint64_t> block((1 << 20) / sizeof(std::uint64_t));
    std::ofstream file(dataFile(), std::ios::binary | std::ios::trunc);
    for (unsigned i = 0; i < mebibytes; ++i) {
        std::generate(block.begin(), block.end(), std::ref(random));
        file.write(reinterpret_cast<const char*>(block.data()), 1 << 20);
    }
}

std::uint64_t BenchLab::newBackup() {
    const std::uint64_t backup = lab_->ingest(dataFile().parent_path());
    if (lab_->source().run({lab::programDirectory() / "fileDedup", "-H" + std::to_string(backup)}) != 0)
        throw std::runtime_error("fileDedup failed");
    return backup;
}

std::int64_t BenchLab::start(std::uint64_t backup, const std::string& target) {
    int curlCode = 0;
    const std::int64_t number =
        sendInitialMetaInfo(backup, target.empty() ? lab_->vaultName() : target, false, &curlCode);
    if (number < 1)
        throw std::runtime_error("the vault refuses the backup");
    return number;
}

}  // namespace bench
