// Whole jobs on real appliances, as they should go, and how fast they may go.

#include "e2e/e2e_fixture.h"
#include "lab/proxy.h"

namespace e2e {
namespace {

class Replication : public EachPhase {};
INSTANTIATE_PHASES(Replication);

class SinglePhase : public EndToEnd {};
class Pace : public EndToEnd {};

TEST_P(Replication, BackupIsRebuiltByteForByteAndOnlyChangedBlocksCrossNextTime) {
    startBoth();
    const fs::path directory = data(1, 8);
    const std::uint64_t first = lab().ingest(directory);
    ASSERT_TRUE(arrives(first));
    EXPECT_EQ(value("SELECT sync_status || message FROM backups NATURAL JOIN sds_stats"), "2Success: ");
    EXPECT_EQ(value("SELECT count(*) FROM operation_progress"), "0");
    EXPECT_FALSE(fs::exists(source().disk() / ("hactar_" + std::to_string(first))));

    std::ofstream(directory / "large3", std::ios::app) << "changed";
    const std::uint64_t packed = packSize();
    ASSERT_TRUE(arrives(lab().ingest(directory)));
    EXPECT_LT(packSize() - packed, 2u << 20);
    EXPECT_TRUE(workerLogged("Using local block elimination"));
}

TEST_F(SinglePhase, OneBlockARequestArrivesAsWell) {
    set("ThreadedSendBlocks", "0");
    set("Cluster", "0");
    set("Checkpoint", "true");
    startBoth();
    ASSERT_TRUE(arrives(lab().ingest(data(2))));
    EXPECT_TRUE(workerLogged("Put blocks"));
    EXPECT_TRUE(workerLogged("Using checkpoint system") || workerLogged("Count/offset:"));
}

TEST_P(Replication, BufferSmallerThanABlockSendsLargeBlocks) {
    set("MaxBlocks", "300000");
    startBoth();
    ASSERT_TRUE(arrives(lab().ingest(data(3))));
    EXPECT_TRUE(workerLogged("Starting putLargeBlock(4)"));
}

TEST_P(Replication, IncrementalBringsItsChainAndRecencyDropsWhatIsNeedless) {
    const std::string synthesizable = "UPDATE backups SET properties = properties | 4096";
    set("QueueScheme", "2");
    set("Enabled", "false");
    startBoth();
    const fs::path directory = data(4, 1);
    const std::uint64_t old = lab().ingest(directory);
    const std::uint64_t master = lab().ingest(directory);
    source().sql(synthesizable);
    ASSERT_TRUE(reaches(master, REPLICATION_NEEDED));
    ASSERT_TRUE(eventually([&] { return lab().queueStatus(old) == 0; }));
    const std::uint64_t incremental = lab().ingest(directory, 3);
    source().sql(synthesizable);
    set("Enabled", "true");
    ASSERT_TRUE(arrives(incremental));
    EXPECT_EQ(lab().queueStatus(master), REPLICATION_COMPLETE);
}

TEST_P(Replication, UtilityReplicatesWithoutADaemonAndShowsTheBackup) {
    lab().startVault();
    const std::uint64_t backup = lab().ingest(data(5, 1));
    const std::string number = std::to_string(backup);
    (void)util({"replicate", number, lab().vaultName()});
    EXPECT_TRUE(lab().sameOnVault(backup));

    std::string ubi = util({"export-ubi", number});
    ubi.pop_back();
    EXPECT_EQ(util({"check-ubi", ubi, lab().vaultName()}),
              std::to_string(lab().targetNumber(backup)) + " 3136 16896\n");
    const std::string list = util({"list", number, "0"});
    const std::string lines = std::to_string(std::count(list.begin(), list.end(), '\n'));
    EXPECT_EQ(util({"count", number}), lines + " " + lines + "\n");

    // The first block, by its name, has the digest that its name says.
    const std::string tuple = list.substr(0, list.find(' '));
    const fs::path copy = source().root() / "tmp/block";
    testsupport::writeFile(copy, util({"block", tuple}));
    EXPECT_EQ(lab::fileDigest(copy), tuple.substr(tuple.rfind('-') + 1));
}

TEST_P(Replication, BlocksArePutByHand) {
    lab().startVault();
    const std::string number = std::to_string(lab().ingest(data(6, 1)));
    source().run({lab::programDirectory() / "fileDedup", "-H" + number});
    std::string target = util({"start-backup", lab().vaultName(), number});
    target.pop_back();
    std::vector<std::string> check = {"post-check-offset", lab().vaultName(), target};
    std::vector<std::string> put = {"put-block", lab().vaultName(), target, "100000"};  // fewer than some blocks have
    std::istringstream list(util({"lbe", number, "0"}));
    std::size_t count = 0;
    for (std::string tuple; std::getline(list, tuple); ++count)
        for (std::vector<std::string>* const command : {&check, &put})
            command->insert(command->end(), {tuple, "0"});
    EXPECT_EQ(util(check), std::string(count, '0') + "\n");
    (void)util(put);
    EXPECT_EQ(util(check), std::string(count, '1') + "\n");
    EXPECT_EQ(util({"put-block", lab().vaultName(), target, "100", "b-sha512-5-" + std::string(128, 'A'), "0"}, 1),
              "ferryd util: a block can't be read\n");
}

// The running worker is not told: the daemon reads the schedule in its next pass and writes it to the shared table.
TEST_F(Pace, ChangedLimitTakesEffectInARunningWorkerWithinTwoSeconds) {
    using Clock = std::chrono::steady_clock;
    constexpr double SLOW = 500000;
    constexpr double FAST = 3000000;
    lab().startVault();
    const std::string vault = lab().vaultName();
    const lab::Proxy line(std::stoi(vault.substr(vault.rfind(':') + 1)), std::chrono::milliseconds(0));
    set("SyncTo", line.name());
    set("MaxBlocks", "2000000");
    set("BlockOutPeriods", "=500000");
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(41, 24));
    // The first second of a thread isn't limited.
    ASSERT_TRUE(eventually([&] { return line.bytesSent() > 4500000; }));
    EXPECT_NEAR(line.measureRate(std::chrono::seconds(3)), SLOW, SLOW * 0.05);

    set("BlockOutPeriods", "=3000000");
    const auto changed = Clock::now();
    std::uint64_t last = line.bytesSent();
    ASSERT_TRUE(eventually([&] {
        std::this_thread::sleep_until(Clock::now() + std::chrono::milliseconds(100));
        const std::uint64_t now = line.bytesSent();
        return static_cast<double>(now - std::exchange(last, now)) > SLOW * 1.2;  // more than a second's share at once
    }));
    EXPECT_LT(Clock::now() - changed, std::chrono::milliseconds(2200));
    EXPECT_NEAR(line.measureRate(std::chrono::seconds(2)), FAST, FAST * 0.1);
    set("BlockOutPeriods", "");
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    set("SyncTo", vault);
}

}  // namespace
}  // namespace e2e
