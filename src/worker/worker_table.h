// worker_table.h - the parent's list of running workers.
//
// It lives in the parent alone and is changed with SIGCHLD blocked. One thread.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

struct WorkerEntry {
    pid_t pid;  // -1 when the fork failed: the slot is lost until the daemon restarts
    std::uint32_t backup_no;
    std::string vault;
};

void addWorker(const WorkerEntry& entry);
void clearWorkers();
[[nodiscard]] int workerCount();

// Takes finished children out of the table. Their exit statuses don't matter: a worker writes its own result.
void reapWorkers();

// Sends SIGINT to the worker of a backup and waits for its end, so that what comes next finds nothing of it at work.
// True if it has ended, and left the table, or there is none.
bool interruptWorker(std::uint32_t backupNo, const std::string& vault, std::chrono::milliseconds patience);

// Sends SIGTERM to every worker and doesn't wait.
void killWorkers();
