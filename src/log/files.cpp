// The files of the log: names, opening and closing, rotation, clean-up. All of it runs under LogLock and says its
// troubles through report_error; only the public wrappers at the end take the lock.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/file_descriptor.h"
#include "base/paths.h"
#include "base/text.h"
#include "log/logger_internal.h"

std::string g_logdir;
char log_fname[LOG_FNAME_SIZE] = "";
std::string g_base_fname;
int g_logs_per_instance = 1;
const char* const g_extns[2] = {".log", ".log.gz"};

namespace {

constexpr mode_t LOG_MODE = 0664;
constexpr std::size_t LEVEL_OFFSET = 11;  // LOG_LEVEL holds a word of this length before the number

// Wrong use of the log's own functions would rename or remove files that are no logs.
void assertLogName(const char* name, const char* function) {
    if (name != nullptr && std::strlen(name) > std::strlen(g_extns[0]))
        return;
    report_error("%s(): bad log name\n", function);
    std::abort();
}

std::string pieceName(std::string_view base, int piece) {
    return piece == 0 ? std::string(base) : formatString("%.*s_%d", static_cast<int>(base.size()), base.data(), piece);
}

FILE* openNull() {
    return std::fopen("/dev/null", "we");
}

// Opens for appending, with the mode set whatever the umask. Only a regular file gets the mode: the log may have been
// pointed at a device. No link is followed where any user may put one: in the place of the fall-back log.
FILE* openForAppend(const char* path) {
    const int noLink = systemPath(paths::FALLBACK_LOG) == path ? O_NOFOLLOW : 0;
    FileDescriptor file(open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | noLink, LOG_MODE));
    if (!file.isOpen())
        return nullptr;
    struct stat info = {};
    if (fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & 07777) != LOG_MODE)
        (void)fchmod(file.get(), LOG_MODE);  // refused for another user's file; it can be written all the same
    FILE* const stream = fdopen(file.get(), "a+");
    if (stream != nullptr) {
        (void)file.release();
        (void)std::setvbuf(stream, nullptr, _IONBF, 0);  // so that a line of any length is one write
        (void)fseeko(stream, 0, SEEK_END);  // so that the size test counts what was there; no matter for a device
    }
    return stream;
}

void removeIfRegular(const std::string& path) {
    struct stat info = {};
    if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && unlink(path.c_str()) == -1)
        report_error("Unlinking %s failed because %s \n", path.c_str(), std::strerror(errno));
}

// LOG_LEVEL=<eleven characters><number> sets the level of a child.
void takeLevelFromEnvironment() {
    const char* const value = std::getenv("LOG_LEVEL");
    if (value != nullptr && std::strlen(value) > LEVEL_OFFSET)
        log_level = static_cast<int>(std::strtol(value + LEVEL_OFFSET, nullptr, 10));
}

int openFullLog(const char* name, LogOpening how) {
    takeLevelFromEnvironment();
    std::string path = logPath(name);
    if (path.size() >= LOG_FNAME_SIZE)
        path.resize(LOG_FNAME_SIZE - 1);
    path.copy(log_fname, path.size());
    log_fname[path.size()] = '\0';
    if (how == LogOpening::carryOver && g_base_fname.empty())
        how = LogOpening::fresh;
    // A process that takes its present name anew must not remove the pieces that it is about to carry over.
    if (how == LogOpening::fresh || (how == LogOpening::carryOver && path != g_base_fname))
        (void)removePieces(log_fname);  // what stays behind was reported
    if (how == LogOpening::carryOver)
        (void)renamePieces(log_fname, 0);  // as above
    else
        logState().pieces = 0;
    const int result = openLogByPath(&path, how);
    g_base_fname = path;
    return result;
}

// All instances of a program share one file in simple mode: what follows the last '-' of the name is cut off.
int openSimpleLog(const char* name) {
    std::string path = logPath(name);
    const std::size_t slash = path.rfind('/');
    const std::size_t dash = path.rfind('-');
    if (dash != std::string::npos && (slash == std::string::npos || dash > slash))
        path.replace(dash, std::string::npos, g_extns[0]);
    FILE* const stream = openForAppend(path.c_str());
    if (stream == nullptr) {
        (void)std::fprintf(stderr, "Error opening logfile %s because: %s\n", path.c_str(), std::strerror(errno));
        return -1;
    }
    closeLog();
    logState().stream = stream;
    g_base_fname = path;
    return 0;
}

int findLog(const std::string& baseName, struct stat* info) {
    for (int i = 0; i < 2; i++) {
        const std::string path = baseName + g_extns[i];
        if (access(path.c_str(), F_OK) == 0) {
            if (info != nullptr && stat(path.c_str(), info) == -1)
                *info = {};
            return i;
        }
    }
    return -1;
}

}  // namespace

std::string logPath(std::string_view name) {
    if (name.starts_with('/'))
        return std::string(name);
    std::string path = g_logdir.empty() ? systemPath(paths::FALLBACK_LOG_DIR) : g_logdir;
    if (!path.ends_with('/'))
        path += '/';
    return path.append(name);
}

std::string_view withoutLogExtension(std::string_view name) {
    for (const char* extension : g_extns)
        if (name.ends_with(extension))
            return name.substr(0, name.size() - std::strlen(extension));
    return name;
}

