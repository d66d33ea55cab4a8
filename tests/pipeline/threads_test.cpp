// The threaded send phase: what its threads do to each other when something fails.

#include <sys/shm.h>

#include "bandwidth/blockOut.h"
#include "pipeline/checkpoint.h"
#include "pipeline/pipeline_internal.h"
#include "pipeline/threadBuffer.h"
#include "send_fixture.h"

namespace {

using namespace std::chrono_literals;
using namespace testsupport;

class Threads : public SendFixture {
protected:
    Threads() { keys("MetaThreadTimeoutSeconds=1\n"); }

    void keys(const std::string& text) { root.masterIni("[Replication]\n" + text); }

    int send() { return SendFixture::send(&sendBlocksThreaded); }
};

TEST_F(Threads, KeysOfAnySizeWork) {
    settings.checkpoint = true;
    Blocks blocks = blocksOf({100, 200, 300, 400, 500});
    makeBackup(7, blocks);
    std::int64_t size = 1500;
    const auto expect = [&](const std::string& text, const char* logged) {
        target->blocks.clear();
        progress.current_size = 0;
        keys(text);
        EXPECT_TRUE(send() == 0 && targetHas(blocks) && root.logged(logged)) << text;
        EXPECT_EQ(progress.current_size, size) << text << "counted once a batch";
    };
    settings.metaSize = 1;
    expect("ThreadBufferCount=1\nSendThreadCount=3\nReadThreadCount=2\n", "Threads created. Read:1, Send:3");
    expect("SendThreadCount=0\n", "Threads created. Read:1, Send:1");
    expect("SendThreadCount=2147483647\nThreadBufferCount=2147483647\n", "buffer count:64 setting to: 65");
    // Limits that would end each wait at once, or overflow; here the reader waits for a buffer.
    settings.metaSize = 100;
    settings.checkpoint = false;
    forgetBackup();
    blocks = blocksOf({3000, 3001, 3002, 3003});
    makeBackup(7, blocks);
    size = 12006;
    target->beforeReply = [this](const std::string& name) {
        if (name == "multiblock")
            eventually([this] { return root.logged("Timeout in metaThread"); }, 100ms);
    };
    for (const char* const limit : {"0", "-1", "2147483647"})
        expect("SendThreadCount=1\nThreadBufferCount=2\nMetaThreadTimeoutSeconds=" + std::string(limit) + "\n", "");
}

TEST_F(Threads, AFailureIsTheResultAndWhoeverWaitsIsWokenAndNotTimedOut) {
    settings.metaSize = 100;
    const Blocks blocks = blocksOf({3000, 3001, 3002, 3003});
    makeBackup(7, blocks);
    // `held`: the log's word that the target's replies wait for.
    const auto expect = [&](const char* what, const std::string& threads, bool checkpoint, int failures,
                            const char* held) {
        settings.checkpoint = checkpoint;
        target->blocks.clear();
        root.clearLog();
        keys("MetaThreadTimeoutSeconds=60\n" + threads);
        target->instead = {{"multiblock", std::deque<std::string>(static_cast<std::size_t>(failures), HANG_UP)}};
        target->beforeReply = [this, held](const std::string& name) {
            EXPECT_TRUE(name != "multiblock" || eventually([&] { return root.logged(held); }));
        };
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(send(), failures > 0 ? -1 : 0) << what;
        EXPECT_LT(std::chrono::steady_clock::now() - start, 30s) << what;
        EXPECT_TRUE(failures > 0 || targetHas(blocks)) << what;
        target->instead.clear();
        EXPECT_TRUE(send() == 0 && targetHas(blocks)) << what << ", the next try";
    };
    const std::string few = "SendThreadCount=1\nThreadBufferCount=2\n";
    const std::string many = "SendThreadCount=1\nThreadBufferCount=9\n";
    expect("a reader without a buffer, by a failure", few, true, 2, "Unable to obtain a work buffer");
    expect("a reader without a buffer, by a buffer that was sent", few, false, 0, "Unable to obtain a work buffer");
    expect("a checkpoint, by a failure", many, true, 2, "Wait on total sent");
    expect("nobody: the meta thread has left with success", many, false, 2, "MetaThread: Set exit code 1");
    expect("each thread fails with a buffer of its own", "SendThreadCount=2\n", false, 4, "");
    expect("send threads, by the end", "SendThreadCount=4\n", false, 0, "");
}

TEST_F(Threads, ACheckpointFindsWhatTheTargetLost) {
    settings.checkpoint = true;
    settings.metaSize = 4;
    settings.retryCount = 1;
    const Blocks blocks = blocksOf({100, 200, 300, 400, 500, 600});
    makeBackup(7, blocks);
    const auto expect = [&](const char* what, const std::deque<std::size_t>& keeps, int result, const char* logged) {
        root.clearLog();
        target->blocks.clear();
        target->keeps = keeps;
        EXPECT_EQ(send(), result) << what;
        EXPECT_EQ(targetHas(blocks), result == 0) << what;
        EXPECT_TRUE(root.logged(logged)) << what << root.log();
    };
    expect("nothing lost", {}, 0, "6 blocks reported on target, 6 blocks expected.");
    expect("one lost", {3}, 0, "retry last batch of blocks. Total checkpoint data size: 1000.");
    expect("all lost once", {0}, 0, "Checkpoint retries recovery after 1 retries.");
    expect("each round brings one", {1, 1, 1, 1, 1, 1}, 0, "Checkpoint retry making some progress");
    expect("no round brings any", {0, 0, 0, 0, 0, 0}, -1, "Checkpoint retry failed, too many retries attempted.");
    expect("the last batch is lost", {4, 0}, 0, "4 blocks reported on target, 6 blocks expected.");
    target->instead["post-check-offset"] = {AS_EVER, UNAVAILABLE};
    settings.retryCount = 3;
    expect("the second look fails, so the next round finds out", {0}, 0, "Failed target block check offset:-1");
}

TEST(CheckpointCounts, CountABatchOnceAndGiveUpAfterFruitlessRounds) {
    using Outcome = CheckpointCounts::Outcome;
    CheckpointCounts counts(1);
    const auto round = [&](std::uint64_t records, std::int64_t count) {
        int rounds = 0;
        std::int64_t last = 0;
        counts.beginBatch();
        counts.expectBatch(records);
        counts.expectBatch(records);
        return counts.judge(count, records, &rounds, &last);
    };
    EXPECT_EQ(round(4, 4), Outcome::Good);
    EXPECT_EQ(counts.expected(), 4u) << "looked at twice, counted once";
    EXPECT_EQ(round(3, 5), Outcome::ShortWithProgress);
    for (int fruitless = 0; fruitless < 2; ++fruitless) {
        EXPECT_FALSE(counts.isExhausted());
        EXPECT_EQ(round(3, 5), Outcome::Short) << "what came in an earlier round is no progress";
    }
    EXPECT_TRUE(counts.isExhausted());
    EXPECT_EQ(round(3, 7), Outcome::Good);
    EXPECT_FALSE(counts.isExhausted());
    EXPECT_EQ(counts.expected(), 7u);
}

TEST_F(Threads, SeveralThreadsSendAThousandBlocks) {
    settings.metaSize = 100;
    settings.maxBlocks = 16384;
    settings.checkpoint = true;
    keys("MetaThreadTimeoutSeconds=1\nSendThreadCount=4\n");
    std::vector<std::size_t> sizes(1000);
    for (std::size_t i = 0; i < sizes.size(); ++i)
        sizes[i] = i % 50 == 0 ? 20000 + i : 500 + i;  // every fiftieth goes alone
    const Blocks blocks = blocksOf(sizes);
    makeBackup(7, blocks);
    target->keeps = {2, 0, 1};
    target->instead = {{"multiblock", {HANG_UP}}};
    EXPECT_TRUE(send() == 0 && targetHas(blocks));
    EXPECT_FALSE(root.logged("Can't attach to shared memory")) << "there is none, which is no failure";
}

// Two send threads and one request: the idle one leaves its share of the bandwidth.
TEST_F(Threads, WhoHasNothingToSendIsNotAttached) {
    makeBackup(7, blocksOf({100}));
    keys("MetaThreadTimeoutSeconds=60\n");
    settings.checkpoint = true;  // the phase isn't at its end before the reply
    ASSERT_EQ(createBandwidthTable(), 0);
    job.bandwidthTable = getBandwidthTableId();
    shmid_ds state{};
    const auto bothHaveWaited = [&] {
        const std::string log = root.log();
        return log.find("Wait on Full list") != log.rfind("Wait on Full list");
    };
    target->beforeReply = [&](const std::string& name) {
        if (name != "multiblock")
            return;
        EXPECT_TRUE(eventually(bothHaveWaited));
        eventually([&] { return shmctl(job.bandwidthTable, IPC_STAT, &state) == 0 && state.shm_nattch == 2; }, 10s);
    };
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(state.shm_nattch, 2u) << "this thread and the sender";
    detachBandwidthTable();
}

class Shared : public Threads {
protected:
    ThreadBuffer shared{settings, job, 3};
};

TEST_F(Shared, AFailureWinsFromEveryState) {
    shared.setExitCode(PHASE_NO_MORE);
    EXPECT_TRUE(shared.finishReading());
    EXPECT_EQ(shared.getExitCode(), PHASE_READ);
    EXPECT_FALSE(shared.finishReading());
    shared.setExitCode(PHASE_FAILED);
    shared.setExitCode(PHASE_NO_MORE);
    EXPECT_FALSE(shared.finishReading());
    EXPECT_EQ(shared.getExitCode(), PHASE_FAILED);
    while (shared.takeEmpty(shared.lockEmptyList()) != nullptr) {
    }
    readThread(&shared);  // comes too late to be woken, and doesn't wait
}

// At 2 a send thread still empties the full list; at -1 it leaves it alone.
TEST_F(Shared, FullBuffersGoOutBeforeASendThreadLeaves) {
    const Blocks blocks = blocksOf({100, 200});
    makeBackup(7, blocks);
    HashListPtr list;
    std::vector<hashReferenceInfo> records(2);
    ASSERT_TRUE(createHashList(&list, 7, {}, 1) == 0 && getHashesFromList(&list, records) == 2);
    const auto queue = [&] {
        for (hashReferenceInfo& record : records) {
            WorkBuffer* const buffer = shared.takeEmpty(shared.lockEmptyList());
            std::unique_lock large(shared.readLock);  // a send thread is reading a large block
            auto adding = std::async(std::launch::async, [&] { return buffer->addBlock(&record, &shared.readLock); });
            EXPECT_EQ(adding.wait_for(100ms), std::future_status::timeout);
            large.unlock();
            EXPECT_EQ(adding.get(), WorkBuffer::Done);
            shared.putFull(buffer);
        }
    };
    queue();
    shared.setExitCode(PHASE_NO_MORE);
    ASSERT_TRUE(shared.finishReading());
    sendThread(&shared);
    EXPECT_TRUE(targetHas(blocks));
    EXPECT_EQ(shared.totalSent, 2u);
    EXPECT_FALSE(shared.hasFull(shared.lockFullList()));
    target->blocks.clear();
    queue();
    shared.setExitCode(PHASE_FAILED);
    sendThread(&shared);
    EXPECT_TRUE(target->blocks.empty());
    EXPECT_TRUE(shared.hasFull(shared.lockFullList()));
}

// Threads that wait although there is something for them were woken and haven't run yet, or will never be.
TEST_F(Shared, OnlyThreadsThatNothingCanWakeAreDead) {
    using Stall = ThreadBuffer::Stall;
    const auto found = [&] { return shared.findStall(shared.blockList.lockAccess()); };
    WorkBuffer* const buffer = shared.takeEmpty(shared.lockEmptyList());
    const auto wait = [&] {
        TracedLock lock = shared.lockFullList();
        shared.waitFullList(&lock);
    };
    const auto isWaiting = [&] { return shared.waitingThreads() == 1; };
    std::thread sender(wait);
    shared.totalThreads = 2;
    EXPECT_TRUE(eventually(isWaiting));
    EXPECT_EQ(found(), Stall::Running);
    shared.totalThreads = 1;
    EXPECT_EQ(found(), Stall::Dead);
    shared.totalToSend = 1;
    shared.timeoutSeconds = 1;
    EXPECT_EQ(syncThreads(&shared), -1);
    EXPECT_TRUE(root.logged("Deadlock. Fail checkpoint."));
    shared.wakeAll();
    sender.join();
    shared.putFull(buffer);
    shared.timeoutSeconds = 60;
    sender = std::thread(wait);
    EXPECT_TRUE(eventually(isWaiting));
    EXPECT_EQ(found(), Stall::Waking);
    shared.wakeAll();
    sender.join();
}

// A reader that missed a signal, played here: of a full list, and that the meta thread missed its own of the empty one.
TEST_F(Shared, ALostSignalCostsTimeAndNoMore) {
    makeBackup(7, blocksOf({100, 200}));
    ASSERT_EQ(createHashList(&shared.hashList, 7, {}, 1), 0);
    shared.totalThreads = 1;
    shared.timeoutSeconds = 1;
    std::thread meta(metaThread, &shared);
    EXPECT_TRUE(eventually([&] {
        const TracedLock access = shared.blockList.lockAccess();
        return shared.blockList.remaining() > 0;
    }));
    auto reader = std::async(std::launch::async, [&] {
        TracedLock access = shared.blockList.lockAccess();
        shared.blockList.waitFull(&access);
        while (shared.blockList.remaining() > 0)
            shared.blockList.next();
        while (shared.getExitCode() == PHASE_RUNNING)
            shared.blockList.waitFull(&access);
        return shared.getExitCode();
    });
    if (reader.wait_for(30s) != std::future_status::ready) {
        shared.setExitCode(PHASE_FAILED);
        shared.wakeAll();
        shared.wakeAll();
    }
    EXPECT_EQ(reader.get(), PHASE_NO_MORE);
    EXPECT_TRUE(root.logged("All 1 threads wait and none has moved since the last look: they are woken"));
    meta.join();
}

}  // namespace
