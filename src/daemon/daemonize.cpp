#include "daemon/daemonize.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/file_descriptor.h"
#include "base/paths.h"
#include "base/signals.h"
#include "base/text.h"
#include "config/directories.h"
#include "config/services.h"
#include "log/logger.h"

namespace {

constexpr std::size_t PATH_SIZE = 256;
constexpr mode_t PID_FILE_MODE = 0644;

std::string g_pidFile;
FileDescriptor g_pidLock;       // held for the life of the process, and by its workers
FileDescriptor g_instanceLock;  // likewise

void reopenStandardStreams() {
    // /dev/null can be opened wherever a program runs; a stream that is lost takes nothing with it.
    (void)!freopen("/dev/null", "r", stdin);
    (void)!freopen("/dev/null", "w", stdout);
    (void)!freopen("/dev/null", "w", stderr);
}

int writePid(int fd) {
    const char* const name = ghAppName.c_str();
    char text[PATH_SIZE];
    const int length = formatText(text, sizeof text, "%d", getpid());
    if (length == -1) {
        LOG_HERE(0, "failed to build pig data buffer size %zu, data size %d.", sizeof text, length);
        return -1;
    }
    if (safe_write(fd, text, length) != length) {
        LOG_HERE(0, "failed to write /var/run/%s.pid: %s.", name, strerror(errno));
        return -1;
    }
    if (ftruncate(fd, length) == -1) {
        LOG_HERE(0, "Truncate /var/run/%s.pid failed: %s.", name, strerror(errno));
        return -1;
    }
    return 0;
}

int takePidFile() {
    const char* const name = ghAppName.c_str();
    const std::string directory = systemPath(paths::RUN_DIR);
    char path[PATH_SIZE];
    if (formatText(path, sizeof path, "%s/%s.pid", directory.c_str(), name) == -1) {
        LOG_HERE(0, "failed to build /var/run/%s.pid, buffer size %zu, data size %d.", name, sizeof path,
                 static_cast<int>(directory.size() + ghAppName.size() + 5));
        return -1;
    }
    FileDescriptor file(open(path, O_WRONLY | O_CREAT | O_CLOEXEC, PID_FILE_MODE));
    if (!file.isOpen()) {
        LOG_HERE(0, "failed to open %s: %s.", path, strerror(errno));
        return -1;
    }
    if (flock(file.get(), LOCK_EX | LOCK_NB) == -1) {
        LOG_HERE(0, "failed to lock /var/run/%s.pid: %s.", name, strerror(errno));
        return -1;
    }
    if (writePid(file.get()) == -1)
        return -1;
    g_pidFile = path;
    g_pidLock = std::move(file);
    return 0;
}

}  // namespace

int daemonize() {
    if (getppid() == 1) {
        LOG_HERE(0, "Refusing to be started by process 1 itself");
        exit(-1);
    }
    (void)fflush(nullptr);  // nothing that is buffered may be written twice
    const pid_t pid = fork();
    if (pid == -1) {
        LOG_HERE(0, "failed to fork: %s.", strerror(errno));
        _exit(-1);
    }
    if (pid > 0)
        _exit(0);
    umask(0);
    if (setsid() == -1) {
        LOG_HERE(0, "failed to begin a session: %s.", strerror(errno));
        exit(-1);
    }
    if (chdir("/") == -1) {
        LOG_HERE(0, "failed to chdir to /: %s.", strerror(errno));
        return -1;
    }
    reopenStandardStreams();
    return takePidFile();
}

void clearPidFile() {
    const BlockedSignals blocked(signalSet({SIGCHLD}));
    if (blocked.failed())
        LOG_HERE(0, "can't block SIGCHLD");
    if (unlink(g_pidFile.c_str()) == -1) {
        LOG_HERE(0, "Failed to remove pid file");
        LOG_HERE(0, "errno:%s", strerror(errno));
    }
}

int takeInstanceLock() {
    const std::filesystem::path path = systemPath(paths::RUN_DIR) + "/" + ghAppName + ".lock";
    std::error_code ignored;  // the file can't be opened then
    std::filesystem::create_directories(path.parent_path(), ignored);
    g_instanceLock.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, PID_FILE_MODE));
    if (flock(g_instanceLock.get(), LOCK_EX | LOCK_NB) == 0)
        return 0;
    if (errno == EWOULDBLOCK)
        LOG_HERE(0, "Another %s is running here, or workers of one that was killed", ghAppName.c_str());
    else
        LOG_HERE(0, "failed to lock %s: %s.", path.c_str(), strerror(errno));
    return -1;
}

void releaseInstanceLock() {
    (void)flock(g_instanceLock.get(), LOCK_UN);  // workers that are on their way out hold the same lock
}