int openLogByName(const char* name, LogOpening how) {
    LogState& state = logState();
    if (log_level == LOG_SILENT) {
        closeLog();
        state.stream = openNull();
        return 0;
    }
    const std::string fallback = systemPath(paths::FALLBACK_LOG);
    const char* const wanted = name == nullptr ? fallback.c_str() : name;
    // A server's log is never simple: its instances would overwrite one another.
    if (applyLevelEncoding() && std::strstr(wanted, "dqserver") != nullptr)
        log_simple = 0;
    return log_simple != 0 ? openSimpleLog(wanted) : openFullLog(wanted, how);
}

int openLogByPath(std::string* path, LogOpening how) {
    LogState& state = logState();
    closeLog();
    if (log_level == LOG_SILENT) {
        state.stream = openNull();
        return 0;
    }
    if (how == LogOpening::fresh)
        removeIfRegular(*path);
    int result = 0;
    state.stream = openForAppend(path->c_str());
    state.rotatedStream = state.stream;
    if (state.stream == nullptr) {
        report_error("Fatal error opening logfile %s because: %s\n", path->c_str(), std::strerror(errno));
        *path = "/dev/null";
        state.stream = openNull();
        if (state.stream == nullptr)
            _exit(1);  // not exit: its handlers would log
        result = -1;
    }
    (void)applyLevelEncoding();  // the value is resolved either way
    return result;
}

void closeLog() {
    LogState& state = logState();
    if (state.stream != nullptr && state.stream != stderr) {
        if (log_level != LOG_SILENT)
            (void)std::fprintf(state.stream, "%s : pid=%d %d : Log Closed\n", logStamp().c_str(), getpid(), getppid());
        (void)std::fclose(state.stream);  // each line was flushed
    }
    state.stream = nullptr;
    state.rotatedStream = nullptr;
}

int rotateLog() {
    LogState& state = logState();
    if (g_logs_per_instance <= 1) {
        report_error("GetNewLogFile(): rotation is off\n");
        std::abort();
    }
    if (renamePieces(g_base_fname.c_str(), 1) == -1)
        return -1;
    if (state.pieces < g_logs_per_instance - 1)
        state.pieces++;
    else
        state.pieces = g_logs_per_instance - 1;  // pieces beyond were removed just now
    return openLogByPath(&g_base_fname, LogOpening::fresh);
}

int renamePieces(const char* newName, int increment) {
    assertLogName(newName, "RenameLogs");
    assertLogName(g_base_fname.c_str(), "RenameLogs");
    LogState& state = logState();
    const std::string newBase(withoutLogExtension(newName));
    const std::string oldBase(withoutLogExtension(g_base_fname));
    if (state.stream != nullptr && state.stream != stderr)
        (void)std::fclose(state.stream);  // each line was flushed
    state.stream = nullptr;
    state.rotatedStream = nullptr;
    // From the highest down, so that no piece is renamed onto one that is still to move.
    for (int piece = state.pieces; piece >= 0; piece--) {
        std::string from = pieceName(oldBase, piece);
        const int extension = findLog(from, nullptr);
        if (extension == -1)
            continue;
        from += g_extns[extension];
        const int target = piece + (increment != 0 ? 1 : 0);
        if (target < g_logs_per_instance) {
            const std::string to = pieceName(newBase, target) + g_extns[extension];
            if (rename(from.c_str(), to.c_str()) == -1)
                report_error("Renaming file %s to %s failed because: %s\n", from.c_str(), to.c_str(),
                             std::strerror(errno));
        } else if (unlink(from.c_str()) == -1) {
            report_error("Unlinking %s failed because %s \n", from.c_str(), std::strerror(errno));
        }
    }
    return 0;
}

int removePieces(const char* logname) {
    assertLogName(logname, "CleanupOldLogs");
    const std::string base(withoutLogExtension(logname));
    if (base == logname)
        return 0;  // a log by another name has no pieces that could be told from other files
    int count = 0;
    for (int piece = 0;; piece++) {
        std::string path = pieceName(base, piece);
        const int extension = findLog(path, nullptr);
        if (extension == -1)
            return count;
        path += g_extns[extension];
        if (unlink(path.c_str()) == -1) {
            report_error("CleanupOldLogs(): Could not unlink %s because %s \n", path.c_str(), std::strerror(errno));
            return -1;
        }
        count++;
    }
}

int open_log(const char* name, LogOpening how) {
    const LogLock lock;
    return openLogByName(name, how);
}

int OpenLog(std::string* path, LogOpening how) {
    int result = -1;
    {
        const LogLock lock;
        result = openLogByPath(path, how);
    }
    if (log_simple != 0)
        log_message(2, "OpenLog(%s) status = %d", path->c_str(), result);
    return result;
}

void close_log() {
    const LogLock lock;
    closeLog();
}

int GetNewLogFile() {
    const LogLock lock;
    return rotateLog();
}

int RenameLogs(const char* newName, int increment) {
    const LogLock lock;
    return renamePieces(newName, increment);
}

int CleanupOldLogs(const char* logname) {
    const LogLock lock;
    return removePieces(logname);
}

int LogfileExists(const char* baseName, struct stat* st) {
    return findLog(baseName, st);
}

void log_set_rotation(const char* program, int instance, unsigned maxKB, int logsPerInstance, const char* startTime) {
    const LogLock lock;
    LogState& state = logState();
    const bool isRotating = logsPerInstance > 1 && maxKB > 0;
    g_logs_per_instance = isRotating ? logsPerInstance : 1;
    state.sizeLimit = isRotating ? static_cast<long>(maxKB) << 10 : -1;
    state.instance = instance;
    if (program != nullptr)
        state.program = program;
    if (startTime != nullptr)
        state.startTime = startTime;
}

void log_reset() {
    const LogLock lock;
    logState().program.clear();
    logState().startTime.clear();
    g_base_fname.clear();
}
