// The writers: how a message becomes a line, and how a line reaches the file.
#include "log/logger.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "base/file_descriptor.h"
#include "base/paths.h"
#include "base/releaser.h"
#include "base/text.h"
#include "log/logger_internal.h"

int log_level = 0;
int log_screen_level = -1;
int log_simple = 0;
void (*g_errmsg_proc)(const char* text) = nullptr;
int g_shell_mode = 0;

namespace {

constexpr std::size_t REPORT_SIZE = 1024;
constexpr std::size_t SIMPLE_LINE_SIZE = 1024;
constexpr std::size_t INCLUDE_LINE_SIZE = 2048;

// Not local to a function: it must outlive the exit handlers, which log.
LogState theLog;
pthread_mutex_t logMutex = PTHREAD_MUTEX_INITIALIZER;

std::tm localNow() {
    const time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    return parts;
}

int presentLevel() {
    return std::atomic_ref<int>(log_level).load(std::memory_order_relaxed);
}

// The level alone decides, before anything is formatted.
bool isWanted(int level) {
    const int present = presentLevel();
    return present != LOG_SILENT && (level <= present || level <= log_screen_level);
}

bool endsInNewline(std::string_view text) {
    return !text.empty() && text.back() == '\n';
}

// Stamp and level tag; empty for the start banner, which stands at the beginning of its line.
class LineHead {
public:
    LineHead(int level, const char* format) {
        if (std::strstr(format, "Log level=") != nullptr)
            return;
        const std::tm now = localNow();
        length_ = std::strftime(text_, sizeof(text_), "%b %d %T", &now);
        const int added = formatText(text_ + length_, sizeof(text_) - length_, " : [LOG%d] ", level);
        length_ += static_cast<std::size_t>(added < 0 ? 0 : added);
    }
    [[nodiscard]] std::string_view text() const { return {text_, length_}; }

private:
    char text_[96];
    std::size_t length_ = 0;
};

// A line in the making. Nearly all lines fit the fixed space; longer ones go to the heap.
class Line {
public:
    Line(std::string_view head, const char* format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        head.copy(space_, head.size());
        length_ = head.size();
        const std::size_t room = sizeof(space_) - length_ - 1;  // one byte for a newline
        const int added = std::vsnprintf(space_ + length_, room, format, arguments);
        if (added < 0) {
            useHeap(head);
            heap_ += format;  // its arguments can't be converted; the text itself still tells where
        } else if (static_cast<std::size_t>(added) >= room) {
            useHeap(head);
            (void)vappendFormat(&heap_, format, again);  // was convertible a moment ago
        } else {
            length_ += static_cast<std::size_t>(added);
        }
        va_end(again);
        // The rule looks at the format: "%s" with a text that ends in a newline gives a blank line.
        if (!endsInNewline(format))
            addNewline();
    }

    [[nodiscard]] std::string_view whole() const {
        return isHeap_ ? std::string_view(heap_) : std::string_view(space_, length_);
    }

private:
    void useHeap(std::string_view head) {
        isHeap_ = true;
        heap_ = head;
    }
    void addNewline() {
        if (isHeap_)
            heap_ += '\n';
        else
            space_[length_++] = '\n';
    }

