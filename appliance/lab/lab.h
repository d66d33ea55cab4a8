// lab.h - a source and a vault on one machine: roots, clusters, programs. The demo and the end-to-end tests live in it.
//
// Errors: std::runtime_error with the reason. Everything that was started ends with the objects here.
#pragma once

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "lab/cluster.h"
#include "lab/process.h"

namespace lab {

// One appliance: a root with its directories and ini files, a catalogue, one disk.
class Appliance {
public:
    Appliance(const std::filesystem::path& directory, bool diesWithParent);

    [[nodiscard]] const std::filesystem::path& root() const { return root_; }
    [[nodiscard]] std::filesystem::path disk() const { return root_ / "backups/D2D"; }
    [[nodiscard]] std::filesystem::path logs() const { return root_ / "usr/dq/logs.dir"; }
    [[nodiscard]] std::filesystem::path backupFile(std::uint64_t backupNo) const;

    // What a program needs to live on this appliance.
    [[nodiscard]] std::map<std::string, std::string> environment() const;
    [[nodiscard]] Process start(const std::vector<std::string>& command, const std::string& output) const;
    // Runs a program to its end; its exit status, and standard output if wanted.
    int run(const std::vector<std::string>& command, std::string* output = nullptr) const;

    // What encrypts or decrypts on this appliance needs its key service.
    void startKeyService();
    void stopKeyService(int signal = SIGTERM) { keyService_.stop(signal); }
    Process& keyService() { return keyService_; }

    // Replaces master.ini: its modification time rises each time, as the daemon looks for that.
    void masterIni(const std::string& text);

    Cluster& cluster() { return cluster_; }
    [[nodiscard]] std::string value(const std::string& query) const;
    void sql(const std::string& statements) const { runSql(cluster_.conninfo(), statements); }

    // Back to a new appliance: an empty catalogue, no backups, no logs, no archive key. Ends the key service; no other
    // program may run on it.
    void reset();

    // All logs of the programs that ran here, one behind the other.
    [[nodiscard]] std::string log(const std::string& program) const;

private:
    void addDisk() const;
    [[nodiscard]] ProcessOptions processOptions(const std::string& output) const;

    std::filesystem::path root_;
    Cluster cluster_;
    bool diesWithParent_;
    Process keyService_;
};

struct LabOptions {
    bool diesWithParent = true;
    std::string sourceSettings;  // further lines for section Replication of the source's master.ini
    std::string dedupSettings;   // and for section fileDedup
};

class Lab {
public:
    explicit Lab(const std::filesystem::path& directory, LabOptions options = {});
    ~Lab();

    Appliance& source() { return source_; }
    Appliance& vault() { return vault_; }
    [[nodiscard]] std::string vaultName() const;

    void startVault(const std::vector<std::string>& options = {});
    void stopVault(int signal = SIGTERM);
    Process& vaultProcess() { return vaultProcess_; }

    // In the foreground as our child, so that nothing stays behind.
    void startDaemon();
    void stopDaemon(int signal = SIGTERM);
    Process& daemonProcess() { return daemon_; }

    // Ends both programs and makes both appliances new, with the settings of the beginning.
    void reset();

    // Makes a backup of a directory and returns its number. Options are those of ingest.
    std::uint64_t ingest(const std::filesystem::path& directory, int type = 1,
                         const std::vector<std::string>& options = {});

    // Status of a backup's queue row, 0 for none.
    [[nodiscard]] int queueStatus(std::uint64_t backupNo) const;
    // Waits until the row has one of the statuses in the mask; false at the deadline.
    [[nodiscard]] bool waitForStatus(std::uint64_t backupNo, int mask, std::chrono::seconds limit) const;

    // The number that a backup has on the vault, 0 if it isn't complete there.
    [[nodiscard]] std::uint64_t targetNumber(std::uint64_t backupNo) const;
    // Whether the vault's rebuilt backup equals the clean stream that was ingested here, by SHA-512.
    [[nodiscard]] bool sameOnVault(std::uint64_t backupNo) const;

    // Changes one key of section Replication; it takes effect with the daemon's next pass.
    void setReplication(const std::string& key, const std::string& value);

    // Further lines of section fileDedup, and whole sections, for the source's master.ini.
    void setFurther(const std::string& sections);

private:
    void useFirstSettings();
    void addOperationTypes() const;
    void writeSourceIni();
    [[nodiscard]] std::string streamDigest(std::uint64_t backupNo) const;

    std::filesystem::path directory_;
    LabOptions options_;
    std::map<std::string, std::string> replication_;
    std::string furtherSettings_;
    std::map<std::uint64_t, std::string> streams_;  // digests of the backups' clean streams
    Appliance source_;
    Appliance vault_;
    int vaultPort_;
    Process vaultProcess_;
    Process daemon_;
};

// SHA-512 of a file in hexadecimal.
[[nodiscard]] std::string fileDigest(const std::filesystem::path& path);

}  // namespace lab
