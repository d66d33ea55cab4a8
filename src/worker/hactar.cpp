#include "worker/hactar.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/file_descriptor.h"
#include "base/job_gate.h"
#include "base/paths.h"
#include "base/run_command.h"
#include "base/signal_flags.h"
#include "bookkeeping/common.h"
#include "config/directories.h"
#include "database/pghelper.h"
#include "log/logger.h"
#include "rest/files.h"
#include "rest/session.h"
#include "worker/statistics.h"

namespace {

constexpr std::size_t COMMAND_SIZE = 512;
constexpr mode_t LOCK_FILE_MODE = 0644;
constexpr std::size_t PATH_SIZE = 1024;
constexpr int SIGNAL_MASK = 0x7f;    // of a wait status
constexpr int ABNORMAL_EXIT = 0x7f;  // no signal, no exit

// The path on the device that holds the backup. 0 or -1 (logged).
int hactarPath(std::uint64_t backupNo, std::string* path) {
    Statement<PATH_SIZE> statement;
    if (statement.build(
            "SELECT dev_rw_name FROM dq.devices WHERE dev_name=(SELECT tape_drive_name FROM dq.filesets  WHERE "
            "fileset_no=(SELECT fileset_no FROM dq.backups WHERE backup_no=%ld))",
            static_cast<long>(backupNo)) == -1)
        return -1;
    const PgResultPtr row = pgExec(statement.text());
    if (pgStatus(row.get()) == -1 || pgTuples(row.get()) < 1) {
        LOG_HERE(0, "Failed query:%s", statement.text());
        return -1;
    }
    const std::string device = pgSDup(row.get(), 0, "dev_rw_name");
    if (device.empty()) {
        LOG_HERE(0, "The device of backup %lu has no path", backupNo);
        return -1;
    }
    char text[PATH_SIZE];
    if (formatText(text, sizeof text, "%s/hactar_%ld", device.c_str(), static_cast<long>(backupNo)) == -1) {
        LOG_HERE(0, "Query too long for buffer");
        return -1;
    }
    *path = text;
    return 0;
}

// As one word of a shell command, whatever the install directory is called.
std::string toolPath(const char* name) {
    return shellQuoted(g_bindir + "/" + name);
}

// Opens the right to make a backup's final metadata file, and waits for it. It is a lock on one byte of a file of the
// system, the backup's number; it belongs to the open file, which the tool inherits, and so lasts until the last
// process that may still write has gone, whatever became of its worker. 0 or -1 (logged).
int lockHactar(std::uint64_t backupNo, FileDescriptor* lock) {
    const std::filesystem::path path = systemPath(paths::RUN_DIR) + "/ferryd.hactar";
    std::error_code ignored;  // the file can't be opened then
    std::filesystem::create_directories(path.parent_path(), ignored);
    lock->reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_FILE_MODE));
    struct flock range = {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(backupNo);
    range.l_len = 1;
    int rc = fcntl(lock->get(), F_OFD_SETLK, &range);
    if (rc == -1 && (errno == EAGAIN || errno == EACCES)) {
        LOG_HERE(0, "The final metadata of backup %lu is still being made by an earlier run, waiting", backupNo);
        while ((rc = fcntl(lock->get(), F_OFD_SETLKW, &range)) == -1 && errno == EINTR && !stopRequested()) {
        }
    }
    if (rc == -1)
        LOG_HERE(0, "Can't lock byte %lu of %s: %s", backupNo, path.c_str(), strerror(errno));
    return rc;
}

// Runs a tool of the appliance. Its wait status, or -1 (logged).
int runTool(const char* command, const FileDescriptor& lock) {
    LOG_HERE(3, "Executing command:%s", command);
    const int status = runCommand(command, lock.get());
    if (status == -1) {
        LOG_HERE(0, "system command:\"%s\" failed\n", command);
        LOG_HERE(0, "errno:%s", strerror(errno));
    }
    return status;
}

void logCurl(int curlCode) {
    if (curlCode != 0)
        LOG_HERE(0, "Curl status: %s", curlText(curlCode));
}

}  // namespace

