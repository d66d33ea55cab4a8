// Replications that are ended from outside, and the table of workers.

#include "base/signals.h"
#include "bookkeeping/replicationQueue.h"
#include "support/daemon_fixture.h"
#include "worker/worker.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Terminate : public DaemonTest {
protected:
    ~Terminate() override {
        for (const pid_t child : children_)
            if (kill(child, SIGKILL) == 0)
                (void)waitpid(child, nullptr, 0);
        clearWorkers();
    }

    // A child that waits for a signal, in the table as the worker of a backup. One that gets none ends by SIGALRM.
    pid_t worker(std::uint32_t backupNo, const std::string& vault, void (*atInterrupt)(int) = SIG_DFL) {
        // Until the child takes it: a job in the background ignores it.
        const BlockedSignals blocked(signalSet({SIGINT}));
        const pid_t child = fork();
        if (child == 0) {
            (void)signal(SIGINT, atInterrupt);
            (void)alarm(60);
            const sigset_t none = signalSet({});
            for (;;)
                (void)sigsuspend(&none);
        }
        children_.push_back(child);
        addWorker({child, backupNo, vault});
        return child;
    }

private:
    std::vector<pid_t> children_;
};

TEST_F(Terminate, RowIsEndedHereAndOnTheTarget) {
    Target target;
    const fs::path disk = device();
    instance(2);
    backup(7);
    backup(8, 3);  // its instance has never replicated
    queue(7, REPLICATION_TERMINATE, target.name());
    queue(8, REPLICATION_TERMINATE, target.name());
    writeFile(disk / "hactar_7", "x");
    const pid_t own = worker(7, target.name());
    const pid_t sameBackup = worker(7, "other");
    const pid_t sameTarget = worker(9, target.name());

    g_settings.maxConcurrent = 0;  // still one row a pass
    handleTerminatedOperations();
    EXPECT_EQ(queueRow(7) + " " + queueRow(8), "8 32");
    EXPECT_FALSE(isAlive(own)) << "it is waited for";
    EXPECT_TRUE(isAlive(sameBackup) && isAlive(sameTarget));
    EXPECT_EQ(workerCount(), 2);
    EXPECT_FALSE(fs::exists(disk / "hactar_7"));
    const Request said = target.request("end-backup");
    EXPECT_EQ(said.body + said.header("X-BackupUUID"),
              std::string("backup operation terminated\0", 28) + INSTANCE_UUID + "_1000_1");

    handleTerminatedOperations();
    EXPECT_EQ(queueRow(8), "8") << "no worker is needed for the rest";
    EXPECT_EQ(target.request("end-backup").header("X-BackupUUID"), "tempUUID");
    handleTerminatedOperations();
    EXPECT_EQ(target.count("end-backup"), 2);
}

TEST_F(Terminate, WorkerThatTakesLongStaysInTheTable) {
    const pid_t slow = worker(7, "vault", SIG_IGN);
    EXPECT_FALSE(interruptWorker(7, "vault", std::chrono::milliseconds(50)));
    EXPECT_EQ(workerCount(), 1);
    EXPECT_EQ(kill(slow, SIGKILL), 0);
    EXPECT_TRUE(interruptWorker(7, "vault", std::chrono::seconds(20)));
    EXPECT_EQ(workerCount(), 0);
    EXPECT_TRUE(interruptWorker(7, "vault", std::chrono::seconds(20))) << "there is none";
}

TEST_F(Terminate, DeadTargetDoesntKeepTheRow) {
    std::string gone;
    { gone = ScriptedServer().name(); }
    instance(2);
    backup(7);
    queue(7, REPLICATION_TERMINATE, gone);
    g_settings.maxConcurrent = -3;
    handleTerminatedOperations();
    EXPECT_EQ(queueRow(7), "8");
    EXPECT_TRUE(root.logged("Curl status: Couldn't connect to server"));
    EXPECT_TRUE(root.logged("failed to remove hactar")) << "its device isn't in the catalogue";
}

TEST_F(Terminate, ForkedWorkerTakesTheRowAndItsTarget) {
    backup(7, 2, 1000, "status = 4096");
    queue(7, REPLICATION_NEEDED, "row");
    std::string vault = "settings";
    g_settings.maxConcurrent = 1;
    g_mode.attached = true;
    addWorker({-1, 5, "vault"});
    EXPECT_EQ(runWorker(0, &vault, true), WORKER_NOT_STARTED) << "the only slot is taken";
    clearWorkers();
    const int result = runWorker(0, &vault, true);
    if (result == WORKER_DONE)  // the child, on its way out
        _exit(queueRow(7) == "4" ? 0 : 1);
    ASSERT_EQ(result, WORKER_FORKED);
    EXPECT_EQ(vault, "row");
    EXPECT_EQ(workerCount(), 1);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOWAIT), 0);
    reapWorkers();
    EXPECT_EQ(workerCount(), 0);
    EXPECT_EQ(queueRow(7), "4");
    EXPECT_EQ(runWorker(0, &vault, true), WORKER_NOT_STARTED) << "nothing waits";
}

}  // namespace
}  // namespace testsupport
