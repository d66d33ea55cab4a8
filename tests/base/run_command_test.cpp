#include "base/run_command.h"

#include "base/file_descriptor.h"
#include "base/job_gate.h"
#include "base/signals.h"
#include "support/root.h"
#include "support/test.h"

namespace {

volatile std::sig_atomic_t received = 0;

// Handles a signal without SA_RESTART for the time of a test.
class Handled {
public:
    Handled(int number, void (*handler)(int)) : number_(number) {
        struct sigaction action = {};
        action.sa_handler = handler;
        sigaction(number, &action, &previous_);
    }
    Handled(const Handled&) = delete;
    Handled& operator=(const Handled&) = delete;
    ~Handled() { sigaction(number_, &previous_, nullptr); }

private:
    int number_;
    struct sigaction previous_ = {};
};

TEST(RunCommand, GivesTheWaitStatus) {
    EXPECT_EQ(runCommand("true"), 0);
    EXPECT_EQ(WEXITSTATUS(runCommand("exit 7")), 7);
    EXPECT_EQ(WEXITSTATUS(runCommand("/no/such/tool 2>/dev/null")), 127);
    const int status = runCommand("kill -TERM $$");
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST(RunCommand, SignalOfTheParentIsNotLostMeanwhile) {
    for (const int number : {SIGINT, SIGQUIT, SIGTERM}) {
        SCOPED_TRACE(number);
        received = 0;
        const Handled handled(number, [](int signal) { received = signal; });
        const int status = runCommand("kill -" + std::to_string(number) + " $PPID; exit 3");
        EXPECT_EQ(received, number);
        EXPECT_EQ(WEXITSTATUS(status), 3);  // the interrupted wait went on
    }
}

TEST(RunCommand, ChildHasDefaultDispositionsAndAnEmptyMask) {
    const testsupport::TestRoot root;
    const Handled pipe(SIGPIPE, SIG_IGN);
    const Handled child(SIGUSR1, [](int) {});
    const BlockedSignals blocked(signalSet({SIGTERM, SIGCHLD, SIGUSR2}));
    ASSERT_FALSE(blocked.failed());
    const std::string out = root / "tmp/out";
    ASSERT_EQ(runCommand("sed -n 's/^Sig\\(Blk\\|Ign\\):/0x/p' /proc/self/status | tr -d '\\t' > " + out), 0);
    std::istringstream masks(testsupport::readFile(out));
    std::string blockedMask;
    std::string ignoredMask;
    masks >> blockedMask >> ignoredMask;
    EXPECT_EQ(blockedMask, "0x0000000000000000");
    // Signals 32 and 33 belong to the thread library.
    ASSERT_EQ(ignoredMask.size(), 18u);
    EXPECT_EQ(std::stoull(ignoredMask, nullptr, 16) & ~0x180000000ull, 0u);
    sigset_t present;
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, nullptr, &present), 0);
    EXPECT_EQ(sigismember(&present, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&present, SIGINT), 0);
}

TEST(RunCommand, ChildLeadsAGroupAndInheritsOnlyTheDescriptorThatItIsGiven) {
    EXPECT_EQ(runCommand("[ $(cut -d' ' -f5 /proc/$$/stat) = $$ ]"), 0);
    const FileDescriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const std::string isOpen = "[ -e /proc/$$/fd/" + std::to_string(file.get()) + " ]";
    EXPECT_NE(runCommand(isOpen), 0);
    EXPECT_EQ(runCommand(isOpen, file.get()), 0);
    EXPECT_NE(fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0) << "the next command must not inherit it";
}

TEST(RunCommand, AllThatItStartedEndsWithItsJobAndNothingNewBegins) {
    for (const char* const trap : {"", "trap '' TERM;"}) {
        SCOPED_TRACE(trap);
        const testsupport::TestRoot root;
        const std::string pidFile = root / "tmp/pid";
        const std::string later = root / "tmp/later";
        // The shell itself ends at once; what it started may not be forgotten for that.
        std::atomic<int> status = -1;
        std::thread runner([&] {
            status = runCommand(std::string("sh -c \"") + trap + " echo \\$\\$ >" + pidFile +
                                "; while :; do sleep 0.01; done\" & wait");
        });
        ASSERT_TRUE(testsupport::eventually([&] { return testsupport::readFile(pidFile).ends_with("\n"); }));
        const std::string stat = "/proc/" + std::to_string(std::stoi(testsupport::readFile(pidFile))) + "/stat";
        closeJobGate();
        std::thread second([&] { EXPECT_EQ(runCommand("touch " + later), 0); });
        endCommands(std::chrono::milliseconds(100));
        EXPECT_TRUE(testsupport::eventually([&] {
            const std::string text = testsupport::readFile(stat);
            return text.empty() || text.find(") Z ") != std::string::npos;
        }));
        EXPECT_EQ(status, -1) << "its end is not told to a job that is over";
        EXPECT_EQ(access(later.c_str(), F_OK), -1);
        openJobGate();
        runner.join();
        second.join();
        EXPECT_EQ(WTERMSIG(status), SIGTERM);
        EXPECT_EQ(access(later.c_str(), F_OK), 0);
    }
}

TEST(RunCommand, QuotedTextIsOneWord) {
    const testsupport::TestRoot root;
    const std::string out = root / "tmp/out";
    for (const char* text : {"plain/path-1.0", "", "two words", "it's", "$HOME `id` \"x\" \\", "a\nb;*"}) {
        SCOPED_TRACE(text);
        ASSERT_EQ(runCommand("printf %s " + shellQuoted(text) + " > " + out), 0);
        EXPECT_EQ(testsupport::readFile(out), text);
    }
    EXPECT_EQ(shellQuoted("/usr/dq/bin/tool"), "/usr/dq/bin/tool");
}

TEST(BlockedSignals, ScopesNestAndHoldSignalsBack) {
    received = 0;
    const Handled handled(SIGUSR1, [](int signal) { received = signal; });
    {
        const BlockedSignals outer(signalSet({SIGUSR1}));
        {
            const BlockedSignals inner(signalSet({SIGUSR1, SIGUSR2}));
            EXPECT_EQ(sigismember(&inner.previous(), SIGUSR1), 1);
            EXPECT_EQ(sigismember(&inner.previous(), SIGUSR2), 0);
            raise(SIGUSR1);
        }
        EXPECT_EQ(received, 0);
    }
    EXPECT_EQ(received, SIGUSR1);
}

TEST(FileDescriptorOwner, ClosesOnceAndKeepsErrno) {
    FileDescriptor first(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int number = first.get();
    FileDescriptor second(std::move(first));
    EXPECT_FALSE(first.isOpen());  // NOLINT: what a move leaves behind
    second.reset(number);          // its own descriptor stays open
    EXPECT_NE(fcntl(number, F_GETFD), -1);
    errno = EILSEQ;
    second = FileDescriptor(9999);  // closing that one later fails with EBADF
    second.reset();
    EXPECT_EQ(errno, EILSEQ);
    EXPECT_EQ(fcntl(number, F_GETFD), -1);
}

}  // namespace
