// job.h - the state of one job, for the sources of the worker.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <exception>
#include <mutex>
#include <string>

#include "bookkeeping/progress.h"
#include "log/logger.h"

// The job's progress records, each with its name and role.
enum ProgressSlot : std::size_t {
    SLOT_PREPARE,      // checks and hashing
    SLOT_REPLICATE,    // the send phase
    SLOT_PROCESSING,   // after it, until the final metadata is sent
    SLOT_WAIT,         // the target is building
    SLOT_NO_ACTIVITY,  // it has been building for too long
    SLOT_COUNT
};

struct WorkerJob;

// The records of a job, courtesies all: nothing that fails here fails the job. The worker's main thread uses them; the
// stop thread deletes their rows when the process ends. A record that was ever opened stays so: an update after its end
// brings its row back.
class ProgressRecords {
public:
    void open(ProgressSlot slot, const WorkerJob& job);
    void update(ProgressSlot slot);
    [[nodiscard]] bool wasOpened(ProgressSlot slot) const { return records_[slot].isOpen(); }
    void close(ProgressSlot slot);
    void closeAll();

    // For the send phase, which updates it.
    [[nodiscard]] OperationProgress* record(ProgressSlot slot) { return &records_[slot]; }

    // From the stop thread, with the job gate closed: deletes the rows while the main thread may hold the connection.
    void closeAllAtExit(std::chrono::milliseconds limit);

private:
    std::mutex lock_;  // guards what names a row; the other fields are the main thread's
    std::array<OperationProgress, SLOT_COUNT> records_;
};

// How a job ends.
inline constexpr int OUTCOME_DONE = -5;    // nothing to clean up
inline constexpr int OUTCOME_RETRY = -1;   // failed; the row goes back to needed
inline constexpr int OUTCOME_PAUSED = -2;  // failed; the row has its status already

struct WorkerJob {
    std::uint64_t backupNo = 0;
    std::string vault;
    int bandwidthTable = -1;  // the daemon's shared memory id

    std::string hostName;
    std::string typeText;
    std::string ubi;  // empty: not known, or the instance has never replicated

    std::int64_t uuidCheck = 0;  // the target's last answer: number there, 0 unknown, negative failure
    std::uint64_t targetStatus = 0;
    std::uint64_t targetProperties = 0;
    std::int64_t targetBackupNo = 0;
    int curlCode = 0;

    int outcome = OUTCOME_DONE;
    bool replicated = false;  // the target has the backup, and nothing failed
    char failedStatusText[2048] = "";

    std::uint64_t presync = 0;   // seconds: hashing, start on the target, waiting for the local job
    std::uint64_t sync = 0;      // seconds: blocks and final metadata
    std::uint64_t postsync = 0;  // seconds: waiting for the target

    ProgressRecords progress;
};

// The whole job, through one of its endings: whatever is thrown on the way, for want of memory, ends it as a failure.
void carryOutJob(WorkerJob* job);

// A key of section Replication, as master.ini has it at this moment.
[[nodiscard]] int replicationKey(const char* key, int defaultValue);

// The pause between two looks at the same thing. A period that is no period still leaves the others some time.
void pollPause(int seconds);

// Status text for the target, the statistics and the operator: "Failed: ..." and the like.
[[gnu::format(printf, 2, 3)]] void setFailedStatusText(WorkerJob* job, const char* format, ...);

// Asks the target about the backup, with its number there or 0. A request that failed counts as -1.
void checkOnTarget(WorkerJob* job, std::int64_t targetBackupNo);

// `status` of the local backup, 0 also when it can't be read.
[[nodiscard]] std::uint64_t localStatus(std::uint64_t backupNo);

void setQueueStatus(const WorkerJob& job, int status);
void writeSdsStats(const WorkerJob& job, const char* message);

// The status text of a job in which something was thrown.
void failForException(WorkerJob* job, const std::exception& reason);

// Runs one act of an ending: what it throws must not keep the others from theirs.
template <typename Act>
void attempt(const char* what, Act act) {
    try {
        act();
    } catch (const std::exception& e) {
        LOG_HERE(0, "%s: %s", what, e.what());
    }
}

// Parts of the job, each in its source. False: the job is over; its outcome says what is left to do.
[[nodiscard]] bool prepareJob(WorkerJob* job);      // local check, identity, reservation, hashing
[[nodiscard]] bool transferBackup(WorkerJob* job);  // start on the target, blocks, final metadata
void finishOnTarget(WorkerJob* job);                // wait while the target builds, and judge

// What a stopwatch has seen, in whole seconds; a clock that was set back counts as none.
class Seconds {
public:
    Seconds() : start_(time(nullptr)) {}
    [[nodiscard]] std::uint64_t passed() const {
        const time_t now = time(nullptr);
        return now > start_ ? static_cast<std::uint64_t>(now - start_) : 0;
    }

private:
    time_t start_;
};
