// pg_async.cpp - statements that are sent and waited for in pieces, for callers that must stay responsive, and COPY.
#include <poll.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "database/pghelper_internal.h"

using namespace pghelper;

namespace {

// Takes all results of the statement; the last one is kept, or the first that failed.
void processAsyncResult(pgResult& result) {
    while (RowsPtr rows{PQgetResult(pgResourcePtr->conn.get())}) {
        if (result.rows && pgStatus(&result) == -1)
            continue;
        result.rows = std::move(rows);
        if (pgStatus(&result) == -1) {
            LOG_HERE(0, "Execution of statement failed: %s.", PQresultErrorMessage(result.rows.get()));
            LOG_HERE(0, "Query string was: %s\n", result.query.c_str());
        }
    }
}

// Ends a COPY and looks at the outcome.
int finishCopy(PGconn* conn, const char* table, bool sent) {
    bool good = sent;
    if (PQputCopyEnd(conn, sent ? nullptr : "the sender failed") != 1) {
        LOG_HERE(0, "PQputCopyData failed\n");
        good = false;
    }
    while (RowsPtr rows{PQgetResult(conn)}) {
        const ExecStatusType status = PQresultStatus(rows.get());
        if (status == PGRES_COPY_IN)
            break;  // the end could not be sent: asking again would give this for ever
        if (status != PGRES_COMMAND_OK) {
            LOG_HERE(0, "Execution of copy (%s) statement failed: %s.", table, PQresultErrorMessage(rows.get()));
            good = false;
        }
    }
    return good ? 0 : -1;
}

}  // namespace

int pgCopy(const char* table, const char* delimiter, std::string_view text) {
    constexpr std::string_view END_MARK = "\\.\n";
    const SignalMask mask;
    const PgResultPtr start = pgVExec("COPY %s FROM STDIN WITH DELIMITER AS '%s';", table, delimiter);
    if (pgStatus(start.get()) == -1)
        return -1;
    PGconn* conn = pgResourcePtr->conn.get();
    bool sent = true;
    for (std::string_view part : {text, END_MARK}) {
        while (sent && !part.empty()) {
            const std::size_t length = std::min<std::size_t>(part.size(), INT_MAX / 2);
            sent = PQputCopyData(conn, part.data(), static_cast<int>(length)) == 1;
            part.remove_prefix(length);
        }
    }
    if (!sent)
        LOG_HERE(0, "PQputCopyData failed\n");
    if (finishCopy(conn, table, sent) == -1)
        return -1;
    LOG_HERE(4, "COPY command succeeded\n");
    return 0;
}

PgResultPtr sendTextQuery(const char* statement) {
    const SignalMask mask;
    if (ensureConnected() == -1)
        return nullptr;
    PGconn* conn = pgResourcePtr->conn.get();
    if (PQsendQuery(conn, statement) != 1) {
        LOG_HERE(0, "Execution of statement failed: %s.", PQerrorMessage(conn));
        LOG_HERE(0, "Query string was: %s\n", statement);
        return nullptr;
    }
    return makeResult(nullptr, statement);
}

// Signals are let in while we wait, and only then: that is what makes the caller responsive.
int pgAsyncWait(pgResult* result, int timeoutMs) {
    if (result == nullptr || pgResourcePtr == nullptr || !pgResourcePtr->conn)
        return 1;
    PGconn* conn = pgResourcePtr->conn.get();
    pollfd wait{PQsocket(conn), POLLIN, 0};
    const int ready = poll(&wait, 1, timeoutMs);
    if (ready == 0) {
        LOG_HERE(5, "Query execution not complete\n");
        return 0;
    }
    if (ready == -1 && errno == EINTR) {
        LOG_HERE(4, "Leaving early; signal arrived\n");
        return 0;
    }
    const SignalMask mask;
    if (ready == -1) {
        LOG_HERE(0, "Failed to read query status: %s\n", std::strerror(errno));
        return 1;
    }
    if (PQconsumeInput(conn) != 1)
        LOG_HERE(0, "Failed to read query status: %s\n", PQerrorMessage(conn));
    else if (PQisBusy(conn) != 0) {
        LOG_HERE(5, "Execution of query still in progress\n");
        return 0;
    }
    processAsyncResult(*result);
    return 1;
}

int pgAsyncCancel() {
    const SignalMask mask;
    LOG_HERE(3, "Cancelling database query...\n");
    if (pgResourcePtr == nullptr || !pgResourcePtr->conn) {
        LOG_HERE(0, "No connection to send request on\n");
        return -1;
    }
    const std::unique_ptr<PGcancel, Releaser<&PQfreeCancel>> cancel(PQgetCancel(pgResourcePtr->conn.get()));
    if (!cancel) {
        LOG_HERE(0, "Failed to generate cancel request\n");
        return -1;
    }
    char error[256] = "";
    if (PQcancel(cancel.get(), error, sizeof error) != 1) {
        LOG_HERE(0, "Failed to dispatch cancel request: %s\n", error);
        return -1;
    }
    LOG_HERE(3, "Cancel request successfully dispatched\n");
    // The interrupted statement must not make the connection look dead.
    pgResourcePtr->lastChecked = time(nullptr);
    LOG_HERE(4, "Time of the last connection check set to %ld\n", static_cast<long>(pgResourcePtr->lastChecked));
    return 0;
}
