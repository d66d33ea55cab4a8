// How a worker ends on a signal: at once for all that others can see, and with everything that it started.

#include "base/run_command.h"
#include "block/signal_catch.h"
#include "bookkeeping/replicationQueue.h"
#include "config/settings.h"
#include "rest/lifecycle.h"
#include "support/daemon_fixture.h"
#include "worker/job.h"
#include "worker/stop_thread.h"
#include "worker/worker.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Stop : public DaemonTest {
protected:
    Stop() : disk(device()) { instance(2); }
    ~Stop() override {
        if (worker > 0 && kill(worker, SIGKILL) == 0)
            (void)waitpid(worker, nullptr, 0);
    }

    // A worker of backup 7 up to where a tool waits for the file "go". The tool doesn't mind SIGTERM.
    void startUpToTool(const std::string& name, const std::string& afterwards) {
        tool(name,
             "trap '' TERM\necho $$ >\"$0.pid.new\"; mv \"$0.pid.new\" \"$0.pid\"\nwhile [ -e \"$0\" ] && [ ! -e '" +
                 (root / "go").string() + "' ]; do sleep 0.02; done\n" + afterwards);
        queue(7, REPLICATION_NEEDED, target.name());
        g_settings.maxConcurrent = 1;
        g_mode.attached = true;
        std::string vault;
        if (runWorker(0, &vault, true) == WORKER_DONE)
            _exit(0);  // the child, had it come to its end
        const fs::path pid = root / "usr/dq/bin" / (name + ".pid");
        ASSERT_TRUE(eventually([&] { return fs::exists(pid); }));
        toolPid = std::stoi(readFile(pid));
        worker = std::stoi(catalogue.value("SELECT pid_to_kill FROM dq.operation_progress LIMIT 1"));
    }
    // Whether the worker ends, and by an exit of 1.
    bool fails() {
        int status = -1;
        EXPECT_TRUE(eventually([&] { return waitpid(worker, &status, WNOHANG) != 0; }));
        worker = 0;
        return WIFEXITED(status) && WEXITSTATUS(status) == 1;
    }

    fs::path disk;
    Target target;
    pid_t worker = 0;
    int toolPid = 0;
};

TEST_F(Stop, LeavesNothingBehindAndNothingAtWork) {
    backup(7);
    target.checks = "up";
    startUpToTool("recipe", "echo metadata >'" + disk.string() + "'/hactar_7");
    const std::vector<std::string> before = target.requests();
    kill(worker, SIGTERM);
    ASSERT_TRUE(fails());
    EXPECT_FALSE(isAlive(toolPid));
    writeFile(root / "go", "");
    EXPECT_EQ(queueRow(7), "16") << "the next start puts it back";
    EXPECT_EQ(catalogue.rows("SELECT pid_to_kill FROM dq.operation_progress UNION SELECT backup_no FROM dq.sds_stats"),
              "");
    EXPECT_EQ(target.requests(), before);
    EXPECT_FALSE(fs::exists(disk / "hactar_7"));
}

TEST_F(Stop, FirstFreezesEveryKindOfActAndThenCleansUp) {
    backup(7);
    queue(7, 0, target.name());
    const std::string lines = root / "lines";
    worker = fork();
    if (worker == 0) {
        WorkerJob job;
        job.backupNo = 7;
        job.vault = target.name();
        const StopThread stopThread(&job);
        job.progress.open(SLOT_WAIT, job);
        std::thread([&] {
            for (;;)
                (void)pgVExec("UPDATE dq.replication_queue SET status = status + 1");
        }).detach();
        std::thread([&] {
            for (int curlCode = 0;;)
                (void)endBackup(job.vault, "identity", "Failed:", &curlCode);
        }).detach();
        for (;;)
            (void)runCommand("echo >>" + lines);
    }
    const auto acts = [&] {
        return std::pair(queueRow(7) + " " + std::to_string(readFile(lines).size()), target.count("end-backup"));
    };
    ASSERT_TRUE(eventually([&] { return !readFile(lines).empty() && std::stoi(queueRow(7)) > 1; }));
    catalogue.sql("BEGIN; LOCK TABLE dq.operation_progress");  // holds the deletion of the row up
    kill(worker, SIGINT);
    EXPECT_TRUE(catalogue.somebodyWaits());
    const auto then = acts();
    EXPECT_GT(then.second, 0);
    EXPECT_FALSE(eventually([&] { return acts() != then; }, std::chrono::milliseconds(500)));
    catalogue.sql("COMMIT");
    EXPECT_TRUE(fails());
}

TEST_F(Stop, WaitsWhileHashDataIsBeingChanged) {
    for (const int number : {SIGTERM, SIGQUIT}) {
        const fs::path open = root / ("open" + std::to_string(number));
        const fs::path ended = root / ("ended" + std::to_string(number));
        worker = fork();
        if (worker == 0) {
            WorkerJob job;
            const StopThread stopThread(&job);
            (void)catchSignals(SignalLayer::hashes);
            writeFile(open, "");
            if (eventually([] { return signalWaiting(SignalLayer::hashes); }))
                writeFile(ended, "");
            (void)uncatchSignals(SignalLayer::hashes);
            (void)eventually([] { return false; });
            _exit(0);
        }
        ASSERT_TRUE(eventually([&] { return fs::exists(open); }));
        kill(worker, number);
        EXPECT_TRUE(fails());
        EXPECT_TRUE(fs::exists(ended)) << number;
    }
}

}  // namespace
}  // namespace testsupport
