// What the store asks of the catalogue: which disks there are, and which of them a file lies on.

#include <libpq-fe.h>
#include <poll.h>

#include <chrono>
#include <cstdlib>

#include "base/text.h"
#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

using ConnectionPtr = std::unique_ptr<PGconn, Releaser<&PQfinish>>;
using RowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

constexpr std::chrono::seconds CATALOGUE_LIMIT{5};

void logNotice(void*, const char* notice) {
    log_message(3, "From libpq: %s", notice);
}

ConnectionPtr connectToCatalogue() {
    // The server ends a statement too, so that none is left there of a client that has gone.
    const std::string conninfo =
        formatString("service=localhost dbname=dqdb connect_timeout=%ld options='-c statement_timeout=%lds'",
                     CATALOGUE_LIMIT.count(), CATALOGUE_LIMIT.count());
    ConnectionPtr connection(PQconnectdb(conninfo.c_str()));
    if (PQstatus(connection.get()) != CONNECTION_OK) {
        log_message(0, "Connection failed, error:\n %s", PQerrorMessage(connection.get()));
        return nullptr;
    }
    PQsetNoticeProcessor(connection.get(), logNotice, nullptr);
    return connection;
}

// Waits until the answer is there. False if it doesn't come in time; a connection that broke counts as an answer.
bool waitForAnswer(PGconn* connection) {
    const auto deadline = std::chrono::steady_clock::now() + CATALOGUE_LIMIT + std::chrono::seconds(1);
    while (PQisBusy(connection) == 1) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd entry{PQsocket(connection), POLLIN, 0};
        const int ready = left.count() <= 0 ? 0 : poll(&entry, 1, static_cast<int>(left.count()));
        if (ready == 0)
            return false;
        if (ready > 0 && PQconsumeInput(connection) == 0)
            return true;
    }
    return true;
}

RowsPtr run(PGconn* connection, const std::string& statement) {
    RowsPtr rows;
    if (PQsendQuery(connection, statement.c_str()) == 1) {
        if (!waitForAnswer(connection)) {
            LOG_HERE(0, "query failed\n  no answer in time\n");
            return nullptr;
        }
        rows.reset(PQgetResult(connection));
    }
    if (PQresultStatus(rows.get()) != PGRES_TUPLES_OK) {
        LOG_HERE(0, "query failed\n  %s", PQerrorMessage(connection));
        return nullptr;
    }
    return rows;
}

// The text for the pattern of a LIKE between single quotes; empty if it can't be made safe.
std::string likeText(PGconn* connection, const std::string& text) {
    std::string plain;
    for (const char c : text) {
        if (c == '\\' || c == '%' || c == '_')
            plain += '\\';
        plain += c;
    }
    std::string escaped(plain.size() * 2 + 1, '\0');
    int failed = 0;
    escaped.resize(PQescapeStringConn(connection, escaped.data(), plain.data(), plain.size(), &failed));
    return failed != 0 ? std::string() : escaped;
}

}  // namespace

int listDedupDisks(std::vector<CatalogueDisk>* disks) {
    const ConnectionPtr connection = connectToCatalogue();
    if (!connection)
        return -1;
    const RowsPtr rows = run(connection.get(), formatString("SELECT dev_nr_name, is_deleted, capacity FROM dq.devices "
                                                            "WHERE (device_type = %d) AND (dedup = TRUE) ORDER BY "
                                                            "octet_length(dev_nr_name)",
                                                            DISK_DEVICE_TYPE));
    if (!rows)
        return -1;
    for (int row = 0; row < PQntuples(rows.get()); ++row)
        disks->push_back({PQgetvalue(rows.get(), row, 0), *PQgetvalue(rows.get(), row, 1) == 't',
                          std::strtoll(PQgetvalue(rows.get(), row, 2), nullptr, 10)});
    return 0;
}

int findDeviceNumber(const std::string& path) {
    const std::size_t end = path.find("/SIS/");
    if (end == std::string::npos) {
        log_message(0, "Malformed SIS file path - can't find '/SIS/': %s\n", path.c_str());
        return -1;
    }
    const ConnectionPtr connection = connectToCatalogue();
    if (!connection)
        return -1;
    const RowsPtr rows = run(
        connection.get(),
        formatString("SELECT device_no, dev_nr_name FROM dq.devices WHERE (device_type = %d) AND (dedup = TRUE) AND "
                     "(dev_nr_name LIKE '%s%%') ORDER BY octet_length(dev_nr_name)",
                     DISK_DEVICE_TYPE, likeText(connection.get(), path.substr(0, end)).c_str()));
    if (!rows)
        return -1;
    for (int row = PQntuples(rows.get()) - 1; row >= 0; --row) {
        const std::string name = PQgetvalue(rows.get(), row, 1);
        if (path.starts_with(name + "/SIS/") || (name.ends_with('/') && path.starts_with(name + "SIS/")))
            return std::atoi(PQgetvalue(rows.get(), row, 0));
    }
    return -1;
}
