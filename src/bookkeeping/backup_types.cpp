// backup_types.cpp - the table of backup types and what hangs on a type alone.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "bookkeeping/common.h"
#include "bookkeeping/common_internal.h"
#include "config/directories.h"
#include "config/ini.h"
#include "config/services.h"
#include "log/logger.h"

namespace {

constexpr const char* FILE_LEVEL = "file-level";

struct TypeRow {
    int type;
    const char* text;         // null: the application's name and `suffix`
    const char* suffix;       // of the application-extension types
    const char* application;  // the family
    int jobCode;
    bool selfContained;
};

constexpr std::array<TypeRow, 29> TYPES = {{
    {TYPE_MASTER, "Master", "", FILE_LEVEL, 1, true},
    {TYPE_DIFFERENTIAL, "Differential", "", FILE_LEVEL, 2, false},
    {TYPE_INCREMENTAL, "Incremental", "", FILE_LEVEL, 3, false},
    {TYPE_SELECTIVE, "Selective", "", FILE_LEVEL, 4, false},
    {TYPE_EXCHANGE_FULL, "MSExch Full", "", "Exchange", 21, true},
    {TYPE_EXCHANGE_DIFF, "MSExch Diff", "", "Exchange", 22, false},
    {TYPE_EXCHANGE_INCR, "MSExch Incr", "", "Exchange", 23, false},
    {TYPE_SQL_FULL, "MSSQL Full", "", "SQL Server", 31, true},
    {TYPE_SQL_DIFF, "MSSQL Diff", "", "SQL Server", 32, false},
    {TYPE_SQL_TRANS, "MSSQL Trans", "", "SQL Server", 33, false},
    {TYPE_ESX_FULL, "ESX VM Full", "", "VMware", 41, true},
    {TYPE_ESX_DIFF, "ESX VM Diff", "", "VMware", 42, false},
    {TYPE_ESX_INCR, "ESX VM Incr", "", "VMware", 43, false},
    {TYPE_BARE_METAL, "BareMetal", "", FILE_LEVEL, 101, true},
    {TYPE_LOCAL_DIR, "LocalDir", "", FILE_LEVEL, 0, false},
    {TYPE_HYPERV_FULL, "Hyper-V Full", "", "Hyper-V", 51, true},
    {TYPE_HYPERV_DIFF, "Hyper-V Diff", "", "Hyper-V", 52, false},
    {TYPE_HYPERV_INCR, "Hyper-V Incr", "", "Hyper-V", 53, false},
    {TYPE_ORACLE_FULL, "Oracle Full", "", "Oracle", 71, true},
    {TYPE_ORACLE_INCR, "Oracle Incr", "", "Oracle", 72, false},
    {TYPE_SHAREPOINT_FULL, "SharePoint Full", "", "SharePoint", 81, true},
    {TYPE_SHAREPOINT_DIFF, "SharePoint Diff", "", "SharePoint", 82, false},
    {TYPE_SYSTEM_METADATA, "System Metadata", "", FILE_LEVEL, 102, true},
    {TYPE_EXTENSION_FULL, nullptr, "Full", "ZUL", 61, true},
    {TYPE_EXTENSION_DIFF, nullptr, "Diff", "ZUL", 62, false},
    {TYPE_EXTENSION_INCR, nullptr, "Incr", "ZUL", 63, false},
    {TYPE_NDMP_FULL, "NDMP Full", "", FILE_LEVEL, 91, true},
    {TYPE_NDMP_DIFF, "NDMP Diff", "", FILE_LEVEL, 92, false},
    {TYPE_NDMP_INCR, "NDMP Incr", "", FILE_LEVEL, 93, false},
}};

constexpr int TYPE_ARCHIVE = 1025;  // has a family name but no text of its own

const TypeRow* findType(int type) {
    const auto row = std::find_if(TYPES.begin(), TYPES.end(), [type](const TypeRow& r) { return r.type == type; });
    return row != TYPES.end() ? &*row : nullptr;
}

// A limit counts if the whole value is a number of at least two pages.
bool readSubfileLimit(const std::string& key, std::uint64_t* bytes) {
    char value[40];
    (void)ini_get_string("fileDedup", key.c_str(), "", value, sizeof value, g_master_ini);
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = strtoull(value, &end, 0);
    if (end == value || *end != '\0' || errno != 0 || std::strchr(value, '-') != nullptr ||
        number < 2 * static_cast<unsigned long long>(sysconf(_SC_PAGESIZE)))
        return false;
    *bytes = number;
    return true;
}

bool readNamedSubfileLimit(const std::string& name, std::uint64_t* bytes) {
    char key[80];
    if (formatText(key, sizeof key, "maxSubfileBytes_%s", name.c_str()) == -1) {
        LOG_HERE(0, "ERROR:  internal error, backup type \"%s\" too long, using default setting.\n", name.c_str());
        return false;
    }
    std::replace(key, key + std::strlen(key), ' ', '_');
    return readSubfileLimit(key, bytes);
}

bool platformReplicates() {
    return platformHasWord("replication", CapabilityPlace::anywhere);
}

}  // namespace

