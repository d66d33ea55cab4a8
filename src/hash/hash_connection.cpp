#include "hash/hash_connection.h"

#include <endian.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "base/text.h"
#include "block/signal_catch.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"

namespace {

constexpr char TABLES_CONNINFO[] = "host=localhost dbname=dqdb sslmode=allow service=localhost";
constexpr int SIGNAL_LOOK_MS = 100;  // the signal's handler may run in any thread, so it doesn't end a wait
constexpr std::chrono::seconds CANCEL_INTERVAL{1};

// Facts about the tables, the same for all connections.
struct TableShape {
    std::mutex mutex;
    HashColumnTypes types{};
    bool typesKnown = false;
    int compressedLength = -1;
};

TableShape& tableShape() {
    static TableShape shape;
    return shape;
}

int keepType(const char* column, const char* type, char (*kept)[20]) {
    if (formatText(*kept, sizeof *kept, "%s", type) != -1)
        return 0;
    log_message(0, "%s type too long\n", column);
    return -1;
}

struct TypedColumn {
    const char* name;
    char (HashColumnTypes::*type)[20];
};
constexpr TypedColumn TYPED_COLUMNS[] = {{"hash_type", &HashColumnTypes::hashType},
                                         {"hashed_length", &HashColumnTypes::hashedLength},
                                         {"hash_value", &HashColumnTypes::hashValue},
                                         {"sis_offset", &HashColumnTypes::sisOffset}};

int keepColumn(const char* name, const char* type, HashColumnTypes* types) {
    for (const TypedColumn& column : TYPED_COLUMNS)
        if (std::strcmp(column.name, name) == 0)
            return keepType(name, type, &(types->*column.type));
    log_message(0, "Unknown column '%s'", name);
    return -1;
}

int readColumnTypes(HashConnection* connection, HashColumnTypes* types) {
    const PgRowsPtr rows = connection->run(
        "SELECT column_name, data_type FROM information_schema.columns WHERE (table_schema = 'dq') AND (table_name = "
        "'hash_values') AND (column_name IN ( SELECT 'hash_type' UNION ALL SELECT 'hashed_length' UNION ALL SELECT "
        "'hash_value' UNION ALL SELECT 'sis_offset'))");
    if (!succeeded(rows.get())) {
        log_message(0, "Can't find column types\n");
        return -1;
    }
    for (int row = 0; row < PQntuples(rows.get()); ++row)
        if (keepColumn(PQgetvalue(rows.get(), row, 0), PQgetvalue(rows.get(), row, 1), types) == -1)
            return -1;
    int result = 0;
    for (const TypedColumn& column : TYPED_COLUMNS)
        if ((types->*column.type)[0] == '\0') {
            log_message(0, "No type for %s\n", column.name);
            result = -1;
        }
    return result;
}

// A hung-up server is often only restarting.
PgConnectionPtr connectWithTries(const char* conninfo, int tries) {
    for (int attempt = 1;; ++attempt) {
        PgConnectionPtr connection(PQconnectdb(conninfo));
        if (PQstatus(connection.get()) == CONNECTION_OK)
            return connection;
        log_message(0, "Connection failed, error:\n %s", PQerrorMessage(connection.get()));
        if (attempt == tries)
            break;
        if (checkForSignal(SignalLayer::hashes) == 1)
            return nullptr;
        log_message(0, "Retrying connection (try %d of %d).\n", attempt + 1, tries);
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    log_message(0, "ERROR: Exceeded retry count without making a connection.\n");
    return nullptr;
}

void cancelStatement(PGconn* connection) {
    char reason[256] = "";
    const std::unique_ptr<PGcancel, Releaser<&PQfreeCancel>> cancel(PQgetCancel(connection));
    if (PQcancel(cancel.get(), reason, sizeof reason) == 0)
        log_message(0, "Can't cancel a statement: %s\n", reason);
}

void logNotice(void*, const char* notice) {
    log_message(3, "From libpq: %s", notice);
}

PgRowsPtr lastOf(std::vector<PgRowsPtr> results) {
    return results.empty() ? nullptr : std::move(results.back());
}

}  // namespace

bool succeeded(const PGresult* result) {
    const ExecStatusType status = PQresultStatus(result);
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

int HashConnection::connect() {
    if (isOpen())
        return 0;
    if (connection_)
        log_message(0, "Not connected to Postgres or connection bad, reconnecting....\n");
    connection_.reset();
    prepared_.clear();
    const bool toTables = conninfo_ == nullptr;
    const int tries = toTables ? std::max(1, ini_get_int("fileDedup", "dbconnectTries", 3, g_master_ini)) : 1;
    connection_ = connectWithTries(toTables ? TABLES_CONNINFO : conninfo_, tries);
    if (!connection_)
        return -1;
    (void)fcntl(PQsocket(connection_.get()), F_SETFD, FD_CLOEXEC);  // libpq sets it too where it can
    PQsetNoticeProcessor(connection_.get(), logNotice, nullptr);
    return 0;
}

// A statement that the server has begun may take very long: a list's first fetch, a wait for a lock of the tables. A
// cancel that comes before the statement does is lost, so it is repeated.
void HashConnection::waitForResult(OnSignal onSignal) {
    auto nextCancel = std::chrono::steady_clock::now();
    while (PQisBusy(connection_.get()) == 1) {
        pollfd socket{PQsocket(connection_.get()), POLLIN, 0};
        const bool nothingCame = poll(&socket, 1, SIGNAL_LOOK_MS) == 0;
        if (nothingCame && onSignal == OnSignal::giveUp && signalWaiting(SignalLayer::hashes) &&
            std::chrono::steady_clock::now() >= nextCancel) {
            cancelStatement(connection_.get());
            nextCancel = std::chrono::steady_clock::now() + CANCEL_INTERVAL;
        }
        if (PQconsumeInput(connection_.get()) == 0)
            return;  // the connection is lost, and the result will say so
    }
}

template <typename Send>
std::vector<PgRowsPtr> HashConnection::exchange(Send send, OnSignal onSignal) {
    std::vector<PgRowsPtr> results;
    if (send() != 1)
        return results;
    for (;;) {
        waitForResult(onSignal);
        PgRowsPtr result(PQgetResult(connection_.get()));
        if (!result)
            return results;
        results.push_back(std::move(result));
    }
}

// A statement is run once more on a new connection, but never inside a transaction: the locks that it relies on would
// be gone.
template <typename Send>
std::vector<PgRowsPtr> HashConnection::withReconnect(Send send, OnSignal onSignal) {
    const bool inTransaction = PQtransactionStatus(connection_.get()) != PQTRANS_IDLE;
    std::vector<PgRowsPtr> results = exchange(send, onSignal);
    if (!isOpen()) {
        log_message(0, "No database connection for our query\n");
        if (!inTransaction && connect() == 0)
            results = exchange(send, onSignal);
    }
    return results;
}

PgRowsPtr HashConnection::run(const std::string& statement, OnSignal onSignal) {
    return lastOf(withReconnect([&] { return PQsendQuery(connection_.get(), statement.c_str()); }, onSignal));
}

PgRowsPtr HashConnection::runSteps(std::span<const StatementStep> steps, OnSignal onSignal) {
    std::string text;
    for (const StatementStep& step : steps)
        text += step.statement + ";";
    std::vector<PgRowsPtr> results =
        withReconnect([&] { return PQsendQuery(connection_.get(), text.c_str()); }, onSignal);
    const auto good = static_cast<std::size_t>(
        std::ranges::count_if(results, [](const PgRowsPtr& result) { return succeeded(result.get()); }));
    if (good == steps.size())
        return lastOf(std::move(results));
    log_message(0, "%s", steps[good].failure);
    log_message(0, "%s", error());
    return nullptr;
}

// The statement is made known as part of the exchange, so that a new connection gets to know it too.
PgRowsPtr HashConnection::runPrepared(const char* name, const char* statement,
                                      std::initializer_list<std::string> parameters, RowFormat format) {
    std::vector<const char*> values;
    for (const std::string& parameter : parameters)
        values.push_back(parameter.c_str());
    return lastOf(withReconnect(
        [&] {
            if (std::ranges::count(prepared_, name) == 0) {
                const PgRowsPtr made = lastOf(exchange(
                    [&] { return PQsendPrepare(connection_.get(), name, statement, 0, nullptr); }, OnSignal::giveUp));
                if (!succeeded(made.get()))
                    return 0;
                prepared_.emplace_back(name);
            }
            return PQsendQueryPrepared(connection_.get(), name, static_cast<int>(values.size()), values.data(), nullptr,
                                       nullptr, static_cast<int>(format));
        },
        OnSignal::giveUp));
}

PgRowsPtr HashConnection::runBinary(const char* statement, std::span<const std::span<const std::uint8_t>> parameters) {
    std::vector<const char*> values;
    std::vector<int> lengths;
    for (const auto parameter : parameters) {
        values.push_back(reinterpret_cast<const char*>(parameter.data()));
        lengths.push_back(static_cast<int>(parameter.size()));
    }
    const std::vector<int> formats(parameters.size(), 1);
    return lastOf(withReconnect(
        [&] {
            return PQsendQueryParams(connection_.get(), statement, static_cast<int>(parameters.size()), nullptr,
                                     values.data(), lengths.data(), formats.data(), 1);
        },
        OnSignal::giveUp));
}

HashTransaction::~HashTransaction() {
    if (!open_)
        return;
    const PgRowsPtr result = connection_->run("ROLLBACK", OnSignal::finish);
    if (!succeeded(result.get()))
        log_message(0, "ROLLBACK failed\n  %s", connection_->error());
}

int HashTransaction::begin(const char* tables) {
    open_ = true;  // a half that went through must be rolled back as well
    const std::string statement = formatString("BEGIN;\nLOCK TABLE %s IN SHARE ROW EXCLUSIVE MODE", tables);
    const PgRowsPtr result = connection_->run(statement);
    if (succeeded(result.get()))
        return 0;
    log_message(0, "Failed to begin locked transaction\n  %s", connection_->error());
    return -1;
}

int HashTransaction::commit() {
    open_ = false;
    const PgRowsPtr result = connection_->run("COMMIT", OnSignal::finish);
    // A transaction that an error had ended answers COMMIT with the tag of the roll back, and success.
    if (succeeded(result.get()) && std::strcmp(PQcmdStatus(result.get()), "COMMIT") == 0)
        return 0;
    log_message(0, "COMMIT failed\n  %s", connection_->error());
    return -1;
}

const HashColumnTypes* hashColumnTypes(HashConnection* connection, const char* function) {
    TableShape& shape = tableShape();
    const std::lock_guard guard(shape.mutex);
    if (!shape.typesKnown) {
        HashColumnTypes types{};
        if (readColumnTypes(connection, &types) == -1) {
            log_message(0, "%s: can't perform queries with binary data\n", function);
            return nullptr;
        }
        shape.types = types;
        shape.typesKnown = true;
    }
    return &shape.types;
}

int hasCompressedLength(HashConnection* connection) {
    constexpr char COLUMN[] = "compressed_length";
    TableShape& shape = tableShape();
    const std::lock_guard guard(shape.mutex);
    if (shape.compressedLength != -1)
        return shape.compressedLength;
    const std::string query = formatString(
        "SELECT column_name FROM information_schema.columns WHERE table_schema = lower('%s') AND table_name = "
        "lower('%s') AND column_name = lower('%s')",
        "dq", "hash_values", COLUMN);
    const PgRowsPtr rows = connection->run(query);
    if (!succeeded(rows.get())) {
        log_message(0, "Can't get column '%s'\n", COLUMN);
        return -1;
    }
    shape.compressedLength = PQntuples(rows.get()) > 0 ? 1 : 0;
    log_message(4, shape.compressedLength == 1 ? "Found column '%s'\n" : "Did not find column '%s'\n", COLUMN);
    return shape.compressedLength;
}

void forgetHashTableShape() {
    TableShape& shape = tableShape();
    const std::lock_guard guard(shape.mutex);
    shape.typesKnown = false;
    shape.compressedLength = -1;
}

bool binaryNumber(const PGresult* rows, int row, int column, std::uint64_t* number) {
    std::uint64_t bigEndian = 0;
    if (PQgetlength(rows, row, column) != static_cast<int>(sizeof bigEndian))
        return false;
    std::memcpy(&bigEndian, PQgetvalue(rows, row, column), sizeof bigEndian);
    *number = be64toh(bigEndian);
    return true;
}
