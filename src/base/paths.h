// paths.h - every absolute path that the system names, and the root that stands in front of all of them.
//
// The environment variable FERRYD_ROOT (default empty, ignored in privileged programs) is put before each of these
// paths, so that several appliances, tests among them, live on one machine without touching the real one. Paths under
// /proc and /dev/null, values from ini files and device paths from the catalogue are used as they are.
#pragma once

#include <string>
#include <string_view>

namespace paths {
inline constexpr std::string_view INI_DIR = "/etc/default/";
inline constexpr std::string_view DQ_INI = "/etc/default/dq.ini";
inline constexpr std::string_view INSTALL_DIR = "/usr/dq";
inline constexpr std::string_view RUN_DIR = "/var/run";
inline constexpr std::string_view PLATFORM_CAPABILITIES = "/var/opt/kestrelix/platform_capabilities";
inline constexpr std::string_view FALLBACK_LOG_DIR = "/tmp";
inline constexpr std::string_view FALLBACK_LOG = "/tmp/program.log";
inline constexpr std::string_view REPLICATION_RESULT_CSV = "/tmp/replicationResult.csv";
inline constexpr std::string_view CRYPTO_DAEMON_STATE = "/var/run/cryptoDaemonState";
inline constexpr std::string_view CIPHER_CARD = "/dev/rx9";
inline constexpr std::string_view DQUTIL = "/usr/dq/bin/dqutil";
inline constexpr std::string_view INSTALLED_MASTER_INI = "/usr/dq/dqinit/master.ini";
inline constexpr std::string_view HASH_LOCK_FILE = "/dev/shm/.hashLockFile";
inline constexpr std::string_view SIS_INFO = "/backups/SISinfo";
inline constexpr std::string_view SIS_LOCK_FILE = "/dev/shm/.SISlockFile";
}  // namespace paths

// The path with the root in front. Thread-safe.
[[nodiscard]] std::string systemPath(std::string_view path);

// For tests that need several roots in one process: replaces the root taken from the environment. Not while threads
// run.
void overrideSystemRoot(std::string_view root);
