// archive_bench - reading backup files of each kind, beside the tools that read the same data, in the same run.
//
// The tools write to /dev/null, the filter to memory; files come from the page cache. Bytes a second are clean ones.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>

#include "archive/archiverw.h"
#include "config/directories.h"
#include "log/logger.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t SIZE = 256 << 20;
constexpr std::size_t RANDOM_READ = 65536;
constexpr std::uint64_t ZIPPED = ARCHIVE_MAYBE_COMPRESSED;

fs::path directory;  // made by main, for all benchmarks

std::string path(const char* name) {
    return directory / name;
}

void need(bool works, const std::string& what) {
    if (!works)
        throw std::runtime_error(what);
}

// Words, and every fourth 64 KiB what can't be compressed: something like a file server.
std::string someData() {
    std::mt19937_64 random(1);
    std::string data;
    data.reserve(SIZE);
    while (data.size() < SIZE) {
        if (data.size() / 65536 % 4 == 3)
            for (int i = 0; i < 1024; ++i)
                data += static_cast<char>(random());
        else
            data += "entry " + std::to_string(random() % 5000) + (random() % 3 == 0 ? " unchanged\n" : " in /var/lib/");
    }
    data.resize(SIZE);
    return data;
}

void makeFile(const std::string& data, const char* name, const char* engine, std::uint64_t properties) {
    std::ofstream(g_master_ini) << "[Configuration Options]\nCompressEngine=" << engine << "\n";
    ArchiveFilterPtr filter = archive_open(path(name).c_str(), "w", properties);
    need(filter && archive_write(filter.get(), data.data(), data.size()) != -1 && archive_close(&filter) == 0, name);
}

void makeFiles() {
    const std::string data = someData();
    makeFile(data, "plain", "zlib", 0);
    makeFile(data, "zlib", "zlib", ZIPPED);
    makeFile(data, "lz4", "lz4", ZIPPED);
    const std::string in = "cd '" + directory.string() + "' && ";
    need(std::system((in + "gzip -1 -c plain > tool.gz && lz4 -q -1 -BX -BI -B4 plain tool.lz4").c_str()) == 0,
         "tools");
}

void readFile(benchmark::State& state, const char* name) {
    std::string buffer(1 << 20, '\0');
    for (auto _ : state) {
        const ArchiveFilterPtr filter = archive_open(path(name).c_str(), "r", ZIPPED);
        std::size_t total = 0;
        for (ssize_t got; (got = archive_read(filter.get(), buffer.data(), buffer.size())) > 0;)
            total += static_cast<std::size_t>(got);
        need(total == SIZE, name);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * SIZE));
}

void runTool(benchmark::State& state, const char* command, const char* name) {
    const std::string line = std::string(command) + " '" + path(name) + "' > /dev/null";
    for (auto _ : state)
        need(std::system(line.c_str()) == 0, line);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * SIZE));
}

void readAtRandom(benchmark::State& state, const char* name) {
    const ArchiveFilterPtr filter = archive_open(path(name).c_str(), "r", ZIPPED);
    std::string buffer(RANDOM_READ, '\0');
    std::mt19937_64 random(2);
    for (auto _ : state) {
        const auto target = static_cast<off_t>(1 + random() % (SIZE - RANDOM_READ));
        need(archive_seek(filter.get(), target, SEEK_SET) == target &&
                 archive_read(filter.get(), buffer.data(), buffer.size()) == static_cast<ssize_t>(RANDOM_READ),
             name);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * RANDOM_READ));
}

void declare(const char* name, void (*function)(benchmark::State&)) {
    benchmark::RegisterBenchmark(name, function)->Unit(benchmark::kMillisecond)->UseRealTime();
}

}  // namespace

int main(int argc, char** argv) {
    std::string pattern = "/var/tmp/archive-bench-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        return 1;
    directory = pattern;
    g_master_ini = directory / "master.ini";
    log_level = LOG_SILENT;
    int status = 0;
    try {
        makeFiles();
        declare("zlib/filter", [](benchmark::State& state) { readFile(state, "zlib"); });
        declare("gzip/filter", [](benchmark::State& state) { readFile(state, "tool.gz"); });
        declare("gzip/zcat", [](benchmark::State& state) { runTool(state, "zcat", "tool.gz"); });
        declare("lz4/filter", [](benchmark::State& state) { readFile(state, "lz4"); });
        declare("lz4/filter, by lz4", [](benchmark::State& state) { readFile(state, "tool.lz4"); });
        declare("lz4/lz4 -d", [](benchmark::State& state) { runTool(state, "lz4 -q -dc", "tool.lz4"); });
        declare("plain/filter", [](benchmark::State& state) { readFile(state, "plain"); });
        declare("random 64 KiB/plain", [](benchmark::State& state) { readAtRandom(state, "plain"); });
        declare("random 64 KiB/zlib", [](benchmark::State& state) { readAtRandom(state, "zlib"); });
        declare("random 64 KiB/lz4", [](benchmark::State& state) { readAtRandom(state, "lz4"); });
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
    } catch (const std::exception& e) {
        fprintf(stderr, "archive_bench: %s\n", e.what());
        status = 1;
    }
    fs::remove_all(directory);
    return status;
}
