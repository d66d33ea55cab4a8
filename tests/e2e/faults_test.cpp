// Whole jobs with something going wrong, on the way or at a target that answers as none should: what was acknowledged
// stays, and the job comes through in the end.

#include "e2e/e2e_fixture.h"
#include "support/scripted_server.h"

namespace e2e {
namespace {

using testsupport::answer;
using testsupport::ok;
using testsupport::Peer;
using testsupport::ScriptedServer;

class Faults : public EachPhase {
protected:
    // A job of some seconds: small buffers, and a target that is far away.
    std::uint64_t startSlowJob() {
        set("MaxBlocks", "1500000");
        lab().startVault({"--delay", "300"});
        lab().startDaemon();
        const std::uint64_t backup = lab().ingest(data(11, 16));
        EXPECT_TRUE(eventually([&] { return packSize() > 2u << 20; }));
        return backup;
    }
    static void restart(lab::Cluster& cluster) {
        cluster.stop();
        cluster.start();
    }
    // Jobs that have come to their end, well or badly.
    int attempts() const {
        int count = 0;
        const std::string log = workerLog();
        for (std::size_t at = 0; (at = log.find("cleanup operation_progress", at)) != std::string::npos; ++at)
            ++count;
        return count;
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
    ASSERT_TRUE(arrives(backup));
    // What the second attempt sent is what the first had left, but for its final metadata.
    EXPECT_LT(held + std::stoull(value("SELECT bytes_syncd FROM sds_stats")), packSize() + 100000);
}

TEST_P(Faults, KilledVaultComesBackWithAllThatItAcknowledged) {
    const std::uint64_t backup = startSlowJob();
    lab().stopVault(SIGKILL);
    ASSERT_TRUE(ended(backup, "Failed: Unable to send blocks."));
    const std::uint64_t held = packSize();
    lab().startVault();
    ASSERT_TRUE(arrives(backup));
    EXPECT_GE(packSize(), held);
}

TEST_P(Faults, RestartedDatabaseIsFoundAgain) {
    startBoth();
    restart(source().cluster());
    hold("fileDedup");
    const std::uint64_t backup = lab().ingest(data(12));
    ASSERT_TRUE(isHeld("fileDedup"));
    restart(source().cluster());
    release("fileDedup");
    ASSERT_TRUE(arrives(backup));
}

TEST_P(Faults, VaultThatRefusesIsAskedAgain) {
    const fs::path maintenance = vault().root() / "var/run/vaultMaintenance";
    testsupport::writeFile(maintenance, "");
    startBoth();
    const std::uint64_t backup = lab().ingest(data(13, 1));
    ASSERT_TRUE(eventually([&] { return workerLogged("Failed to send initial meta info, error=-4"); }));
    EXPECT_TRUE(workerLogged("HTTP/1.1 503 Service Unavailable"));
    fs::remove(maintenance);
    ASSERT_TRUE(arrives(backup));

    vault().cluster().stop();
    const std::uint64_t second = lab().ingest(data(14, 1));
    ASSERT_TRUE(eventually([&] { return workerLogged("HTTP/1.1 500 Internal Server Error"); }));
    vault().cluster().start();
    ASSERT_TRUE(arrives(second));
}

TEST_P(Faults, VaultThatForgotTheBackupGetsItAnew) {
    hold("recipe");
    startBoth();
    const std::uint64_t backup = lab().ingest(data(15, 1));
    ASSERT_TRUE(isHeld("recipe"));
    vault().sql("DELETE FROM backups");
    lab().stopVault();
    lab().startVault();
    release("recipe");
    ASSERT_TRUE(eventually([&] { return workerLogged("HTTP/1.1 405 Bad Request"); }));
    ASSERT_TRUE(arrives(backup));
    EXPECT_EQ(value("SELECT string_agg(split_part(message, '.', 1), '|' ORDER BY ctid) FROM sds_stats"),
              "Failed: Unable to send final metadata|Success: ");
}

TEST_P(Faults, OutOfOrderBackupPausesItsInstanceUntilAnOperatorActs) {
    set("QueueScheme", "0");
    startBoth();
    const fs::path directory = data(16, 1);
    const std::uint64_t older = lab().ingest(directory);
    const std::uint64_t newer = lab().ingest(directory);
    (void)util({"enqueue", std::to_string(newer), lab().vaultName()});
    ASSERT_TRUE(reaches(newer, REPLICATION_COMPLETE));
    (void)util({"enqueue", std::to_string(older), lab().vaultName()});
    ASSERT_TRUE(reaches(older, REPLICATION_OUT_OF_ORDER));
    ASSERT_TRUE(ended(older, "Failed: Unable to process initial meta"));

    // Without the vault's leave nothing changes; with it the newer one makes room.
    (void)util({"fix-paused-instance", lab().vaultName(), std::to_string(older)}, 255);
    EXPECT_EQ(lab().queueStatus(older), REPLICATION_OUT_OF_ORDER);
    vault().masterIni("[Replication]\nallowCleanupOutOfOrderBackups=true\n");
    (void)util({"fix-paused-instance", lab().vaultName(), std::to_string(older)});
    ASSERT_TRUE(arrives(older));
    EXPECT_EQ(lab().queueStatus(newer), 0);
}

TEST_P(Faults, MetadataThatTheVaultCantUseNeedsAssistance) {
    vault().sql("DELETE FROM application_lookup");
    startBoth();
    const std::uint64_t backup = lab().ingest(data(17, 1));
    ASSERT_TRUE(reaches(backup, REPLICATION_NEED_ASSIST));
    EXPECT_TRUE(ended(backup, "Failed: Unable to process initial meta info on target.  This instance is \"paused\""));
}

TEST_P(Faults, BackupThatIsGoneLeavesTheQueue) {
    set("Enabled", "false");
    lab().startDaemon();
    const fs::path directory = data(18, 1);
    const std::uint64_t failed = lab().ingest(directory);
    const std::uint64_t deleted = lab().ingest(directory);
    const std::uint64_t missing = lab().ingest(directory);
    ASSERT_TRUE(reaches(missing, REPLICATION_NEEDED));
    ASSERT_EQ(lab().queueStatus(deleted), REPLICATION_NEEDED);
    const std::string is = " WHERE backup_no = ";
    // The pick passes a deleted backup over; one that is deleted later is met by its worker, so this one is too new.
    source().sql("UPDATE backups SET status = 4160" + is + std::to_string(failed) +
                 "; UPDATE backups SET tape_no = 4294967295" + is + std::to_string(deleted) + "; DELETE FROM backups" +
                 is + std::to_string(missing));
    set("Enabled", "true");
    ASSERT_TRUE(reaches(failed, REPLICATION_SKIPPED));
    EXPECT_EQ(lab().queueStatus(deleted), REPLICATION_NEEDED);
    EXPECT_EQ(lab().queueStatus(missing), 0);
    EXPECT_EQ(value("SELECT sync_status FROM backups" + is + std::to_string(failed)), "0");
    EXPECT_EQ(value("SELECT count(*) FROM sds_stats"), "0");
}

TEST_P(Faults, BackupFileThatIsTooShortFailsAndIsRetried) {
    hold("recipe");
    startBoth();
    const std::uint64_t backup = lab().ingest(data(19));
    const fs::path file = source().backupFile(backup);
    const std::string whole = testsupport::readFile(file);
    ASSERT_TRUE(isHeld("recipe"));
    // The blocks are there; lose them, and the file's second half.
    lab().stopVault();
    fs::remove(vault().disk() / "store/blocks.pack");
    fs::resize_file(file, whole.size() / 2);
    lab().startVault();
    release("recipe");
    ASSERT_TRUE(eventually([&] { return workerLogged("readHashedContents "); }));
    ASSERT_TRUE(ended(backup, "Failed: "));
    testsupport::writeFile(file, whole);
    ASSERT_TRUE(arrives(backup));
}

TEST_P(Faults, TerminatedReplicationEndsHereAndOnTheTarget) {
    const std::uint64_t backup = startSlowJob();
    const pid_t worker = workerPid();
    source().sql("UPDATE replication_queue SET status = 32");
    ASSERT_TRUE(reaches(backup, REPLICATION_TERMINATED));
    EXPECT_TRUE(eventually([&] { return kill(worker, 0) == -1; }));
    EXPECT_EQ(value("SELECT count(*) FROM operation_progress"), "0");
    EXPECT_TRUE(
        eventually([&] { return vault().value("SELECT count(*) FROM backups WHERE (status & 4096) <> 0") == "1"; }));
}

void resets(Peer& peer) {
    peer.readHead();
    peer.reset();
}

void neverEnds(Peer& peer) {
    const std::string junk(1 << 20, '1');
    for (bool there = peer.readRequest() && peer.send("HTTP/1.1 200 OK\r\n\r\n"); there; there = peer.send(junk)) {
    }
}

// A target that doesn't know the backup, takes it as number 42 if `start` is empty, and says `blocks` of its blocks.
ScriptedServer::Script target(std::string start, std::string blocks = "") {
    return [start, blocks](Peer& peer) {
        if (!peer.readRequest())
            return;
        const std::string path = peer.request().path();
        if (path.ends_with("backup-check"))
            peer.send(ok(std::string(24, '\0')));
        else
            peer.send(path.ends_with("start-backup") ? (start.empty() ? ok("42") : start) : blocks);
    };
}

TEST_P(Faults, EveryKindOfNonsenseLeavesTheBackupWaiting) {
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::pair<const char*, ScriptedServer::Script> cases[] = {
        {"closes at once", [](Peer&) {}},
        {"reads the head and resets", resets},
        {"sends no HTTP", answer("\x01\x02\xff garbage\r\n\r\n")},
        {"stops within the status line", answer("HTTP/1.1 20")},
        {"stops within the headers", answer(head + "Content-Le")},
        {"promises more than it sends", answer(head + "Content-Length: 1000\r\n\r\n1")},
        {"a header line of 64 KiB", answer(head + "X: " + std::string(65536, 'a') + "\r\n\r\n")},
        {"a number that is none", target(ok("abc"))},
        {"a negative number", target(ok("-17"))},
        {"an empty answer", target(ok(""))},
        {"a number that is cut off", target(head + "Content-Length: 10\r\n\r\n4")},
        {"silence about the blocks", target("")},
        {"too little about the blocks", target("", ok("1"))},
        {"too much about the blocks", target("", ok(std::string(100000, '1')))},
        {"never ends its answer", neverEnds}};
    ScriptedServer server;
    set("SyncTo", server.name());
    set("RetryCount", "1");
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(31, 1));
    for (const auto& [what, script] : cases) {
        SCOPED_TRACE(what);
        server.standing(script);
        // One attempt may have begun with the script before.
        const int before = attempts();
        ASSERT_TRUE(eventually([&] { return attempts() >= before + 2; }));
        ASSERT_TRUE(reaches(backup, REPLICATION_NEEDED));
    }
    EXPECT_FALSE(workerLogged("Finished: "));
    EXPECT_TRUE(lab().daemonProcess().running());

    // With the daemon down: a worker would write its result to the row under its old name.
    lab().stopDaemon();
    source().sql("UPDATE replication_queue SET vault = '" + lab().vaultName() + "'");
    set("SyncTo", lab().vaultName());
    startBoth();
    ASSERT_TRUE(arrives(backup));
}

}  // namespace
}  // namespace e2e
