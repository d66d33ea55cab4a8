// pg_connection.cpp - the cache of connections, their test and repair, and the masking of signals.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/job_gate.h"
#include "base/signals.h"
#include "database/pghelper_internal.h"

namespace pghelper {

std::array<std::unique_ptr<pgResource>, RESOURCE_SLOTS> pgResourceArray;
pgResource* pgResourcePtr = nullptr;

namespace {

constexpr int CONNECT_ATTEMPTS = 2;
constexpr int TRUST_SECONDS = 120;  // how long a proof of life counts
constexpr const char* CONNECTION_TAIL = "dbname=dqdb options='-c search_path=dq,public -c client_encoding=UTF8'";

std::string lastHost;  // service of the last pgOpen

// The thread's nesting depth and the mask to go back to.
thread_local int maskDepth = 0;
thread_local bool maskSet = false;
thread_local sigset_t savedMask;

const sigset_t& helperSignals() {
    static const sigset_t signals = [] {
        const sigset_t set = signalSet({SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1, SIGUSR2});
        LOG_HERE(5, "Successfully initialized pghelper signal masker\n");
        return set;
    }();
    return signals;
}

void onNotice(void*, const char* message) {
    const int level = std::strstr(message, "FATAL") != nullptr ? 0 : std::strstr(message, "WARNING") != nullptr ? 2 : 3;
    LOG_HERE(level, "From libpq: %s", message);
}

// Lets go of a connection that belongs to the parent process. Nothing may be said on its socket, which both processes
// share: with /dev/null in the socket's place libpq can free its memory and reach nobody.
void abandonConnection(pgResource& resource) {
    const int socket = PQsocket(resource.conn.get());
    if (socket != -1) {
        const int sink = open("/dev/null", O_RDWR | O_CLOEXEC);
        const bool replaced = sink != -1 && dup3(sink, socket, O_CLOEXEC) != -1;
        if (sink != -1)
            close(sink);
        if (!replaced) {
            close(socket);
            (void)resource.conn.release();  // leaked: finishing it might write into whatever gets the number next
        }
    }
    resource.conn.reset();
}

std::size_t slotOf(const pgResource* resource) {
    std::size_t slot = 0;
    while (slot < pgResourceArray.size() && pgResourceArray[slot].get() != resource)
        ++slot;
    return slot;
}

pgResource* findHost(const std::string& host) {
    for (const auto& resource : pgResourceArray)
        if (resource && resource->host == host)
            return resource.get();
    return nullptr;
}

// The slot of the connection that was used longest ago and isn't in a transaction; the number of slots for none.
std::size_t oldestSlot() {
    std::size_t found = pgResourceArray.size();
    time_t lowest = time(nullptr) + 60;
    for (std::size_t slot = 0; slot < pgResourceArray.size(); ++slot) {
        const pgResource* resource = pgResourceArray[slot].get();
        if (resource != nullptr && resource->savepointCount == 0 && resource->lastUsed < lowest) {
            lowest = resource->lastUsed;
            found = slot;
        }
    }
    return found;
}

// Makes a resource in an empty slot, or in that of the oldest connection. Returns null if all are in transactions.
pgResource* allocateResource(const std::string& host) {
    std::size_t slot = slotOf(nullptr);
    if (slot < pgResourceArray.size()) {
        LOG_HERE(4, "Found an empty pgResourceArray slot for connection resource\n");
    } else {
        LOG_HERE(4, "Look for the oldest entry with no savepoints and replace it\n");
        slot = oldestSlot();
        if (slot == pgResourceArray.size()) {
            LOG_HERE(0, "No connection resource slots available\n");
            return nullptr;
        }
        pgResourcePtr = pgResourceArray[slot].get();
        LOG_HERE(4, "Closing old connection resource to %s\n", pgResourcePtr->host.c_str());
        pgClose();
    }
    pgResourceArray[slot] = std::make_unique<pgResource>();
    pgResourceArray[slot]->host = host;
    return pgResourceArray[slot].get();
}

int connectResource(pgResource& resource) {
    LOG_HERE(4, "Connecting to database, hostname: %s\n", resource.host.c_str());
    const std::string conninfo = formatString("service=%s %s", resource.host.c_str(), CONNECTION_TAIL);
    for (int attempt = 1; attempt <= CONNECT_ATTEMPTS; ++attempt) {
        resource.conn.reset(PQconnectdb(conninfo.c_str()));
        if (!resource.conn) {
            LOG_HERE(0, "Can't allocate pgsql connection structure\n");
            return -1;
        }
        if (PQstatus(resource.conn.get()) == CONNECTION_OK)
            return 0;
        LOG_HERE(0, "Connection failed, error: %s", PQerrorMessage(resource.conn.get()));
        if (attempt < CONNECT_ATTEMPTS) {
            LOG_HERE(0, "Retrying connection (try %d of %d)\n", attempt + 1, CONNECT_ATTEMPTS);
            resource.conn.reset();
            sleep(1);
        }
    }
    LOG_HERE(0, "Tried connecting %d times\n", CONNECT_ATTEMPTS);
    return -1;
}

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

void finishOpen(pgResource& resource, int prepared, int oldSavepointCount) {
    PGconn* conn = resource.conn.get();
    resource.preparedEnabled = true;
    resource.lastUsed = resource.lastChecked = time(nullptr);
    LOG_HERE(4, "Connection attributes: dbname='%s', user='%s', options = '%s'\n", orEmpty(PQdb(conn)),
             orEmpty(PQuser(conn)), orEmpty(PQoptions(conn)));
    LOG_HERE(4, "Postgres backend pid: %d\n", PQbackendPID(conn));
    LOG_HERE(4, "Prepared statements currently %s\n", prepared != 0 ? "enabled" : "disabled");
    if (oldSavepointCount > 0) {
        LOG_HERE(4, "Restoring old savepoint count: %d.\n", oldSavepointCount);
        resource.savepointCount = oldSavepointCount;
    }
    (void)fcntl(PQsocket(conn), F_SETFD, FD_CLOEXEC);  // libpq sets it already; a child without it is only untidy
    resource.ownerPid = getpid();
    PQsetNoticeProcessor(conn, onNotice, nullptr);
}

void settleService(const char* service) {
    if (lastHost.empty()) {
        (void)atexit(pgCloseAll);  // without it the server notices the closed socket by itself
        lastHost = service != nullptr ? service : "localhost";
    } else if (service != nullptr && lastHost != service) {
        lastHost = service;
    }
    LOG_HERE(4, "lastHost is %s\n", lastHost.c_str());
    if (service != nullptr)
        LOG_HERE(4, "Connecting using hostname: %s\n", service);
    else
        LOG_HERE(4, "Connecting using lastHost: %s\n", lastHost.c_str());
}

bool proveAlive(pgResource& resource) {
    const RowsPtr rows(PQexec(resource.conn.get(), "SELECT TRUE"));
    // A spoiled transaction refuses the statement, but over a connection that lives: its owner must still end it.
    const bool good =
        PQresultStatus(rows.get()) == PGRES_TUPLES_OK || PQtransactionStatus(resource.conn.get()) == PQTRANS_INERROR;
    resource.lastChecked = time(nullptr);
    LOG_HERE(4, "Verified connection state: %s\n", good ? "good" : "bad");
    return good;
}

}  // namespace

SignalMask::SignalMask() {
    if (maskDepth++ != 0)
        return;
    const int error = pthread_sigmask(SIG_BLOCK, &helperSignals(), &savedMask);
    maskSet = error == 0;
    if (error != 0)
        LOG_HERE(0, "Failed to mask signals, errno %d\n", error);
}

SignalMask::~SignalMask() {
    if (--maskDepth != 0 || !maskSet)
        return;
    const int keptErrno = errno;
    maskSet = false;
    const int error = pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
    if (error != 0)
        LOG_HERE(0, "Failed to unmask signals, errno %d\n", error);
    errno = keptErrno;
}

bool connectionGood() {
    if (pgResourcePtr == nullptr)
        return false;
    pgResource& resource = *pgResourcePtr;
    if (resource.conn && resource.ownerPid != getpid()) {
        LOG_HERE(3, "Reinitializing child process connection to database\n");
        abandonConnection(resource);
        return false;
    }
    if (!resource.conn || PQstatus(resource.conn.get()) == CONNECTION_BAD)
        return false;
    const time_t now = time(nullptr);
    if (resource.lastChecked <= now && now - resource.lastChecked <= TRUST_SECONDS)
        return true;
    return proveAlive(resource);
}

int ensureConnected() {
    passJobGate();
    if (connectionGood())
        return 0;
    LOG_HERE(3, "Not connected to Postgres or connection bad, reconnecting...\n");
    if (savepointDepth() > 0) {
        LOG_HERE(0, "Connection bad; reset not attempted from within a transaction block\n");
        return -1;
    }
    pgClose();
    if (pgOpen(nullptr, 1) == -1) {
        LOG_HERE(0, "pgOpen failed, cannot open connection\n");
        return -1;
    }
    return 0;
}

int savepointDepth() {
    return pgResourcePtr != nullptr ? pgResourcePtr->savepointCount : 0;
}

void setSavepointDepth(int depth) {
    if (pgResourcePtr != nullptr)
        pgResourcePtr->savepointCount = depth;
}

}  // namespace pghelper

