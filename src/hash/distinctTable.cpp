#include "hash/distinctTable.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "log/logger.h"

namespace {

constexpr std::uint64_t SMALLEST_SIZE = 4096;
constexpr std::uint64_t MOST_PROBES = 4096;
constexpr std::uint64_t HASH_FACTOR = 0x10001;
constexpr std::size_t BUCKET_SIZE = 9;  // the key, then one byte: a key of this home was dropped
constexpr std::size_t MARK_OFFSET = 8;
constexpr std::uint64_t EMPTY = 0;

}  // namespace

struct distinctTable {
    MallocPtr<unsigned char> buckets;
    std::uint64_t count = 0;
    std::uint64_t used = 0;
    std::uint64_t swaps = 0;
    std::uint64_t unknowns = 0;

    [[nodiscard]] std::uint64_t homeOf(std::uint64_t key) const { return key * HASH_FACTOR % count; }
    [[nodiscard]] unsigned char* bucket(std::uint64_t index) const { return buckets.get() + index * BUCKET_SIZE; }
    [[nodiscard]] std::uint64_t keyAt(std::uint64_t index) const {
        std::uint64_t key = EMPTY;
        std::memcpy(&key, bucket(index), sizeof key);
        return key;
    }
    void store(std::uint64_t index, std::uint64_t key) const { std::memcpy(bucket(index), &key, sizeof key); }
};

namespace {

int clearTable(distinctTable* table) {
    std::memset(table->buckets.get(), 0, table->count * BUCKET_SIZE);
    table->used = table->swaps = table->unknowns = 0;
    return 0;
}

int allocateBuckets(distinctTable* table, std::uint64_t size) {
    const std::uint64_t wanted = size;
    for (; size >= SMALLEST_SIZE; size /= 2) {
        std::size_t bytes = 0;
        if (__builtin_mul_overflow(size, BUCKET_SIZE, &bytes))
            continue;
        table->buckets.reset(static_cast<unsigned char*>(std::malloc(bytes)));
        if (table->buckets)
            break;
    }
    if (!table->buckets) {
        table->count = 0;
        log_message(0, "Can't allocate space for distinct table.\n");
        return -1;
    }
    table->count = size;
    if (size < wanted)
        log_message(0, "Warning: actual table size %lu is smaller than suggested size %lu\n", size, wanted);
    log_message(4, "Created distinct table of %lu buckets.\n", size);
    return clearTable(table);
}

// The answer for a key that was just stored.
int answerFor(distinctTable* table, std::uint64_t home, std::uint64_t key) {
    if (table->bucket(home)[MARK_OFFSET] == 0)
        return DISTINCT_NEW;
    ++table->unknowns;
    log_message(6, "Past collisions at bucket %lu with key %lu with table %lf%% full\n", home, key,
                100.0 * static_cast<double>(table->used) / static_cast<double>(table->count));
    return DISTINCT_UNKNOWN;
}

}  // namespace

void freeDistinctTable(distinctTable* table) {
    const std::unique_ptr<distinctTable> owner(table);
}

int createDistinctTable(DistinctTablePtr* table, std::uint64_t suggestedSize) {
    if (!*table)
        table->reset(new (std::nothrow) distinctTable);
    if (!*table) {
        log_message(0, "Can't allocate space for distinct table private.\n");
        return -1;
    }
    const std::uint64_t size = std::max(SMALLEST_SIZE, suggestedSize);
    if ((*table)->buckets && (*table)->count >= size) {
        log_message(4, "Created distinct table of %lu buckets.\n", (*table)->count);
        return clearTable(table->get());
    }
    (*table)->buckets.reset();
    return allocateBuckets(table->get(), size);
}

int distinctTableLookup(distinctTable* table, std::uint64_t key) {
    if (table == nullptr) {
        log_message(0, "Bad argument %p\n", static_cast<void*>(table));
        return -1;
    }
    if (!table->buckets) {
        log_message(0, "Uninitialized distinct table.\n");
        return -1;
    }
    const std::uint64_t home = table->homeOf(key);
    const std::uint64_t probes = std::min(table->count, MOST_PROBES);
    std::uint64_t index = home;
    for (std::uint64_t probe = 0; probe <= probes; ++probe) {  // the home itself takes none of them
        const std::uint64_t present = table->keyAt(index);
        // Empty is tested first, or key 0 would count as seen wherever it meets a free bucket.
        if (present == EMPTY) {
            table->store(index, key);
            ++table->used;
            return answerFor(table, home, key);
        }
        if (present == key)
            return DISTINCT_SEEN;
        index = index + 1 == table->count ? 0 : index + 1;
    }
    const int answer = answerFor(table, home, key);
    table->bucket(table->homeOf(table->keyAt(home)))[MARK_OFFSET] = 1;
    table->store(home, key);
    ++table->swaps;
    return answer;
}

int distinctTableStats(const distinctTable* table) {
    if (table == nullptr || !table->buckets) {
        log_message(0, table == nullptr ? "Bad argument %p\n" : "Uninitialized distinct table.\n",
                    static_cast<const void*>(table));
        return -1;
    }
    log_message(4, "Distinct table stats: %lu/%lu*100 = %.2lf%% full, %lu swaps, %lu unknowns.\n", table->used,
                table->count, 100.0 * static_cast<double>(table->used) / static_cast<double>(table->count),
                table->swaps, table->unknowns);
    return 0;
}
