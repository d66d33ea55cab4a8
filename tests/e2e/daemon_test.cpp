// The daemon as a process: start, stop, a second one, its settings.

#include <csignal>
#include <fstream>

#include <unistd.h>

#include "e2e/e2e_fixture.h"

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

TEST_F(Daemon, CommandLineIsRefusedInOrder) {
    const struct {
        const char* what;
        std::string arguments;
        int status;
        const char* output;
    } cases[] = {
        {"unknown option", "-x", 1, "Usage: \n"},
        {"target name of 65 bytes", "-d -v " + std::string(65, 'v'), 255, ""},
        {"no command", "util", 0, "Usage:\nferryd util <command> [args]\n\tcreatequeue\n"},
        {"too few arguments", "util enqueue 5", 0, "Usage:\nferryd util <command> [args]\n\tcreatequeue\n"},
        {"unknown command", "util nonsense", 0, ""},
        {"command of the usage alone", "util cancel-ubi vault ubi", 0, ""},
        {"empty queue", "util peek 0", 0, "0"},
        {"number that is none", "util count 12x", 1, "ferryd util: '12x' is not a number\n"},
        {"3tuple that is none", "util block c-sha512-1-00", 1, "ferryd util: 'c-sha512-1-00' is not a 3tuple\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string output;
        EXPECT_EQ(lab().source().run({"/bin/sh", "-c", ferryd() + " " + c.arguments}, &output), c.status);
        EXPECT_EQ(output.substr(0, std::string(c.output).size()), c.output);
        EXPECT_TRUE(*c.output != '\0' || output.empty()) << output;
    }
}

}  // namespace
}  // namespace e2e
