// logger.h - the one log of a process.
//
// Threads: log_message, log_errno, log_raw and log_flush may be called from any thread (lines of the simple writer are
//          not locked). Each line is one write. Opening, closing and rotating by hand belong to start-up, before
//          threads. Not for signal handlers.
// Errors:  no failure of the log stops the program; what the log can't say goes to report_error.
// Levels:  0 failures, refusals, outcomes; 1 warnings of the foundation; 2 start-up facts; 3 a job step, pass or batch;
//          4 a request, query or function; 5 file detail; 6 dumps. A line is written if its level is at or below
//          log_level. Values of 100 and above select the simple writer (less 100), 200 silences the log.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <string_view>

extern int log_level;         // highest level written to the file; set at start and by readConfiguration
extern int log_screen_level;  // highest level copied to standard error, -1 none
extern int log_simple;  // non-zero: one file for all programs whose names agree before a '-', no lock, no rotation

inline constexpr int LOG_SILENT = 200;  // the log_level that silences the log

// Where logs lie; empty: under /tmp. Written by the start of a program, before threads.
extern std::string g_logdir;

// The log that is open; written by the functions below alone.
inline constexpr std::size_t LOG_FNAME_SIZE = 1024;
extern char log_fname[LOG_FNAME_SIZE];  // full path of the log being opened
extern std::string g_base_fname;        // full path of piece 0 of the present log
extern int g_logs_per_instance;         // pieces of one instance; 1 is rotation off
extern const char* const g_extns[2];    // extensions of logs, in the order in which they are looked for

// A line with the name and line of the source in front, as nearly all lines have it.
#define LOG_HERE(level, format, ...) log_message(level, "%s:%d: " format, __FILE__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

// Writes one line; a newline is added only if the format doesn't end in one. Returns the characters written, or 0.
[[gnu::format(printf, 2, 3)]] int log_message(int level, const char* format, ...);

// As log_message, with the number and text of errno behind the message.
[[gnu::format(printf, 2, 3)]] int log_errno(int level, const char* format, ...);

// Continues a line: neither time stamp nor level tag.
[[gnu::format(printf, 2, 3)]] int log_raw(int level, const char* format, ...);

// Copies a text file into the log. Returns 0, or -1 if it can't be opened (logged).
int log_include_file(int level, const char* path);

// Rotation parameters; with logsPerInstance below 2 or maxKB 0 the log is never rotated. Null texts keep the old ones.
void log_set_rotation(const char* program, int instance, unsigned maxKB, int logsPerInstance, const char* startTime);
void log_reset();

// What becomes of the lines that a log of this name has already.
enum class LogOpening {
    fresh,      // it and its pieces are removed
    append,     // they stay: the log of a parent
    carryOver,  // the pieces of the present log take the new name and are continued
};

// Opens a log by name: null is the fall-back log, a relative name lies under g_logdir. Returns 0 or -1.
int open_log(const char* name, LogOpening how = LogOpening::fresh);

// Closes the present log and opens a path. If it can't be opened, *path becomes "/dev/null" and the log goes there,
// result -1.
int OpenLog(std::string* path, LogOpening how = LogOpening::fresh);
void close_log();

// With a stream: flushes the present log and plants the stream, which is never rotated; close_log closes it unless it
// is standard error. With null: gives the present stream. Returns the previous stream, which stays open.
FILE* log_stream(FILE* stream);
void log_flush();

// Index of the extension (.log, .log.gz) under which `baseName` exists, -1 for none; fills `st` if given.
int LogfileExists(const char* baseName, struct stat* st);

// Moves the pieces of the present log to the names of `newName`, with `increment` each to the next higher number;
// those beyond g_logs_per_instance are removed. The stream is closed. Aborts if either name is not longer than ".log".
int RenameLogs(const char* newName, int increment);

// Removes a log and its pieces up to the first missing number. Returns how many, or -1.
int CleanupOldLogs(const char* logname);

// Rotates the present log. Returns 0, or -1 if the new piece can't be opened.
int GetNewLogFile();

// The path of a log under g_logdir, or under the fall-back directory while that is unset; absolute names stay.
std::string logPath(std::string_view name);

// A log name without its extension; nothing is cut from a name that has none of them.
std::string_view withoutLogExtension(std::string_view name);

// Resolves a log_level of 100 and above: less 100, and the simple writer. Returns whether it changed anything.
bool applyLevelEncoding();

// Where failures of the log itself go: the hook if one is set and g_shell_mode is 0, otherwise standard error.
extern void (*g_errmsg_proc)(const char* text);
extern int g_shell_mode;
[[gnu::format(printf, 1, 2)]] void report_error(const char* format, ...);
