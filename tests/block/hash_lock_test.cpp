#include "block/hash_lock.h"

#include "base/paths.h"
#include "block/byte_lock.h"
#include "block/signal_catch.h"
#include "support/root.h"

namespace {

using namespace std::chrono_literals;

std::vector<hashValue> withIDs(std::initializer_list<std::uint64_t> ids) {
    std::vector<hashValue> list;
    for (const std::uint64_t id : ids) {
        list.emplace_back().flags = hashID_in;
        list.back().hashID = id;
    }
    return list;
}

class HashLock : public ::testing::Test {
protected:
    // Whether another process can lock the ID at once.
    static bool freeForOthers(std::uint64_t id, bool exclusive) {
        return testsupport::inOwnProcess([&] {
            std::signal(SIGALRM, [](int) { _exit(1); });
            ualarm(300000, 0);
            HashLockPtr handle;
            EXPECT_EQ((exclusive ? lockHashValuesExclusive : lockHashValuesShared)(&handle, withIDs({id})), 1);
        });
    }

    testsupport::TestRoot root;
};

TEST_F(HashLock, IDsThatDifferAboveBit29BlockEachOtherAcrossProcesses) {
    HashLockPtr handle;
    EXPECT_EQ(lockHashValuesExclusive(nullptr, {}), -1);
    EXPECT_EQ(lockHashValuesExclusive(&handle, {}), 0);
    auto list = withIDs({5, 6});
    list[1].flags = 0;  // counted, not locked
    ASSERT_EQ(lockHashValuesExclusive(&handle, list), 2);
    EXPECT_FALSE(freeForOthers(5 + (1ull << 30), true));
    EXPECT_TRUE(freeForOthers(6, true));
    EXPECT_TRUE(freeForOthers(5 + (1ull << 29), true));
    ASSERT_EQ(unlockHashValues(&handle, list), 2);
    EXPECT_TRUE(freeForOthers(5, true));
    ASSERT_EQ(lockHashValuesShared(&handle, list), 2);
    EXPECT_TRUE(freeForOthers(5, false));
    EXPECT_FALSE(freeForOthers(5, true));
    handle.reset();
    EXPECT_TRUE(freeForOthers(5, true)) << "freeing the handle gives its locks back";
}

TEST_F(HashLock, OneHandleNeitherReleasesNorTakesTheLockOfAnother) {
    HashLockPtr first;
    HashLockPtr second;
    const auto list = withIDs({7});
    ASSERT_TRUE(lockHashValuesShared(&first, list) == 1 && lockHashValuesShared(&second, list) == 1);
    ASSERT_EQ(unlockHashValues(&second, list), 1);
    EXPECT_EQ(unlockHashValues(&second, list), 1) << "holds nothing more";
    EXPECT_FALSE(freeForOthers(7, true)) << "the first handle still holds it";
    ASSERT_EQ(lockHashValuesExclusive(&first, list), 1) << "its own lock is no obstacle";
    auto waiting = std::async(std::launch::async, [&] { return lockHashValuesShared(&second, list); });
    EXPECT_EQ(waiting.wait_for(200ms), std::future_status::timeout);
    ASSERT_EQ(unlockHashValues(&first, list), 1);
    EXPECT_EQ(waiting.get(), 1) << "shared by both again";
    auto upgrade = std::async(std::launch::async, [&] { return lockHashValuesExclusive(&first, list); });
    EXPECT_EQ(upgrade.wait_for(200ms), std::future_status::timeout) << "the second handle still reads";
    ASSERT_EQ(unlockHashValues(&second, list), 1);
    EXPECT_EQ(upgrade.get(), 1);
    EXPECT_FALSE(freeForOthers(7, false));
    first.reset();
    EXPECT_TRUE(freeForOthers(7, true));
}

TEST_F(HashLock, OfTwoThatShareAndBothWantMoreOneIsTurnedAway) {
    HashLockPtr handles[2];
    std::future<int> upgrades[2];
    for (HashLockPtr& handle : handles)
        ASSERT_EQ(lockHashValuesShared(&handle, withIDs({7})), 1);
    for (int i : {0, 1})
        upgrades[i] =
            std::async(std::launch::async, [&, i] { return lockHashValuesExclusive(&handles[i], withIDs({7})); });
    const auto isBack = [&](int i) { return upgrades[i].wait_for(10ms) == std::future_status::ready; };
    ASSERT_TRUE(testsupport::eventually([&] { return isBack(0) || isBack(1); }));
    const int refused = isBack(0) ? 0 : 1;
    EXPECT_EQ(upgrades[refused].get(), -1);
    EXPECT_TRUE(root.logged("doTheLock: lock of byte 7: Resource deadlock avoided"));
    EXPECT_FALSE(isBack(1 - refused));
    handles[refused].reset();
    EXPECT_EQ(upgrades[1 - refused].get(), 1);
}

TEST_F(HashLock, AWaitEndsByASignalOfItsOwnLayer) {
    ByteLockFile file(paths::HASH_LOCK_FILE, "opener", "locker");
    ByteLocks holder(&file);
    ByteLocks waiter(&file, SignalLayer::metadata);
    ASSERT_EQ(holder.prepare() | waiter.prepare() | holder.lock(5, true), 0);
    std::signal(SIGHUP, SIG_IGN);
    const CaughtSignals caught(SignalLayer::metadata, "test");
    raise(SIGHUP);
    EXPECT_EQ(waiter.lock(5, false), -1);
    EXPECT_EQ(waiter.lock(6, false), 0) << "nothing to wait for";
}

TEST_F(HashLock, ASignalEndsAWaitAndTheCountTellsWhatIsHeld) {
    const pid_t child = fork();
    if (child == 0) {
        HashLockPtr handle;
        _exit(lockHashValuesExclusive(&handle, withIDs({9})) == 1 ? static_cast<int>(sleep(60)) : 1);
    }
    EXPECT_TRUE(testsupport::eventually([] { return !freeForOthers(9, true); }));
    std::signal(SIGHUP, SIG_IGN);
    HashLockPtr handle;
    {
        const CaughtSignals caught(SignalLayer::hashes, "test");
        // Again and again: the first one may come before the wait begins.
        std::jthread interrupter([waiter = pthread_self()](const std::stop_token& stop) {
            for (; !stop.stop_requested(); std::this_thread::sleep_for(10ms))
                pthread_kill(waiter, SIGHUP);
        });
        EXPECT_EQ(lockHashValuesExclusive(&handle, withIDs({8, 9, 10})), 1);
        EXPECT_EQ(lockHashValuesExclusive(&handle, withIDs({9})), -1);
    }
    std::signal(SIGHUP, SIG_DFL);
    EXPECT_FALSE(freeForOthers(8, true));
    EXPECT_TRUE(freeForOthers(10, true));
    ASSERT_TRUE(kill(child, SIGKILL) == 0 && waitpid(child, nullptr, 0) == child);
    EXPECT_EQ(lockHashValuesExclusive(&handle, withIDs({9})), 1);
}

}  // namespace
