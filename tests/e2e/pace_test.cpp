// How fast a worker may send, seen from the line.

#include "e2e/e2e_fixture.h"
#include "lab/proxy.h"
#include "support/test.h"

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;

class Pace : public EndToEnd {};

// The running worker is not told: the daemon reads the schedule in its next pass and writes it to the shared table.
TEST_F(Pace, ChangedLimitTakesEffectInARunningWorkerWithinTwoSeconds) {
    constexpr double SLOW = 500000;
    constexpr double FAST = 3000000;
    lab().startVault();
    const std::string vault = lab().vaultName();
    const lab::Proxy line(std::stoi(vault.substr(vault.rfind(':') + 1)), std::chrono::milliseconds(0));
    lab().setReplication("SyncTo", line.name());
    lab().setReplication("MaxBlocks", "2000000");
    lab().setReplication("BlockOutPeriods", "=500000");
    lab().startDaemon();
    const std::uint64_t backup = lab().ingest(data(41, 24));
    // The first second of a thread isn't limited.
    ASSERT_TRUE(eventually([&] { return line.bytesSent() > 4500000; }));
    EXPECT_NEAR(line.measureRate(std::chrono::seconds(3)), SLOW, SLOW * 0.05);

    lab().setReplication("BlockOutPeriods", "=3000000");
    const auto changed = Clock::now();
    std::uint64_t last = line.bytesSent();
    ASSERT_TRUE(eventually([&] {
        std::this_thread::sleep_until(Clock::now() + std::chrono::milliseconds(100));
        const std::uint64_t now = line.bytesSent();
        return static_cast<double>(now - std::exchange(last, now)) > SLOW * 1.2;  // more than a second's share at once
    }));
    EXPECT_LT(Clock::now() - changed, std::chrono::milliseconds(2200));
    EXPECT_NEAR(line.measureRate(std::chrono::seconds(2)), FAST, FAST * 0.1);
    lab().setReplication("BlockOutPeriods", "");
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    lab().setReplication("SyncTo", vault);
}

}  // namespace
}  // namespace e2e
