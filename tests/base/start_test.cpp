// What a process makes of what its starter left it.

#include "base/signal_flags.h"
#include "base/signals.h"
#include "base/standard_streams.h"
#include "support/test.h"

namespace {

using testsupport::inOwnProcess;

TEST(Start, DescriptorsAreSettledWhateverWasOpen) {
    for (const int closed : {0b000, 0b001, 0b110, 0b111})
        EXPECT_TRUE(inOwnProcess([closed] {
            (void)dup2(STDERR_FILENO, 57);
            for (int fd = 0; fd <= 2; fd++)
                if ((closed & 1 << fd) != 0)
                    (void)close(fd);
            settleDescriptors();
            const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
            EXPECT_EQ(next, 3);
            EXPECT_EQ(fcntl(57, F_GETFD), -1);
            for (int fd = 0; fd <= 2; fd++)
                EXPECT_EQ(fcntl(fd, F_GETFD), 0);
        })) << closed;
}

TEST(Start, SignalsThatTheStarterBlockedArrive) {
    EXPECT_TRUE(inOwnProcess([] {
        const BlockedSignals blocked(signalSet({SIGTERM, SIGCHLD, SIGUSR1}));
        installSignalHandlers();
        raise(SIGTERM);
        raise(SIGCHLD);
        raise(SIGPIPE);
        EXPECT_TRUE(stopRequested() && childEnded());
    }));
}

}  // namespace
