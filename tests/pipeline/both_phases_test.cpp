// What holds for both send phases.

#include "config/settings.h"
#include "send_fixture.h"

namespace {

using testsupport::Blocks;
using testsupport::HANG_UP;
using testsupport::Names;
using testsupport::ok;
using testsupport::UNAVAILABLE;

constexpr std::size_t HEADER = 84;  // bytes in front of each block on the wire

class EachPhase : public testsupport::SendFixture, public ::testing::WithParamInterface<testsupport::SendPhase> {
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
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks));
    Names names = newRequests();
    std::ranges::sort(names);
    EXPECT_EQ(names, (Names{"multiblock", "multiblock", "post-check-offset", "post-check-offset"}));
    EXPECT_EQ(bytesSent, isThreaded() ? 700 + 3 * HEADER : 700);
    EXPECT_EQ(progress.current_size, 1000);
    EXPECT_EQ(catalogue.value("SELECT count(*) FROM dq.operation_progress"), "1");
    EXPECT_EQ(send(), 0) << "the target has them all now";
    EXPECT_EQ(newRequests(), (Names{"post-check-offset", "post-check-offset"})) << "nothing to send";
}

TEST_P(EachPhase, AnEmptyBackupIsDoneAtOnce) {
    makeBackup(7, {});
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(newRequests().empty());
}

TEST_P(EachPhase, AnAnswerThatIsNoneEndsThePhaseAndAPutHasTwoTries) {
    makeBackup(7, blocksOf({100, 100, 100, 100, 100, 100}));
    const struct {
        const char* what;
        const char* request;
        std::deque<std::string> instead;
        bool succeeds;
    } cases[] = {
        {"question refused", "post-check-offset", {UNAVAILABLE}, false},
        {"question without an answer", "post-check-offset", {HANG_UP}, false},
        {"answer too long", "post-check-offset", {ok("000")}, false},
        {"answer too short", "post-check-offset", {ok("0")}, false},
        {"bytes that are neither 0 nor 1", "post-check-offset", {ok("\2x")}, true},
        {"refused once", "multiblock", {UNAVAILABLE}, true},
        {"hung up once", "multiblock", {HANG_UP}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        target->blocks.clear();
        target->instead = {{c.request, c.instead}};
        EXPECT_EQ(send() == 0, c.succeeds);
        EXPECT_EQ(target->blocks.size() == 6, c.succeeds);
    }
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

TEST_P(EachPhase, BlocksOfABackupThatTheTargetHoldsAreNotAskedAbout) {
    const Blocks blocks = blocksOf({100, 200, 300});
    makeBackup(3, {blocks[0], blocks[1]});
    makeBackup(7, blocks);
    catalogue.sql(
        "UPDATE dq.backups SET type = 1, instance_id = 5, sync_status = CASE WHEN backup_no = 3 THEN 2 ELSE 1 "
        "END; INSERT INTO dq.application_instances (instance_id, node_no, app_id, identity) VALUES (5, 1, 1, "
        "'11111111-1111-1111-1111-111111111111')");
    std::string held(24, '\0');
    held[0] = 44;
    held[9] = 4;
    held[17] = 2;
    const auto questions = [&] {
        std::string body;
        for (const auto& request : target.requests())
            body += request.path().ends_with("post-check-offset") ? request.header("X-Expect") : "";
        return body;
    };
    target->instead["backup-check"] = {ok(held), HANG_UP};
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas({blocks[2]}));
    EXPECT_EQ(questions(), isThreaded() ? "10" : "1");
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks)) << "an unconfirmed backup excludes nothing";
    EXPECT_EQ(questions(), isThreaded() ? "10210" : "121");
    g_settings.blockEliminationType = 9;
    EXPECT_EQ(send(), -1);
    EXPECT_TRUE(root.logged("Failed to get exclusion list:-1"));
}

TEST_P(EachPhase, SettingsThatAreNoneCountAsTheDefaults) {
    settings.maxBlocks = 0;
    settings.metaSize = 0;
    settings.cluster = 1;
    const Blocks blocks = blocksOf({100, 20000, 300});
    makeBackup(7, blocks);
    EXPECT_EQ(send(), 0);
    EXPECT_TRUE(targetHas(blocks));
    EXPECT_EQ(newRequests(), (Names{"post-check-offset", "multiblock"}));
}

}  // namespace