    std::size_t length_ = 0;
    bool isHeap_ = false;
    std::string heap_;
    char space_[2048];
};

// Writes text in one piece, so that another process on the same file can't come between.
void writeText(FILE* stream, std::string_view text) {
    (void)std::fwrite(text.data(), 1, text.size(), stream);
    // A full disk must not stop the lines after it; there is nowhere to report it for each line.
    if (std::fflush(stream) != 0)
        std::clearerr(stream);
}

[[gnu::format(printf, 1, 2)]] void writeLog(const char* format, ...) {
    FILE* const stream = logState().stream;
    if (stream == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    writeText(stream, vformatString(format, arguments));
    va_end(arguments);
}

// The length of the format stands for the line: a limit that is passed by one message doesn't matter, and the test
// needs no formatted text.
bool isLogFull(const char* format) {
    LogState& state = logState();
    if (state.stream == nullptr || state.stream != state.rotatedStream || g_logs_per_instance < 2 ||
        state.sizeLimit == -1)
        return false;
    const off_t position = ftello(state.stream);
    if (position == -1) {
        report_error("Error checking logfile size %s because: %s\n", g_base_fname.c_str(), std::strerror(errno));
        return false;
    }
    return position + static_cast<off_t>(std::strlen(format)) > state.sizeLimit;
}

void startNewPiece() {
    LogState& state = logState();
    writeLog("%s : Current log size = %ld; Moving log file...  \n", logStamp().c_str(),
             static_cast<long>(ftello(state.stream)));
    if (rotateLog() == -1) {
        writeLog("WARNING: Attempt to rotate logs failed, turning off log rotation!\n ");
        state.sizeLimit = -1;
        return;
    }
    writeLog("%s[%s, pid = %d]: started on %s (Log level=%d)\n", state.program.c_str(), FERRYD_VERSION, getpid(),
             state.startTime.c_str(), presentLevel());
    writeLog("Log size limit reached, starting new log file. For prior logs, check %s-%d*.log\n", state.program.c_str(),
             state.instance);
}

int writeFullLine(int level, const char* format, va_list arguments) {
    if (level <= log_screen_level) {
        va_list again;
        va_copy(again, arguments);
        writeText(stderr, Line({}, format, again).whole());
        va_end(again);
    }
    if (level > presentLevel())
        return 0;
    const LogLock lock;  // before the stamp is taken: lines stand in the order of their stamps
    const Line line(LineHead(level, format).text(), format, arguments);
    LogState& state = logState();
    if (state.stream == nullptr)
        (void)openLogByName(nullptr, LogOpening::fresh);
    if (isLogFull(format))
        startNewPiece();
    if (state.stream == nullptr)
        return 0;
    writeText(state.stream, line.whole());
    return static_cast<int>(line.whole().size());
}

// The simple writer: no lock, no blocked signals; one write of at most SIMPLE_LINE_SIZE bytes.
int writeSimpleLine(int level, const char* format, va_list arguments) {
    int present = presentLevel();
    if (present >= 100)
        present -= 100;
    if (level > present)
        return 0;
    LogState& state = logState();
    if (state.stream == nullptr)
        (void)openLogByName(nullptr, LogOpening::fresh);
    FILE* const stream = state.stream;
    if (stream == nullptr)
        return 0;
    const LineHead head(level, format);
    char line[SIMPLE_LINE_SIZE + 1];  // one byte more, for the NUL of the print and then for a newline
    const std::size_t headLength = head.text().copy(line, SIMPLE_LINE_SIZE);
    const int added = std::vsnprintf(line + headLength, sizeof(line) - headLength, format, arguments);
    const std::size_t fullLength = headLength + static_cast<std::size_t>(added < 0 ? 0 : added);
    const bool isCut = fullLength > SIMPLE_LINE_SIZE;
    std::size_t length = isCut ? SIMPLE_LINE_SIZE : fullLength;
    if (isCut)
        writeText(stream, formatString("Message below was truncated from %d to %d bytes\n",
                                       static_cast<int>(fullLength), static_cast<int>(SIMPLE_LINE_SIZE)));
    if (isCut || !endsInNewline(format))
        line[length++] = '\n';
    if (stream == stderr)
        (void)std::fwrite(line, 1, length, stream);
    else
        writeText(stream, std::string_view(line, length));
    return static_cast<int>(length);
}

}  // namespace

LogState& logState() {
    return theLog;
}

LogLock::LogLock() {
    sigset_t all;
    sigfillset(&all);
    isMasked_ = pthread_sigmask(SIG_SETMASK, &all, &previous_) == 0;
    if (!isMasked_)
        report_error("can't block signals");
    const int error = pthread_mutex_lock(&logMutex);
    isLocked_ = error == 0;
    if (!isLocked_)
        report_error("Error getting mutex lock:%d\n", error);
}

LogLock::~LogLock() {
    if (isLocked_) {
        const int error = pthread_mutex_unlock(&logMutex);
        if (error != 0)
            report_error("Error releasing mutex lock:%d\n", error);
    }
    if (isMasked_ && pthread_sigmask(SIG_SETMASK, &previous_, nullptr) != 0)
        report_error("sigprocmask(SIG_SETMASK,,)\n");
}

bool applyLevelEncoding() {
    std::atomic_ref<int> level(log_level);
    int present = level.load(std::memory_order_relaxed);
    // Of two threads that meet the value, one subtracts.
    while (present > 99 && present != LOG_SILENT) {
        if (level.compare_exchange_weak(present, present - 100)) {
            std::atomic_ref<int>(log_simple).store(1);
            return true;
        }
    }
    return false;
}

std::string logStamp() {
    const std::tm now = localNow();
    char text[64];
    return std::string(text, std::strftime(text, sizeof(text), "%b %d %T", &now));
}

int log_message(int level, const char* format, ...) {
    if (!isWanted(level))
        return 0;
    va_list arguments;
    va_start(arguments, format);
    const int savedErrno = errno;
    const bool isSimple = applyLevelEncoding() || std::atomic_ref<int>(log_simple).load() != 0;
    const int written = isSimple ? writeSimpleLine(level, format, arguments) : writeFullLine(level, format, arguments);
    errno = savedErrno;
    va_end(arguments);
    return written;
}

int log_errno(int level, const char* format, ...) {
    const int number = errno;
    if (!isWanted(level))
        return 0;
    char text[REPORT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    // A longer message is cut: the reason behind it matters more than its end.
    const int length = std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::string_view message(text, length < 0 ? 0 : std::strlen(text));
    if (endsInNewline(message))
        message.remove_suffix(1);
    return log_message(level, "%.*s because...(%ld) %s \n", static_cast<int>(message.size()), message.data(),
                       static_cast<long>(number), std::strerror(number));
}

int log_raw(int level, const char* format, ...) {
    if (!isWanted(level))
        return 0;
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    int written = 0;
    if (applyLevelEncoding() || std::atomic_ref<int>(log_simple).load() != 0) {
        written = writeSimpleLine(level, format, arguments);
    } else {
        const std::string text = vformatString(format, arguments);
        if (level <= presentLevel()) {
            const LogLock lock;
            if (logState().stream == nullptr)
                (void)openLogByName(nullptr, LogOpening::fresh);
            if (logState().stream != nullptr) {
                writeText(logState().stream, text);
                written = static_cast<int>(text.size());
            }
        }
        if (level <= log_screen_level)
            writeText(stderr, text);
    }
    va_end(arguments);
    errno = savedErrno;
    return written;
}

int log_include_file(int level, const char* path) {
    const std::unique_ptr<FILE, Releaser<&std::fclose>> file(std::fopen(path, "re"));
    if (!file) {
        log_message(0, "logger: Cannot include contents of %s (open failed - %s)\n", path, std::strerror(errno));
        return -1;
    }
    if (!isWanted(level))
        return 0;
    char line[INCLUDE_LINE_SIZE];
    while (std::fgets(line, sizeof(line), file.get()) != nullptr) {
        line[std::strcspn(line, "\n")] = '\0';
        log_message(level, "%s\n", line);
    }
    return 0;
}

FILE* log_stream(FILE* stream) {
    const LogLock lock;
    LogState& state = logState();
    if (stream == nullptr) {
        if (state.stream == nullptr && presentLevel() == LOG_SILENT)
            state.stream = std::fopen("/dev/null", "we");
        return state.stream;
    }
    FILE* const previous = state.stream;
    if (previous != nullptr)
        (void)std::fflush(previous);  // best effort: each line was flushed when it was written
    state.stream = stream;
    return previous;
}

void log_flush() {
    const LogLock lock;
    if (logState().stream != nullptr)
        (void)std::fflush(logState().stream);  // as above
}

void report_error(const char* format, ...) {
    char text[REPORT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    if (std::vsnprintf(text, sizeof(text), format, arguments) < 0)
        text[0] = '\0';
    va_end(arguments);
    if (g_errmsg_proc != nullptr && g_shell_mode == 0)
        g_errmsg_proc(text);
    else
        (void)std::fputs(text, stderr);  // the last resort
}
