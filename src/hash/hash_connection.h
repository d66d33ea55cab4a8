// hash_connection.h - a database connection of the hash layer's own, one a handle.
//
// The process-wide connection would not do: several threads look hashes up at a time, and a put holds a transaction
// open while other parts of the program talk to the catalogue.
//
// Threads: a connection belongs to one thread at a time; the cached facts about the tables are for all.
// Errors:  -1, null or a failed result, logged by whoever knows what the statement was for, unless said otherwise.
// Signals: while the server is busy with a statement, a signal that the hash layer caught makes the server give it up:
//          it fails then. A statement that ends something is always waited for.
#pragma once

#include <libpq-fe.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "base/releaser.h"

using PgConnectionPtr = std::unique_ptr<PGconn, Releaser<&PQfinish>>;
using PgRowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

[[nodiscard]] bool succeeded(const PGresult* result);

enum class RowFormat : int { text = 0, binary = 1 };
enum class OnSignal { giveUp, finish };

// One of several statements that go out together, and what to say if it fails.
struct StatementStep {
    std::string statement;
    const char* failure;
};

class HashConnection {
public:
    // To the tables; tries again a second later, up to dbconnectTries times.
    HashConnection() = default;
    // To any database, with one try.
    explicit HashConnection(const char* conninfo) : conninfo_(conninfo) {}

    // Connects, or connects anew if the connection went bad. A failure is logged.
    [[nodiscard]] int connect();

    // One statement or several joined by ';', with text results; of several, the last one's result or the first
    // failure.
    [[nodiscard]] PgRowsPtr run(const std::string& statement, OnSignal onSignal = OnSignal::giveUp);

    // Several statements in one message. The last one's result; null after a failure, which is logged with its text.
    [[nodiscard]] PgRowsPtr runSteps(std::span<const StatementStep> steps, OnSignal onSignal = OnSignal::giveUp);

    // One statement with binary parameters ($1 on) and binary results.
    [[nodiscard]] PgRowsPtr runBinary(const char* statement, std::span<const std::span<const std::uint8_t>> parameters);

    // One statement with texts for $1 on. It is parsed once a connection; `name` names it.
    [[nodiscard]] PgRowsPtr runPrepared(const char* name, const char* statement,
                                        std::initializer_list<std::string> parameters,
                                        RowFormat format = RowFormat::text);

    [[nodiscard]] bool isOpen() const { return PQstatus(connection_.get()) == CONNECTION_OK; }
    [[nodiscard]] const char* error() const { return PQerrorMessage(connection_.get()); }

private:
    template <typename Send>
    std::vector<PgRowsPtr> exchange(Send send, OnSignal onSignal);
    template <typename Send>
    std::vector<PgRowsPtr> withReconnect(Send send, OnSignal onSignal);
    void waitForResult(OnSignal onSignal);

    const char* conninfo_ = nullptr;  // null: the tables'
    PgConnectionPtr connection_;
    std::vector<std::string> prepared_;  // names known to this connection
};

// A transaction that is rolled back unless it was committed.
class HashTransaction {
public:
    explicit HashTransaction(HashConnection* connection) : connection_(connection) {}
    HashTransaction(const HashTransaction&) = delete;
    HashTransaction& operator=(const HashTransaction&) = delete;
    ~HashTransaction();

    // Begins and locks; `tables` in the one order of locking: dq.hash_values, then dq.backups_hash_values.
    [[nodiscard]] int begin(const char* tables);
    [[nodiscard]] int commit();

private:
    HashConnection* connection_;
    bool open_ = false;
};

// The column types that statements must cast to, read once per process.
struct HashColumnTypes {
    char hashType[20];
    char hashedLength[20];
    char hashValue[20];
    char sisOffset[20];
};
[[nodiscard]] const HashColumnTypes* hashColumnTypes(HashConnection* connection, const char* function);

// Whether dq.hash_values has compressed_length: 1, 0, or -1. Asked once per process, save after a failure.
[[nodiscard]] int hasCompressedLength(HashConnection* connection);

// For tests: both are asked anew.
void forgetHashTableShape();

// Fields of binary results. False if the field hasn't the size of the type.
[[nodiscard]] bool binaryNumber(const PGresult* rows, int row, int column, std::uint64_t* number);
