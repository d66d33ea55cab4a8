#include "worker/cancel.h"

#include <optional>
#include <string_view>

#include "log/logger.h"
#include "replication/replication.h"
#include "rest/lifecycle.h"
#include "rest/session.h"

namespace {

constexpr const char* UNKNOWN_IDENTITY = "tempUUID";
constexpr std::string_view TERMINATED_TEXT{"backup operation terminated\0", 28};  // its NUL travels too

}  // namespace

int cancelOnTarget(std::uint64_t backupNo, const std::string& target) {
    std::optional<std::string> identity;
    if (getUniversalBackupIdentity(backupNo, &identity) == -1 || !identity) {
        LOG_HERE(0, "Warning: Unable to get Universal Backup Identity. Using 'tempUUID'");
        identity = UNKNOWN_IDENTITY;
    }
    int curlCode = 0;
    const int result = endBackup(target, *identity, TERMINATED_TEXT, &curlCode);
    if (result == 0 && curlCode == 0)
        return 0;
    LOG_HERE(0, "Failed to notify target");
    if (curlCode != 0)
        LOG_HERE(0, "Curl status: %s", curlText(curlCode));
    return -1;
}
