// replicationQueue.h - the work list of replication, a table of the catalogue.
//
// A row says that a backup goes to a target; the pair names the row. Its status is the only message between the
// parties: operators and other programs write it by plain SQL too. Rows are served by ascending position.
//
// Threads: as pghelper, one at a time. Only the daemon's main thread picks (next_rq): pick and mark are two statements.
// Errors:  0, or -1 logged. No transaction surrounds an operation; a failure between two statements leaves rows that
// the
//          next pass finds again. A change that matches no row is no failure.
//
// Target names enter the statements unescaped, and statements have buffers of fixed size. With backup numbers of 7
// digits names of up to 42 characters fit in every status change, and two names of 27 in swap_rq; 38 and 22 with
// numbers of 10 digits. A longer name is refused there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Values of replication_queue.status; one bit each.
inline constexpr int REPLICATION_NEEDED = 1;
inline constexpr int REPLICATION_COMPLETE = 2;
inline constexpr int REPLICATION_SKIPPED = 4;
inline constexpr int REPLICATION_TERMINATED = 8;
inline constexpr int REPLICATION_ACTIVE = 16;
inline constexpr int REPLICATION_TERMINATE = 32;
inline constexpr int REPLICATION_NEED_ASSIST = 64;
inline constexpr int REPLICATION_OUT_OF_ORDER = 128;
// An instance with a row in one of these gets no new pick.
inline constexpr int REPLICATION_BLOCKING = REPLICATION_ACTIVE | REPLICATION_NEED_ASSIST | REPLICATION_OUT_OF_ORDER;

inline constexpr std::size_t TARGET_NAME_SIZE = 65;  // bytes of a buffer for a target name, the NUL included

// The table's name, schema included. Writable so that a tool can point the statements at another table.
extern std::string QUEUE_DATABASE;

struct QueueEntry {
    std::uint64_t backupNo;
    std::string vault;  // at most 64 bytes
};

[[nodiscard]] int create_replication_queue();
// Marks the backup as sync-needed and adds its row. A failure to mark is -1, but the row is still tried.
[[nodiscard]] int insert_rq(std::uint64_t backupNo, const std::string& vault);
// The status of the row, 0 when there is none, -1 on failure.
[[nodiscard]] int status_rq(std::uint64_t backupNo, const std::string& vault);
// The status when the backup has exactly one row, whatever the target; else 0.
[[nodiscard]] int backup_status_rq(std::uint64_t backupNo);
[[nodiscard]] int set_status_rq(std::uint64_t backupNo, const std::string& vault, int status);
[[nodiscard]] int complete_rq(std::uint64_t backupNo, const std::string& vault);
// Asks the daemon to terminate the replication.
[[nodiscard]] int cleanup_rq(std::uint64_t backupNo, const std::string& vault);
[[nodiscard]] int remove_rq(std::uint64_t backupNo, const std::string& vault);
// Puts the rows of workers that are gone back to REPLICATION_NEEDED: for the start of the daemon.
[[nodiscard]] int reset_active_rq();
[[nodiscard]] int delete_complete_rq();
// The backup at the offset-th waiting row, 0 if none, -1 on failure.
[[nodiscard]] std::int64_t peek_rq(int offset);
// The first `max` rows that wait for termination; all carry the target name of the first row. Their number, or -1.
[[nodiscard]] int terminated_rq(unsigned max, std::vector<QueueEntry>* rows);
// Exchanges the positions of two rows.
[[nodiscard]] int swap_rq(std::uint64_t backupA, const std::string& vaultA, std::uint64_t backupB,
                          const std::string& vaultB);
// Picks the waiting row of the lowest position whose backup isn't deleted and whose instance has no active or paused
// row, marks it active, and stores its target (at most 64 bytes) if `vault` is given. The backup, 0 if none, -1 on
// failure.
[[nodiscard]] std::int64_t next_rq(std::string* vault);
// The same without the instance rule; `vault` and `type` may be null.
[[nodiscard]] std::int64_t next_any_rq(std::string* vault, int* type);

// Adds a backup with those that it depends on; an existing row that isn't complete, active or paused is revived.
// 0 even if the dependencies can't be told: nothing is added then.
[[nodiscard]] int enqueue_rq(std::uint64_t backupNo, const std::string& vault);
// Takes older waiting rows out that the self-contained backup in this backup's chain makes needless.
[[nodiscard]] int prune_older_rq(std::uint64_t backupNo, const std::string& vault);
// Drops newer rows of the instance if one of them was replicated already, then lets the backup wait again.
[[nodiscard]] int resolve_out_of_order_rq(std::uint64_t backupNo);
