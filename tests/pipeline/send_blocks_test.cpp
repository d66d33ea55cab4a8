#include "send_fixture.h"

namespace {

using namespace testsupport;

class SendBlocks : public SendFixture {
protected:
    int send() { return SendFixture::send(&sendBlocks); }
};

// Nothing is sent again in this phase: its result tells the worker whether the backup must be tried anew.
TEST_F(SendBlocks, WhatNoCheckpointMadeGoodIsTheResult) {
    // Six blocks of 100 bytes are three batches; a checkpoint stands before each batch and before the end.
    makeBackup(7, blocksOf({100, 100, 100, 100, 100, 100}));
    settings.retryCount = 1;
    constexpr int CURL_FAILURE = 1;  // stands for any code of libcurl
    // `instead`: replies to multiblocks; `countErrors`: what the counts are wrong by; `held`: blocks at the end.
    const auto expect = [&](const char* what, const std::deque<std::string>& instead,
                            const std::deque<std::int64_t>& countErrors, int result, std::size_t held,
                            const char* logged) {
        root.clearLog();
        target->blocks.clear();
        target->instead = {{"multiblock", instead}};
        target->countErrors = countErrors;
        const int code = send();
        EXPECT_EQ(code > 0 ? CURL_FAILURE : code, result) << what;
        EXPECT_EQ(target->blocks.size(), held) << what;
        EXPECT_TRUE(root.logged(logged)) << what << root.log();
    };
    expect("hung up twice, nothing compares", {HANG_UP, HANG_UP}, {}, -1, 0, "failed retry, abort replication job");
    settings.checkpoint = true;
    expect("hung up, then the counts are right", {HANG_UP, HANG_UP}, {}, 0, 4,
           "Recovered from curl error. setting ret=0");
    expect("refused at the end", {AS_EVER, AS_EVER, UNAVAILABLE, UNAVAILABLE}, {}, -1, 4,
           "the target refused are missing");
    expect("hung up at the end", {AS_EVER, AS_EVER, HANG_UP, HANG_UP}, {}, CURL_FAILURE, 4, "retry meta batch");
    expect("a short count", {}, {0, -1}, 0, 6, "Checkpoint retries recovery after 1 retries.");
    expect("short counts", {}, {0, -2, -4}, -1, 6, "Checkpoint retry failed, too many tries attempted.");
}

TEST_F(SendBlocks, AShortCountPutsTheBatchBackInTheProgress) {
    makeBackup(7, blocksOf({100, 200, 300, 400}));
    settings.checkpoint = true;
    for (const std::int64_t before : {1000, -200}) {
        target->blocks.clear();
        target->countErrors = {0, -1};
        progress.current_size = before;
        EXPECT_EQ(send(), 0);
        EXPECT_EQ(progress.current_size, before > 0 ? 1700 : 700) << "less the 300 bytes of the first batch, or 0";
    }
    EXPECT_TRUE(root.logged("metaBuffer location:1 hashID:") && root.logged("Total checkpoint data size: 300"));
}

TEST_F(SendBlocks, ALargeBlockHasOneTry) {
    settings.maxBlocks = 1024;
    makeBackup(7, blocksOf({2000}));
    target->instead["b-2000"] = {UNAVAILABLE, HANG_UP};
    EXPECT_EQ(send(), -1);
    EXPECT_GT(send(), 0);
    EXPECT_TRUE(root.logged("Failed to put large block"));
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(target->blocks.size(), 1u);
}

}  // namespace
