// What a process makes of what its starter left it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "base/signal_flags.h"
#include "base/signals.h"
#include "base/standard_streams.h"

namespace {

bool inChild(const std::function<bool()>& isGood) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(isGood() ? 0 : 1);
    int status = -1;
    return waitpid(pid, &status, 0) == pid && status == 0;
}

TEST(Start, DescriptorsAreSettledWhateverWasOpen) {
    for (const int closed : {0b000, 0b001, 0b110, 0b111})
        EXPECT_TRUE(inChild([closed] {
            (void)dup2(STDERR_FILENO, 57);
            for (int fd = 0; fd <= 2; fd++)
                if ((closed & 1 << fd) != 0)
                    (void)close(fd);
            settleDescriptors();
            const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
            bool isGood = next == 3 && fcntl(57, F_GETFD) == -1;
            for (int fd = 0; fd <= 2; fd++)
                isGood = isGood && fcntl(fd, F_GETFD) == 0;
            return isGood;
        })) << closed;
}

TEST(Start, SignalsThatTheStarterBlockedArrive) {
    EXPECT_TRUE(inChild([] {
        const BlockedSignals blocked(signalSet({SIGTERM, SIGCHLD, SIGUSR1}));
        installSignalHandlers();
        raise(SIGTERM);
        raise(SIGCHLD);
        raise(SIGPIPE);
        return stopRequested() && childEnded();
    }));
}

}  // namespace
