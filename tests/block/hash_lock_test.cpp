#include "block/hash_lock.h"

#include "base/paths.h"
#include "block/byte_lock.h"
#include "block/signal_catch.h"
#include "support/root.h"
#include "support/test.h"

namespace {

using namespace std::chrono_literals;

std::vector<hashValue> withIDs(std::initializer_list<std::uint64_t> ids) {
    std::vector<hashValue> list;
    for (const std::uint64_t id : ids) {
        hashValue value{};
        value.flags = hashID_in;
        value.hashID = id;
        list.push_back(value);
    }
    return list;
}

class HashLock : public ::testing::Test {
protected:
    // Whether another process can lock the ID at once.
    static bool freeForOthers(std::uint64_t id, bool exclusive) {
        const pid_t child = fork();
        if (child == 0) {
            std::signal(SIGALRM, [](int) { _exit(1); });
            ualarm(300000, 0);
            HashLockPtr handle;
            const auto list = withIDs({id});
            const int locked = exclusive ? lockHashValuesExclusive(&handle, list) : lockHashValuesShared(&handle, list);
            _exit(locked == 1 ? 0 : 1);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

    testsupport::TestRoot root;
};

TEST_F(HashLock, IDsThatDifferAboveBit29BlockEachOtherAcrossProcesses) {
    HashLockPtr handle;
    EXPECT_EQ(lockHashValuesExclusive(nullptr, {}), -1);
    EXPECT_TRUE(root.logged("lockHashValuesExclusive(NULL,,)"));
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
    ASSERT_EQ(lockHashValuesShared(&first, list), 1);
    ASSERT_EQ(lockHashValuesShared(&second, list), 1);
    ASSERT_EQ(unlockHashValues(&second, list), 1);
    EXPECT_EQ(unlockHashValues(&second, list), 1) << "holds nothing more";
    EXPECT_FALSE(freeForOthers(7, true)) << "the first handle still holds it";
    ASSERT_EQ(lockHashValuesExclusive(&first, list), 1) << "its own lock is no obstacle";
    auto waiting = std::async(std::launch::async, [&] { return lockHashValuesShared(&second, list); });
    EXPECT_EQ(waiting.wait_for(200ms), std::future_status::timeout);
    ASSERT_EQ(unlockHashValues(&first, list), 1);
    ASSERT_EQ(waiting.wait_for(20s), std::future_status::ready) << "shared by both again";
    EXPECT_EQ(waiting.get(), 1);
    auto upgrade = std::async(std::launch::async, [&] { return lockHashValuesExclusive(&first, list); });
    EXPECT_EQ(upgrade.wait_for(200ms), std::future_status::timeout) << "the second handle still reads";
    ASSERT_EQ(unlockHashValues(&second, list), 1);
    ASSERT_EQ(upgrade.wait_for(20s), std::future_status::ready);
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
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!isBack(0) && !isBack(1) && std::chrono::steady_clock::now() < deadline) {
    }
    const int refused = isBack(0) ? 0 : 1;
    ASSERT_TRUE(isBack(refused));
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
    int ready[2];
    int finish[2];
    ASSERT_EQ(pipe(ready) | pipe(finish), 0);
    const pid_t child = fork();
    if (child == 0) {
        HashLockPtr handle;
        char byte = 'x';
        if (lockHashValuesExclusive(&handle, withIDs({9})) == 1 && write(ready[1], &byte, 1) == 1)
            (void)!read(finish[0], &byte, 1);
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    std::signal(SIGHUP, SIG_IGN);
    HashLockPtr handle;
    {
        const CaughtSignals caught(SignalLayer::hashes, "test");
        const pthread_t waiter = pthread_self();
        std::atomic<bool> done = false;
        // Again and again: the first one may come before the wait begins.
        std::thread interrupter([&] {
            while (!done) {
                pthread_kill(waiter, SIGHUP);
                std::this_thread::sleep_for(10ms);
            }
        });
        EXPECT_EQ(lockHashValuesExclusive(&handle, withIDs({8, 9, 10})), 1);
        EXPECT_EQ(lockHashValuesExclusive(&handle, withIDs({9})), -1);
        done = true;
        interrupter.join();
    }
    std::signal(SIGHUP, SIG_DFL);
    EXPECT_FALSE(freeForOthers(8, true));
    EXPECT_TRUE(freeForOthers(10, true));
    ASSERT_EQ(write(finish[1], &byte, 1), 1);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(lockHashValuesExclusive(&handle, withIDs({9})), 1);
    for (const int fd : {ready[0], ready[1], finish[0], finish[1]})
        close(fd);
}

}  // namespace
