// send_phase.h - moving a backup's blocks to the target.
//
// The phase walks the backup's hash list, asks the target batch by batch which blocks it lacks, and sends those.
#pragma once

#include <cstdint>
#include <string>

#include "bookkeeping/progress.h"
#include "config/settings.h"

// What a send phase works on; all of it belongs to the worker's job and outlives the phase.
struct SendJob {
    std::uint64_t backupNo;
    std::string url;  // the target's name as configured
    std::int64_t backupNoOnTarget;
    OperationProgress* progress;  // open for the phase; its size rises with each block that is settled
    std::uint64_t* bytesSent;     // rises with what is sent
    int bandwidthTable = -1;      // of the daemon, for the send threads; -1 sends without a limit
};

// The phase in one thread. The caller has attached to the bandwidth table. Returns 0, a libcurl code (above 0) or -1.
[[nodiscard]] int sendBlocks(const ReplicationSettings& settings, const SendJob& job);

// The phase in several threads: this one asks the target and makes the checkpoints, one reads blocks, SendThreadCount
// send them, each attached to the bandwidth table while it does. Its own keys are read from master.ini. Returns 0 or a
// negative code; all threads have ended then.
[[nodiscard]] int sendBlocksThreaded(const ReplicationSettings& settings, const SendJob& job);
