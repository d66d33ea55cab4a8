#include "hash/distinctTable.h"

#include <unordered_set>

#include "support/root.h"
#include "support/test.h"

namespace {

TEST(DistinctTable, NeverCallsASeenKeyNewHoweverFullItIs) {
    const testsupport::TestRoot root;
    DistinctTablePtr table;
    ASSERT_EQ(createDistinctTable(&table, 1), 0);
    EXPECT_TRUE(root.logged("Created distinct table of 4096 buckets."));
    std::mt19937_64 random(7);
    std::unordered_set<std::uint64_t> seen;
    int exact = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::uint64_t key = 1 + random() % 9000;
        const bool isNew = seen.insert(key).second;
        const int answer = distinctTableLookup(table.get(), key);
        // Either answer must be true; "perhaps" is never wrong.
        ASSERT_FALSE(answer == DISTINCT_NEW && !isNew) << "key " << key;
        ASSERT_FALSE(answer == DISTINCT_SEEN && isNew) << "key " << key;
        exact += answer != DISTINCT_UNKNOWN ? 1 : 0;
    }
    EXPECT_GT(exact, 4096) << "as long as nothing is dropped, all answers are exact";
    EXPECT_EQ(distinctTableStats(table.get()), 0);
    EXPECT_TRUE(root.logged("Distinct table stats: 4096/4096*100 = 100.00% full"));
}

TEST(DistinctTable, IsExactWhileItHasRoomAndEmptyAfterASecondCreate) {
    const testsupport::TestRoot root;
    DistinctTablePtr table;
    ASSERT_EQ(createDistinctTable(&table, 10000), 0);
    for (int round = 0; round < 2; ++round) {
        for (std::uint64_t key = 1; key <= 10000; ++key)
            ASSERT_EQ(distinctTableLookup(table.get(), key << 20), DISTINCT_NEW);
        for (std::uint64_t key = 1; key <= 10000; ++key)
            ASSERT_EQ(distinctTableLookup(table.get(), key << 20), DISTINCT_SEEN);
        ASSERT_EQ(createDistinctTable(&table, 5000), 0) << "the larger one is kept";
    }
    EXPECT_EQ(distinctTableLookup(table.get(), 0), DISTINCT_NEW);
    EXPECT_EQ(distinctTableLookup(table.get(), 0), DISTINCT_NEW) << "key 0 is the empty bucket";
    EXPECT_EQ(distinctTableLookup(nullptr, 1), -1);
    EXPECT_EQ(distinctTableStats(nullptr), -1);
}

}  // namespace
