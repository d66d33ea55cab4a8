#include "daemon/options.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "config/settings.h"
#include "daemon/daemon.h"
#include "log/logger.h"
#include "worker/configuration.h"

namespace {

constexpr int TARGET_LIMIT = 64;  // bytes
constexpr int REFUSED = -1;

int takeTarget() {
    if (std::strlen(optarg) > TARGET_LIMIT) {
        LOG_HERE(0, "Invalid vault override\n");
        LOG_HERE(0, "Must be smaller than %d\n", TARGET_LIMIT);
        return REFUSED;
    }
    g_settings.targetName = optarg;
    pinSetting(PIN_TARGET);
    return 0;
}

// A text that is no number changes nothing: a slip of the operator must not pin a 0 that stops all workers for good.
int takeNumber(int key, int* setting, PinnedSetting pin) {
    if (sscanf(optarg, "%d", setting) != 1) {
        LOG_HERE(0, "Option -%c: '%s' is not a number. Ignored.", key, optarg);
        return 0;
    }
    pinSetting(pin);
    return 0;
}

int takeMaxBlocks() {
    unsigned long bytes = 0;
    const bool isNegative = std::strchr(optarg, '-') != nullptr;  // which %lu would take for a very large number
    if (isNegative || sscanf(optarg, "%lu", &bytes) != 1 || bytes == 0) {
        LOG_HERE(0, "Option -m: '%s' is not a size. Ignored.", optarg);
        return 0;
    }
    g_settings.maxBlocks = bytes;
    pinSetting(PIN_MAX_BLOCKS);
    return 0;
}

int takeOption(int key) {
    switch (key) {
        case 'a':
            g_mode.attached = true;
            break;
        case 'c':
            g_settings.cluster = 0;
            pinSetting(PIN_CLUSTER);
            break;
        case 'd':
            g_mode.daemonize = false;
            break;
        case 'l':
            (void)!sscanf(optarg, "%f", &g_mode.loadLimit);  // no number: no limit
            break;
        case 'm':
            return takeMaxBlocks();
        case 'o':
            return takeNumber(key, &g_settings.maxConcurrent, PIN_MAX_CONCURRENT);
        case 't':
            return takeNumber(key, &g_settings.timeDelay, PIN_TIME_DELAY);
        case 'q':
            return takeNumber(key, &g_settings.queueScheme, PIN_QUEUE_SCHEME);
        case 'v':
            return takeTarget();
        case 's':  // accepted for old command lines, without effect
            break;
        default:
            printf("Usage: \n");
            return 1;
    }
    return 0;
}

}  // namespace

int parseOptions(int argc, char** argv) {
    optind = 1;
    opterr = 0;
    for (int key; (key = getopt(argc, argv, "acdl:m:o:t:q:v:s:")) != -1;) {
        const int status = takeOption(key);
        if (status != 0)
            return status;
    }
    return 0;
}
