#include "lab/cluster.h"

#include <libpq-fe.h>
#include <pwd.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "base/releaser.h"

namespace lab {
namespace {

namespace fs = std::filesystem;

using ConnectionPtr = std::unique_ptr<PGconn, Releaser<&PQfinish>>;
using RowsPtr = std::unique_ptr<PGresult, Releaser<&PQclear>>;

constexpr std::chrono::seconds START_LIMIT{60};

struct Account {
    uid_t uid = 0;
    gid_t gid = 0;
};

// PostgreSQL refuses to run as root.
Account serverAccount() {
    if (geteuid() != 0)
        return {};
    const passwd* entry = getpwnam("postgres");
    if (entry == nullptr)
        throw std::runtime_error("there is no user postgres to run the database as");
    return {entry->pw_uid, entry->pw_gid};
}

fs::path serverProgram(const char* name) {
    fs::path newest;
    if (fs::exists("/usr/lib/postgresql")) {
        for (const auto& version : fs::directory_iterator("/usr/lib/postgresql")) {
            const fs::path program = version.path() / "bin" / name;
            if (fs::exists(program) && program > newest)
                newest = program;
        }
    }
    return newest.empty() ? fs::path(name) : newest;
}

ConnectionPtr connect(const std::string& conninfo) {
    ConnectionPtr connection(PQconnectdb(conninfo.c_str()));
    if (PQstatus(connection.get()) != CONNECTION_OK)
        throw std::runtime_error(PQerrorMessage(connection.get()));
    PQsetNoticeProcessor(
        connection.get(), [](void*, const char*) {}, nullptr);
    return connection;
}

RowsPtr execute(PGconn* connection, const std::string& statements) {
    RowsPtr rows(PQexec(connection, statements.c_str()));
    const ExecStatusType status = PQresultStatus(rows.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        throw std::runtime_error(std::string(PQerrorMessage(connection)) + statements.substr(0, 400));
    return rows;
}

}  // namespace

fs::path traversable(const fs::path& directory) {
    fs::create_directories(directory);
    if (geteuid() == 0)
        fs::permissions(directory, fs::perms::others_exec | fs::perms::group_exec, fs::perm_options::add);
    return directory;
}

fs::path temporaryDirectory(const char* prefix) {
    std::string pattern = fs::temp_directory_path() / (std::string(prefix) + "-XXXXXX");
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("can't make a temporary directory");
    return traversable(pattern);
}

Cluster::Cluster(const fs::path& directory, bool diesWithParent)
    : directory_(directory), serviceFile_(directory / "pg_service.conf"), diesWithParent_(diesWithParent) {
    const Account account = serverAccount();
    fs::create_directories(directory_);
    if (account.uid != 0 && chown(directory_.c_str(), account.uid, account.gid) == -1)
        throw std::runtime_error("can't give " + directory_.string() + " to user postgres");
    ProcessOptions options;
    options.uid = account.uid;
    options.gid = account.gid;
    options.output = directory_ / "initdb.log";
    if (run({serverProgram("initdb"), "-D", directory_ / "data", "-U", "dq", "--auth=trust", "-E", "UTF8",
             "--locale=C.UTF-8", "--no-sync"},
            options) != 0)
        throw std::runtime_error("initdb failed, see " + options.output.string());
    start();
    runSql(conninfo("postgres"), "CREATE DATABASE dqdb");
    runSql(conninfo("postgres"), "ALTER DATABASE dqdb SET search_path = dq, public");
    runSql(conninfo(), std::string(SCHEMA_SQL) + SEED_SQL);
}

void Cluster::start() {
    const Account account = serverAccount();
    if (port_ == 0)
        port_ = freePort();
    ProcessOptions options;
    options.uid = account.uid;
    options.gid = account.gid;
    options.output = directory_ / "server.log";
    options.diesWithParent = diesWithParent_;
    options.ownGroup = true;
    server_ = Process({serverProgram("postgres"), "-D", directory_ / "data", "-p", std::to_string(port_), "-c",
                       "listen_addresses=localhost", "-c", "unix_socket_directories=", "-c", "fsync=off", "-c",
                       "max_connections=200", "-c", "shared_buffers=64MB", "-c", "log_min_messages=fatal"},
                      options);
    std::ofstream(serviceFile_) << "[localhost]\nhost=localhost\nport=" << port_ << "\nuser=dq\n";
    const auto deadline = std::chrono::steady_clock::now() + START_LIMIT;
    while (PQping(conninfo("postgres").c_str()) != PQPING_OK) {
        if (!server_.running() || std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error("the database server doesn't start, see " + options.output.string());
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// SIGINT: disconnects its clients and ends in order.
void Cluster::stop() {
    server_.stop(SIGINT);
}

void Cluster::kill() {
    server_.stop(SIGQUIT);
}

std::string Cluster::conninfo(const std::string& database) const {
    return "host=localhost user=dq port=" + std::to_string(port_) + " dbname=" + database;
}

void runSql(const std::string& conninfo, const std::string& statements) {
    const ConnectionPtr connection = connect(conninfo);
    (void)execute(connection.get(), statements);
}

std::string queryValue(const std::string& conninfo, const std::string& query) {
    const ConnectionPtr connection = connect(conninfo);
    const RowsPtr rows = execute(connection.get(), query);
    return PQntuples(rows.get()) == 0 ? std::string() : std::string(PQgetvalue(rows.get(), 0, 0));
}

}  // namespace lab
