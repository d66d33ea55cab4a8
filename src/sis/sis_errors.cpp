// Error snapshots: the logs as they are at a failure that needs explaining, before they are rotated away.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "config/directories.h"
#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

namespace fs = std::filesystem;

constexpr char ARCHIVE_NAME[] = "LOGS.DIR.TGZ";

// Only calls that are safe after a fork of a process with threads.
[[noreturn]] void becomeTar(char* const* arguments) {
    (void)close_range(0, ~0u, 0);
    (void)open("/dev/null", O_RDWR);  // 0, and 1 and 2 below: tar must not take its archive for standard error
    (void)!dup(0);
    (void)!dup(0);
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);  // a worker's mask would be tar's for good
    char* environment[] = {nullptr};
    execve("/bin/tar", arguments, environment);
    _exit(127);
}

// Packs the directory in the background. A grandchild does it, so that nobody has to wait for it.
void packInBackground(const std::string& directory) {
    std::array<std::string, 8> words{"tar",
                                     "--create",
                                     "--gzip",
                                     "--file=" + directory + "/" + ARCHIVE_NAME,
                                     "--directory=" + directory,
                                     std::string("--exclude=") + ARCHIVE_NAME,
                                     ".",
                                     "--remove-files"};
    std::array<char*, words.size() + 1> arguments{};
    for (std::size_t i = 0; i < words.size(); ++i)
        arguments[i] = words[i].data();
    const pid_t child = fork();
    if (child == 0) {
        if (fork() == 0)
            becomeTar(arguments.data());
        _exit(0);
    }
    if (child == -1) {
        LOG_HERE(0, "fork(): %s\n", std::strerror(errno));
        return;
    }
    while (waitpid(child, nullptr, 0) == -1 && errno == EINTR)
        continue;
}

void linkLogs(const std::string& directory) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(g_logdir, error)) {
        if (!entry.is_regular_file(error))
            continue;
        const std::string target = directory + "/" + entry.path().filename().string();
        if (link(entry.path().c_str(), target.c_str()) == -1)
            log_message(0, "Could not save %s to %s: %s\n", entry.path().c_str(), target.c_str(), std::strerror(errno));
    }
}

}  // namespace

void captureSISerror(const std::string& suffix) {
    const std::string all = g_logdir + "/" + "errorSnapshots/";
    (void)mkdir(all.c_str(), 0755);  // it may be there; the next one tells
    const std::string directory = all + suffix;
    // tar removes what it has packed: only ever from a directory that was made just now, by its full name.
    if (!directory.starts_with('/') || mkdir(directory.c_str(), 0755) == -1)
        return;
    linkLogs(directory);
    packInBackground(directory);
}
