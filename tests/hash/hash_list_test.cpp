#include "hash/hash_list.h"

#include "block/signal_catch.h"
#include "hash_fixture.h"
#include "log/logger.h"
#include "support/test.h"

namespace {

class HashList : public testsupport::HashCatalogue {
protected:
    // Backup 1: five mappings of four hashes, not in the order of their IDs; backups 2 and 3 share some of them.
    HashList() {
        for (int i = 0; i < 5; ++i)
            ids.push_back(addHash("block " + std::to_string(i)));
        addMapping(1, ids[2], 0);
        addMapping(1, ids[0], 100);
        addMapping(1, ids[3], 200);
        addMapping(1, ids[2], 300);
        addMapping(1, ids[1], 400, "5");
        addMapping(1, ids[4], 500, "NULL", true);  // not completely hashed
        addMapping(2, ids[2], 0);
        addMapping(3, ids[0], 0);
    }

    // The list in batches of `capacity`, as numbers of blocks and file offsets.
    std::string list(std::vector<std::uint64_t> exclusions, int distinct, std::size_t capacity = 3) {
        HashListPtr handle;
        if (createHashList(&handle, 1, exclusions, distinct) == -1)
            return "failed";
        std::string text;
        std::vector<hashReferenceInfo> batch(capacity);
        int count = 0;
        while ((count = getHashesFromList(&handle, batch)) > 0)
            for (const hashReferenceInfo& record : std::span(batch).first(static_cast<std::size_t>(count))) {
                const auto block = std::find(ids.begin(), ids.end(), record.hashID) - ids.begin();
                const hashValue expected = testsupport::recordOf("block " + std::to_string(block));
                EXPECT_EQ(record.flags, hashID_out | hashValue_out);
                EXPECT_EQ(std::memcmp(record.digest, expected.digest, 64), 0);
                EXPECT_EQ(record.backupNumber, 1u);
                text += std::to_string(block) + "@" + std::to_string(record.fileOffset) + " ";
            }
        EXPECT_EQ(count, 0);
        EXPECT_EQ(getHashesFromList(&handle, batch), 0) << "still at the end";
        closeHashList(&handle);
        EXPECT_FALSE(handle);
        return text;
    }

    std::vector<std::uint64_t> ids;
};

TEST_F(HashList, DeliversWhatItWasAskedFor) {
    for (const std::size_t capacity : {1u, 2u, 5u, 1024u}) {
        SCOPED_TRACE(capacity);
        EXPECT_EQ(list({}, 0, capacity), "2@0 0@100 3@200 2@300 1@400 ") << "in file order";
        EXPECT_EQ(list({2}, 0, capacity), "0@100 3@200 1@400 ") << "not even its first use";
        EXPECT_EQ(list({2, 3, 99}, 1, capacity), "1@400 3@200 ");
    }
    const std::string distinct = list({}, 1);
    EXPECT_TRUE(distinct == "0@100 1@400 2@0 3@200 " || distinct == "0@100 1@400 2@300 3@200 ") << distinct;
    EXPECT_EQ(getHashCount(1, 0), 6);
    EXPECT_EQ(getHashCount(1, 1), 5);
    EXPECT_EQ(getHashCount(77, 0), 0);
}

TEST_F(HashList, AnExcludedBackupWithAnUnknownHashDoesNotEmptyTheList) {
    catalogue.sql("ALTER TABLE dq.backups_hash_values ALTER hash_id DROP NOT NULL");
    catalogue.sql("INSERT INTO dq.backups_hash_values VALUES (2, NULL, 900, NULL, false)");
    catalogue.sql("INSERT INTO dq.backups_hash_values VALUES (1, NULL, 900, NULL, false)");
    EXPECT_EQ(list({2, 3}, 1), "1@400 2@0 3@200 ");
    EXPECT_TRUE(root.logged("Backup 2 has a reference without a hash, not used as an exclusion of backup 1"));
}

TEST_F(HashList, WrongUseIsRefused) {
    HashListPtr handle;
    std::vector<hashReferenceInfo> batch(3);
    EXPECT_EQ(getHashesFromList(&handle, batch), -1);
    EXPECT_TRUE(root.logged("No handle passed in"));
    EXPECT_EQ(createHashList(&handle, 1, {}, 2), -1);
    EXPECT_FALSE(handle);
    ASSERT_EQ(createHashList(&handle, 1, {}, 0), 0);
    ASSERT_EQ(createHashList(&handle, 2, {}, 0), 0);
    EXPECT_TRUE(root.logged("WARNING:  createHashList:handle already exists"));
    ASSERT_EQ(getHashesFromList(&handle, batch), 3);
    EXPECT_EQ(batch[2].fileOffset, 200) << "still the first list";
    EXPECT_EQ(getHashCount(0, 0), -1);
    EXPECT_EQ(getHashCount(1, 2), -1);
    catalogue.restart();
    EXPECT_EQ(getHashesFromList(&handle, batch), -1) << "the cursor went with the server";
    EXPECT_TRUE(root.logged("Error: failed database Query, backup not hashed?"));
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
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const auto isEarly = [&] { return std::chrono::steady_clock::now() < deadline; };
    std::thread operatorsHand([&] {
        while (catalogue.value("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0" && isEarly())
            std::this_thread::yield();
        kill(getpid(), SIGINT);
        while (raised < 2 && isEarly())
            std::this_thread::yield();
        catalogue.sql("ROLLBACK");
    });
    EXPECT_EQ(createHashList(&handle, 1, {}, 0), -1);
    EXPECT_EQ(raised, 2);
    operatorsHand.join();
    std::signal(SIGINT, SIG_DFL);
    EXPECT_TRUE(root.logged("canceling statement due to user request"));
}

}  // namespace
