#include "lab/process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "base/file_descriptor.h"

extern char** environ;

namespace lab {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds POLL{5};
constexpr std::chrono::seconds KEY_SERVICE_LIMIT{30};

std::vector<std::string> environmentOf(const ProcessOptions& options) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!options.environment.contains(text.substr(0, text.find('='))))
            result.push_back(text);
    }
    for (const auto& [name, value] : options.environment) {
        std::string entry = name;
        entry += '=';
        entry += value;
        result.push_back(std::move(entry));
    }
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// In the child, between fork and exec: only async-signal-safe calls.
void becomeChild(const ProcessOptions& options, int output, pid_t parent) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int number = 1; number < NSIG; ++number)
        ::signal(number, SIG_DFL);
    if (options.ownGroup)
        setpgid(0, 0);
    if (output != -1 && (dup2(output, 1) == -1 || dup2(output, 2) == -1))
        _exit(126);
    if (options.uid != 0 && geteuid() == 0 &&
        (setgroups(0, nullptr) == -1 || setgid(options.gid) == -1 || setuid(options.uid) == -1))
        _exit(126);
    // After setuid, which clears it.
    if (options.diesWithParent) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent)
            _exit(126);
    }
}

}  // namespace

Process::Process(const std::vector<std::string>& command, const ProcessOptions& options) {
    std::vector<std::string> arguments = command;
    std::vector<std::string> environment = environmentOf(options);
    const std::vector<char*> argv = pointersTo(arguments);
    const std::vector<char*> envp = pointersTo(environment);
    FileDescriptor output;
    if (!options.output.empty()) {
        output.reset(open(options.output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        if (!output.isOpen())
            throw std::system_error(errno, std::generic_category(), options.output.string());
    }
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == -1)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {
        becomeChild(options, output.get(), parent);
        execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
}

Process& Process::operator=(Process&& other) noexcept {
    if (this != &other) {
        stop(SIGTERM);
        pid_ = std::exchange(other.pid_, -1);
    }
    return *this;
}

Process::~Process() {
    stop(SIGTERM);
}

bool Process::running() {
    return pid_ > 1 && wait(std::chrono::milliseconds(0)) == -1;
}

void Process::signal(int number) const {
    if (pid_ > 1)
        kill(pid_, number);
}

int Process::wait(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (pid_ > 1) {
        int status = 0;
        const pid_t ended = waitpid(pid_, &status, WNOHANG);
        if (ended == pid_ || (ended == -1 && errno == ECHILD)) {
            pid_ = -1;
            return status;
        }
        if (Clock::now() >= deadline)
            return -1;
        std::this_thread::sleep_for(POLL);
    }
    return 0;
}

void Process::stop(int number, std::chrono::milliseconds limit) {
    if (pid_ <= 1)
        return;
    signal(number);
    if (wait(limit) == -1) {
        signal(SIGKILL);
        wait(std::chrono::seconds(10));
    }
    pid_ = -1;
}

int run(const std::vector<std::string>& command, const ProcessOptions& options) {
    Process process(command, options);
    const int status = process.wait(std::chrono::hours(24));
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::filesystem::path programDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

Process startKeyService(const std::filesystem::path& root, ProcessOptions options) {
    const std::filesystem::path state = root / "var/run/cryptoDaemonState";
    std::filesystem::remove(state);  // of one that was killed
    options.environment["FERRYD_ROOT"] = root;
    Process service({programDirectory() / "cryptoDaemon"}, options);
    const auto deadline = Clock::now() + KEY_SERVICE_LIMIT;
    while (!std::filesystem::exists(state)) {
        if (!service.running() || Clock::now() > deadline)
            throw std::runtime_error("the key service doesn't start");
        std::this_thread::sleep_for(POLL);
    }
    return service;
}

int freePort() {
    const FileDescriptor probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (!probe.isOpen() || bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        getsockname(probe.get(), reinterpret_cast<sockaddr*>(&address), &length) == -1)
        throw std::system_error(errno, std::generic_category(), "no free port");
    return ntohs(address.sin_port);
}

}  // namespace lab
