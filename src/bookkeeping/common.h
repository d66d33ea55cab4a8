// common.h - what replication asks of the appliance's catalogue: the meaning of its integer columns, attributes of a
// backup, the size of its final metadata, and the backups that it depends on.
//
// Threads: everything that runs a statement goes through pghelper, so one thread at a time. backupTypeText,
//          applicationName, isFileLevelType, jobTypeCode and getMaxSubfileBytes run in any thread.
// Errors:  -1, or the neutral value named at the function; all logged, none fatal. The dq... functions also leave a
//          text for dqLastError. Outputs are untouched on failure unless told.
// Units:   times are seconds since 1970, megabytes are 0x100000 bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Bits of backups.status. A target reports its status with the same bits.
inline constexpr int ST_COMPLETE = 0x0040;   // the job has ended
inline constexpr int ST_BUILDING = 0x0200;   // being built, here or on the target
inline constexpr int ST_ON_SYSTEM = 0x0400;  // fully present
inline constexpr int ST_SUCCESS = 0x0800;
inline constexpr int ST_FAILED = 0x1000;
inline constexpr int ST_WARNINGS = 0x4000;  // successful with warnings
inline constexpr int ST_CANCELLED = 0x8000;
// Test JOB_FAILED first: a failed job may carry bits of JOB_SUCCESS too.
inline constexpr int JOB_FAILED = 0x9018;
inline constexpr int JOB_SUCCESS = 0x0c40;
inline constexpr int JOB_ENDED = 0x0050;                       // any of these: the job has ended, well or badly
inline constexpr int ST_PRESENT = ST_COMPLETE | ST_ON_SYSTEM;  // any of these: a target holds the backup

// Bits of backups.properties.
inline constexpr int P_SDS = 0x0001;         // replicated record, can't be restored
inline constexpr int P_IMPORTED = 0x0020;    // of nodes.properties: the client's name is in gcname
inline constexpr int P_LEGACY_SQL = 0x0080;  // with type 4
inline constexpr int P_ENCRYPTED = 0x0100;
inline constexpr int P_HASHED = 0x0200;
inline constexpr int P_DEDUPLICATED = 0x0400;
inline constexpr int P_ANY_HASHED = P_HASHED | P_DEDUPLICATED;  // any of these: its blocks are known
inline constexpr int P_EARLY_SYNC = 0x0800;                     // may enter replication before its job has ended
inline constexpr int P_SYNTHESIS_CAPABLE = 0x1000;              // may be part of a synthesis group
inline constexpr int P_SYNTHETIC = 0x2000;                      // put together from other backups
inline constexpr int P_REPLICATED = 0x4000;                     // created by metadata import

// Bits of backups.sync_status.
inline constexpr int ST_SYNC_NEEDED = 1;
inline constexpr int ST_SYNC_DONE = 2;

// backups.tape_no of a logically deleted backup, read as a 32-bit value.
inline constexpr std::uint32_t TAPE_NO_DELETED = 0xffffffff;

// Values of backups.type.
inline constexpr int TYPE_MASTER = 1;
inline constexpr int TYPE_DIFFERENTIAL = 2;
inline constexpr int TYPE_INCREMENTAL = 3;
inline constexpr int TYPE_SELECTIVE = 4;
inline constexpr int TYPE_EXCHANGE_FULL = 5;
inline constexpr int TYPE_EXCHANGE_DIFF = 6;
inline constexpr int TYPE_EXCHANGE_INCR = 7;
inline constexpr int TYPE_SQL_FULL = 9;
inline constexpr int TYPE_SQL_DIFF = 10;
inline constexpr int TYPE_SQL_TRANS = 11;
inline constexpr int TYPE_ESX_FULL = 12;
inline constexpr int TYPE_ESX_DIFF = 13;
inline constexpr int TYPE_ESX_INCR = 14;
inline constexpr int TYPE_BARE_METAL = 1024;
inline constexpr int TYPE_LOCAL_DIR = 1027;
inline constexpr int TYPE_HYPERV_FULL = 1031;
inline constexpr int TYPE_HYPERV_DIFF = 1032;
inline constexpr int TYPE_HYPERV_INCR = 1033;
inline constexpr int TYPE_ORACLE_FULL = 1034;
inline constexpr int TYPE_ORACLE_INCR = 1035;
inline constexpr int TYPE_SHAREPOINT_FULL = 1036;
inline constexpr int TYPE_SHAREPOINT_DIFF = 1037;
inline constexpr int TYPE_SYSTEM_METADATA = 1038;
inline constexpr int TYPE_EXTENSION_FULL = 1039;
inline constexpr int TYPE_EXTENSION_DIFF = 4096;
inline constexpr int TYPE_EXTENSION_INCR = 4097;
inline constexpr int TYPE_NDMP_FULL = 4098;
inline constexpr int TYPE_NDMP_DIFF = 4099;
inline constexpr int TYPE_NDMP_INCR = 4100;

