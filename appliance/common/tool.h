// tool.h - what the appliance's command-line tools share: their start, and queries that must work.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "database/pghelper.h"

namespace tool {

// Reads the configuration and opens the log of `program`. Throws if the install directory can't be used.
void start(const char* program);

// The result of a statement, or an exception with `what` couldn't be done.
[[nodiscard]] PgResultPtr need(PgResultPtr result, const char* what);

struct Device {
    std::string name;
    std::filesystem::path directory;
    unsigned long tapeNo = 0;
};

// The disk that new backups go to, and the one that holds a backup.
[[nodiscard]] Device firstDisk();
[[nodiscard]] Device deviceOf(std::uint64_t backupNo);

// The file of a backup on its device: that with the suffix of compressed ones, if it is there.
inline constexpr char COMPRESSED_SUFFIX[] = ".gz";
[[nodiscard]] std::filesystem::path backupFile(const Device& device, std::uint64_t backupNo);

// Parses a backup number that must be all of the text; 0 for none.
[[nodiscard]] std::uint64_t backupNumber(const char* text);

}  // namespace tool
