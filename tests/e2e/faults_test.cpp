// Whole jobs with something going wrong: what was acknowledged stays, and the job comes through in the end.

#include "e2e/e2e_fixture.h"
#include "support/test.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

class Faults : public EachPhase {
protected:
    // A job of some seconds: small buffers, and a target that is far away.
    std::uint64_t startSlowJob() {
        lab().setReplication("MaxBlocks", "1500000");
        lab().startVault({"--delay", "300"});
        lab().startDaemon();
        const std::uint64_t backup = lab().ingest(data(11, 16));
        EXPECT_TRUE(eventually([&] { return packSize() > 2u << 20; }));
        return backup;
    }

    void retriesAndFinishes(std::uint64_t backup) {
        ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
        EXPECT_TRUE(lab().sameOnVault(backup));
    }
};
INSTANTIATE_PHASES(Faults);

TEST_P(Faults, KilledWorkerLosesNothingAndNothingIsSentTwice) {
    const std::uint64_t backup = startSlowJob();
    const pid_t worker = workerPid();
    ASSERT_GT(worker, 1);
    kill(worker, SIGKILL);
    ASSERT_TRUE(eventually([&] { return kill(worker, 0) == -1; }));
    const std::uint64_t held = packSize();
    EXPECT_EQ(lab().queueStatus(backup), REPLICATION_ACTIVE);
    lab().stopDaemon();
    lab().startDaemon();
    retriesAndFinishes(backup);
    // What the second attempt sent is what the first had left, but for its final metadata.
    const auto sent = std::stoull(lab().source().value("SELECT bytes_syncd FROM sds_stats"));
    EXPECT_LT(held + sent, packSize() + 100000);
}

TEST_P(Faults, KilledVaultComesBackWithAllThatItAcknowledged) {
    const std::uint64_t backup = startSlowJob();
    lab().stopVault(SIGKILL);
    ASSERT_TRUE(eventually([&] { return lastMessage(backup).starts_with("Failed: Unable to send blocks."); }));
    const std::uint64_t held = packSize();
    lab().startVault();
    retriesAndFinishes(backup);
    EXPECT_GE(packSize(), held);
}

TEST_P(Faults, RestartedDatabaseIsFoundAgain) {
    lab().startVault();
    lab().startDaemon();
    lab().source().cluster().stop();
    lab().source().cluster().start();
    hold("fileDedup");
    const std::uint64_t backup = lab().ingest(data(12));
    ASSERT_TRUE(eventually([&] { return isHeld("fileDedup"); }));
    lab().source().cluster().stop();
    lab().source().cluster().start();
    release("fileDedup");
    retriesAndFinishes(backup);
}

TEST_P(Faults, VaultThatRefusesIsAskedAgain) {
    const fs::path maintenance = lab().vault().root() / "var/run/vaultMaintenance";
    std::ofstream(maintenance) << "";
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(13, 1));
    ASSERT_TRUE(eventually([&] { return workerLogged("Failed to send initial meta info, error=-4"); }));
    EXPECT_TRUE(workerLogged("HTTP/1.1 503 Service Unavailable"));
    fs::remove(maintenance);
    retriesAndFinishes(backup);

    lab().vault().cluster().stop();
    const std::uint64_t second = lab().ingest(data(14, 1));
    ASSERT_TRUE(eventually([&] { return workerLogged("HTTP/1.1 500 Internal Server Error"); }));
    lab().vault().cluster().start();
    retriesAndFinishes(second);
}

TEST_P(Faults, VaultThatForgotTheBackupGetsItAnew) {
    hold("recipe");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(15, 1));
    ASSERT_TRUE(eventually([&] { return isHeld("recipe"); }));
    lab().vault().sql("DELETE FROM backups");
    lab().stopVault();
    lab().startVault();
    release("recipe");
    ASSERT_TRUE(eventually([&] { return workerLogged("HTTP/1.1 405 Bad Request"); }));
    retriesAndFinishes(backup);
    EXPECT_EQ(lab().source().value("SELECT count(*) FROM sds_stats WHERE message LIKE "
                                   "'Failed: Unable to send final metadata.%'"),
              "1");
}

