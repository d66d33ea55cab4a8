#include "worker/worker_table.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <thread>
#include <vector>

#include "base/signals.h"
#include "log/logger.h"

namespace {

std::vector<WorkerEntry> g_workerTable;

class ChildSignalBlocked {
public:
    ChildSignalBlocked() : blocked_(signalSet({SIGCHLD})) {
        if (blocked_.failed())
            LOG_HERE(0, "can't block SIGCHLD");
    }

private:
    BlockedSignals blocked_;
};

// A pid of a failed fork would name every process.
void sendSignal(pid_t pid, int signal) {
    if (pid > 1)
        (void)kill(pid, signal);  // one that has just ended needs none
}

void removeWorker(pid_t pid) {
    const ChildSignalBlocked guard;
    const auto entry = std::find_if(g_workerTable.begin(), g_workerTable.end(),
                                    [pid](const WorkerEntry& worker) { return worker.pid == pid; });
    if (entry != g_workerTable.end())
        g_workerTable.erase(entry);
}

// The pid of a backup's worker, 0 for none.
pid_t workerOf(std::uint32_t backupNo, const std::string& vault) {
    const ChildSignalBlocked guard;
    const auto entry = std::find_if(g_workerTable.begin(), g_workerTable.end(), [&](const WorkerEntry& worker) {
        return worker.backup_no == backupNo && worker.vault == vault;
    });
    return entry == g_workerTable.end() ? 0 : entry->pid;
}

}  // namespace

void addWorker(const WorkerEntry& entry) {
    const ChildSignalBlocked guard;
    g_workerTable.push_back(entry);
}

void clearWorkers() {
    const ChildSignalBlocked guard;
    g_workerTable.clear();
}

int workerCount() {
    const ChildSignalBlocked guard;
    return static_cast<int>(g_workerTable.size());
}

void reapWorkers() {
    for (pid_t pid; (pid = waitpid(-1, nullptr, WNOHANG)) > 0;)
        removeWorker(pid);
}

bool interruptWorker(std::uint32_t backupNo, const std::string& vault, std::chrono::milliseconds patience) {
    const pid_t pid = workerOf(backupNo, vault);
    sendSignal(pid, SIGINT);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (pid > 1 && waitpid(pid, nullptr, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    removeWorker(pid);
    return true;
}

void killWorkers() {
    const ChildSignalBlocked guard;
    for (const WorkerEntry& worker : g_workerTable) {
        LOG_HERE(0, "killing: %d", worker.pid);
        sendSignal(worker.pid, SIGTERM);
    }
}
