#include "base/run_command.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <string_view>

extern char** environ;

namespace {

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
    [[nodiscard]] int resetSignals() {
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
            error = posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        return error;
    }
    [[nodiscard]] const posix_spawnattr_t* get() const { return &attributes_; }

private:
    posix_spawnattr_t attributes_;
    int error_;
};

}  // namespace

int runCommand(const std::string& command) {
    SpawnAttributes attributes;
    int error = attributes.resetSignals();
    pid_t pid = -1;
    if (error == 0) {
        std::string shell = "sh";
        std::string option = "-c";
        std::string text = command;
        char* const arguments[] = {shell.data(), option.data(), text.data(), nullptr};
        // Not fork: a worker with large block buffers would copy its page tables for each tool.
        error = posix_spawn(&pid, "/bin/sh", nullptr, attributes.get(), arguments, environ);
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) == -1)
        if (errno != EINTR)
            return -1;
    return status;
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
