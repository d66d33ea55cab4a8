// logger_internal.h - what the sources of the log share.
//
// Threads: everything here belongs to the holder of LogLock. The log mutex is not recursive: code that runs under it
//          must not log, only report_error, and must call the functions of this header, never those of logger.h.
#pragma once

#include <pthread.h>

#include <csignal>
#include <ctime>
#include <string>
#include <string_view>

#include "log/logger.h"

struct LogState {
    FILE* stream = nullptr;
    FILE* rotatedStream = nullptr;  // the stream that was opened by path; the only one that rotates
    long sizeLimit = -1;            // bytes of a piece, -1 rotation off
    int pieces = 0;                 // highest piece number that can exist for g_base_fname
    std::string program;
    std::string startTime;
    int instance = 0;
};

LogState& logState();

// Holds the log mutex with all signals of the thread blocked, so that a handler that logs can't meet its own lock.
// A failure is reported and the caller goes on: a line without a lock is better than none.
class LogLock {
public:
    LogLock();
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
    ~LogLock();

private:
    sigset_t previous_;
    bool isMasked_;
    bool isLocked_;
};

// Local time, as the lines have it.
std::string logStamp();

// The texts of the open functions, without lock and without a log line.
int openLogByName(const char* name, LogOpening how);
int openLogByPath(std::string* path, LogOpening how);
void closeLog();
int rotateLog();
int renamePieces(const char* newName, int increment);
int removePieces(const char* logname);
