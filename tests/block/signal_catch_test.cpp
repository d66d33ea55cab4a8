#include "block/signal_catch.h"

#include "support/root.h"

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
    ASSERT_EQ(catchSignals(SignalLayer::hashes) | catchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(checkForSignal(SignalLayer::hashes), 0);
    raise(SIGTERM);
    raise(SIGTERM);
    EXPECT_EQ(checkForSignal(SignalLayer::hashes), 1);
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
    ASSERT_EQ(catchSignals(SignalLayer::hashes) | catchSignals(SignalLayer::metadata), 0);
    raise(SIGTERM);
    EXPECT_TRUE(signalWaiting(SignalLayer::hashes) && signalWaiting(SignalLayer::metadata));
    EXPECT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    EXPECT_EQ(g_terminations, 0) << "handed over";
    EXPECT_EQ(catchSignals(SignalLayer::hashes), 0);
    EXPECT_FALSE(signalWaiting(SignalLayer::hashes)) << "came before this operation";
    EXPECT_TRUE(uncatchSignals(SignalLayer::metadata) == 0 && uncatchSignals(SignalLayer::hashes) == 0);
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
    ASSERT_TRUE(catchSignals(SignalLayer::hashes) == 0 && sigaction(SIGTERM, nullptr, &handler) == 0);
    ASSERT_EQ(uncatchSignals(SignalLayer::hashes), 0);
    handler.sa_handler(SIGTERM);
    EXPECT_EQ(g_terminations, 1);
    EXPECT_FALSE(signalWaiting(SignalLayer::hashes));
}

TEST_F(SignalCatch, ThreadsThatOpenAndCloseAtOnceLoseNoSignal) {
    {
        std::jthread threads[2];
        for (const SignalLayer layer : {SignalLayer::hashes, SignalLayer::metadata})
            threads[layer == SignalLayer::hashes] = std::jthread([layer](const std::stop_token& stop) {
                // A signal comes back when both are idle at once, which two that never rest need not be for long.
                for (; !stop.stop_requested(); std::this_thread::sleep_for(std::chrono::microseconds(50))) {
                    const CaughtSignals outer(layer, "test"), inner(layer, "test");
                }
            });
        for (int sent = 1; sent <= 50 && !HasFailure(); ++sent) {
            kill(getpid(), SIGTERM);
            EXPECT_TRUE(testsupport::eventually([&] { return g_terminations == sent; })) << sent;
        }
    }
    raise(SIGTERM);
    EXPECT_EQ(g_terminations, 51);
}

}  // namespace
