// pghelper_internal.h - what the sources of the database helper share: connections, statements, signal masking.
#pragma once

#include <libpq-fe.h>
#include <sys/types.h>

#include <array>
#include <csignal>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "database/pghelper.h"

namespace pghelper {

using ConnectionPtr = std::unique_ptr<PGconn, Releaser<&PQfinish>>;
using RowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

// What a code of a query format stands for. A nullable code records NULL_FLAG ahead of its own number.
enum TypeCode : unsigned char {
    TYPE_TEXT = 0,
    TYPE_CHAR = 1,
    TYPE_SHORT = 3,
    TYPE_USHORT = 4,
    TYPE_INT = 5,
    TYPE_UINT = 6,
    TYPE_LONG = 7,
    TYPE_ULONG = 8,
    TYPE_FLOAT = 10,
    TYPE_DOUBLE = 11,
    TYPE_LONGLONG = 12,
    TYPE_ULONGLONG = 13,
    NULL_FLAG = 14,
    TYPE_IGNORED = 15,  // consumed and sent nowhere
};

// A statement prepared on one connection; its name there is its index in decimal.
struct QueryRecord {
    std::string format;     // the key: the format after the NULL comparisons were rewritten
    std::string statement;  // with $1, $2, ...
    std::vector<TypeCode> typeCodes;
    int parameterCount = 0;
};

struct ColumnAnswer {
    std::string table;
    std::string column;
    int exists;
};

inline constexpr int RESOURCE_SLOTS = 30;
inline constexpr std::size_t COLUMN_CACHE_SIZE = 16;

// One connection and all that dies with it.
struct pgResource {
    std::string host;                  // service name
    time_t lastUsed = 0;               // when it was connected or chosen
    ConnectionPtr conn;                // null when closed
    std::vector<QueryRecord> queries;  // the prepared statements
    time_t lastChecked = 0;            // when it was last proved alive
    bool preparedEnabled = false;
    int savepointCount = 0;  // nesting depth of transactions, 0 outside any
    int serverVersion = 0;   // 0 unknown
    pid_t ownerPid = 0;      // the process that opened the connection
    std::vector<ColumnAnswer> columnExistsCache;
};

extern std::array<std::unique_ptr<pgResource>, RESOURCE_SLOTS> pgResourceArray;
extern pgResource* pgResourcePtr;  // the current one, in some slot of the array; null for none

// Blocks the signals that the program handles while libpq works, so that a handler never runs in the middle of a call.
// Nests: the outermost scope of a thread blocks and restores.
class SignalMask {
public:
    SignalMask();
    SignalMask(const SignalMask&) = delete;
    SignalMask& operator=(const SignalMask&) = delete;
    ~SignalMask();
};

// Whether the current connection can be used. Costs a round trip when the last proof is older than two minutes.
[[nodiscard]] bool connectionGood();

// The test at the head of each query: reconnects a bad connection, unless a transaction was lost with it. 0 or -1.
[[nodiscard]] int ensureConnected();

[[nodiscard]] int savepointDepth();
void setSavepointDepth(int depth);

[[nodiscard]] PgResultPtr executeTextQuery(const char* statement);
[[nodiscard]] PgResultPtr makeResult(RowsPtr rows, std::string query);

}  // namespace pghelper

// Rows of one statement. Columns are looked up by name; the names seen so far are kept, so that a loop over rows does
// not ask libpq again.
struct pgResult {
    pghelper::RowsPtr rows;  // null while an asynchronous statement runs
    std::vector<std::string> columnNames;
    std::string query;
};
