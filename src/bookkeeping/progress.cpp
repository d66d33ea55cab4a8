// progress.cpp - progress records over their own connection.
#include "bookkeeping/progress.h"

#include <libpq-fe.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <mutex>

#include "bookkeeping/common.h"
#include "database/pghelper.h"

namespace {

constexpr const char* CONNINFO =
    "service=localhost dbname=dqdb options='-c search_path=dq,public -c "
    "client_encoding=LATIN1'";
constexpr std::int64_t MEGABYTE = 0x100000;
constexpr int UPDATE_SECONDS = 5;
constexpr int STALE_SECONDS = 3600;

using ConnectionPtr = std::unique_ptr<PGconn, Releaser<&PQfinish>>;
using RowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

std::timed_mutex progressMutex;
ConnectionPtr progressConnection;  // under progressMutex

// Statement buffers of progress rows have a failure line of their own, so they don't use Statement.
constexpr std::size_t STATEMENT_SIZE = 4096;

int currentTime(time_t* now) {
    timeval value{};
    if (gettimeofday(&value, nullptr) == -1)
        return -1;
    *now = value.tv_sec;
    return 0;
}

int connectProgress(ConnectionPtr* connection) {
    connection->reset(PQconnectdb(CONNINFO));
    if (!*connection) {
        LOG_HERE(0, "%s: can't connect to database\n%s: Won't be providing progress information\n", "updateProgress",
                 "updateProgress");
        return -1;
    }
    if (PQstatus(connection->get()) != CONNECTION_OK) {
        LOG_HERE(0, "%s: can't connect to database: %s\n%s: Won't be providing progress information\n",
                 "updateProgress", PQerrorMessage(connection->get()), "updateProgress");
        connection->reset();
        return -1;
    }
    PQsetNoticeProcessor(
        connection->get(), [](void*, const char* text) { LOG_HERE(3, "From libpq: %s", text); }, nullptr);
    return 0;
}

// Rows changed, or -1 with the reason in *error. Without a connection the statement fails.
int execute(PGconn* connection, const char* statement, std::string* error) {
    const RowsPtr rows(connection != nullptr ? PQexec(connection, statement) : nullptr);
    if (PQresultStatus(rows.get()) == PGRES_COMMAND_OK)
        return std::atoi(PQcmdTuples(rows.get()));
    *error = connection != nullptr ? PQerrorMessage(connection) : "no connection";
    return -1;
}

// Runs one statement of updateProgress. `verb` names it on the log. The rows changed, or -1.
[[gnu::format(printf, 3, 4)]] int changeRow(const OperationProgress& record, const char* verb, const char* format,
                                            ...) {
    char statement[STATEMENT_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const int length = vformatText(statement, sizeof statement, format, arguments);
    va_end(arguments);
    if (length == -1) {
        LOG_HERE(0,
                 "%s[%s,%d]: SQL statement too long to %s progress record\n%s: Won't be providing progress "
                 "information\n",
                 "updateProgress", record.operation.c_str(), record.pid, verb, "updateProgress");
        return -1;
    }
    std::string error;
    const int rows = execute(progressConnection.get(), statement, &error);
    if (rows == -1)
        LOG_HERE(0, "%s: can't %s progress record: %s\n%s: Won't be providing progress information\n", "updateProgress",
                 verb, error.c_str(), "updateProgress");
    return rows;
}

int updateRow(const OperationProgress& record) {
    return changeRow(
        record, "UPDATE",
        "UPDATE dq.operation_progress SET current_size = %ld, snapshot_time = %ld WHERE ( start_time = %ld "
        "AND final_size = %lu AND backup_no = %ld AND backup_type = '%s' AND on_behalf_of = '%s' AND source "
        "= '%s' AND destination = '%s' AND name_id = (SELECT name_id FROM dq.operation_names  WHERE "
        "name_value = '%s') )",
        static_cast<long>(record.current_size / MEGABYTE), static_cast<long>(record.snapshot_time),
        static_cast<long>(record.start_time), static_cast<unsigned long>(record.final_size / MEGABYTE),
        static_cast<long>(record.backup_no), record.backup_type.c_str(), record.on_behalf_of.c_str(),
        record.source.c_str(), record.destination.c_str(), record.operation.c_str());
}

int insertRow(const OperationProgress& record) {
    return changeRow(
        record, "INSERT",
        "INSERT INTO dq.operation_progress ( name_id, start_time, snapshot_time, final_size, current_size, "
        "pid_to_kill, on_behalf_of, source, destination, backup_no, backup_type ) VALUES ( (SELECT name_id "
        "FROM dq.operation_names  WHERE name_value = '%s'), %ld, %ld, %ld, %ld, %d, '%s', '%s', '%s', %ld, "
        "'%s' )",
        record.operation.c_str(), static_cast<long>(record.start_time), static_cast<long>(record.snapshot_time),
        static_cast<long>(record.final_size / MEGABYTE), static_cast<long>(record.current_size / MEGABYTE), record.pid,
        record.on_behalf_of.c_str(), record.source.c_str(), record.destination.c_str(),
        static_cast<long>(record.backup_no), record.backup_type.c_str());
}

// Writes the row over the kept connection. A connection that died is dropped, so that the next update makes a new one.
int writeRow(const OperationProgress& record) {
    const std::lock_guard lock(progressMutex);
    if (!progressConnection && connectProgress(&progressConnection) == -1)
        return -1;
    int rows = updateRow(record);
    if (rows == 0) {
        LOG_HERE(4, "UPDATE table did not work, try INSERT");
        rows = insertRow(record);
    }
    if (rows == -1 && PQstatus(progressConnection.get()) == CONNECTION_BAD)
        progressConnection.reset();
    return rows == -1 ? -1 : 0;
}

int deleteRow(PGconn* connection, const OperationProgress& record) {
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
        LOG_HERE(0, "%s[%s,%d]: SQL statement too long to DELETE progress record\n", "closeProgress",
                 record.operation.c_str(), record.pid);
        return -1;
    }
    std::string error;
    if (execute(connection, statement, &error) == -1) {
        LOG_HERE(0, "can't DELETE progress record: %s\n", error.c_str());
        return -1;
    }
    return 0;
}

// Whether enough was done since the last write.
bool sizeIsDue(const OperationProgress& record) {
    return record.current_size <= 0 || record.current_size >= record.next_size ||
           record.next_size - record.current_size >= MEGABYTE;
}

int clientName(std::uint64_t backupNo, std::string* name) {
    constexpr const char* QUERY =
        "SELECT CASE WHEN (properties & %d)=0 THEN node_name ELSE gcname END AS client_name FROM dq.nodes WHERE "
        "node_no=(SELECT node_no FROM dq.backups WHERE backup_no=%ld)";
    const PgResultPtr result = pgQuery(QUERY, P_IMPORTED, static_cast<long>(backupNo));
    if (!result || pgTuples(result.get()) == 0) {
        LOG_HERE(0, "Error: failed database query:%s", QUERY);
        return -1;
    }
    *name = pgSDup(result.get(), 0, "client_name");
    return 0;
}

}  // namespace

int openProgress(const std::string& target, const std::string& hostName, const std::string& operation,
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
    return updateProgress(record);
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
    if (writeRow(*record) == -1)
        return -1;
    record->next_update = now + UPDATE_SECONDS;
    if (record->final_size > 100)
        record->next_size = record->current_size + record->final_size / 100;
    else if (record->current_size > 100)
        record->next_size = record->current_size + record->current_size / 100;
    return 0;
}

int closeProgress(const OperationProgress& record) {
    const std::lock_guard lock(progressMutex);
    return deleteRow(progressConnection.get(), record);
}

int closeProgressWithin(const OperationProgress& record, std::chrono::milliseconds patience) {
    const std::unique_lock lock(progressMutex, patience);
    if (lock.owns_lock())
        return deleteRow(progressConnection.get(), record);
    ConnectionPtr fresh;
    return connectProgress(&fresh) == -1 ? -1 : deleteRow(fresh.get(), record);
}