TEST_P(Faults, OutOfOrderBackupPausesItsInstanceUntilAnOperatorActs) {
    lab().setReplication("QueueScheme", "0");
    lab().startVault();
    lab().startDaemon();
    const fs::path directory = data(16, 1);
    const std::uint64_t older = lab().ingest(directory);
    const std::uint64_t newer = lab().ingest(directory);
    const auto util = [this](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {lab().source().root() / "usr/dq/bin/ferryd", "util"});
        std::string output;
        return lab().source().run(arguments, &output);
    };
    ASSERT_EQ(util({"enqueue", std::to_string(newer), lab().vaultName()}), 0);
    ASSERT_TRUE(reaches(newer, REPLICATION_COMPLETE));
    ASSERT_EQ(util({"enqueue", std::to_string(older), lab().vaultName()}), 0);
    ASSERT_TRUE(reaches(older, REPLICATION_OUT_OF_ORDER));
    ASSERT_TRUE(eventually([&] { return lastMessage(older).starts_with("Failed: Unable to process initial meta"); }));
    EXPECT_TRUE(workerLogged("set REPLICATION_OUT_OF_ORDER for " + std::to_string(older) + "."));

    // Without the vault's leave nothing changes; with it the newer one makes room.
    EXPECT_NE(util({"fix-paused-instance", lab().vaultName(), std::to_string(older)}), 0);
    EXPECT_EQ(lab().queueStatus(older), REPLICATION_OUT_OF_ORDER);
    lab().vault().masterIni("[Replication]\nallowCleanupOutOfOrderBackups=true\n");
    EXPECT_EQ(util({"fix-paused-instance", lab().vaultName(), std::to_string(older)}), 0);
    retriesAndFinishes(older);
    EXPECT_EQ(lab().queueStatus(newer), 0);
}

TEST_P(Faults, MetadataThatTheVaultCantUseNeedsAssistance) {
    lab().vault().sql("DELETE FROM application_lookup");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(17, 1));
    ASSERT_TRUE(reaches(backup, REPLICATION_NEED_ASSIST));
    EXPECT_TRUE(eventually([&] {
        return lastMessage(backup) ==
               "Failed: Unable to process initial meta info on target.  This instance is \"paused\" and may require "
               "manual intervention to resume.";
    }));
}

TEST_P(Faults, BackupThatIsGoneLeavesTheQueue) {
    lab().setReplication("Enabled", "false");
    lab().startDaemon();
    const fs::path directory = data(18, 1);
    const std::uint64_t failed = lab().ingest(directory);
    const std::uint64_t deleted = lab().ingest(directory);
    const std::uint64_t missing = lab().ingest(directory);
    ASSERT_TRUE(reaches(missing, REPLICATION_NEEDED));
    ASSERT_EQ(lab().queueStatus(deleted), REPLICATION_NEEDED);
    lab().source().sql("UPDATE backups SET status = 4160 WHERE backup_no = " + std::to_string(failed));
    // The pick passes a deleted backup over; one that is deleted later is met by its worker, so this one is too new.
    lab().source().sql("UPDATE backups SET tape_no = 4294967295 WHERE backup_no = " + std::to_string(deleted));
    lab().source().sql("DELETE FROM backups WHERE backup_no = " + std::to_string(missing));
    lab().setReplication("Enabled", "true");
    ASSERT_TRUE(reaches(failed, REPLICATION_SKIPPED));
    EXPECT_EQ(lab().queueStatus(deleted), REPLICATION_NEEDED);
    EXPECT_EQ(lab().queueStatus(missing), 0);
    EXPECT_EQ(lab().source().value("SELECT sync_status FROM backups WHERE backup_no = " + std::to_string(failed)), "0");
    EXPECT_EQ(lab().source().value("SELECT count(*) FROM sds_stats"), "0");
}

TEST_P(Faults, BackupFileThatIsTooShortFailsAndIsRetried) {
    hold("fileDedup");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(19));
    ASSERT_TRUE(eventually([&] { return isHeld("fileDedup"); }));
    release("fileDedup");
    hold("recipe");
    const fs::path file = lab().source().backupFile(backup);
    const fs::path whole = file.string() + ".whole";
    ASSERT_TRUE(eventually([&] { return isHeld("recipe"); }));
    // The blocks are there; lose them, and the file's second half.
    lab().stopVault();
    fs::remove(lab().vault().disk() / "store/blocks.pack");
    fs::copy_file(file, whole);
    fs::resize_file(file, fs::file_size(file) / 2);
    lab().startVault();
    release("recipe");
    ASSERT_TRUE(eventually([&] { return workerLogged("readHashedContents "); }));
    ASSERT_TRUE(eventually([&] { return lastMessage(backup).starts_with("Failed: "); }));
    fs::copy_file(whole, file, fs::copy_options::overwrite_existing);
    fs::remove(whole);
    retriesAndFinishes(backup);
}

TEST_P(Faults, TerminatedReplicationEndsHereAndOnTheTarget) {
    const std::uint64_t backup = startSlowJob();
    const pid_t worker = workerPid();
    lab().source().sql("UPDATE replication_queue SET status = 32");
    ASSERT_TRUE(reaches(backup, REPLICATION_TERMINATED));
    EXPECT_TRUE(eventually([&] { return kill(worker, 0) == -1; }));
    EXPECT_EQ(lab().source().value("SELECT count(*) FROM operation_progress"), "0");
    EXPECT_TRUE(eventually(
        [&] { return lab().vault().value("SELECT count(*) FROM backups WHERE (status & 4096) <> 0") == "1"; }));
}

}  // namespace
}  // namespace e2e
