// progress.cpp - progress records over their own connection.
#include "bookkeeping/progress.h"

#include <libpq-fe.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "base/job_gate.h"
#include "bookkeeping/common.h"
#include "database/pghelper.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* UPDATE = "updateProgress";  // for the log lines of helpers
constexpr const char* CLOSE = "closeProgress";
constexpr const char* CONNINFO =
    "service=localhost dbname=dqdb options='-c search_path=dq,public -c "
    "client_encoding=LATIN1'";
constexpr std::int64_t MEGABYTE = 0x100000;
constexpr int UPDATE_SECONDS = 5;
constexpr int STALE_SECONDS = 3600;
constexpr milliseconds MUTEX_PATIENCE = std::chrono::seconds(2);
constexpr std::size_t STATEMENT_SIZE = 4096;

using RowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

// A connection that is made when it is first needed, and made anew after it was lost. One thread at a time.
class Connection {
public:
    // Runs a statement for `caller`, the function on the log. The rows changed, or -1 with the reason in *error.
    int run(const char* caller, const char* statement, std::string* error) {
        if (!connection_ && connect(caller) == -1) {
            *error = "no connection";
            return -1;
        }
        wasMade_ = true;
        const RowsPtr rows(PQexec(connection_.get(), statement));
        if (PQresultStatus(rows.get()) == PGRES_COMMAND_OK)
            return std::atoi(PQcmdTuples(rows.get()));
        *error = PQerrorMessage(connection_.get());
        if (PQstatus(connection_.get()) == CONNECTION_BAD)
            connection_.reset();
        return -1;
    }

    // For what there is no later chance to do: over a new connection, if this one turns out to be lost.
    int runNow(const char* caller, const char* statement, std::string* error) {
        const int rows = run(caller, statement, error);
        return rows == -1 && !connection_ ? run(caller, statement, error) : rows;
    }
    [[nodiscard]] bool wasMade() const { return wasMade_; }

private:
    int connect(const char* caller) {
        connection_.reset(PQconnectdb(CONNINFO));
        if (!connection_) {
            LOG_HERE(0, "%s: can't connect to database\n%s: Won't be providing progress information\n", caller, caller);
            return -1;
        }
        if (PQstatus(connection_.get()) != CONNECTION_OK) {
            LOG_HERE(0, "%s: can't connect to database: %s\n%s: Won't be providing progress information\n", caller,
                     PQerrorMessage(connection_.get()), caller);
            connection_.reset();
            return -1;
        }
        PQsetNoticeProcessor(
            connection_.get(), [](void*, const char* text) { LOG_HERE(3, "From libpq: %s", text); }, nullptr);
        return 0;
    }

    std::unique_ptr<PGconn, Releaser<&PQfinish>> connection_;
    bool wasMade_ = false;
};

std::timed_mutex progressMutex;
Connection progressConnection;  // under progressMutex

int currentTime(time_t* now) {
    timeval value{};
    if (gettimeofday(&value, nullptr) == -1)
        return -1;
    *now = value.tv_sec;
    return 0;
}

// With the connection of this process, whose user waits while the job is being stopped.
template <typename Use>
int withConnection(Use use) {
    for (;;) {
        passJobGate();
        const std::lock_guard lock(progressMutex);
        if (!jobGateIsClosed())
            return use(progressConnection);
    }
}

