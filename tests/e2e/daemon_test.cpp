// The daemon as a process: start, stop, a second one, its settings.

#include "e2e/e2e_fixture.h"
#include "support/test.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

class Daemon : public EndToEnd {
protected:
    std::string ferryd() const { return lab().source().root() / "usr/dq/bin/ferryd"; }
    fs::path pidFile() const { return lab().source().root() / "var/run/ferryd.pid"; }

    pid_t daemonPid() const {
        std::ifstream file(pidFile());
        pid_t pid = 0;
        file >> pid;
        return pid;
    }
    // Through a shell: the daemon refuses to be a child of init, and the shell is a parent that stays.
    void daemonize() const {
        EXPECT_EQ(lab().source().run({"/bin/sh", "-c", ferryd() + "; sleep 0.1"}), 0);
        EXPECT_TRUE(eventually([&] { return daemonPid() > 1; }));
    }
};

TEST_F(Daemon, DetachesHoldsItsPidFileAndStopsInOrder) {
    lab().startVault();
    daemonize();
    const pid_t pid = daemonPid();
    EXPECT_EQ(getsid(pid), pid);
    // A second one sees the lock and leaves the first alone.
    std::string output;
    EXPECT_EQ(lab().source().run({"/bin/sh", "-c", ferryd() + "; sleep 0.1"}, &output), 0);
    EXPECT_TRUE(eventually([&] {
        return lab().source().log("ferryd").find("failed to lock /var/run/ferryd.pid: ") != std::string::npos;
    }));
    EXPECT_EQ(daemonPid(), pid);
    EXPECT_EQ(kill(pid, 0), 0);
    // In the foreground too, where it would put the rows of the first one's workers back.
    EXPECT_EQ(lab().source().run({"/usr/bin/timeout", "20", ferryd(), "-d"}), 0);
    EXPECT_NE(lab().source().log("ferryd").find("Another ferryd is running here"), std::string::npos);
    EXPECT_EQ(daemonPid(), pid);

    const std::uint64_t backup = lab().ingest(data(21, 1));
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    kill(pid, SIGTERM);
    EXPECT_TRUE(eventually([&] { return kill(pid, 0) == -1; }));
    EXPECT_FALSE(fs::exists(pidFile()));
}

TEST_F(Daemon, StopLeavesTheWorkersRowForTheNextStart) {
    hold("fileDedup");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(22, 1));
    ASSERT_TRUE(eventually([&] { return isHeld("fileDedup") && workerPid() > 1; }));
    const pid_t worker = workerPid();
    const pid_t daemon = lab().daemonProcess().pid();
    kill(daemon, SIGTERM);
    EXPECT_EQ(lab().daemonProcess().wait(LIMIT), 0);
    EXPECT_TRUE(eventually([&] { return kill(worker, 0) == -1; }));
    EXPECT_EQ(lab().queueStatus(backup), REPLICATION_ACTIVE);
    EXPECT_EQ(lab().source().value("SELECT count(*) FROM operation_progress"), "0");
    release("fileDedup");
    lab().startDaemon();
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, WorkersEndIsSeenAtOnceAndSoIsASignal) {
    lab().setReplication("TimeDelay", "300");
    lab().setReplication("MaxConcurrent", "2");
    lab().startVault();
    hold("fileDedup");
    std::uint64_t backup = 0;
    for (const char* const client : {"one", "two", "three", "four"})
        backup = lab().ingest(data(25, 1), 1, {"--client", client});
    lab().startDaemon();
    EXPECT_TRUE(eventually([&] {
        return lab().source().value("SELECT count(DISTINCT pid_to_kill) FROM operation_progress") == "2";
    })) << "two workers at once";
    release("fileDedup");
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE)) << "a worker that ended makes room";
    EXPECT_TRUE(eventually([&] { return lab().source().value("SELECT sum(status) FROM replication_queue") == "8"; }));
    kill(lab().daemonProcess().pid(), SIGTERM);
    EXPECT_EQ(lab().daemonProcess().wait(LIMIT), 0);
}

TEST_F(Daemon, DatabaseThatComesUpLaterStillGetsItsActiveRowsBack) {
    lab().startVault();
    const std::uint64_t backup = lab().ingest(data(26, 1));
    lab().source().sql("INSERT INTO replication_queue (backup_no, vault, status) VALUES (" + std::to_string(backup) +
                       ", '" + lab().vaultName() + "', 16)");
    lab().source().cluster().stop();
    lab().startDaemon();
    EXPECT_TRUE(eventually([&] { return lab().source().log("ferryd").find("Tried connecting") != std::string::npos; }));
    lab().source().cluster().start();
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, HighLoadOnlyKeepsWorkersFromStartingAndTheAttachedModeLogsToStandardError) {
    const std::uint64_t backup = lab().ingest(data(27, 1));
    lab::Process attached = lab().source().start({ferryd(), "-a", "-d", "-l", "0.000001"}, "attached");
    EXPECT_TRUE(reaches(backup, REPLICATION_NEEDED));
    const fs::path output = lab().source().root() / "tmp/attached";
    const auto logged = [&](const char* text) {
        std::ifstream file(output);
        return std::string(std::istreambuf_iterator<char>(file), {}).find(text) != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] { return logged("...too high. Waiting 1 seconds."); }));
    attached.signal(SIGTERM);
    EXPECT_EQ(attached.wait(LIMIT), 0);
    EXPECT_TRUE(logged("Clear pid file"));
    EXPECT_FALSE(logged("Starting "));
    EXPECT_EQ(lab().queueStatus(backup), REPLICATION_NEEDED);
}

TEST_F(Daemon, ChangedSettingsTakeEffectWithoutARestart) {
    lab().setReplication("Enabled", "false");
    lab().setReplication("QueueScheme", "0");
    lab().startVault();
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(23, 1));
    const auto daemonLogged = [&](const char* text) {
        return lab().source().log("ferryd").find(text) != std::string::npos;
    };
    ASSERT_TRUE(eventually([&] { return daemonLogged("queue scheme: 0"); }));
    lab().setReplication("QueueScheme", "1");
    ASSERT_TRUE(reaches(backup, REPLICATION_NEEDED));
    EXPECT_TRUE(daemonLogged("Starting 0 workers"));
    lab().setReplication("Enabled", "true");
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, BinaryJunkForSettingsIsDefaults) {
    std::string junk;
    for (int i = 0; i < 100000; ++i)
        junk += static_cast<char>(i * 7919 >> 3);
    lab().source().masterIni(junk);
    lab().startDaemon();
    ASSERT_TRUE(eventually([&] { return lab().source().log("ferryd").find("started on") != std::string::npos; }));
    lab().setReplication("MaxConcurrent", "1");
    const std::uint64_t backup = lab().ingest(data(24, 1));
    lab().startVault();
    // The junk left the pass delay at a minute; the daemon is told by a worker's end or a signal, so begin anew.
    lab().stopDaemon();
    lab().startDaemon();
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, CommandLineIsRefused) {
    const auto ends = [this](const std::string& arguments, const std::string& expected) {
        std::string output;
        const int status = lab().source().run({"/bin/sh", "-c", ferryd() + arguments}, &output);
        EXPECT_EQ(output, expected);
        return status;
    };
    EXPECT_EQ(ends(" -x", "Usage: \n"), 1);
    EXPECT_EQ(ends(" -d -v " + std::string(65, 'v'), ""), 255);
    EXPECT_EQ(ends(" util peek 0", "0"), 0);
}

}  // namespace
}  // namespace e2e
