#include "common/backup_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "compression/type.h"

namespace tool {
namespace {

constexpr std::size_t SKIP = 64 << 20;

std::uint64_t propertiesOf(std::uint64_t backupNo) {
    const PgResultPtr row =
        need(pgVExec("SELECT properties FROM backups WHERE backup_no = %lu", backupNo), "find the backup");
    if (pgTuples(row.get()) != 1)
        throw std::runtime_error("the catalogue doesn't have the backup");
    return pgUVal(row.get(), 0, "properties");
}

}  // namespace

BackupReader::BackupReader(const Device& device, std::uint64_t backupNo)
    : path_(backupFile(device, backupNo)),
      properties_((propertiesOf(backupNo) & ~ARCHIVE_DEDUPLICATED) | ARCHIVE_MAYBE_COMPRESSED) {
    filter_ = archive_open(path_.c_str(), "r", properties_);
    struct stat st;
    char magic[COMPRESSION_MAGIC_SIZE] = {};
    if (!filter_ || fstat(descriptor(), &st) == -1 || pread(descriptor(), magic, sizeof magic, 0) == -1)
        fail();
    if (!isEncrypted() && compression_type_of(magic, sizeof magic) == COMPRESSION_UNKNOWN) {
        size_ = static_cast<std::uint64_t>(st.st_size);
        isSizeKnown_ = true;
    }
}

std::uint64_t BackupReader::size() {
    while (!isSizeKnown_) {
        const ssize_t got = archive_read(filter_.get(), nullptr, SKIP);
        if (got == -1)
            fail();
        size_ += static_cast<std::uint64_t>(got);
        isSizeKnown_ = got == 0;
    }
    return size_;
}

void BackupReader::read(std::uint64_t offset, std::span<std::byte> to) {
    if (to.empty())
        return;
    const auto target = static_cast<off_t>(offset);
    if (archive_seek(filter_.get(), target, SEEK_SET) != target)
        fail();
    const ssize_t got = archive_read(filter_.get(), to.data(), to.size());
    if (got == -1)
        fail();
    if (got != static_cast<ssize_t>(to.size()))
        throw std::runtime_error(path_.string() + " can't be read to its end");
}

void BackupReader::fail() const {
    throw std::runtime_error(path_.string() + ": " + strerror(errno));
}

}  // namespace tool