// Runs one statement of updateProgress. `verb` names it on the log. The rows changed, or -1.
[[gnu::format(printf, 4, 5)]] int changeRow(Connection& connection, const OperationProgress& record, const char* verb,
                                            const char* format, ...) {
    char statement[STATEMENT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const int length = vformatText(statement, sizeof statement, format, arguments);
    va_end(arguments);
    if (length == -1) {
        LOG_HERE(0,
                 "%s[%s,%d]: SQL statement too long to %s progress record\n%s: Won't be providing progress "
                 "information\n",
                 UPDATE, record.operation.c_str(), record.pid, verb, UPDATE);
        return -1;
    }
    std::string error;
    const int rows = connection.run(UPDATE, statement, &error);
    if (rows == -1)
        LOG_HERE(0, "%s: can't %s progress record: %s\n%s: Won't be providing progress information\n", UPDATE, verb,
                 error.c_str(), UPDATE);
    return rows;
}

int updateRow(Connection& connection, const OperationProgress& record) {
    return changeRow(
        connection, record, "UPDATE",
        "UPDATE dq.operation_progress SET current_size = %ld, snapshot_time = %ld WHERE ( start_time = %ld "
        "AND final_size = %lu AND backup_no = %ld AND backup_type = '%s' AND on_behalf_of = '%s' AND source "
        "= '%s' AND destination = '%s' AND name_id = (SELECT name_id FROM dq.operation_names  WHERE "
        "name_value = '%s') )",
        static_cast<long>(record.current_size / MEGABYTE), static_cast<long>(record.snapshot_time),
        static_cast<long>(record.start_time), static_cast<unsigned long>(record.final_size / MEGABYTE),
        static_cast<long>(record.backup_no), record.backup_type.c_str(), record.on_behalf_of.c_str(),
        record.source.c_str(), record.destination.c_str(), record.operation.c_str());
}

int insertRow(Connection& connection, const OperationProgress& record) {
    return changeRow(
        connection, record, "INSERT",
        "INSERT INTO dq.operation_progress ( name_id, start_time, snapshot_time, final_size, current_size, "
        "pid_to_kill, on_behalf_of, source, destination, backup_no, backup_type ) VALUES ( (SELECT name_id "
        "FROM dq.operation_names  WHERE name_value = '%s'), %ld, %ld, %ld, %ld, %d, '%s', '%s', '%s', %ld, "
        "'%s' )",
        record.operation.c_str(), static_cast<long>(record.start_time), static_cast<long>(record.snapshot_time),
        static_cast<long>(record.final_size / MEGABYTE), static_cast<long>(record.current_size / MEGABYTE), record.pid,
        record.on_behalf_of.c_str(), record.source.c_str(), record.destination.c_str(),
        static_cast<long>(record.backup_no), record.backup_type.c_str());
}

int writeRow(Connection& connection, const OperationProgress& record) {
    int rows = updateRow(connection, record);
    if (rows == 0) {
        LOG_HERE(4, "UPDATE table did not work, try INSERT");
        rows = insertRow(connection, record);
    }
    return rows == -1 ? -1 : 0;
}

// A row that stays is shown for an hour.
int deleteRow(Connection& connection, const OperationProgress& record) {
    time_t now = 0;
    if (currentTime(&now) == -1)
        return -1;
    char statement[STATEMENT_SIZE];
    if (formatText(statement, sizeof statement,
                   "DELETE FROM dq.operation_progress WHERE (( backup_no = %ld AND backup_type = '%s' AND on_behalf_of "
                   "= '%s' AND source = '%s' AND destination = '%s' AND name_id = (SELECT name_id FROM "
                   "dq.operation_names WHERE name_value = '%s') ) OR ( snapshot_time < %ld ))",
                   static_cast<long>(record.backup_no), record.backup_type.c_str(), record.on_behalf_of.c_str(),
                   record.source.c_str(), record.destination.c_str(), record.operation.c_str(),
                   static_cast<long>(now - STALE_SECONDS)) == -1) {
        LOG_HERE(0, "%s[%s,%d]: SQL statement too long to DELETE progress record\n", CLOSE, record.operation.c_str(),
                 record.pid);
        return -1;
    }
    std::string error;
    const int rows = connection.runNow(CLOSE, statement, &error);
    if (rows == -1)
        LOG_HERE(0, "can't DELETE progress record: %s\n", error.c_str());
    return rows == -1 ? -1 : 0;
}

// Whether enough was done since the last write.
bool sizeIsDue(const OperationProgress& record) {
    return record.current_size <= 0 || record.current_size >= record.next_size ||
           record.next_size - record.current_size >= MEGABYTE;
}

int clientName(std::uint64_t backupNo, std::string* name) {
    Statement<STATEMENT_SIZE> statement;
    if (statement.build(
            "SELECT CASE WHEN (properties & %d)=0 THEN node_name ELSE gcname END AS client_name FROM dq.nodes WHERE "
            "node_no=(SELECT node_no FROM dq.backups WHERE backup_no=%ld)",
            P_IMPORTED, static_cast<long>(backupNo)) == -1)
        return -1;
    const PgResultPtr result = pgExec(statement.text());
    if (pgTuples(result.get()) == 0) {
        LOG_HERE(0, "Error: failed database query:%s", statement.text());
        return -1;
    }
    *name = pgSDup(result.get(), 0, "client_name");
    return 0;
}

}  // namespace

