// Whole jobs on real appliances, as they should go.

#include "e2e/e2e_fixture.h"
#include "support/test.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

class Replication : public EachPhase {};
INSTANTIATE_PHASES(Replication);

class SinglePhase : public EndToEnd {};

TEST_P(Replication, BackupIsRebuiltByteForByteAndOnlyChangedBlocksCrossNextTime) {
    lab().startVault();
    lab().startDaemon();
    const fs::path directory = data(1, 8);
    const std::uint64_t first = lab().ingest(directory);
    ASSERT_TRUE(reaches(first, REPLICATION_COMPLETE));
    EXPECT_TRUE(lab().sameOnVault(first));
    EXPECT_EQ(lab().source().value("SELECT sync_status FROM backups WHERE backup_no = " + std::to_string(first)), "2");
    EXPECT_EQ(lastMessage(first), "Success: ");
    EXPECT_EQ(lab().source().value("SELECT count(*) FROM operation_progress"), "0");
    EXPECT_FALSE(fs::exists(lab().source().disk() / ("hactar_" + std::to_string(first))));

    std::ofstream(directory / "large3", std::ios::app) << "changed";
    const std::uint64_t packed = packSize();
    const std::uint64_t second = lab().ingest(directory);
    ASSERT_TRUE(reaches(second, REPLICATION_COMPLETE));
    EXPECT_TRUE(lab().sameOnVault(second));
    EXPECT_LT(packSize() - packed, 2u << 20);
    EXPECT_TRUE(workerLogged("Using local block elimination"));
}

TEST_F(SinglePhase, OneBlockARequestArrivesAsWell) {
    lab().setReplication("ThreadedSendBlocks", "0");
    lab().setReplication("Cluster", "0");
    lab().setReplication("Checkpoint", "true");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(2));
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    EXPECT_TRUE(lab().sameOnVault(backup));
    EXPECT_TRUE(workerLogged("Put blocks"));
    EXPECT_TRUE(workerLogged("Using checkpoint system") || workerLogged("Count/offset:"));
}

TEST_P(Replication, BufferSmallerThanABlockSendsLargeBlocks) {
    lab().setReplication("MaxBlocks", "300000");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(3));
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    EXPECT_TRUE(lab().sameOnVault(backup));
    EXPECT_TRUE(workerLogged("Starting putLargeBlock(4)"));
}

TEST_P(Replication, IncrementalBringsItsChainAndRecencyDropsWhatIsNeedless) {
    lab().setReplication("QueueScheme", "2");
    lab().setReplication("Enabled", "false");
    lab().startVault();
    lab().startDaemon();
    const fs::path directory = data(4, 1);
    const std::uint64_t old = lab().ingest(directory);
    const std::uint64_t master = lab().ingest(directory);
    lab().source().sql("UPDATE backups SET properties = properties | 4096");
    ASSERT_TRUE(eventually([&] { return lab().queueStatus(master) == REPLICATION_NEEDED; }));
    ASSERT_TRUE(eventually([&] { return lab().queueStatus(old) == 0; }));
    const std::uint64_t incremental = lab().ingest(directory, 3);
    lab().source().sql("UPDATE backups SET properties = properties | 4096");
    lab().setReplication("Enabled", "true");
    ASSERT_TRUE(reaches(incremental, REPLICATION_COMPLETE));
    EXPECT_EQ(lab().queueStatus(master), REPLICATION_COMPLETE);
    EXPECT_TRUE(lab().sameOnVault(incremental));
}

TEST_P(Replication, UtilityReplicatesWithoutADaemonAndShowsTheBackup) {
    lab().startVault();
    const std::uint64_t backup = lab().ingest(data(5, 1));
    const std::string number = std::to_string(backup);
    const std::string ferryd = lab().source().root() / "usr/dq/bin/ferryd";
    ASSERT_EQ(lab().source().run({ferryd, "util", "replicate", number, lab().vaultName()}), 0);
    EXPECT_TRUE(lab().sameOnVault(backup));

    std::string ubi;
    std::string output;
    EXPECT_EQ(lab().source().run({ferryd, "util", "export-ubi", number}, &ubi), 0);
    ubi.pop_back();
    EXPECT_EQ(lab().source().run({ferryd, "util", "check-ubi", ubi, lab().vaultName()}, &output), 0);
    EXPECT_EQ(output, std::to_string(lab().targetNumber(backup)) + " 3136 16896\n");

    std::string counts;
    std::string list;
    EXPECT_EQ(lab().source().run({ferryd, "util", "count", number}, &counts), 0);
    EXPECT_EQ(lab().source().run({ferryd, "util", "list", number, "0"}, &list), 0);
    const auto lines = std::count(list.begin(), list.end(), '\n');
    EXPECT_EQ(counts, std::to_string(lines) + " " + std::to_string(lines) + "\n");

    // The first block, by its name, has the digest that its name says.
    const std::string tuple = list.substr(0, list.find(' '));
    std::string block;
    EXPECT_EQ(lab().source().run({ferryd, "util", "block", tuple}, &block), 0);
    const fs::path copy = lab().source().root() / "tmp/block";
    std::ofstream(copy, std::ios::binary) << block;
    EXPECT_EQ(lab::fileDigest(copy), tuple.substr(tuple.rfind('-') + 1));
}

TEST_P(Replication, BlocksArePutByHand) {
    lab().startVault();
    const std::string number = std::to_string(lab().ingest(data(6, 1)));
    const auto util = [this](std::vector<std::string> arguments, int status = 0) {
        std::string output;
        arguments.insert(arguments.begin(), {lab().source().root() / "usr/dq/bin/ferryd", "util"});
        EXPECT_EQ(lab().source().run(arguments, &output), status) << output;
        return output;
    };
    lab().source().run({lab::programDirectory() / "fileDedup", "-H" + number});
    std::string target = util({"start-backup", lab().vaultName(), number});
    target.pop_back();
    std::istringstream list(util({"lbe", number, "0"}));
    std::vector<std::string> blocks;
    for (std::string tuple; std::getline(list, tuple);)
        blocks.insert(blocks.end(), {tuple, "0"});
    const std::string none(blocks.size() / 2, '0');
    std::vector<std::string> check = {"post-check-offset", lab().vaultName(), target};
    check.insert(check.end(), blocks.begin(), blocks.end());
    EXPECT_EQ(util(check), none + "\n");
    std::vector<std::string> put = {"put-block", lab().vaultName(), target, "100000"};  // fewer than some blocks have
    put.insert(put.end(), blocks.begin(), blocks.end());
    util(put);
    EXPECT_EQ(util(check), std::string(none.size(), '1') + "\n");
    EXPECT_EQ(util({"put-block", lab().vaultName(), target, "100", "b-sha512-5-" + std::string(128, 'A'), "0"}, 1),
              "ferryd util: a block can't be read\n");
}

}  // namespace
}  // namespace e2e
