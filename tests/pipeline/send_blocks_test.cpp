#include <gtest/gtest.h>

#include <numeric>

#include "send_fixture.h"

namespace {

using testsupport::Blocks;
using testsupport::HANG_UP;
using testsupport::Names;
using testsupport::ok;
using testsupport::UNAVAILABLE;

constexpr int CURL_FAILURE = 1;  // stands for any code of libcurl

class SendBlocks : public testsupport::SendFixture {
protected:
    int send() { return SendFixture::send(&sendBlocks); }
};

TEST_F(SendBlocks, ABufferTakesBlocksUpToItsMargin) {
    settings.metaSize = 100;
    settings.maxBlocks = 2048;
    const struct {
        const char* what;
        std::vector<std::size_t> sizes;
        Names requests;
    } cases[] = {
        {"exactly the buffer's size less the margin", {1536}, {"post-check-offset", "multiblock"}},
        {"a byte more", {1537}, {"post-check-offset", "b-1537"}},
        {"several windows long", {5000, 10}, {"post-check-offset", "b-5000", "multiblock"}},
        {"two fit, the third comes next", {700, 700, 700}, {"post-check-offset", "multiblock", "multiblock"}},
        {"full to the byte", {740, 712}, {"post-check-offset", "multiblock"}},
        {"a byte too many", {740, 713}, {"post-check-offset", "multiblock", "multiblock"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        forgetBackup();
        const Blocks blocks = blocksOf(c.sizes);
        target->blocks.clear();
        progress.current_size = 0;
        makeBackup(7, blocks);
        EXPECT_EQ(send(), 0);
        EXPECT_EQ(newRequests(), c.requests);
        EXPECT_TRUE(targetHas(blocks));
        EXPECT_EQ(progress.current_size, std::accumulate(c.sizes.begin(), c.sizes.end(), 0));
    }
}

TEST_F(SendBlocks, FailuresEndThePhaseOrAreMadeGood) {
    // Six blocks of 100 bytes are three batches; a checkpoint stands before each batch and before the end.
    makeBackup(7, blocksOf({100, 100, 100, 100, 100, 100}));
    int retryCount = 3;
    // `instead`: replies to the first requests of that kind; `countErrors`: what the counts are wrong by; `held`: how
    // many blocks are on the target in the end.
    const auto expect = [&](const char* what, const std::string& request, const std::deque<std::string>& instead,
                            const std::deque<std::int64_t>& countErrors, int result, std::size_t held,
                            const char* logged) {
        SCOPED_TRACE(what);
        root.clearLog();
        target->blocks.clear();
        target->instead = {{request, instead}};
        target->countErrors = countErrors;
        settings.retryCount = retryCount;
        const int code = send();
        EXPECT_EQ(code > 0 ? CURL_FAILURE : code, result) << code;
        EXPECT_EQ(target->blocks.size(), held);
        EXPECT_TRUE(root.logged(logged)) << root.log();
    };
    const std::string check = "post-check-offset";
    expect("question refused", check, {UNAVAILABLE}, {}, -1, 0, "Failed to check with POST");
    expect("question without an answer", check, {HANG_UP}, {}, CURL_FAILURE, 0, "Curl status: ");
    expect("answer too long", check, {ok("000")}, {}, -1, 0, "Failed to check with POST");
    const std::string put = "multiblock";
    expect("refused once", put, {UNAVAILABLE}, {}, 0, 6, "backupNo:7 putMultiBlocks failed: retrying...");
    expect("hung up once", put, {HANG_UP}, {}, 0, 6, "Curl status: ");
    expect("refused twice", put, {UNAVAILABLE, UNAVAILABLE}, {}, -1, 0, "failed retry, abort replication job");
    expect("hung up twice", put, {HANG_UP, HANG_UP}, {}, -1, 0, "failed retry, abort replication job");
    settings.checkpoint = true;
    expect("hung up twice, then the counts are right", put, {HANG_UP, HANG_UP}, {}, 0, 4,
           "Recovered from curl error. setting ret=0");
    expect("good counts", "", {}, {}, 0, 6, "Count/offset: 6/6");
    expect("more on the target than expected", "", {}, {5, 5, 5, 5}, 0, 6, "Count/offset: 11/6");
    const std::string count = "backup-block-count";
    expect("count refused once", count, {UNAVAILABLE}, {}, 0, 6, "postBlockCount failed, retry.");
    retryCount = 2;
    expect("count negative", "", {}, {-1, -2}, -1, 0, "postBlockCount failed, target returned error.");
    expect("no count", count, {HANG_UP, HANG_UP}, {}, CURL_FAILURE, 0, "postBlockCount failed, curl failure.");
    retryCount = 1;
    expect("a short count", "", {}, {0, -1}, 0, 6, "Checkpoint retries recovery after 1 retries.");
    expect("short counts", "", {}, {0, -2, -4}, -1, 6, "Checkpoint retry failed, too many tries attempted.");
    retryCount = 0;
    expect("no tries at all", "", {}, {}, -1, 0, "postBlockCount failed, target returned error.");
}

// Nothing is sent again in this phase: whether the code stays tells the worker that the backup must be tried anew.
TEST_F(SendBlocks, AFailureThatNoCheckpointMadeGoodIsTheResult) {
    makeBackup(7, blocksOf({100, 200}));
    settings.checkpoint = true;
    target->instead["multiblock"] = {HANG_UP, HANG_UP};
    EXPECT_GT(send(), 0);
    EXPECT_TRUE(target->blocks.empty());
    EXPECT_TRUE(root.logged("Checkpoint found mismatch, retry meta batch"));
    EXPECT_EQ(send(), 0) << "the next try";
    EXPECT_EQ(target->blocks.size(), 2u);
}

TEST_F(SendBlocks, AShortCountPutsTheBatchBackInTheProgress) {
    makeBackup(7, blocksOf({100, 200, 300, 400}));
    settings.checkpoint = true;
    target->countErrors = {0, -1};
    progress.current_size = 1000;
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(progress.current_size, 1700) << "less the 300 bytes of the first batch";
    EXPECT_TRUE(root.logged("metaBuffer location:1 hashID:"));
    EXPECT_TRUE(root.logged("Total checkpoint data size: 300"));
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
