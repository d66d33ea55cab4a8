#include "elimination/elimination.h"

#include "config/settings.h"
#include "support/catalogue_fixture.h"
#include "support/scripted_server.h"

namespace {

using namespace testsupport;
using Backups = std::vector<std::uint64_t>;

class Elimination : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
        // Instance 1: masters 1 and 4; instance 2: master 2. 7 waits to be sent anew, 9 is the one to be sent.
        catalogue.sql(
            "INSERT INTO dq.application_instances (instance_id, node_no, app_id, identity) VALUES (1, 1, 1, "
            "'11111111-1111-1111-1111-111111111111'), (2, 1, 1, NULL);"
            "INSERT INTO dq.backups (backup_no, instance_id, type, sync_status, start_time) VALUES (1, 1, 1, 2, 100), "
            "(2, 2, 1, 2, 200), (3, 1, 3, 2, 300), (4, 1, 1, 2, 400), (5, 1, 3, 2, 500), (6, 1, 1, 0, 600), "
            "(7, 1, 1, 3, 700), (8, 2, 3, 0, 800), (9, 1, 3, 1, 900), (10, 1, 1, 2, 1000)");
    }
    static std::string checkReply(std::uint64_t number, std::uint64_t status, std::uint64_t properties) {
        const std::uint64_t words[] = {number, status, properties};
        return ok({reinterpret_cast<const char*>(words), sizeof words});
    }

    ReplicationSettings settings;
};

TEST_F(Elimination, ModesChooseTheBackups) {
    const auto expect = [&](std::uint64_t backup, int mode, std::int64_t result, const Backups& expected,
                            const char* logged) {
        root.clearLog();
        Backups list;
        EXPECT_EQ(getLbeList(backup, mode, &list, nullptr), result) << backup << " mode " << mode;
        std::ranges::sort(list);
        EXPECT_EQ(list, expected) << backup << " mode " << mode;
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
        ScriptedServer server;
        server.next(answer(reply));
        server.next(answer(checkReply(45, 0x40, 0x200)));
        root.clearLog();
        Backups list;
        EXPECT_EQ(getLbeList(9, LBE_LAST_GROUP, &list, &server.name()), 2) << what;
        EXPECT_EQ(list, (Backups{5, 0})) << what << ": what wasn't confirmed excludes nothing";
        EXPECT_TRUE(root.logged(logged)) << what << root.log();
        EXPECT_EQ(server.lastRequest().body, std::string("11111111-1111-1111-1111-111111111111_500_3\0", 43));
    };
    expectRefusal("nobody answers", "", "Unable to perform target check for backup_no:4, skipping backup");
    expectRefusal("unknown there", checkReply(0, 0x440, 0x600), "Curl status: No error, postBackupCheck returned 0.");
    expectRefusal("being built", checkReply(44, 0x200, 0x600), "Backup:4  not on target, skipping backup");
    expectRefusal("not hashed", checkReply(44, 0x440, 0x100), "Backup:4 is on the target but has not been hashed");
    // A target that says yes to an instance without identity can't mean it.
    ScriptedServer server;
    server.standing(answer(checkReply(2, 0x440, 0x600)));
    Backups list;
    EXPECT_TRUE(getLbeList(8, LBE_LAST_MASTER, &list, &server.name()) == 1 && list == Backups{0});
    EXPECT_EQ(server.lastRequest().body, std::string(1, '\0'));
}

TEST_F(Elimination, CandidatesAreChosenByTypeOrProperty) {
    catalogue.sql(
        "UPDATE dq.backups SET properties = CASE backup_no WHEN 3 THEN 1 ELSE 1536 END WHERE backup_no IN (3, 4);"
        "INSERT INTO dq.backups (backup_no, type) VALUES (20, 5), (21, 9), (22, 12), (23, 1031), (24, 13)");
    const auto expect = [&](const char* what, int candidate, bool isOn, const Backups& expected) {
        settings.localBlockElimination = isOn;
        settings.blockEliminationCandidate = candidate;
        Backups used = {1, 3, 4, 9, 20, 21, 22, 23, 24, 99};
        std::erase_if(used, [&](std::uint64_t backup) { return !useBlockElim(settings, backup); });
        EXPECT_EQ(used, expected) << what;
    };
    expect("switched off", 3, false, {});
    expect("none", 0, true, {});
    expect("by property", 1, true, {3});
    expect("masters of all kinds", 2, true, {1, 4, 20, 21, 22, 23});
    expect("all", 3, true, {1, 3, 4, 9, 20, 21, 22, 23, 24, 99});
    expect("unknown value", 5, true, {});
}

}  // namespace
