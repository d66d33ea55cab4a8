#include "daemon/daemon.h"

#include <curl/curl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "bandwidth/blockOut.h"
#include "base/paths.h"
#include "base/signal_flags.h"
#include "base/signals.h"
#include "base/standard_streams.h"
#include "bookkeeping/replicationQueue.h"
#include "config/directories.h"
#include "config/program_log.h"
#include "config/settings.h"
#include "daemon/daemonize.h"
#include "daemon/options.h"
#include "daemon/policies.h"
#include "log/logger.h"
#include "worker/configuration.h"
#include "worker/worker.h"
#include "worker/worker_table.h"

namespace {

constexpr const char* LOAD_FILE = "/proc/loadavg";
constexpr int DEFAULT_INSTANCES = 1;

// Sleeps the pass delay. A stop, or a worker's end, that came since the flags were last looked at ends it at once: the
// signals are blocked from that look to the wait, which alone lets them in.
void sleepBetweenPasses() {
    const BlockedSignals blocked(parentSignals());
    if (stopRequested() || childEnded())
        return;
    const timespec delay{g_settings.timeDelay > 0 ? g_settings.timeDelay : 0, 0};
    (void)ppoll(nullptr, 0, &delay, &blocked.previous());
}

void reapIfChildEnded() {
    // A child that ends between the reap and the clearing would otherwise keep its slot for ever.
    const BlockedSignals blocked(parentSignals());
    if (!childEnded())
        return;
    LOG_HERE(3, "sigchld caught");
    reapWorkers();
    clearChildEnded();
}

bool loadIsTooHigh() {
    if (!(g_mode.loadLimit > 0.0F))  // nor for a text that reads as "not a number"
        return false;
    const float load = getLoadAverage(LOAD_FILE);
    if (load <= g_mode.loadLimit)
        return false;
    LOG_HERE(0, "Load is %.2f...too high. Waiting %d seconds.\n", static_cast<double>(load), g_settings.timeDelay);
    return true;
}

// Starts workers in the free slots. True in a worker whose job is done.
bool startWorkers() {
    const int free = std::max(g_settings.maxConcurrent, 0) - workerCount();
    LOG_HERE(3, "Starting %d workers\n", free);
    for (int i = 0; i < free; ++i) {
        std::string target = g_settings.targetName;  // the pick puts the row's own name over it
        if (runWorker(0, &target, true) == WORKER_DONE)
            return true;
    }
    return false;
}

// The loop. True in a worker whose job is done, false in the parent at its stop. Rows of workers that are gone block
// their instances, and nobody but the start of the daemon puts them back: as long as that hasn't worked, with a
// database that comes up later, nothing is picked, since afterwards the rows of our own workers could not be told from
// them.
bool loop() {
    bool rowsAreReset = false;
    while (!stopRequested()) {
        reapIfChildEnded();
        rowsAreReset = rowsAreReset || reset_active_rq() == 0;
        LOG_HERE(3, "Reading master.ini");
        readConfiguration();
        LOG_HERE(3, "Updating replication_queue");
        updateQueue();
        LOG_HERE(3, "Handling terminated operations");
        handleTerminatedOperations();
        if (!loadIsTooHigh()) {
            if (rowsAreReset && startWorkers())
                return true;
            (void)fflush(stdout);
            (void)fflush(stderr);
        }
        sleepBetweenPasses();
    }
    return false;
}

// Standard error is closed before the last steps; a log on it moves away first, and what the log itself may still have
// to say goes to /dev/null, so that nothing meets a closed stream.
void leave() {
    if (log_stream(nullptr) == stderr)
        (void)log_stream(fopen("/dev/null", "we"));
    (void)!freopen("/dev/null", "we", stderr);
    detachBandwidthTable();
    curl_global_cleanup();
}

void cleanup() {
    LOG_HERE(0, "Cleaning up");
    killWorkers();
    detachBandwidthTable();
    curl_global_cleanup();
    LOG_HERE(0, "Clear pid file");
    clearPidFile();
    releaseInstanceLock();
}

// The two ways to find the configuration and a log.
int startUp(const char* argv0) {
    set_program_name(argv0);
    if (g_mode.attached) {
        if (init_globals(ghAppName.c_str(), "dq.ini", systemPath(paths::INSTALL_DIR).c_str()) == -1)
            fprintf(stderr, "%s[%s,%d]: init_globals() failed\n", ghAppName.c_str(), __FILE__, __LINE__);
        (void)log_stream(stderr);
        (void)setlocale(LC_ALL, "");
        (void)setlocale(LC_NUMERIC, "C");  // numbers in statements and files don't follow the user's language
        tzset();
    } else {
        if (init_application() == -1)
            return -1;
        (void)push_name(ghAppName.c_str());
        (void)OpenProgramLog(ghAppName.c_str(), DEFAULT_INSTANCES);  // the log has its own fall-back
    }
    return 0;
}

}  // namespace

float getLoadAverage(const std::string& path) {
    float load = -1.0F;
    FILE* const file = fopen(path.c_str(), "re");
    if (file == nullptr)
        return load;
    if (fscanf(file, "%f", &load) != 1)
        load = -1.0F;
    (void)fclose(file);
    return load;
}

int runDaemon(int argc, char** argv) {
    resetConfiguration();
    log_level = 0;
    const int usage = parseOptions(argc, argv);
    if (usage != 0)
        return usage;
    if (startUp(argv[0]) == -1)
        return 1;
    if (g_mode.daemonize) {
        LOG_HERE(2, "Daemonize...");
        if (daemonize() != 0)
            return 0;
    } else {
        closeStandardInput();
    }
    if (takeInstanceLock() == -1) {
        if (g_mode.daemonize)
            clearPidFile();
        return 0;
    }
    if (createBandwidthTable() == -1)
        LOG_HERE(0, "Can't create shared bandwidth table.\n  All processes will use default bandwidth\n");
    const bool isWorker = loop();
    if (!isWorker) {
        LOG_HERE(0, "cleanup signal caught");
        cleanup();
    }
    leave();
    return 0;
}
