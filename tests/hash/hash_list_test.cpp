#include "hash/hash_list.h"

#include "block/signal_catch.h"
#include "hash_fixture.h"
#include "log/logger.h"

namespace {

class HashList : public testsupport::HashCatalogue {
protected:
    // Backup 1: five mappings of four hashes, not in the order of their IDs; backups 2 and 3 share some of them.
    HashList() {
        for (int i = 0; i < 5; ++i)
            ids.push_back(addHash("block " + std::to_string(i)));
        int offset = 0;
        for (const int block : {2, 0, 3, 2})
            addMapping(1, ids[block], 100 * offset++);
        addMapping(1, ids[1], 400, "5");
        addMapping(1, ids[4], 500, "NULL", true);  // not completely hashed
        addMapping(2, ids[2], 0);
        addMapping(3, ids[0], 0);
    }

    // The list in batches of `capacity`, as numbers of blocks and file offsets.
    std::string list(std::vector<std::uint64_t> exclusions, int distinct, std::size_t capacity = 3) {
        HashListPtr handle;
        EXPECT_EQ(createHashList(&handle, 1, exclusions, distinct), 0);
        std::string text;
        std::vector<hashReferenceInfo> batch(capacity);
        int count = 0;
        while ((count = getHashesFromList(&handle, batch)) > 0)
            for (const hashReferenceInfo& record : std::span(batch).first(static_cast<std::size_t>(count))) {
                const auto block = std::to_string(std::find(ids.begin(), ids.end(), record.hashID) - ids.begin());
                EXPECT_EQ(std::memcmp(record.digest, testsupport::recordOf("block " + block).digest, 64), 0);
                EXPECT_TRUE(record.flags == (hashID_out | hashValue_out) && record.backupNumber == 1);
                text += block + "@" + std::to_string(record.fileOffset) + " ";
            }
        EXPECT_EQ(count, 0);
        EXPECT_EQ(getHashesFromList(&handle, batch), 0) << "still at the end";
        closeHashList(&handle);
        return text;
    }

