#include <cstdlib>

#include "base/text.h"
#include "hash/hashed_contents_internal.h"
#include "log/logger.h"

namespace {

constexpr int DISK_DEVICE = 128;
constexpr char SUFFIX[] = ".gz";

PgRowsPtr select(HashConnection* connection, const std::string& query) {
    if (connection->connect() == -1)
        return nullptr;
    PgRowsPtr rows = connection->run(query);
    if (succeeded(rows.get()))
        return rows;
    log_message(0, "%s(): query failed\n  %s", "openBackupFile", connection->error());
    return nullptr;
}

}  // namespace

ArchiveFilterPtr openBackupFile(HashConnection* connection, std::uint64_t backupNumber, std::string* path) {
    const PgRowsPtr row =
        select(connection, formatString("SELECT properties FROM dq.backups WHERE (backup_no = %lu)", backupNumber));
    if (!row || PQntuples(row.get()) == 0)
        return nullptr;
    const PgRowsPtr devices =
        select(connection, formatString("SELECT dev_nr_name FROM dq.devices WHERE (device_type = %d) ORDER BY "
                                        "octet_length(dev_nr_name) ASC",
                                        DISK_DEVICE));
    if (!devices)
        return nullptr;
    // The data of a reference that isn't deduplicated lies at its own offset in the file's plain stream.
    const std::uint64_t properties = (std::strtoull(PQgetvalue(row.get(), 0, 0), nullptr, 10) & ~ARCHIVE_DEDUPLICATED) |
                                     ARCHIVE_DIRECT_IO | ARCHIVE_MAYBE_COMPRESSED;
    for (int device = PQntuples(devices.get()) - 1; device >= 0; --device) {
        std::string name = PQgetvalue(devices.get(), device, 0);
        if (name.empty() || name.back() != '/')
            name += '/';
        name += formatString("backup_%ld", static_cast<std::int64_t>(backupNumber));
        for (const std::string& candidate : {name + SUFFIX, name})
            if (ArchiveFilterPtr file = archive_open(candidate.c_str(), "r", properties)) {
                *path = candidate;
                return file;
            }
    }
    return nullptr;
}

void closeBackup(hashedContents* handle) {
    handle->backup.reset();  // the lock goes with the descriptor
    handle->backupNumber = 0;
    handle->backupLocked = false;
    handle->confirmed.clear();
}
