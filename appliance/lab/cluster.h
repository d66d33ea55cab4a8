// cluster.h - a private PostgreSQL cluster with the appliance's catalogue, on a loopback port of its own.
#pragma once

#include <filesystem>
#include <string>

#include "lab/process.h"

namespace lab {

// The catalogue as SQL: the empty schema, and the rows that a fresh one brings.
extern const char* const SCHEMA_SQL;
extern const char* const SEED_SQL;

// The directory (made if need be) or a new temporary one, such that the database's own user comes through it.
std::filesystem::path traversable(const std::filesystem::path& directory);
[[nodiscard]] std::filesystem::path temporaryDirectory(const char* prefix);

// A running cluster in a directory of its own; stopped when dropped. Started by root it runs as user postgres.
// All failures throw std::runtime_error with the reason.
class Cluster {
public:
    Cluster() = default;
    // Makes the cluster and its database "dqdb" with the schema. `diesWithParent`: the server ends with this process.
    Cluster(const std::filesystem::path& directory, bool diesWithParent);

    void stop();
    void start();

    // Ends the server at once, as a power cut would.
    void kill();

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] pid_t pid() const { return server_.pid(); }
    pid_t detach() { return server_.detach(); }

    // The connection service file that names this cluster "localhost".
    [[nodiscard]] const std::filesystem::path& serviceFile() const { return serviceFile_; }

    // For libpq, to the database "dqdb".
    [[nodiscard]] std::string conninfo(const std::string& database = "dqdb") const;

private:
    std::filesystem::path directory_;
    std::filesystem::path serviceFile_;
    int port_ = 0;
    bool diesWithParent_ = true;
    Process server_;
};

// Runs statements on a connection of its own; throws with the server's message.
void runSql(const std::string& conninfo, const std::string& statements);

// The first field of the first row, empty for none.
[[nodiscard]] std::string queryValue(const std::string& conninfo, const std::string& query);

}  // namespace lab
