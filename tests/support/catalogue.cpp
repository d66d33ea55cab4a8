#include "support/catalogue.h"

#include <libpq-fe.h>

#include "base/releaser.h"
#include "lab/cluster.h"

namespace testsupport {
namespace {

using ConnectionPtr = std::unique_ptr<PGconn, Releaser<&PQfinish>>;
using RowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

// The cluster of this program and one connection to it; both go with the program.
struct Server {
    std::filesystem::path directory = lab::temporaryDirectory("ferryd-pg");
    lab::Cluster cluster{directory, true};
    ConnectionPtr connection;

    Server() { setenv("PGSERVICEFILE", cluster.serviceFile().c_str(), 1); }
    ~Server() {
        connection.reset();
        cluster.kill();
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    PGconn* connected() {
        if (!connection || PQstatus(connection.get()) != CONNECTION_OK) {
            connection.reset(PQconnectdb(cluster.conninfo().c_str()));
            PQsetNoticeProcessor(
                connection.get(), [](void*, const char*) {}, nullptr);
        }
        return connection.get();
    }
};

Server& server() {
    static Server instance;
    return instance;
}

RowsPtr run(const std::string& statements) {
    PGconn* connection = server().connected();
    RowsPtr rows(PQexec(connection, statements.c_str()));
    const ExecStatusType status = PQresultStatus(rows.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        throw std::runtime_error(std::string(PQerrorMessage(connection)) + statements);
    return rows;
}

}  // namespace

Catalogue& Catalogue::instance() {
    (void)server();
    static Catalogue catalogue;
    return catalogue;
}

// Tests may change the schema itself, so it is made anew rather than emptied.
void Catalogue::reset() {
    (void)run(
        "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE datname = 'dqdb' AND pid <> "
        "pg_backend_pid() AND backend_type = 'client backend' AND state LIKE 'idle in transaction%'");
    (void)run(std::string("DROP SCHEMA IF EXISTS dq CASCADE;") + lab::SCHEMA_SQL + lab::SEED_SQL);
}

void Catalogue::sql(std::string_view statements) {
    (void)run(std::string(statements));
}

std::string Catalogue::value(std::string_view query) {
    const RowsPtr rows = run(std::string(query));
    return PQntuples(rows.get()) == 0 ? std::string() : std::string(PQgetvalue(rows.get(), 0, 0));
}

std::string Catalogue::rows(std::string_view query) {
    const RowsPtr result = run(std::string(query));
    std::string text;
    const int columns = PQnfields(result.get());
    for (int i = 0; i < PQntuples(result.get()) * columns; ++i)
        text += std::string(i == 0             ? ""
                            : i % columns == 0 ? "\n"
                                               : "|") +
                PQgetvalue(result.get(), i / columns, i % columns);
    return text;
}

bool Catalogue::somebodyWaits() {
    return eventually([this] { return value("SELECT count(*) FROM pg_locks WHERE NOT granted") != "0"; });
}

void Catalogue::restart() {
    server().connection.reset();
    server().cluster.stop();
    server().cluster.start();
}

}  // namespace testsupport
