// common_internal.h - what the sources of the catalogue queries share.
#pragma once

#include <array>
#include <string>

// Keeps a text for dqLastError and logs it as an error of `function`, the public one, at the given line.
void dqStoreError(const char* file, int line, const char* function, const std::string& text);

#define DQ_ERROR(function, ...) dqStoreError(__FILE__, __LINE__, function, formatString(__VA_ARGS__))

// How the catalogue is asked for the chain that a restore needs: by three types of the family, by two, or by the
// backup's own type alone, which then may have failed in part.
enum class ChainForm { one, two, three };

// Backup types that build on one another. The first stands alone; 0 fills up.
struct BackupFamily {
    std::array<int, 3> types;  // full, differential, incremental; or full and what follows
    ChainForm restore;
    bool synthesis;              // incrementals can be put together to a newer full
    const char* name = nullptr;  // on the log, where a chain is that of one type
};

// Null for a type that belongs to no family.
[[nodiscard]] const BackupFamily* familyOf(int type);