// Whether a backup of this type needs no other backup.
[[nodiscard]] bool isSelfContainedType(int type);

// The name of a type; null for a type that has none. The application-extension types are named after `application`,
// "Generic" when it is null.
[[nodiscard]] std::optional<std::string> backupTypeText(int type, const char* application);

// The application family of a type: "Exchange", "VMware", ..., "file-level" for all that have no family of their own.
[[nodiscard]] const char* applicationName(int type);
[[nodiscard]] bool isFileLevelType(int type);

// The code by which restores know a type; 0 for a type without one. Only Master has a code that is also the number of a
// self-contained type, on which the pruning of the queue relies.
[[nodiscard]] int jobTypeCode(int type);

// Attributes of a backup.
[[nodiscard]] int getBackupTypeName(std::uint64_t backupNo, std::string* text);
[[nodiscard]] int getBackupType(std::uint64_t backupNo);
[[nodiscard]] int getBackupDevice(std::uint64_t backupNo);
[[nodiscard]] std::int64_t getBackupMegs(std::uint64_t backupNo);  // 0 also on failure
// master.ini [Replication] failCheckStatus, not 0, makes this fail.
[[nodiscard]] int getBackupStatusAndProperties(std::uint64_t backupNo, int* status, std::int64_t* properties);
[[nodiscard]] int dq_is_backup_encrypted(std::uint64_t backupNo, bool* encrypted);
[[nodiscard]] std::optional<std::string> dqGetInstanceName(std::uint64_t instanceId);

// Application-extension backups, by the application of their instance. The first gives 0 for an unknown combination,
// the second "Unknown" and -1.
[[nodiscard]] int getZulJobTypeCodeBackupNo(int type, std::uint64_t backupNo);
[[nodiscard]] int GetZulBackupTypeStringBackupNo(int type, std::uint64_t backupNo, std::string* text);

// The text of the last failure of a dq... function in this thread; "(null)" when there was none.
[[nodiscard]] const char* dqLastError();

// Bytes of the largest subfile that is hashed as one piece. Reads master.ini; the built-in default asks the platform,
// which may start a shell.
[[nodiscard]] std::uint64_t getMaxSubfileBytes(int type, std::int64_t properties);

// Bytes to reserve: for the final metadata file alone, or for the whole backup. 0 on failure.
inline constexpr int ESTIMATE_HACTAR_FILE = 0;
inline constexpr int ESTIMATE_WHOLE_BACKUP = 1;
[[nodiscard]] std::uint64_t estimateHactarSize(std::uint64_t backupNo, int kind);

// The backups that make up a synthesized view of an incremental, in ascending order, and as a comma-joined text.
// Both outputs are optional; an error leaves the list empty.
[[nodiscard]] int dqGetSynthesisGroup(std::uint64_t backupNo, bool skipDiffs, bool skipMasters,
                                      std::vector<std::uint32_t>* list, std::string* groupText);

// One member of the chain that a restore needs. The fields from appId on are filled if the catalogue has instances.
struct RestoreGroupRecord {
    std::uint32_t backupNo = 0;
    std::uint64_t nodeNo = 0;
    int resultCode = 0;  // 0 success, 1 warnings, 2 failed
    int jobTypeCode = 0;
    std::int64_t startTime = 0;
    int appId = 0;
    std::string appName;  // at most 47 bytes
    std::uint64_t instanceId = 0;
    std::string instanceName;  // at most 127 bytes
};

// The chain that a restore of the backup needs, oldest first.
[[nodiscard]] int dqGetRestoreGroupOptimized(std::uint64_t backupNo, std::vector<RestoreGroupRecord>* list);

// Changes of a backup's sync bits. 0 or -1 (logged).
[[nodiscard]] int clearSyncNeeded(std::uint64_t backupNo);
[[nodiscard]] int setSyncDone(std::uint64_t backupNo);