    std::vector<std::uint64_t> ids;
};

TEST_F(HashList, DeliversWhatItWasAskedFor) {
    for (const std::size_t capacity : {1u, 2u, 5u, 1024u}) {
        EXPECT_EQ(list({}, 0, capacity), "2@0 0@100 3@200 2@300 1@400 ") << capacity << ", in file order";
        EXPECT_EQ(list({2}, 0, capacity), "0@100 3@200 1@400 ") << capacity << ", not even its first use";
        EXPECT_EQ(list({2, 3, 99}, 1, capacity), "1@400 3@200 ") << capacity;
    }
    const std::string distinct = list({}, 1);
    EXPECT_TRUE(distinct == "0@100 1@400 2@0 3@200 " || distinct == "0@100 1@400 2@300 3@200 ") << distinct;
    for (const auto& [backup, only, count] : {std::tuple(1, 0, 6), {1, 1, 5}, {77, 0, 0}, {0, 0, -1}, {1, 2, -1}})
        EXPECT_EQ(getHashCount(backup, only), count) << backup;
}

TEST_F(HashList, AnExcludedBackupWithAnUnknownHashDoesNotEmptyTheList) {
    catalogue.sql(
        "ALTER TABLE dq.backups_hash_values ALTER hash_id DROP NOT NULL;"
        "INSERT INTO dq.backups_hash_values VALUES (2, NULL, 900, NULL, false), (1, NULL, 900, NULL, false)");
    EXPECT_EQ(list({2, 3}, 1), "1@400 2@0 3@200 ");
    EXPECT_TRUE(root.logged("Backup 2 has a reference without a hash, not used as an exclusion of backup 1"));
}

TEST_F(HashList, WrongUseIsRefused) {
    HashListPtr handle;
    std::vector<hashReferenceInfo> batch(3);
    EXPECT_EQ(getHashesFromList(&handle, batch), -1);
    EXPECT_TRUE(createHashList(&handle, 1, {}, 2) == -1 && !handle);
    ASSERT_TRUE(createHashList(&handle, 1, {}, 0) == 0 && createHashList(&handle, 2, {}, 0) == 0);
    ASSERT_EQ(getHashesFromList(&handle, batch), 3);
    EXPECT_EQ(batch[2].fileOffset, 200) << "still the first list";
    catalogue.restart();
    EXPECT_EQ(getHashesFromList(&handle, batch), -1) << "the cursor went with the server";
}

// Passed over, it would be missing at the target of a backup that was sent without a failure.
TEST_F(HashList, AMappingWhoseHashIsUnknownFailsTheList) {
    catalogue.sql("DELETE FROM dq.hash_values WHERE hash_id = " + std::to_string(ids[3]));
    HashListPtr handle;
    std::vector<hashReferenceInfo> batch(9);
    ASSERT_EQ(createHashList(&handle, 1, {}, 1), 0);
    log_level = 0;
    EXPECT_EQ(getHashesFromList(&handle, batch), -1);
    log_level = 6;
    EXPECT_TRUE(root.logged("Backup 1 has a block at offset 200 whose hash " + std::to_string(ids[3]) + " is unknown"));
}

// Where the server thinks that the excluded hashes don't fit into its memory, it scans them anew for each hash of the
// list: here for half a minute and more, on real backups for days.
TEST_F(HashList, AnExclusionOfManyHashesStaysCheap) {
    catalogue.sql(
        "INSERT INTO dq.hash_values (hash_id, hash_type, hashed_length, hash_value) SELECT i, 'sha512', 9, "
        "decode(repeat(lpad(to_hex(i), 8, '0'), 16), 'hex') FROM generate_series(1000, 41000) i;"
        "INSERT INTO dq.backups_hash_values SELECT b, i + b, i, NULL, false FROM generate_series(1000, 40990) i, "
        "generate_series(7, 8) b; ANALYZE dq.backups_hash_values;"
        "ALTER DATABASE dqdb SET work_mem = '64kB'; ALTER DATABASE dqdb SET statement_timeout = '10s'");
    HashListPtr handle;
    const std::uint64_t excluded[] = {2, 7};
    std::vector<hashReferenceInfo> batch(9);
    EXPECT_EQ(createHashList(&handle, 8, excluded, 1), 0);
    EXPECT_EQ(getHashesFromList(&handle, batch), 1) << "all but the last are excluded";
    catalogue.sql("ALTER DATABASE dqdb RESET work_mem; ALTER DATABASE dqdb RESET statement_timeout");
}

TEST_F(HashList, ASignalEndsTheWalkAndWhatTheServerIsBusyWithAndIsRaisedAgain) {
    static std::atomic<int> raised = 0;
    std::signal(SIGINT, [](int) { ++raised; });
    HashListPtr handle;
    std::vector<hashReferenceInfo> batch(3);
    ASSERT_EQ(createHashList(&handle, 1, {}, 0), 0);
    {
        const CaughtSignals caught(SignalLayer::hashes, "test");
        raise(SIGINT);
        EXPECT_EQ(getHashesFromList(&handle, batch), -1);
        EXPECT_EQ(raised, 0);
    }
    EXPECT_EQ(raised, 1);
    EXPECT_EQ(getHashesFromList(&handle, batch), 3);
    handle.reset();
    catalogue.sql("BEGIN; LOCK TABLE dq.backups_hash_values IN ACCESS EXCLUSIVE MODE");
    std::thread operatorsHand([&] {
        EXPECT_TRUE(catalogue.somebodyWaits());
        kill(getpid(), SIGINT);
        EXPECT_TRUE(testsupport::eventually([] { return raised == 2; }));
        catalogue.sql("ROLLBACK");
    });
    EXPECT_EQ(createHashList(&handle, 1, {}, 0), -1);
    operatorsHand.join();
    std::signal(SIGINT, SIG_DFL);
    EXPECT_TRUE(root.logged("canceling statement due to user request"));
}

}  // namespace