const BackupFamily* familyOf(int type) {
    static constexpr BackupFamily FAMILIES[] = {
        {{TYPE_MASTER, TYPE_DIFFERENTIAL, TYPE_INCREMENTAL}, ChainForm::one, true, "Master"},
        {{TYPE_SELECTIVE, 0, 0}, ChainForm::one, false, "Selective"},
        {{TYPE_BARE_METAL, 0, 0}, ChainForm::one, false, "Bare Metal"},
        {{TYPE_SYSTEM_METADATA, 0, 0}, ChainForm::one, false, "System Metadata"},
        {{TYPE_EXCHANGE_FULL, TYPE_EXCHANGE_DIFF, TYPE_EXCHANGE_INCR}, ChainForm::three, false},
        {{TYPE_SQL_FULL, TYPE_SQL_DIFF, TYPE_SQL_TRANS}, ChainForm::three, false},
        {{TYPE_ESX_FULL, TYPE_ESX_DIFF, TYPE_ESX_INCR}, ChainForm::three, true},
        {{TYPE_HYPERV_FULL, TYPE_HYPERV_DIFF, TYPE_HYPERV_INCR}, ChainForm::three, true},
        {{TYPE_ORACLE_FULL, TYPE_ORACLE_INCR, 0}, ChainForm::two, false},
        {{TYPE_SHAREPOINT_FULL, TYPE_SHAREPOINT_DIFF, 0}, ChainForm::two, false},
        {{TYPE_EXTENSION_FULL, TYPE_EXTENSION_DIFF, TYPE_EXTENSION_INCR}, ChainForm::three, false},
        {{TYPE_NDMP_FULL, TYPE_NDMP_DIFF, TYPE_NDMP_INCR}, ChainForm::three, true},
    };
    for (const BackupFamily& family : FAMILIES)
        if (type != 0 && std::find(family.types.begin(), family.types.end(), type) != family.types.end())
            return &family;
    return nullptr;
}

bool isSelfContainedType(int type) {
    const TypeRow* row = findType(type);
    return row != nullptr && row->selfContained;
}

std::optional<std::string> backupTypeText(int type, const char* application) {
    const TypeRow* row = findType(type);
    if (row == nullptr)
        return std::nullopt;
    if (row->text != nullptr)
        return row->text;
    return std::string(application != nullptr ? application : "Generic") + " " + row->suffix;
}

const char* applicationName(int type) {
    if (type == TYPE_ARCHIVE)
        return "Archive";
    const TypeRow* row = findType(type);
    return row != nullptr ? row->application : FILE_LEVEL;
}

bool isFileLevelType(int type) {
    return std::strcmp(applicationName(type), FILE_LEVEL) == 0;
}

int jobTypeCode(int type) {
    const TypeRow* row = findType(type);
    return row != nullptr ? row->jobCode : 0;
}

std::uint64_t getMaxSubfileBytes(int type, std::int64_t properties) {
    std::uint64_t bytes = 0;
    if (type == TYPE_SELECTIVE && (properties & P_LEGACY_SQL) != 0) {
        if (readSubfileLimit("maxSubfileBytes_LEGACY_MSSQL", &bytes))
            return bytes;
    } else {
        // An administrator may set a limit for one type, or for all types of an application.
        const auto text = backupTypeText(type, nullptr);
        if (text && readNamedSubfileLimit(*text, &bytes))
            return bytes;
        if ((text || type == TYPE_ARCHIVE) && readNamedSubfileLimit(applicationName(type), &bytes))
            return bytes;
    }
    if (readSubfileLimit("maxSubfileBytes", &bytes))
        return bytes;
    return platformSupportsDedup() == 2 || platformReplicates() ? 0x100000 : 0x40000000;
}
