// The threaded send phase: what its threads do to each other when something fails.

#include <chrono>
#include <condition_variable>
#include <numeric>
#include <thread>

#include "pipeline/pipeline_internal.h"
#include "pipeline/threadBuffer.h"
#include "send_fixture.h"

namespace {

using testsupport::Blocks;
using testsupport::HANG_UP;
using testsupport::Names;
using testsupport::UNAVAILABLE;

class Threads : public testsupport::SendFixture {
protected:
    Threads() { keys(""); }

    void keys(const std::string& text) { root.masterIni("[Replication]\n  MetaThreadTimeoutSeconds=1\n" + text); }

    int send() { return SendFixture::send(&sendBlocksThreaded); }

    // Until the log holds the text; gives up after half a minute.
    void waitForLog(const std::string& text) const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!root.logged(text) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        EXPECT_TRUE(root.logged(text)) << text;
    }
};

TEST_F(Threads, ABlockIsPackedSentAloneOrStallsByItsLength) {
    settings.metaSize = 100;
    settings.maxBlocks = 1024;
    const struct {
        const char* what;
        std::vector<std::size_t> sizes;
        Names requests;
        int result;
    } cases[] = {
        {"leaves a byte free", {939}, {"multiblock"}, 0},
        {"leaves none: no buffer ever takes it", {940}, {}, -1},
        {"a byte more", {941}, {"b-941"}, 0},
        {"several windows long, others around it", {10, 5000, 20}, {"b-5000", "multiblock", "multiblock"}, 0},
        {"two leave a byte free", {428, 427}, {"multiblock"}, 0},
        {"two leave none", {428, 428}, {"multiblock", "multiblock"}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        forgetBackup();
        root.clearLog();
        target->blocks.clear();
        const Blocks blocks = blocksOf(c.sizes);
        makeBackup(7, blocks);
        EXPECT_EQ(send(), c.result);
        Names names = newRequests();
        std::ranges::sort(names);
        std::erase(names, "post-check-offset");
        EXPECT_EQ(names, c.requests);
        EXPECT_EQ(targetHas(blocks), c.result == 0);
        EXPECT_EQ(root.logged("Deadlock detected"), c.result != 0);
    }
}

TEST_F(Threads, BatchesOfOneRecordAndFewBuffersWork) {
    settings.metaSize = 1;
    settings.checkpoint = true;
    keys("  ThreadBufferCount=1\n  SendThreadCount=3\n  ReadThreadCount=2\n");
    const Blocks blocks = blocksOf({100, 200, 300, 400, 500});
    makeBackup(7, blocks);
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks));
    EXPECT_TRUE(
        root.logged("ReadThreadCount set to unexpected value:2, only 1 is supported at this time. Setting "
                    "internal ReadThreadCount=1"));
    EXPECT_TRUE(root.logged("Unadvised buffer count:1 setting to: 4"));
    EXPECT_TRUE(root.logged("Threads created. Read:1, Send:3"));
    keys("  SendThreadCount=0\n");
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(
        root.logged("SendThreadCount set to unexpected value:1, must be >=1. Setting internal "
                    "SendThreadCount=1"));
    EXPECT_TRUE(root.logged("Using default ThreadBufferCount=3"));
}