using namespace pghelper;

int pgOpen(const char* service, int prepared) {
    const SignalMask mask;
    settleService(service);
    int oldSavepointCount = 0;
    pgResourcePtr = findHost(lastHost);
    if (pgResourcePtr != nullptr) {
        LOG_HERE(4, "Found a connection to %s, checking status...\n", lastHost.c_str());
        if (connectionGood()) {
            LOG_HERE(4, "Connection good\n");
            finishOpen(*pgResourcePtr, prepared, 0);
            return 0;
        }
        LOG_HERE(3, "Connection bad, will attempt reconnect.\n");
        oldSavepointCount = pgResourcePtr->savepointCount;
        LOG_HERE(4, "Old savepoint count is %d.\n", oldSavepointCount);
        pgClose();
    }
    pgResourcePtr = allocateResource(lastHost);
    if (pgResourcePtr == nullptr)
        return -1;
    if (connectResource(*pgResourcePtr) == -1) {
        pgClose();
        return -1;
    }
    finishOpen(*pgResourcePtr, prepared, oldSavepointCount);
    return 0;
}

void pgClose() {
    const SignalMask mask;
    if (pgResourcePtr == nullptr)
        return;
    const std::size_t slot = slotOf(pgResourcePtr);
    if (pgResourcePtr->conn && pgResourcePtr->ownerPid != 0 && pgResourcePtr->ownerPid != getpid())
        abandonConnection(*pgResourcePtr);
    pgResourceArray[slot].reset();
    pgResourcePtr = nullptr;
}

void pgCloseAll() {
    const SignalMask mask;
    for (const auto& resource : pgResourceArray) {
        pgResourcePtr = resource.get();
        pgClose();
    }
}
