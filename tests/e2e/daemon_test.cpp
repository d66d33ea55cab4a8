// The daemon as a process: start, stop, a second one, its settings.

#include "e2e/e2e_fixture.h"

namespace e2e {
namespace {

class Daemon : public EndToEnd {
protected:
    fs::path pidFile() const { return source().root() / "var/run/ferryd.pid"; }
    pid_t daemonPid() const { return std::atoi(testsupport::readFile(pidFile()).c_str()); }
    // Through a shell: the daemon refuses to be a child of init, and the shell is a parent that stays.
    // As an unfriendly starter would: with signals blocked and no standard descriptors.
    int daemonize() const {
        return source().run(
            {"/bin/sh", "-c", "env --block-signal=TERM,CHLD,INT,QUIT " + ferryd() + " <&- >&- 2>&-; sleep 0.1"});
    }
    void stop(lab::Process& daemon) const {
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.wait(LIMIT), 0);
    }
};

TEST_F(Daemon, DetachesHoldsItsPidFileAndStopsInOrder) {
    lab().startVault();
    EXPECT_EQ(daemonize(), 0);
    EXPECT_TRUE(eventually([&] { return daemonPid() > 1; }));
    const pid_t pid = daemonPid();
    EXPECT_EQ(getsid(pid), pid);
    // A second one sees the lock and leaves the first alone.
    EXPECT_EQ(daemonize(), 0);
    EXPECT_TRUE(eventually([&] { return daemonLogged("failed to lock /var/run/ferryd.pid: "); }));
    EXPECT_TRUE(daemonPid() == pid && kill(pid, 0) == 0);
    // In the foreground too, where it would put the rows of the first one's workers back.
    EXPECT_EQ(source().run({"/usr/bin/timeout", "20", ferryd(), "-d"}), 0);
    EXPECT_TRUE(daemonLogged("Another ferryd is running here"));
    EXPECT_EQ(daemonPid(), pid);

    EXPECT_TRUE(reaches(lab().ingest(data(21, 1)), REPLICATION_COMPLETE));
    EXPECT_TRUE(eventually([&] { return daemonLogged("sigchld caught"); }));
    kill(pid, SIGTERM);
    EXPECT_TRUE(eventually([&] { return kill(pid, 0) == -1; }));
    EXPECT_FALSE(fs::exists(pidFile()));
}

TEST_F(Daemon, StopLeavesTheWorkersRowForTheNextStart) {
    hold("fileDedup");
    startBoth();
    const std::uint64_t backup = lab().ingest(data(22, 1));
    ASSERT_TRUE(isHeld("fileDedup") && eventually([&] { return workerPid() > 1; }));
    const pid_t worker = workerPid();
    stop(lab().daemonProcess());
    EXPECT_TRUE(eventually([&] { return kill(worker, 0) == -1; }));
    EXPECT_EQ(lab().queueStatus(backup), REPLICATION_ACTIVE);
    EXPECT_EQ(value("SELECT count(*) FROM operation_progress"), "0");
    release("fileDedup");
    lab().startDaemon();
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, WorkersEndIsSeenAtOnceAndSoIsASignal) {
    set("TimeDelay", "300");
    set("MaxConcurrent", "2");
    lab().startVault();
    hold("fileDedup");
    for (const char* const client : {"one", "two", "three", "four"})
        (void)lab().ingest(data(25, 1), 1, {"--client", client});
    lab().startDaemon();
    EXPECT_TRUE(eventually([&] { return value("SELECT count(DISTINCT pid_to_kill) FROM operation_progress") == "2"; }))
        << "two workers at once";
    release("fileDedup");
    EXPECT_TRUE(eventually([&] { return value("SELECT sum(status) FROM replication_queue") == "8"; }))
        << "a worker that ended makes room";
    stop(lab().daemonProcess());
}

TEST_F(Daemon, DatabaseThatComesUpLaterStillGetsItsActiveRowsBack) {
    lab().startVault();
    const std::uint64_t backup = lab().ingest(data(26, 1));
    source().sql("INSERT INTO replication_queue (backup_no, vault, status) VALUES (" + std::to_string(backup) + ", '" +
                 lab().vaultName() + "', 16)");
    source().cluster().stop();
    lab().startDaemon();
    EXPECT_TRUE(eventually([&] { return daemonLogged("Tried connecting"); }));
    source().cluster().start();
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, HighLoadOnlyKeepsWorkersFromStartingAndTheAttachedModeLogsToStandardError) {
    const std::uint64_t backup = lab().ingest(data(27, 1));
    lab::Process attached = source().start({ferryd(), "-a", "-d", "-l", "0.000001"}, "attached");
    EXPECT_TRUE(reaches(backup, REPLICATION_NEEDED));
    const auto logged = [&](const char* text) {
        return testsupport::readFile(source().root() / "tmp/attached").find(text) != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] { return logged("...too high. Waiting 1 seconds."); }));
    stop(attached);
    EXPECT_TRUE(logged("Clear pid file"));
    EXPECT_FALSE(logged("Starting "));
    EXPECT_EQ(lab().queueStatus(backup), REPLICATION_NEEDED);
}

TEST_F(Daemon, ChangedSettingsTakeEffectWithoutARestart) {
    set("Enabled", "false");
    set("QueueScheme", "0");
    startBoth();
    const std::uint64_t backup = lab().ingest(data(23, 1));
    ASSERT_TRUE(eventually([&] { return daemonLogged("queue scheme: 0"); }));
    set("QueueScheme", "1");
    ASSERT_TRUE(reaches(backup, REPLICATION_NEEDED));
    EXPECT_TRUE(daemonLogged("Starting 0 workers"));
    set("Enabled", "true");
    EXPECT_TRUE(reaches(backup, REPLICATION_COMPLETE));
}

TEST_F(Daemon, BinaryJunkForSettingsIsDefaults) {
    std::string junk;
    for (int i = 0; i < 100000; ++i)
        junk += static_cast<char>(i * 7919 >> 3);
    source().masterIni(junk);
    lab().startDaemon();
    ASSERT_TRUE(eventually([&] { return daemonLogged("started on"); }));
    set("MaxConcurrent", "1");
    // The junk left the pass delay at a minute; the daemon is told by a worker's end or a signal, so begin anew.
    lab().stopDaemon();
    startBoth();
    EXPECT_TRUE(reaches(lab().ingest(data(24, 1)), REPLICATION_COMPLETE));
}

TEST_F(Daemon, CommandLineIsRefused) {
    const std::string tooLong = " -d -v " + std::string(65, 'v');
    const std::tuple<std::string, const char*, int> cases[] = {
        {" -x", "Usage: \n", 1}, {tooLong, "", 255}, {" util peek 0", "0", 0}};
    for (const auto& [arguments, expected, status] : cases) {
        std::string output;
        EXPECT_EQ(source().run({"/bin/sh", "-c", ferryd() + arguments}, &output), status) << arguments;
        EXPECT_EQ(output, expected);
    }
}

}  // namespace
}  // namespace e2e
