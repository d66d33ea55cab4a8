#include "hash/distinctTable.h"

#include <unordered_set>

#include "support/root.h"

namespace {

TEST(DistinctTable, NeverCallsASeenKeyNewHoweverFullItIs) {
    const testsupport::TestRoot root;
    DistinctTablePtr table;
    ASSERT_EQ(createDistinctTable(&table, 1), 0);
    std::mt19937_64 random(7);
    std::unordered_set<std::uint64_t> seen;
    int exact = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::uint64_t key = 1 + random() % 9000;
        const bool isNew = seen.insert(key).second;
        const int answer = distinctTableLookup(table.get(), key);
        // Either answer must be true; "perhaps" is never wrong.
        ASSERT_NE(answer, isNew ? DISTINCT_SEEN : DISTINCT_NEW) << "key " << key;
        exact += answer != DISTINCT_UNKNOWN ? 1 : 0;
    }
    EXPECT_GT(exact, 4096) << "as long as nothing is dropped, all answers are exact";
    EXPECT_EQ(distinctTableStats(table.get()), 0);
    EXPECT_TRUE(root.logged("Distinct table stats: 4096/4096*100 = 100.00% full"));
}

TEST(DistinctTable, IsExactWhileItHasRoomAndEmptyAfterASecondCreate) {
    DistinctTablePtr table;
    for (const int capacity : {10000, 5000}) {  // the larger one is kept
        ASSERT_EQ(createDistinctTable(&table, capacity), 0);
        for (const int answer : {DISTINCT_NEW, DISTINCT_SEEN})
            for (std::uint64_t key = 1; key <= 10000; ++key)
                ASSERT_EQ(distinctTableLookup(table.get(), key << 20), answer);
    }
    ASSERT_EQ(createDistinctTable(&table, 1), 0);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(distinctTableLookup(table.get(), 0), DISTINCT_NEW) << "key 0 is the empty bucket";
    EXPECT_TRUE(distinctTableLookup(nullptr, 1) == -1 && distinctTableStats(nullptr) == -1);
}

}  // namespace
