#include "block/signal_catch.h"

#include "support/root.h"
#include "support/test.h"

namespace {

std::atomic<int> g_terminations = 0;

// A program's own handler for SIGTERM, and SIGHUP ignored, for the time of a test.
class SignalCatch : public ::testing::Test {
protected:
    SignalCatch() {
        g_terminations = 0;
        std::signal(SIGTERM, [](int) { ++g_terminations; });
    }
    ~SignalCatch() override { std::signal(SIGTERM, SIG_DFL); }

    testsupport::TestRoot root;
};

TEST_F(SignalCatch, ASignalIsRaisedAgainByTheOutermostEnd) {
    ASSERT_EQ(catchSignals(SignalLayer::hashes), 0);
    ASSERT_EQ(catchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(checkForSignal(SignalLayer::hashes), 0);
    raise(SIGTERM);
    raise(SIGTERM);
    EXPECT_EQ(checkForSignal(SignalLayer::hashes), 1);
    EXPECT_TRUE(root.logged("Signal SIGTERM received"));
    EXPECT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(g_terminations, 0);
    EXPECT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(g_terminations, 1);
    EXPECT_EQ(checkForSignal(SignalLayer::hashes), 0);
    raise(SIGTERM);
    EXPECT_EQ(g_terminations, 2) << "the former handler is back";
    EXPECT_EQ(uncatchSignals(SignalLayer::hashes), -1) << "nothing is open";
}

TEST_F(SignalCatch, LayersThatOverlapLeaveTheFormerActionBehind) {
    ASSERT_EQ(catchSignals(SignalLayer::hashes), 0);
    ASSERT_EQ(catchSignals(SignalLayer::metadata), 0);
    raise(SIGTERM);
    EXPECT_TRUE(signalWaiting(SignalLayer::hashes));
    EXPECT_TRUE(signalWaiting(SignalLayer::metadata));
    EXPECT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(g_terminations, 0) << "handed over";
    EXPECT_EQ(catchSignals(SignalLayer::hashes), 0);
    EXPECT_FALSE(signalWaiting(SignalLayer::hashes)) << "came before this operation";
    EXPECT_EQ(uncatchSignals(SignalLayer::metadata), 0);
    EXPECT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(g_terminations, 1);
    raise(SIGTERM);
    EXPECT_EQ(g_terminations, 2);
}

TEST_F(SignalCatch, AStopThreadsSignalComesBackToTheProcess) {
    EXPECT_EQ(noteSignal(SIGTERM), 0) << "nothing is open: the thread acts itself";
    {
        const CaughtSignals caught(SignalLayer::metadata, "test");
        ASSERT_FALSE(caught.failed());
        EXPECT_EQ(noteSignal(SIGTERM), 1);
        EXPECT_TRUE(signalWaiting(SignalLayer::metadata));
        EXPECT_EQ(g_terminations, 0);
    }
    EXPECT_EQ(g_terminations, 1);
}

// A thread can be held up in the handler until the last layer has ended.
TEST_F(SignalCatch, ASignalWhoseHandlerRunsLateIsNotLost) {
    struct sigaction handler {};
    ASSERT_EQ(catchSignals(SignalLayer::hashes), 0);
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &handler), 0);
    ASSERT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    handler.sa_handler(SIGTERM);
    EXPECT_EQ(g_terminations, 1);
    EXPECT_FALSE(signalWaiting(SignalLayer::hashes));
}

TEST_F(SignalCatch, ThreadsThatOpenAndCloseAtOnceLoseNoSignal) {
    std::atomic<bool> stop = false;
    const auto work = [&](SignalLayer layer) {
        while (!stop) {
            {
                const CaughtSignals outer(layer, "test");
                const CaughtSignals inner(layer, "test");
            }
            // A signal comes back when both are idle at once, which two that never rest need not be for long.
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    };
    std::thread first(work, SignalLayer::hashes);
    std::thread second(work, SignalLayer::metadata);
    for (int sent = 1; sent <= 50 && !HasFailure(); ++sent) {
        kill(getpid(), SIGTERM);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (g_terminations < sent && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_EQ(g_terminations, sent);
    }
    stop = true;
    first.join();
    second.join();
    raise(SIGTERM);
    EXPECT_EQ(g_terminations, 51);
}

}  // namespace