TEST_F(Threads, ABufferThatFailsTwiceFailsThePhase) {
    // Blocks that fill a buffer each, so that every thread has its own to fail with.
    const Blocks blocks = blocksOf({3000, 3000, 3000, 3000, 3000, 3000});
    makeBackup(7, blocks);
    const struct {
        const char* what;
        int threads;
        std::deque<std::string> instead;
        const char* logged;
    } cases[] = {
        {"hung up twice on the only thread", 1, {HANG_UP, HANG_UP}, "failed retry (Curl status:"},
        {"refused twice on the only thread", 1, {UNAVAILABLE, UNAVAILABLE}, "failed retry (Curl status:No error"},
        {"on every thread", 2, {HANG_UP, HANG_UP, HANG_UP, HANG_UP}, "retrying."},
    };
    for (const bool checkpoint : {false, true}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.what) + (checkpoint ? ", with checkpoints" : ""));
            settings.checkpoint = checkpoint;
            target->blocks.clear();
            root.clearLog();
            keys("  SendThreadCount=" + std::to_string(c.threads) + "\n");
            target->instead = {{"multiblock", c.instead}};
            EXPECT_EQ(send(), -1);
            EXPECT_TRUE(root.logged(c.logged));
            target->instead.clear();
            EXPECT_EQ(send(), 0) << "the next try";
            EXPECT_TRUE(targetHas(blocks));
        }
    }
}

// The meta thread has left with success when the last buffer fails: the failure must win.
TEST_F(Threads, AFailureAfterTheMetaThreadHasGoneIsTheResult) {
    makeBackup(7, blocksOf({100, 200}));
    target->instead = {{"multiblock", {HANG_UP, HANG_UP}}};
    target->beforeReply = [this](const std::string& name) {
        if (name == "multiblock")
            waitForLog("MetaThread: Set exit code 1");
    };
    EXPECT_EQ(send(), -1);
}

// The read thread waits for an empty buffer, the meta thread for the read thread: one failing send thread ends both.
TEST_F(Threads, AFailedSendWakesAReaderWithoutABuffer) {
    settings.metaSize = 100;
    settings.checkpoint = true;
    keys("  SendThreadCount=1\n  ThreadBufferCount=2\n  MetaThreadTimeoutSeconds=60\n");
    makeBackup(7, blocksOf({3000, 3000, 3000, 3000}));
    target->instead = {{"multiblock", {HANG_UP, HANG_UP}}};
    target->beforeReply = [this](const std::string& name) {
        if (name == "multiblock")
            waitForLog("Unable to obtain a work buffer");
    };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(send(), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30)) << "it was woken, not timed out";
}

TEST_F(Threads, ACheckpointFindsWhatTheTargetLost) {
    settings.checkpoint = true;
    settings.metaSize = 4;
    settings.retryCount = 1;
    const Blocks blocks = blocksOf({100, 200, 300, 400, 500, 600});
    makeBackup(7, blocks);
    const struct {
        const char* what;
        std::deque<std::size_t> keeps;
        int result;
        const char* logged;
    } cases[] = {
        {"nothing lost", {}, 0, "6 blocks reported on target, 6 blocks expected."},
        {"one lost",
         {3},
         0,
         "Checkpoint found mismatch, retry last batch of blocks. Total checkpoint data size: 1000."},
        {"all lost once", {0}, 0, "Checkpoint retries recovery after 1 retries."},
        {"each round brings one", {1, 1, 1, 1, 1, 1}, 0, "Checkpoint retry making some progress"},
        {"no round brings any", {0, 0, 0, 0, 0, 0}, -1, "Checkpoint retry failed, too many retries attempted."},
        {"the last batch is lost", {4, 0}, 0, "4 blocks reported on target, 6 blocks expected."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        root.clearLog();
        target->blocks.clear();
        target->keeps = c.keeps;
        EXPECT_EQ(send(), c.result);
        EXPECT_EQ(targetHas(blocks), c.result == 0);
        EXPECT_TRUE(root.logged(c.logged)) << root.log();
    }
}

TEST_F(Threads, ACountThatCannotBeHadFailsTheCheckpoint) {
    settings.checkpoint = true;
    makeBackup(7, blocksOf({100, 200, 300}));
    const struct {
        const char* what;
        int retryCount;
        std::deque<std::string> instead;
        std::deque<std::int64_t> errors;
        int result;
        const char* logged;
    } cases[] = {
        {"refused once", 3, {UNAVAILABLE}, {}, 0, "MetaThread: postBlockCount retry successful."},
        {"no answer at all", 2, {HANG_UP, HANG_UP}, {}, -1, "MetaThread: postBlockCount failed, curl failure."},
        {"negative", 1, {}, {-5}, -1, "MetaThread: postBlockCount failed, target returned error."},
        {"no tries", 0, {}, {}, -1, "MetaThread: postBlockCount failed, target returned error."},
        {"more than expected", 3, {}, {9, 9}, 0, "blocks reported on target"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        root.clearLog();
        target->blocks.clear();
        settings.retryCount = c.retryCount;
        target->instead = {{"backup-block-count", c.instead}};
        target->countErrors = c.errors;
        EXPECT_EQ(send(), c.result);
        EXPECT_TRUE(root.logged(c.logged)) << root.log();
    }
}

// The second look at the target fails in a checkpoint: nothing counts as to be sent, and the next round finds out.
TEST_F(Threads, ACheckAfterAShortfallMayFailOnce) {
    settings.checkpoint = true;
    const Blocks blocks = blocksOf({100, 200});
    makeBackup(7, blocks);
    target->keeps = {0};
    target->instead["post-check-offset"] = {testsupport::AS_EVER, UNAVAILABLE};
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks));
    EXPECT_TRUE(root.logged("Failed target block check offset:-1"));
}

