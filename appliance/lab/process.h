// process.h - child programs of the lab: started with an environment of their own, ended by their id.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace lab {

struct ProcessOptions {
    std::map<std::string, std::string> environment;  // added to, or put over, this process's own
    std::filesystem::path output;                    // standard output and error; empty: inherited
    uid_t uid = 0;                                   // run as this user when we are root; 0: as we are
    gid_t gid = 0;
    bool diesWithParent = true;
    bool ownGroup = false;  // out of the terminal's process group, so that Ctrl-C reaches only the lab
};

// Owns one running child; ends it with SIGTERM, then SIGKILL, when dropped.
class Process {
public:
    Process() = default;
    Process(const std::vector<std::string>& command, const ProcessOptions& options);
    Process(Process&& other) noexcept : pid_(std::exchange(other.pid_, -1)) {}
    Process& operator=(Process&& other) noexcept;
    ~Process();

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] bool running();
    void signal(int number) const;

    // Waits for the end; returns the wait status, or -1 if it still runs after `limit`.
    int wait(std::chrono::milliseconds limit);

    // Ends the child with `number`, with SIGKILL if it doesn't obey in time.
    void stop(int number, std::chrono::milliseconds limit = std::chrono::seconds(20));

    // Leaves the child running when this object goes.
    pid_t detach() { return std::exchange(pid_, -1); }

private:
    pid_t pid_ = -1;
};

// Runs a command to its end. Returns its exit status, 128 + signal if it was killed.
int run(const std::vector<std::string>& command, const ProcessOptions& options = {});

// Directory of the built programs: that of the running one.
[[nodiscard]] std::filesystem::path programDirectory();

// Starts the key service of a root and waits until it can be asked; throws std::runtime_error if it doesn't come up.
[[nodiscard]] Process startKeyService(const std::filesystem::path& root, ProcessOptions options);

// A TCP port that was free on loopback a moment ago.
[[nodiscard]] int freePort();

}  // namespace lab
