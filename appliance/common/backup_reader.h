// backup_reader.h - the clean stream of a backup, whatever its file is like.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

#include "archive/archiverw.h"
#include "common/tool.h"

namespace tool {

class BackupReader {
public:
    // Opens the backup's file with the properties that the catalogue has. Throws if that can't be done.
    BackupReader(const Device& device, std::uint64_t backupNo);

    [[nodiscard]] int descriptor() const { return archive_fd(filter_.get()); }  // for locks

    [[nodiscard]] bool isEncrypted() const { return (properties_ & ARCHIVE_ENCRYPTED) != 0; }

    // Length of the stream; the first call may have to read it all.
    [[nodiscard]] std::uint64_t size();

    // Exactly these bytes, or an exception. Reading goes forward best.
    void read(std::uint64_t offset, std::span<std::byte> to);

private:
    [[noreturn]] void fail() const;

    std::filesystem::path path_;
    std::uint64_t properties_;
    ArchiveFilterPtr filter_;
    std::uint64_t size_ = 0;
    bool isSizeKnown_ = false;
};

}  // namespace tool
