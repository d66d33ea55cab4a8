// progress.h - how far a replication is, for the appliance's user interface: rows of operation_progress.
//
// Progress is a courtesy: each failure is logged and the replication goes on. The rows go over a database connection of
// their own, made by the first update, kept, and made anew when it was lost, which speaks LATIN1: bytes of names pass
// unchanged.
// Threads: each call locks the connection, and waits while the job gate is closed (closeProgressAtExit doesn't); the
//          records belong to their caller.
// Units:   sizes are bytes here and megabytes in the table; times are seconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>

// One phase of a replication. A slot counts as open when it has an operation; closing doesn't clear it, so that a
// record may be closed twice.
struct OperationProgress {
    std::string operation;  // a name of operation_names, for example "prepare"
    time_t start_time = 0;
    time_t snapshot_time = 0;  // last write
    std::int64_t final_size = 0;
    std::int64_t current_size = 0;
    std::string on_behalf_of;  // client
    std::string source;        // this system
    std::string destination;   // target
    std::uint64_t backup_no = 0;
    std::string backup_type;
    int pid = 0;
    time_t next_update = 0;         // no write before
    std::int64_t next_size = 1024;  // no write below, if it is less than a megabyte away

    [[nodiscard]] bool isOpen() const { return !operation.empty(); }
};

// Fills a record; nothing is written yet. 0, or -1 with the record untouched if the client can't be found.
[[nodiscard]] int fillProgress(const std::string& target, const std::string& hostName, const std::string& operation,
                               const std::string& typeText, std::uint64_t backupNo, OperationProgress* record);

// Fills the record and writes its row. -1 with the record untouched if the client can't be found; -1 with the record
// open if only the row could not be written.
[[nodiscard]] int openProgress(const std::string& target, const std::string& hostName, const std::string& operation,
                               const std::string& typeText, std::uint64_t backupNo, OperationProgress* record);

// Writes the record, at most every 5 seconds and every percent (or megabyte). 0 also when nothing was due.
[[nodiscard]] int updateProgress(OperationProgress* record);

// Deletes the record's row, and any that nobody has touched for an hour.
[[nodiscard]] int closeProgress(const OperationProgress& record);

// closeProgress of all that are open, for a thread that ends the process while another may hold the connection: waits
// up to two seconds for it, else deletes over a fresh one. Gives up on rows that can't be deleted within `limit`.
[[nodiscard]] int closeProgressAtExit(std::span<const OperationProgress> records, std::chrono::milliseconds limit);