int hashBackup(std::uint64_t backupNo) {
    Statement<256> statement;
    if (statement.build("SELECT backup_no FROM dq.backups WHERE ((properties & %d)!=0) AND backup_no=%ld", P_ANY_HASHED,
                        static_cast<long>(backupNo)) == -1)
        return -1;
    const PgResultPtr row = pgExec(statement.text());
    if (pgStatus(row.get()) == -1) {
        LOG_HERE(0, "Failed query");
        return -1;
    }
    if (pgTuples(row.get()) == 1) {
        LOG_HERE(3, "Backup:%ld is hashed", static_cast<long>(backupNo));
        return 0;
    }
    LOG_HERE(3, "Hashing:%ld", static_cast<long>(backupNo));
    char command[COMMAND_SIZE];
    if (formatText(command, sizeof command, "%s -H%ld", toolPath("fileDedup").c_str(), static_cast<long>(backupNo)) ==
        -1) {
        LOG_HERE(0, "Command too long for buffer");
        return -1;
    }
    const int status = runTool(command, FileDescriptor());
    if (status == -1 || status == 0)
        return status;
    const int exitStatus = (status >> 8) & 0xff;  // a death by signal counts as 0
    LOG_HERE(0, "system command:\"%s\" exited with status=%d\n", command, exitStatus);
    return exitStatus;
}

int createHactar(std::uint64_t backupNo) {
    LOG_HERE(3, "Creating HaCTAR\n");
    char command[COMMAND_SIZE];
    if (formatText(command, sizeof command, "%s -b %ld", toolPath("recipe").c_str(), static_cast<long>(backupNo)) ==
        -1) {
        LOG_HERE(0, "Command too long for buffer");
        return -1;
    }
    FileDescriptor lock;
    if (lockHactar(backupNo, &lock) == -1)
        return -1;
    const int status = runTool(command, lock);
    if (status == -1)
        return -1;
    if ((status & SIGNAL_MASK) != 0) {
        LOG_HERE(0, "system command:\"%s\" failed\n", command);
        if ((status & SIGNAL_MASK) == ABNORMAL_EXIT)
            LOG_HERE(0, "%s abnormally exited.\n", command);
        else
            LOG_HERE(0, "system command:\"%s\" failed due to signal %s.\n", command, strsignal(status & SIGNAL_MASK));
        return -1;
    }
    if (status != 0) {
        LOG_HERE(0, "system command:\"%s\" failed, exited with status=%d.\n", command, WEXITSTATUS(status));
        return -1;
    }
    LOG_HERE(3, "system command:\"%s\" completed successfully.\n", command);
    return 0;
}

int sendHactar(std::uint64_t backupNo, const std::string& target, std::int64_t targetBackupNo, std::uint64_t elapsed,
               int* curlCode) {
    LOG_HERE(3, "Sending HaCTAR\n");
    std::string path;
    if (hactarPath(backupNo, &path) == -1)
        return -1;
    LOG_HERE(3, "Send HaCTAR, Path:%s", path.c_str());
    LOG_HERE(3, "Check if encrypted");
    bool encrypted = false;
    (void)dq_is_backup_encrypted(backupNo, &encrypted);  // an unknown one counts as plain
    LOG_HERE(3, "%s", encrypted ? "encrypted: putEncryptedFile()" : "not encrypted: putFile()");
    *curlCode = 0;
    const int rc = (encrypted ? putEncryptedFile : putFile)(target, path, targetBackupNo, curlCode, elapsed);
    if (rc < 0 || *curlCode != 0) {
        if (encrypted)
            LOG_HERE(0, "Failed to send encrypted Hactar, backup_no:%u", static_cast<unsigned>(backupNo));
        else
            LOG_HERE(0, "Failed to send Hactar");
        logCurl(*curlCode);
        return -1;
    }
    struct stat st;
    if (stat(path.c_str(), &st) == 0)
        g_bytesSent += static_cast<std::uint64_t>(st.st_size);
    LOG_HERE(3, "Send HaCTAR complete.");
    return 0;
}

int removeHactar(std::uint64_t backupNo) {
    LOG_HERE(3, "Remove HaCTAR\n");
    std::string path;
    if (hactarPath(backupNo, &path) == -1)
        return -1;
    passJobGate();
    if (access(path.c_str(), F_OK) == -1)
        return 0;
    if (unlink(path.c_str()) == -1) {
        LOG_HERE(0, "Can't remove %s: %s", path.c_str(), strerror(errno));
        return -1;
    }
    return 0;
}