TEST_F(Threads, SlowSendsAreNoDeadlock) {
    settings.checkpoint = true;
    const Blocks blocks = blocksOf({100, 200});
    makeBackup(7, blocks);
    target->beforeReply = [this](const std::string& name) {
        if (name == "multiblock")
            waitForLog("Conditional Wait return value:110");  // a wait that ended by its limit
    };
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks));
    EXPECT_FALSE(root.logged("Deadlock"));
}

TEST_F(Threads, SeveralThreadsSendAThousandBlocks) {
    settings.metaSize = 100;
    settings.maxBlocks = 16384;
    settings.checkpoint = true;
    keys("  SendThreadCount=4\n");
    std::vector<std::size_t> sizes(1000);
    for (std::size_t i = 0; i < sizes.size(); ++i)
        sizes[i] = i % 50 == 0 ? 20000 + i : 500 + i;  // every fiftieth goes alone
    const Blocks blocks = blocksOf(sizes);
    makeBackup(7, blocks);
    target->keeps = {2, 0, 1};
    target->instead = {{"multiblock", {HANG_UP}}};
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks));
}

class Exits : public Threads {
protected:
    SendJob job{
        .backupNo = 7, .url = target.name(), .backupNoOnTarget = 31, .progress = &progress, .bytesSent = &bytesSent};
    ThreadBuffer shared{settings, job, 3};
};

TEST_F(Exits, AFailureWinsFromEveryState) {
    shared.setExitCode(PHASE_NO_MORE);
    EXPECT_TRUE(shared.finishReading());
    EXPECT_EQ(shared.getExitCode(), PHASE_READ);
    EXPECT_FALSE(shared.finishReading());
    shared.setExitCode(PHASE_FAILED);
    shared.setExitCode(PHASE_NO_MORE);
    EXPECT_FALSE(shared.finishReading());
    EXPECT_EQ(shared.getExitCode(), PHASE_FAILED);
}

// At 2 a send thread still empties the full list; at -1 it leaves it alone.
TEST_F(Exits, FullBuffersGoOutBeforeASendThreadLeaves) {
    const Blocks blocks = blocksOf({100, 200});
    makeBackup(7, blocks);
    HashListPtr list;
    std::vector<hashReferenceInfo> records(2);
    ASSERT_EQ(createHashList(&list, 7, {}, 1), 0);
    ASSERT_EQ(getHashesFromList(&list, records), 2);
    const auto queue = [&] {
        for (hashReferenceInfo& record : records) {
            WorkBuffer* const buffer = shared.takeEmpty(shared.lockEmptyList());
            EXPECT_EQ(buffer->addBlock(&record, nullptr), WorkBuffer::Done);
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

}  // namespace
