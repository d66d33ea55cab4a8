// crypto_bench - ciphering and hashing of one block in this process. bench/run sets `openssl speed` beside it.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "block/hash_context.h"
#include "crypto/crypto.h"

namespace {

constexpr std::size_t BLOCK = 65536;

void BM_Encrypt(benchmark::State& state) {
    const std::vector<std::byte> key(32, std::byte{7});
    std::vector<std::byte> data(BLOCK);
    for (auto _ : state) {
        std::size_t in = data.size();
        std::size_t out = data.size();
        if (softwareEncryptChunk(data.data(), &out, data.data(), &in, key.data(), static_cast<int>(key.size())) != 0)
            std::abort();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * BLOCK));
}
BENCHMARK(BM_Encrypt);

void BM_HashBlock(benchmark::State& state) {
    const std::vector<std::byte> data(BLOCK);
    HashContextPtr context;
    for (auto _ : state)
        if (initializeHashContext(&context) != 0 || addToHashContext(context.get(), data.data(), data.size()) != 0 ||
            hashFromHashContext(context.get()) != 0)
            std::abort();
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * BLOCK));
}
BENCHMARK(BM_HashBlock);

}  // namespace

BENCHMARK_MAIN();
