#include "base/run_command.h"

#include "base/file_descriptor.h"
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
