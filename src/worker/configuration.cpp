#include "worker/configuration.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "bandwidth/blockOut.h"
#include "config/directories.h"
#include "config/ini.h"
#include "config/settings.h"
#include "log/logger.h"
#include "rest/session.h"
#include "worker/statistics.h"

namespace {

constexpr const char* SECTION = "Replication";
constexpr std::size_t BLOCK_OUT_SIZE = 4096;                 // bytes of the schedule's text
constexpr std::size_t BLOCK_OUT_GUARD = BLOCK_OUT_SIZE - 2;  // written only by a text that is too long
constexpr std::size_t TARGET_LIMIT = 64;

unsigned g_pinned = 0;
time_t g_lastRead = 0;
// What an option asked for: the switches of the file override it, and it comes back when they allow it.
int g_pinnedMaxConcurrent = 0;
int g_pinnedQueueScheme = 0;

bool isPinned(PinnedSetting setting) {
    return (g_pinned & setting) != 0;
}

int number(const char* key, int defaultValue) {
    return ini_get_int(SECTION, key, defaultValue, g_master_ini);
}

bool truth(const char* section, const char* key, bool defaultValue) {
    unsigned char value = defaultValue ? 1 : 0;
    (void)ini_get_bool(section, key, defaultValue ? 1 : 0, &value, g_master_ini);  // the default is in place
    return value != 0;
}

// A name that is cut names another host, or none; the log says why the target isn't found.
std::string readTargetName(const std::string& defaultName) {
    std::string name = ini_text(SECTION, "SyncTo", defaultName.c_str(), g_master_ini);
    if (name.size() > TARGET_LIMIT) {
        LOG_HERE(0, "WARNING: The variable 'SyncTo' in file %s is longer than %zu bytes. Cut.", g_master_ini.c_str(),
                 TARGET_LIMIT);
        name.resize(TARGET_LIMIT);
    }
    return name;
}

void readPinnable() {
    const ReplicationSettings defaults;
    if (!isPinned(PIN_TARGET))
        g_settings.targetName = readTargetName(defaults.targetName);
    if (!isPinned(PIN_TIME_DELAY))
        g_settings.timeDelay = number("TimeDelay", defaults.timeDelay);
    if (!isPinned(PIN_THROTTLE))
        g_settings.throttle = number("Throttle", defaults.throttle);
    if (!isPinned(PIN_VERIFY))
        g_settings.verifyCount = number("VerifyOnGet", 0) + number("VerifyOnPut", 1);
    g_settings.maxConcurrent = isPinned(PIN_MAX_CONCURRENT) ? g_pinnedMaxConcurrent : number("MaxConcurrent", 5);
    if (!isPinned(PIN_RECORD_RETENTION))
        g_settings.recordRetention = number("RecordRetention", defaults.recordRetention);
    if (!isPinned(PIN_MAX_BLOCKS)) {
        const int maxBlocks = number("MaxBlocks", static_cast<int>(defaults.maxBlocks));
        g_settings.maxBlocks = maxBlocks < 1 ? defaults.maxBlocks : static_cast<std::uint64_t>(maxBlocks);
    }
    if (!isPinned(PIN_META_SIZE))
        g_settings.metaSize = number("MetaSize", defaults.metaSize);
    if (!isPinned(PIN_CLUSTER))
        g_settings.cluster = number("Cluster", defaults.cluster);
    if (isPinned(PIN_QUEUE_SCHEME)) {
        g_settings.queueScheme = g_pinnedQueueScheme;
    } else {
        g_settings.queueScheme = number("QueueScheme", defaults.queueScheme);
        LOG_HERE(2, "queue scheme: %d", g_settings.queueScheme);
    }
}

// Workers start only with replication enabled and the other kind of synchronisation off.
void applySwitches() {
    const bool enabled = truth(SECTION, "Enabled", false);
    const bool autoSync = truth("tidesync", "AutoSyncEnabled", false);
    if (!enabled || autoSync)
        g_settings.maxConcurrent = 0;
    if (g_settings.targetName.empty())
        g_settings.queueScheme = 0;
}

void readBlockOutPeriods() {
    char text[BLOCK_OUT_SIZE];
    text[BLOCK_OUT_GUARD] = '\0';
    (void)ini_get_string(SECTION, "BlockOutPeriods", "", text, sizeof text, g_master_ini);  // the default is in place
    if (text[BLOCK_OUT_GUARD] != '\0') {
        LOG_HERE(0, "WARNING: The variable 'BlockOutPeriods' in file %s\n         is too long. Ignored.\n",
                 g_master_ini.c_str());
        std::memset(text, 0, sizeof text);
    }
    if (parseBlockOutPeriods(text) < 0)
        LOG_HERE(0, "WARNING: The variable 'BlockOutPeriods' in file %s\n         is invalid. Ignored.\n",
                 g_master_ini.c_str());
}

void readFile() {
    readPinnable();
    const ReplicationSettings defaults;
    g_settings.retryCount = number("RetryCount", defaults.retryCount);
    log_level = ini_get_int("debugging", "ferryd", 0, g_master_ini);
    g_settings.checkpoint = truth(SECTION, "Checkpoint", defaults.checkpoint);
    if (g_settings.checkpoint)
        LOG_HERE(2, "Using checkpoint system");
    else
        LOG_HERE(2, "Not using checkpoint system");
    applySwitches();
    g_settings.localBlockElimination = truth(SECTION, "LocalBlockElimination", defaults.localBlockElimination);
    g_settings.blockEliminationType = number("BlockEliminationType", defaults.blockEliminationType);
    g_settings.blockEliminationCandidate = number("BlockEliminationCandidate", defaults.blockEliminationCandidate);
    if (g_settings.maxConcurrent != 0)
        readBlockOutPeriods();
}

}  // namespace

void resetConfiguration() {
    g_pinned = 0;
    g_lastRead = 0;
}

void pinSetting(PinnedSetting setting) {
    g_pinned |= setting;
    g_pinnedMaxConcurrent = g_settings.maxConcurrent;
    g_pinnedQueueScheme = g_settings.queueScheme;
}

void readConfiguration() {
    resetSdsStatsFlag();
    struct stat st;
    if (stat(g_master_ini.c_str(), &st) == -1) {
        LOG_HERE(0, "Can't stat %s: %s", g_master_ini.c_str(), strerror(errno));
    } else if (st.st_mtime > g_lastRead) {
        g_lastRead = st.st_mtime;
        readFile();
    }
    readSocketOptions(g_master_ini);
}
