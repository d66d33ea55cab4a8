// worker.h - one backup from the queue to the target.
#pragma once

#include <cstdint>
#include <string>

// Results of runWorker.
inline constexpr int WORKER_NOT_STARTED = 1;  // no free slot, or nothing to do
inline constexpr int WORKER_FORKED = 0;       // this is the parent
inline constexpr int WORKER_DONE = -5;        // this is the worker (or the inline run), and the job is over

// Takes a backup (0: the next of the queue), forks if `fork`, and carries it through the whole replication in the
// child. *vault is the target; a pick from the queue puts the row's own name there (at most 64 bytes). A job that is
// run inline stores whether the target has the backup now, if `replicated` is given.
[[nodiscard]] int runWorker(std::uint64_t backupNo, std::string* vault, bool fork, bool* replicated = nullptr);

// Hands the backup's metadata to the target. Returns its number there; 0 or less is a refusal, -5 out of order and -6
// not to be processed among them. `force` lets the target clean up what is out of order.
[[nodiscard]] std::int64_t sendInitialMetaInfo(std::uint64_t backupNo, const std::string& vault, bool force,
                                               int* curlCode);
