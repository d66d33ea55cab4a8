// lab - a source appliance and a vault on this machine.
//
//   lab demo [DIR]   replicate a real directory twice and compare what the vault rebuilt
//   lab up DIR       the same appliances, left running in DIR; prints the environment to use them with
//   lab down DIR     ends what `lab up` started and removes DIR

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "lab/demo.h"
#include "lab/lab.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds STOP_LIMIT{20};

int up(const fs::path& directory) {
    if (fs::exists(directory) && !fs::is_empty(directory))
        throw std::runtime_error(directory.string() + " is not empty");
    lab::LabOptions options;
    options.diesWithParent = false;
    lab::Lab lab(directory, options);
    lab.source().startKeyService();
    lab.startVault();
    lab.startDaemon();
    std::ofstream environment(directory / "environment");
    for (const auto& [name, value] : lab.source().environment())
        environment << "export " << name << "='" << value << "'\n";
    std::ofstream(directory / "pids") << lab.daemonProcess().detach() << '\n'
                                      << lab.vaultProcess().detach() << '\n'
                                      << lab.source().keyService().detach() << '\n'
                                      << lab.source().cluster().detach() << '\n'
                                      << lab.vault().cluster().detach() << '\n';
    printf(
        "The source and the vault (%s) are running.\n  . %s/environment\n  $DQDIR/bin/ingest [--compress] [--encrypt] "
        "DIR\n"
        "  $DQDIR/bin/ferryd util peek 0\n  logs: %s and %s\nlab down %s ends them.\n",
        lab.vaultName().c_str(), directory.c_str(), lab.source().logs().c_str(), lab.vault().logs().c_str(),
        directory.c_str());
    return 0;
}

// SIGINT ends a database in order; the others end at SIGTERM.
int down(const fs::path& directory) {
    std::ifstream pids(directory / "pids");
    if (!pids)
        throw std::runtime_error(directory.string() + " holds no running lab");
    const int signals[] = {SIGTERM, SIGTERM, SIGTERM, SIGINT, SIGINT};
    for (const int number : signals) {
        pid_t pid = 0;
        if (!(pids >> pid) || pid <= 1 || kill(pid, number) == -1)
            continue;
        const auto deadline = std::chrono::steady_clock::now() + STOP_LIMIT;
        while (kill(pid, 0) == 0 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    fs::remove_all(directory);
    return 0;
}

int usage(int status) {
    fprintf(status == 0 ? stdout : stderr, "Usage: lab demo [DIR] | lab up DIR | lab down DIR\n");
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::string command = arguments.empty() ? "" : arguments[0];
    try {
        if (command == "demo" && arguments.size() <= 2)
            return lab::demo(arguments.size() == 2 ? arguments[1] : "");
        if (command == "up" && arguments.size() == 2)
            return up(fs::absolute(arguments[1]));
        if (command == "down" && arguments.size() == 2)
            return down(fs::absolute(arguments[1]));
    } catch (const std::exception& e) {
        fprintf(stderr, "lab: %s\n", e.what());
        return 1;
    }
    return usage(command == "--help" || command == "help" ? 0 : 2);
}
