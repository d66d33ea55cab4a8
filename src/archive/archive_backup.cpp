#include <unistd.h>

#include <string>

#include "archive/archive_internal.h"
#include "base/text.h"
#include "database/pghelper.h"
#include "log/logger.h"

namespace {

constexpr std::size_t COMPRESSED_SUFFIX = 3;  // ".gz"
constexpr std::uint64_t STAT_BLOCK = 512;

// Where a backup's file is and what its catalogue row says of it. 0, or -1 with errno.
int findBackup(int backupNo, std::string* path, std::uint64_t* properties) {
    const PgResultPtr row = pgVExec(
        "SELECT backups.properties, devices.dev_rw_name FROM backups JOIN devices USING (tape_no) WHERE "
        "backups.backup_no = %d",
        backupNo);
    if (pgStatus(row.get()) != 0 || pgTuples(row.get()) < 1) {
        LOG_HERE(0, "Failed to retrieve backup %d path from database\n", backupNo);
        errno = EBADMSG;
        return -1;
    }
    std::string name = formatString("%s/backup_%d.gz", pgSDup(row.get(), 0, "dev_rw_name").c_str(), backupNo);
    if (access(name.c_str(), R_OK) == -1)
        name.resize(name.size() - COMPRESSED_SUFFIX);
    if (access(name.c_str(), R_OK) == -1) {
        LOG_HERE(0, "Backup %d not found on disk", backupNo);
        LOG_HERE(0, "Tried %s[.gz]\n", name.c_str());
        errno = ENOENT;
        return -1;
    }
    *properties = pgUVal(row.get(), 0, "properties");
    *path = std::move(name);
    return 0;
}

}  // namespace

ArchiveFilterPtr archive_open_backup(int backupNo, std::uint64_t clearProperties) {
    std::string path;
    std::uint64_t properties = 0;
    if (findBackup(backupNo, &path, &properties) == -1)
        return nullptr;
    return archive_open(path.c_str(), "r", (properties | ARCHIVE_MAYBE_COMPRESSED) & ~clearProperties);
}

int archive_stat(int backupNo, struct stat* st) {
    std::string path;
    std::uint64_t properties = 0;
    return findBackup(backupNo, &path, &properties) == -1 ? -1 : stat(path.c_str(), st);
}

int archive_get_actual_size(int backupNo, std::uint64_t* size) {
    struct stat st {};
    if (archive_stat(backupNo, &st) == -1)
        return -1;
    *size = static_cast<std::uint64_t>(st.st_blocks) * STAT_BLOCK;
    LOG_HERE(2, "archive_get_actual_size: Size for backup %d is %lu.\n", backupNo, *size);
    return 0;
}
