#include "elimination/elimination.h"

#include "config/settings.h"
#include "support/catalogue.h"
#include "support/root.h"
#include "support/scripted_server.h"
#include "support/test.h"

namespace {

using testsupport::answer;
using testsupport::ok;
using testsupport::ScriptedServer;
using Backups = std::vector<std::uint64_t>;

class Elimination : public ::testing::Test {
protected:
    Elimination() : catalogue(testsupport::Catalogue::instance()) {
        catalogue.reset();
        // Instance 1: masters 1 and 4; instance 2: master 2. 7 waits to be sent anew, 9 is the one to be sent.
        catalogue.sql(
            "INSERT INTO dq.application_instances (instance_id, node_no, app_id, identity) VALUES (1, 1, 1, "
            "'11111111-1111-1111-1111-111111111111'), (2, 1, 1, NULL);"
            "INSERT INTO dq.backups (backup_no, instance_id, type, sync_status, start_time) VALUES (1, 1, 1, 2, 100), "
            "(2, 2, 1, 2, 200), (3, 1, 3, 2, 300), (4, 1, 1, 2, 400), (5, 1, 3, 2, 500), (6, 1, 1, 0, 600), "
            "(7, 1, 1, 3, 700), (8, 2, 3, 0, 800), (9, 1, 3, 1, 900), (10, 1, 1, 2, 1000)");
    }
    static std::string checkReply(std::int64_t number, std::uint64_t status, std::uint64_t properties) {
        std::string reply(24, '\0');
        std::memcpy(reply.data(), &number, 8);
        std::memcpy(reply.data() + 8, &status, 8);
        std::memcpy(reply.data() + 16, &properties, 8);
        return ok(reply);
    }

    testsupport::TestRoot root;
    ReplicationSettings settings;
    testsupport::Catalogue& catalogue;
};

TEST_F(Elimination, ModesChooseTheBackups) {
    const auto expect = [&](std::uint64_t backup, int mode, std::int64_t result, const Backups& expected,
                            const char* logged) {
        SCOPED_TRACE(testing::Message() << backup << " mode " << mode);
        root.clearLog();
        Backups list;
        EXPECT_EQ(getLbeList(backup, mode, &list, nullptr), result);
        std::sort(list.begin(), list.end());
        EXPECT_EQ(list, expected);
        EXPECT_TRUE(root.logged(logged)) << root.log();
    };
    expect(9, LBE_NONE, 0, {}, "Getting list of LBE backups");
    expect(9, LBE_LAST_MASTER, 1, {4}, "Only vs. last master");
    expect(9, LBE_LAST_GROUP, 2, {4, 5}, "Only vs. last group");
    expect(9, LBE_INSTANCE, 5, {1, 3, 4, 5, 10}, "Only vs. this instance");
    expect(9, LBE_ALL, 6, {1, 2, 3, 4, 5, 10}, "For all sync done");
    expect(9, 5, -1, {}, "Unrecognized mode value:5");
    expect(4, LBE_LAST_GROUP, 2, {1, 3}, "Backups returned from query:2");
    expect(4, LBE_LAST_MASTER, 1, {1}, "Backup found for LBE:1");
    expect(2, LBE_LAST_GROUP, 0, {}, "No previous master has replicated");
    expect(1, LBE_LAST_MASTER, 0, {}, "No backups to list");
    expect(99, LBE_INSTANCE, 0, {}, "No backups to list");
    catalogue.sql("ALTER TABLE dq.backups RENAME COLUMN sync_status TO gone");
    for (const int mode : {LBE_LAST_MASTER, LBE_LAST_GROUP, LBE_INSTANCE, LBE_ALL})
        expect(9, mode, -1, {}, "Error: failed database Query");
}

TEST_F(Elimination, OnlyBackupsThatTheTargetConfirmsAreListed) {
    const auto expectRefusal = [&](const char* what, const std::string& reply, const char* logged) {
        SCOPED_TRACE(what);
        ScriptedServer server;
        server.next(answer(reply));
        server.next(answer(checkReply(45, 0x40, 0x200)));
        root.clearLog();
        Backups list;
        EXPECT_EQ(getLbeList(9, LBE_LAST_GROUP, &list, &server.name()), 2) << "the rows";
        EXPECT_EQ(list, (Backups{5, 0})) << "what wasn't confirmed excludes nothing";
        EXPECT_TRUE(root.logged(logged)) << root.log();
        EXPECT_TRUE(root.logged("Backup:5 on target is 45."));
        EXPECT_EQ(server.lastRequest().body, std::string("11111111-1111-1111-1111-111111111111_500_3\0", 43));
    };
    expectRefusal("nobody answers", "", "Unable to perform target check for backup_no:4, skipping backup");
    expectRefusal("unknown there", checkReply(0, 0x440, 0x600), "Curl status: No error, postBackupCheck returned 0.");
    expectRefusal("refused", "HTTP/1.1 503 Service Unavailable\r\n\r\n", "postBackupCheck returned -1.");
    expectRefusal("being built", checkReply(44, 0x200, 0x600), "Backup:4  not on target, skipping backup");
    expectRefusal("not hashed", checkReply(44, 0x440, 0x100), "Backup:4 is on the target but has not been hashed");
    expectRefusal("cut off", checkReply(44, 0x440, 0x600).substr(0, 60), "Unable to perform target check");
    // A target that says yes to an instance without identity can't mean it.
    ScriptedServer server;
    server.standing(answer(checkReply(2, 0x440, 0x600)));
    Backups list;
    EXPECT_EQ(getLbeList(8, LBE_LAST_MASTER, &list, &server.name()), 1);
    EXPECT_EQ(list, Backups{0});
    EXPECT_EQ(server.lastRequest().body, std::string(1, '\0'));
}

TEST_F(Elimination, CandidatesAreChosenByTypeOrProperty) {
    catalogue.sql(
        "UPDATE dq.backups SET properties = 1 WHERE backup_no = 3;"
        "UPDATE dq.backups SET properties = 1536 WHERE backup_no = 4;"
        "INSERT INTO dq.backups (backup_no, type) VALUES (20, 5), (21, 9), (22, 12), (23, 1031), (24, 13)");
    const auto expect = [&](const char* what, int candidate, bool isOn, const Backups& expected) {
        SCOPED_TRACE(what);
        settings.localBlockElimination = isOn;
        settings.blockEliminationCandidate = candidate;
        Backups used = {1, 3, 4, 9, 20, 21, 22, 23, 24, 99};
        std::erase_if(used, [&](std::uint64_t backup) { return !useBlockElim(settings, backup); });
        EXPECT_EQ(used, expected);
    };
    expect("switched off", 3, false, {});
    expect("none", 0, true, {});
    expect("by property", 1, true, {3});
    expect("masters of all kinds", 2, true, {1, 4, 20, 21, 22, 23});
    expect("all", 3, true, {1, 3, 4, 9, 20, 21, 22, 23, 24, 99});
    expect("negative value", -1, true, {});
    expect("unknown value", 5, true, {});
    EXPECT_TRUE(root.logged("blockEliminationType:2 blockEliminationCandidate:5 localBlockElimination:1"));
}

}  // namespace
