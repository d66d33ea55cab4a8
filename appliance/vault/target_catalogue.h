// target_catalogue.h - what a vault's own catalogue knows of the backups that come to it.
//
// Threads: every call takes one lock, for the database helper below serves one thread at a time.
// Errors:  std::runtime_error when the database can't be used.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vault {

struct BackupState {
    std::int64_t number = 0;  // 0: unknown here
    std::uint64_t status = 0;
    std::uint64_t properties = 0;
};

enum class Refusal { None, OutOfOrder, CannotProcess };

class TargetCatalogue {
public:
    // The state of the backup `number`, or with 0 of the one that the identity names.
    [[nodiscard]] BackupState find(const std::string& identity, std::int64_t number);

    // Creates the record that the metadata document describes, or finds it again when the same backup is being built.
    // With `force`, and if master.ini allows it, newer backups of the instance that are in the way are marked failed.
    [[nodiscard]] Refusal start(std::string_view metadata, bool force, std::int64_t* number);

    // The source has given up: a backup still being built is marked failed, with the source's words.
    void giveUp(const std::string& identity, const std::string& message);

    // Ends of a backup that is being built; one that has ended stays as it is.
    void markComplete(std::int64_t number, std::uint64_t sizeBytes);
    void markFailed(std::int64_t number, const std::string& reason);

    // Backups that are being built, for going on with them after a restart.
    [[nodiscard]] std::vector<std::int64_t> building();

    // The directory that rebuilt backups and final metadata files go to.
    [[nodiscard]] std::string deviceDirectory();

private:
    std::mutex lock_;
};

}  // namespace vault
