// Reads from the single instance store, beside memcpy from a mapping of the same store file.

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <stdexcept>

#include "base/file_descriptor.h"
#include "bench_lab.h"
#include "sis/SIS.h"

namespace bench {
namespace {

constexpr std::size_t BLOCK = 65536;
constexpr std::size_t READS = 40000;

void fill(SIS* store, std::uint64_t start, std::size_t size) {
    std::mt19937_64 random(5);
    std::vector<std::byte> piece(1 << 20);
    for (std::size_t done = 0; done < size; done += piece.size()) {
        for (std::size_t i = 0; i < piece.size(); i += sizeof(std::uint64_t)) {
            const std::uint64_t value = random();
            std::memcpy(&piece[i], &value, sizeof value);
        }
        if (writeSIS(store, piece, start + done) != static_cast<ssize_t>(piece.size()))
            throw std::runtime_error("the store can't be written");
    }
}

double rate(const std::function<void(std::uint64_t)>& read, std::uint64_t start, std::size_t size) {
    std::mt19937_64 random(9);
    const auto begin = Clock::now();
    for (std::size_t i = 0; i < READS; ++i)
        read(start + random() % (size / BLOCK) * BLOCK);
    return static_cast<double>(READS * BLOCK) / MIB / secondsSince(begin);
}

}  // namespace

int measureStore(unsigned mebibytes) {
    BenchLab lab(BLOCK);
    lab.lab().source().sql("UPDATE devices SET capacity = 134217728 * 4");
    lab.lab().setFurther("  encryptSIS=false\n");
    const SISPtr store = openSIS();
    std::uint64_t start = 0;
    const std::size_t size = static_cast<std::size_t>(mebibytes) << 20;
    if (!store || reserveSIS(store.get(), &start, static_cast<std::int64_t>(size)) == -1)
        throw std::runtime_error("the store can't be used");
    fill(store.get(), start, size);
    const FileDescriptor file(open((lab.lab().source().disk() / "SIS/0000000000000000").c_str(), O_RDONLY | O_CLOEXEC));
    const void* const mapping = mmap(nullptr, size, PROT_READ, MAP_SHARED, file.get(), static_cast<off_t>(start));
    if (mapping == MAP_FAILED)
        throw std::runtime_error("the store file can't be mapped");
    std::vector<std::byte> buffer(BLOCK);
    const auto copy = [&](std::uint64_t offset) {
        std::memcpy(buffer.data(), static_cast<const std::byte*>(mapping) + (offset - start), BLOCK);
    };
    const auto read = [&](std::uint64_t offset) {
        if (readSIS(store.get(), buffer, offset) != static_cast<ssize_t>(BLOCK))
            throw std::runtime_error("the store can't be read");
    };
    (void)rate(copy, start, size);  // both mappings have their pages from here on
    (void)rate(read, start, size);
    const double ours = rate(read, start, size);
    const double peer = rate(copy, start, size);
    printf(
        "store: %zu random reads of 64 KiB from %u MiB: readSIS %.0f MiB/s, memcpy from a mapping %.0f MiB/s, %.2f\n",
        READS, mebibytes, ours, peer, ours / peer);
    (void)munmap(const_cast<void*>(mapping), size);
    return 0;
}

}  // namespace bench
