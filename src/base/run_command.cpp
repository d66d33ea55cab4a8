#include "base/run_command.h"

#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <thread>
#include <vector>

#include "base/job_gate.h"

extern char** environ;

namespace {

// The groups of the commands that run. A pid leaves the list before it is reaped: a signal never meets a new process
// of the same number.
std::mutex g_lock;
std::vector<pid_t> g_groups;  // guarded by g_lock

class SpawnAttributes {
public:
    SpawnAttributes() { error_ = posix_spawnattr_init(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() {
        if (error_ == 0)
            (void)posix_spawnattr_destroy(&attributes_);
    }

    // Default dispositions and an empty mask: a tool must not inherit that SIGPIPE is ignored here, or that a thread
    // blocks SIGTERM. The library blocks all signals until the dispositions are in place, so that no handler of this
    // process runs in the child.
    [[nodiscard]] int setUp() {
        if (error_ != 0)
            return error_;
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        int error = posix_spawnattr_setsigdefault(&attributes_, &all);
        if (error == 0)
            error = posix_spawnattr_setsigmask(&attributes_, &none);
        if (error == 0)
            error = posix_spawnattr_setpgroup(&attributes_, 0);
        if (error == 0)
            error = posix_spawnattr_setflags(&attributes_,
                                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
        return error;
    }
    [[nodiscard]] const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
    int error_;
};

class SpawnActions {
public:
    SpawnActions() { error_ = posix_spawn_file_actions_init(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    ~SpawnActions() {
        if (error_ == 0)
            (void)posix_spawn_file_actions_destroy(&actions_);
    }

    // Put onto itself a descriptor loses just its mark to be closed.
    [[nodiscard]] int keep(int fd) {
        if (error_ == 0 && fd != -1)
            error_ = posix_spawn_file_actions_adddup2(&actions_, fd, fd);
        return error_;
    }
    [[nodiscard]] const posix_spawn_file_actions_t* get() const { return &actions_; }

private:
    posix_spawn_file_actions_t actions_;
    int error_;
};

// 0 and the pid, or an error number.
int spawnShell(const std::string& command, int inherited, pid_t* pid) {
    SpawnAttributes attributes;
    SpawnActions actions;
    int error = attributes.setUp();
    if (error == 0)
        error = actions.keep(inherited);
    if (error != 0)
        return error;
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
    // Not fork: a worker with large block buffers would copy its page tables for each tool.
    return posix_spawn(pid, "/bin/sh", actions.get(), attributes.get(), arguments, environ);
}

// Begins a command in the list of groups, so that endCommands either finds it there or keeps it from beginning.
int begin(const std::string& command, int inherited, pid_t* pid) {
    for (;;) {
        passJobGate();
        const std::lock_guard lock(g_lock);
        if (jobGateIsClosed())
            continue;
        g_groups.reserve(g_groups.size() + 1);  // before there is something that could be lost
        const int error = spawnShell(command, inherited, pid);
        if (error == 0)
            g_groups.push_back(*pid);
        return error;
    }
}

void forget(pid_t group) {
    const std::lock_guard lock(g_lock);
    std::erase(g_groups, group);
}

// Signals all groups, and forgets those that have gone. Whether any is left.
bool signalGroups(int signal) {
    const std::lock_guard lock(g_lock);
    std::erase_if(g_groups, [signal](pid_t group) { return kill(-group, signal) == -1 && errno == ESRCH; });
    return !g_groups.empty();
}

bool groupsGoneWithin(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (signalGroups(0)) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace

int runCommand(const std::string& command, int inherited) {
    pid_t pid = -1;
    const int error = begin(command, inherited, &pid);
    if (error != 0) {
        errno = error;
        return -1;
    }
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == -1 && errno == EINTR) {
    }
    // While the process is being stopped the shell may have ended before what it started: the group stays on the list.
    if (!jobGateIsClosed())
        forget(pid);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1)
        if (errno != EINTR)
            return -1;
    passJobGate();
    forget(pid);
    return status;
}

void endCommands(std::chrono::milliseconds patience) {
    (void)signalGroups(SIGTERM);
    if (groupsGoneWithin(patience))
        return;
    (void)signalGroups(SIGKILL);
    (void)groupsGoneWithin(patience);  // the kernel takes a moment
}

std::string shellQuoted(std::string_view text) {
    constexpr std::string_view SAFE = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_@%+=:,./-";
    if (!text.empty() && text.find_first_not_of(SAFE) == std::string_view::npos)
        return std::string(text);
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted += '\'';
}
