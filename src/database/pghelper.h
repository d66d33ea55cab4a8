// pghelper.h - the one door to PostgreSQL (progress records and hash tables have connections of their own).
//
// A process-wide cache of connections, the current one chosen by pgOpen; a query connects on demand and reconnects when
// the connection went bad outside a transaction. Signals are masked around each call into libpq.
// Threads: one thread at a time (the callers' order: a worker's main thread, or the read thread under its lock).
// Errors:  a null result or -1, logged; nothing throws. All accessors accept null.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "base/releaser.h"
#include "base/text.h"
#include "log/logger.h"

struct pgResult;  // rows and status of one statement

int pgClear(pgResult* result);
using PgResultPtr = std::unique_ptr<pgResult, Releaser<&pgClear>>;

// A statement in a buffer of N bytes, the NUL included. A text that is empty or doesn't fit is refused.
template <std::size_t N>
class Statement {
public:
    // Returns 0, or -1 if the statement must not be run; says so on the log.
    [[nodiscard, gnu::format(printf, 2, 3)]] int build(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        const int length = vformatText(text_, N, format, arguments);
        va_end(arguments);
        if (length == -1) {
            LOG_HERE(0, "Query too long for buffer");
            return -1;
        }
        return 0;
    }
    [[nodiscard]] const char* text() const { return text_; }

private:
    char text_[N] = {};
};

// Selects (and opens) the connection to a service; null means the last one, at first "localhost". 0 or -1.
[[nodiscard]] int pgOpen(const char* service, int prepared);
void pgClose();
// Closes every connection. Called before each fork.
void pgCloseAll();

// Runs text as it stands; pgVExec formats it first.
[[nodiscard]] PgResultPtr pgExec(const char* statement);
[[nodiscard, gnu::format(printf, 1, 2)]] PgResultPtr pgVExec(const char* format, ...);

// Runs a prepared statement. The codes of the format are bound parameters, not text: %s %c %hd %hu %d %u %ld %lu %f %lf
// %lld %llu, each after an 'n' (%ns, %nd, ...) nullable with an int flag before the value; %z takes an argument and
// sends nothing. "= %n..." and "!= %n..." become IS NULL tests when the flag is set.
[[nodiscard]] PgResultPtr pgQuery(const char* format, ...);

[[nodiscard]] int pgStatus(const pgResult* result);  // 0 success, -1 otherwise
[[nodiscard]] int pgTuples(const pgResult* result);
[[nodiscard]] int pgAffected(const pgResult* result);

// Fields by column name. NULL reads as null text, 0 or false.
[[nodiscard]] const char* pgSVal(const pgResult* result, int row, const char* column);  // owned by the result
[[nodiscard]] std::string pgSDup(const pgResult* result, int row, const char* column);
[[nodiscard]] bool pgBVal(const pgResult* result, int row, const char* column);
[[nodiscard]] double pgDVal(const pgResult* result, int row, const char* column);
[[nodiscard]] unsigned long pgUVal(const pgResult* result, int row, const char* column);
[[nodiscard]] long long pgLLVal(const pgResult* result, int row, const char* column);
[[nodiscard]] long pgIVal(const pgResult* result, int row, const char* column);
[[nodiscard]] bool pgIsNull(const pgResult* result, int row, const char* column);

// Transactions nest by savepoints; a savepoint id names the depth to pop to, 0 the present one.
[[nodiscard]] int pgBegin();
[[nodiscard]] int pgCommit();
[[nodiscard]] int pgRollback();
[[nodiscard]] int pgPushTransaction(int* savepointId);
[[nodiscard]] int pgPopTransaction(bool commit, int savepointId);

// Text made safe between single quotes.
[[nodiscard]] int pgAEscape(std::string* escaped, std::string_view text);
[[nodiscard]] int pgEscape(char* destination, std::size_t size, std::string_view text);

[[nodiscard]] int pgCopy(const char* table, const char* delimiter, std::string_view text);

// The path of callers that must stay responsive.
[[nodiscard]] PgResultPtr sendTextQuery(const char* statement);
// Waits up to `timeoutMs`. 1: done (the result is filled), 0: still running.
[[nodiscard]] int pgAsyncWait(pgResult* result, int timeoutMs);
[[nodiscard]] int pgAsyncCancel();

[[nodiscard]] int pgServerVersion();  // major * 65536 + minor * 256 + patch, 0 if unknown

// Whether a column exists in schema dq: 1, 0, or -1. Cached per connection.
[[nodiscard]] int columnExists(const char* table, const char* column);
