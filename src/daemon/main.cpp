// ferryd - the replication daemon, and with `util` as its first argument the operator's command line.

#include <curl/curl.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "base/signal_flags.h"
#include "base/standard_streams.h"
#include "commands/util.h"
#include "daemon/daemon.h"
#include "log/logger.h"

int main(int argc, char** argv) {
    settleDescriptors();  // before the log, or anything else, is opened
    try {
        LOG_HERE(2, "Setting up signal handling");
        installSignalHandlers();
        curl_global_init(CURL_GLOBAL_ALL);
        if (argc > 1 && (std::strcmp(argv[1], "utility") == 0 || std::strcmp(argv[1], "util") == 0))
            return runUtility(argc, argv);
        return runDaemon(argc, argv);
    } catch (const std::exception& e) {
        LOG_HERE(0, "ferryd can't go on: %s", e.what());
        fprintf(stderr, "ferryd: %s\n", e.what());
        return 1;
    }
}