int fillProgress(const std::string& target, const std::string& hostName, const std::string& operation,
                 const std::string& typeText, std::uint64_t backupNo, OperationProgress* record) {
    OperationProgress opened;
    if (clientName(backupNo, &opened.on_behalf_of) == -1)
        return -1;
    if (currentTime(&opened.start_time) == -1) {
        LOG_HERE(0, "gettimeofday failed");
        return -1;
    }
    opened.snapshot_time = opened.start_time;
    opened.operation = operation;
    opened.final_size = getBackupMegs(backupNo) * MEGABYTE;
    opened.source = hostName;
    opened.destination = target;
    opened.backup_no = backupNo;
    opened.backup_type = typeText;
    opened.pid = getpid();
    *record = std::move(opened);
    return 0;
}

int openProgress(const std::string& target, const std::string& hostName, const std::string& operation,
                 const std::string& typeText, std::uint64_t backupNo, OperationProgress* record) {
    return fillProgress(target, hostName, operation, typeText, backupNo, record) == -1 ? -1 : updateProgress(record);
}

int updateProgress(OperationProgress* record) {
    if (!record->isOpen())
        return 0;  // its client wasn't found: there is no row that could be meant
    time_t now = 0;
    if (currentTime(&now) == -1)
        return -1;
    if (now < record->next_update) {
        LOG_HERE(6, "not enough time since last update, returning");
        return 0;
    }
    if (!sizeIsDue(*record)) {
        LOG_HERE(6, "Size not 1 percent or more since last update");
        return 0;
    }
    record->snapshot_time = now;
    if (withConnection([record](Connection& connection) { return writeRow(connection, *record); }) == -1)
        return -1;
    record->next_update = now + UPDATE_SECONDS;
    if (record->final_size > 100)
        record->next_size = record->current_size + record->final_size / 100;
    else if (record->current_size > 100)
        record->next_size = record->current_size + record->current_size / 100;
    return 0;
}

int closeProgress(const OperationProgress& record) {
    return withConnection([&record](Connection& connection) {
        if (connection.wasMade())
            return deleteRow(connection, record);
        LOG_HERE(0, "can't DELETE progress record: %s\n", "no connection");
        return -1;
    });
}

int closeProgressAtExit(std::span<const OperationProgress> records, milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    const std::unique_lock lock(progressMutex, std::min(MUTEX_PATIENCE, limit / 2));
    Connection fresh;
    Connection& connection = lock.owns_lock() ? progressConnection : fresh;
    int result = 0;
    for (const OperationProgress& record : records) {
        if (!record.isOpen())
            continue;
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now()).count();
        std::string error;
        // The server ends a statement that waits for a lock; 0 would mean no limit.
        if (left <= 0 ||
            connection.runNow(CLOSE, formatString("SET statement_timeout = %ld", left).c_str(), &error) == -1 ||
            deleteRow(connection, record) == -1)
            result = -1;
    }
    return result;
}
