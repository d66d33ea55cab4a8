// What holds for both send phases.

#include "config/settings.h"
#include "send_fixture.h"
#include "support/limited_memory.h"

namespace {

using namespace testsupport;

class EachPhase : public SendFixture, public ::testing::WithParamInterface<SendPhase> {
protected:
    int send() { return SendFixture::send(GetParam()); }
    [[nodiscard]] static bool isThreaded() { return GetParam() == &sendBlocksThreaded; }
};

INSTANTIATE_TEST_SUITE_P(Phases, EachPhase, ::testing::Values(&sendBlocks, &sendBlocksThreaded),
                         [](const auto& phase) { return phase.param == &sendBlocks ? "single" : "threaded"; });

TEST_P(EachPhase, SendsEachMissingBlockOnce) {
    const Blocks blocks = blocksOf({100, 200, 300, 400});
    makeBackup(7, {blocks[0], blocks[1], blocks[0], blocks[2], blocks[3], blocks[1]});
    target->blocks = {blocks[2]};
    EXPECT_TRUE(send() == 0 && targetHas(blocks));
    EXPECT_EQ(newRequests(), (Names{"multiblock", "multiblock", "post-check-offset", "post-check-offset"}));
    EXPECT_EQ(bytesSent, isThreaded() ? 700 + 3 * BLOCK_HEADER_SIZE : 700);
    EXPECT_EQ(progress.current_size, 1000);
    EXPECT_EQ(catalogue.value("SELECT count(*) FROM dq.operation_progress"), "1");
    EXPECT_EQ(send(), 0) << "the target has them all now";
    EXPECT_EQ(newRequests(), (Names{"post-check-offset", "post-check-offset"})) << "nothing to send";
    forgetBackup();
    EXPECT_EQ(send(), 0) << "an empty backup";
    EXPECT_TRUE(newRequests().empty());
}

TEST_P(EachPhase, ABlockIsPackedOrSentAloneByItsLength) {
    settings.metaSize = 100;
    const auto expect = [&](const char* what, const std::vector<std::size_t>& sizes, Names requests) {
        forgetBackup();
        target->blocks.clear();
        const Blocks blocks = blocksOf(sizes);
        makeBackup(7, blocks);
        requests.emplace_back("post-check-offset");
        EXPECT_TRUE(send() == 0 && targetHas(blocks)) << what;
        EXPECT_EQ(newRequests(), requests) << what;
    };
    // In one thread a block needs 512 bytes more than its own, among threads its header and one byte.
    const std::size_t room = isThreaded() ? 85 : 512;
    settings.maxBlocks = 2048;
    expect("as long as a buffer takes", {2048 - room}, {"multiblock"});
    expect("a byte more", {2049 - room}, {"b-" + std::to_string(2049 - room)});
    expect("several windows long, others around it", {10, 5000, 20},
           isThreaded() ? Names{"b-5000", "multiblock", "multiblock"} : Names{"b-5000", "multiblock"});
    expect("two that fill it", {700, 2048 - 84 - 700 - room}, {"multiblock"});
    expect("two with a byte more", {700, 2049 - 84 - 700 - room}, {"multiblock", "multiblock"});
    settings.maxBlocks = settings.metaSize = 0;
    settings.cluster = 1;
    expect("sizes that are none count as the defaults", {100, 20000, 300}, {"multiblock"});
}

TEST_P(EachPhase, AnAnswerThatIsNoneEndsThePhaseAndAPutHasTwoTries) {
    makeBackup(7, blocksOf({100, 100, 100, 100, 100, 100}));
    const auto expect = [&](const char* what, const char* request, const std::deque<std::string>& instead, bool good,
                            const std::deque<std::int64_t>& countErrors = {}, int retryCount = 3) {
        target->blocks.clear();
        target->instead = {{request, instead}};
        target->countErrors = countErrors;
        settings.retryCount = retryCount;
        EXPECT_EQ(send() == 0, good) << what;
        EXPECT_TRUE(target->blocks.size() == 6 || !good) << what;
    };
    const char* request = "post-check-offset";
    expect("question refused", request, {UNAVAILABLE}, false);
    expect("question without an answer", request, {HANG_UP}, false);
    expect("answer too short", request, {ok("0")}, false);
    expect("bytes that are neither 0 nor 1", request, {ok("\2x")}, true);
    expect("refused once", "multiblock", {UNAVAILABLE}, true);
    expect("hung up once", "multiblock", {HANG_UP}, true);
    expect("refused twice", "multiblock", {UNAVAILABLE, UNAVAILABLE, UNAVAILABLE, UNAVAILABLE}, false);
    EXPECT_TRUE(target->blocks.empty() || isThreaded());
    settings.checkpoint = true;
    request = "backup-block-count";
    expect("count refused once", request, {UNAVAILABLE}, true);
    expect("no count at all", request, {HANG_UP, HANG_UP}, false, {}, 2);
    expect("a negative count", request, {}, false, {isThreaded() ? -9 : -1}, 1);
    expect("no tries", request, {}, false, {}, 0);
    expect("more than expected", request, {}, true, {9, 9, 9, 9});
}

TEST_P(EachPhase, ABlockThatCannotBeReadEndsThePhase) {
    const Blocks blocks = blocksOf({100, 200, 300});
    makeBackup(7, blocks);
    std::filesystem::resize_file(fileOf(7), 4 + 350);
    EXPECT_EQ(send(), -1);
    EXPECT_FALSE(target->blocks.contains(blocks[2]));
    EXPECT_TRUE(isThreaded() || targetHas({blocks[0], blocks[1]})) << "what came before is there for the next try";
    catalogue.sql("UPDATE dq.backups_hash_values SET deduplicated = 1");
    target->blocks.clear();
    EXPECT_EQ(send(), -1) << "nobody has the data";
    EXPECT_TRUE(target->blocks.empty());
}

TEST_P(EachPhase, MemoryThatCannotBeHadFailsThePhaseAndNotTheJob) {
    constexpr std::size_t BLOCKS = 73;
    settings.metaSize = 100;
    makeBackup(7, blocksOf(std::vector<std::size_t>(BLOCKS, 40)));
    for (const std::size_t size : {sizeof(void*), CHECK_RECORD_SIZE}) {  // to look the batch up, and to ask about it
        g_failingSize = BLOCKS * size;
        EXPECT_EQ(send(), -1);
        g_failingSize = 0;
    }
    EXPECT_TRUE(root.logged("std::bad_alloc") && root.logged("Failed to allocate memory"));
    EXPECT_EQ(send(), 0);
}

TEST_P(EachPhase, BlocksOfABackupThatTheTargetHoldsAreNotAskedAbout) {
    const Blocks blocks = blocksOf({100, 200, 300});
    makeBackup(3, {blocks[0], blocks[1]});
    makeBackup(7, blocks);
    catalogue.sql(
        "UPDATE dq.backups SET type = 1, instance_id = 5, sync_status = CASE WHEN backup_no = 3 THEN 2 ELSE 1 "
        "END; INSERT INTO dq.application_instances (instance_id, node_no, app_id, identity) VALUES (5, 1, 1, "
        "'11111111-1111-1111-1111-111111111111')");
    std::string held(24, '\0');
    held[0] = 44, held[9] = 4, held[17] = 2;
    const auto questions = [&] {
        std::string body;
        for (const auto& request : target.requests())
            body += request.path().ends_with("post-check-offset") ? request.header("X-Expect") : "";
        return body;
    };
    target->instead["backup-check"] = {ok(held), HANG_UP};
    EXPECT_TRUE(send() == 0 && targetHas({blocks[2]}));
    EXPECT_TRUE(send() == 0 && targetHas(blocks)) << "an unconfirmed backup excludes nothing";
    EXPECT_EQ(questions(), isThreaded() ? "10210" : "121");
    settings.blockEliminationType = 9;
    EXPECT_EQ(send(), -1);
}

}  // namespace
