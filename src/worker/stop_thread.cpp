#include "worker/stop_thread.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>

#include "bandwidth/blockOut.h"
#include "base/job_gate.h"
#include "base/run_command.h"
#include "base/signals.h"
#include "block/signal_catch.h"
#include "log/logger.h"

namespace {

constexpr unsigned WATCHDOG_SECONDS = 10;  // a cleanup that hangs is ended by SIGALRM
constexpr auto PROGRESS_LIMIT = std::chrono::seconds(4);
constexpr int STOPPED_STATUS = 1;

sigset_t stopSignals() {
    return signalSet({SIGTERM, SIGINT, SIGQUIT});
}

void armWatchdog() {
    (void)signal(SIGALRM, SIG_DFL);
    const sigset_t alarmSet = signalSet({SIGALRM});
    (void)pthread_sigmask(SIG_UNBLOCK, &alarmSet, nullptr);
    (void)alarm(WATCHDOG_SECONDS);
}

}  // namespace

StopThread::StopThread(WorkerJob* job) : job_(job) {
    const sigset_t signals = stopSignals();
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // fails only for a bad `how`
    signals_.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    wake_.reset(eventfd(0, EFD_CLOEXEC));
    if (!signals_.isOpen() || !wake_.isOpen())
        throw std::runtime_error(std::string("can't wait for signals: ") + strerror(errno));
    thread_ = std::thread([this] { run(); });
}

StopThread::~StopThread() {
    const std::uint64_t one = 1;
    (void)!write(wake_.get(), &one, sizeof one);  // the counter of a new eventfd has room
    thread_.join();
}

void StopThread::run() {
    pollfd entries[] = {{signals_.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    for (;;) {
        if (poll(entries, 2, -1) == -1)
            continue;
        if ((entries[1].revents & POLLIN) != 0)
            return;
        signalfd_siginfo info{};
        if (read(signals_.get(), &info, sizeof info) != sizeof info)
            continue;
        closeJobGate();
        // 1: hash data is being changed; the signal comes again when that has ended.
        if (noteSignal(static_cast<int>(info.ssi_signo)) == 0)
            stopWorker();
        openJobGate();
    }
}

// The gate is closed: the job stands still. Its tools go before anything that might hang. What libcurl holds goes with
// the process: one of its threads may be anywhere in it.
void StopThread::stopWorker() {
    armWatchdog();
    try {
        endCommands();
        detachBandwidthTable();
        job_->progress.closeAllAtExit(PROGRESS_LIMIT);
    } catch (const std::exception& e) {
        LOG_HERE(0, "Cleaning up failed: %s", e.what());
    }
    _exit(STOPPED_STATUS);
}
