// Tools, the final metadata file, and the statistics.

#include "worker/hactar.h"

#include "config/directories.h"
#include "support/daemon_fixture.h"
#include "support/key_service.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Hactar : public DaemonTest {
protected:
    fs::path disk = device();
    fs::path file = disk / "hactar_7";
};

TEST_F(Hactar, HashingIsAskedForUnlessAnyOfTheTwoBitsIsSet) {
    tool("fileDedup", "echo \"$@\" >>\"$0.calls\"");
    for (const unsigned properties : {0u, 1u, 512u, 1024u, 1536u}) {
        backup(static_cast<int>(properties) + 1, 2, 1000, "properties = " + std::to_string(properties));
        EXPECT_EQ(hashBackup(properties + 1), 0);
    }
    EXPECT_EQ(readFile(root / "usr/dq/bin/fileDedup.calls"), "-H1\n-H2\n");
    catalogue.sql("ALTER TABLE dq.backups RENAME TO hidden");
    EXPECT_EQ(hashBackup(1), -1);
}

TEST_F(Hactar, WaysInWhichAToolEnds) {
    backup(7, 2, 1000, "properties = 0");
    const std::tuple<const char*, int, int, const char*> cases[] = {
        {"exit 0", 0, 0, "completed successfully.\n"},
        {"exit 3", HASH_LOCKED, -1, "failed, exited with status=3.\n"},
        {"exit 255", 255, -1, "failed, exited with status=255.\n"},
        {"kill -9 $$", 137, -1, "failed, exited with status=137.\n"},
        // A shell that is killed has an exit status of 0; the send phase finds the blocks missing.
        {"kill -9 $PPID", 0, -1, "failed due to signal Killed.\n"}};
    for (const auto& [script, hashing, making, log] : cases) {
        tool("fileDedup", script);
        tool("recipe", std::string("[ \"$*\" = '-b 7' ] || exit 9\n") + script);
        EXPECT_EQ(hashBackup(7), hashing) << script;
        EXPECT_EQ(createHactar(7), making) << script;
        EXPECT_TRUE(root.logged(log)) << root.log();
    }
    fs::remove(root / "usr/dq/bin/recipe");
    EXPECT_EQ(createHactar(7), -1);
}

TEST_F(Hactar, NoTwoToolsWorkOnTheFileOfOneBackup) {
    // The first one returns at once and leaves a process behind, as a worker does that was killed.
    tool("recipe",
         "echo \"$2\" >>\"$0.calls\"; [ $(wc -l <\"$0.calls\") = 1 ] || exit 0\n"
         "( while [ -e \"$0\" ] && [ ! -e \"$0.go\" ]; do sleep 0.02; done; echo end >>\"$0.calls\" ) &");
    EXPECT_EQ(createHactar(7), 0);
    std::thread second([] { EXPECT_EQ(createHactar(7), 0); });
    EXPECT_EQ(createHactar(8), 0) << "another backup's file is another matter";
    EXPECT_TRUE(eventually([this] { return root.logged("of backup 7 is still being made by an earlier run"); }));
    writeFile(root / "usr/dq/bin/recipe.go", "");
    second.join();
    EXPECT_EQ(readFile(root / "usr/dq/bin/recipe.calls"), "7\n8\nend\n7\n");
}

TEST_F(Hactar, ToolsAreFoundBehindABlankInThePath) {
    backup(7, 2, 1000, "properties = 0");
    tool("fileDedup", "exit 42");
    g_bindir = root / "usr/a b; exit 5";
    fs::rename(root / "usr/dq/bin", g_bindir);
    EXPECT_EQ(hashBackup(7), 42);
}

TEST_F(Hactar, IsRemovedOnceAndGoneIsRemoved) {
    backup(7);
    backup(8);
    writeFile(file, "x");
    writeFile(disk / "hactar_8", "x");
    EXPECT_EQ(removeHactar(7) + removeHactar(7), 0);
    EXPECT_TRUE(!fs::exists(file) && fs::exists(disk / "hactar_8"));
    fs::create_directories(file);
    EXPECT_EQ(removeHactar(7), -1) << "what can't be unlinked";
    EXPECT_EQ(removeHactar(9), -1) << "no such backup";
    catalogue.sql("UPDATE dq.devices SET dev_rw_name = ''");
    EXPECT_EQ(removeHactar(8), -1) << "never below the root directory";
}

TEST_F(Hactar, EncryptedOneIsSentDecryptedOrNotAtAll) {
    Target target;
    backup(7, 2, 1000, "properties = 768");
    writeFile(file, "secret");
    int curlCode = 0;
    EXPECT_EQ(sendHactar(7, target.name(), 77, 0, &curlCode), -1);
    EXPECT_TRUE(target.requests().empty());
    EXPECT_TRUE(root.logged("Failed to send encrypted Hactar, backup_no:7"));
    const lab::Process service = startKeyService(root);
    writeFile(file, sealed("secret of thirty-two characters."));
    EXPECT_EQ(sendHactar(7, target.name(), 77, 0, &curlCode), 0);
    EXPECT_EQ(target.request("f").body, "secret of thirty-two characters.");
    EXPECT_EQ(g_bytesSent, 1536u + 32u) << "what the file holds";
    catalogue.sql("UPDATE dq.backups SET properties = 512");
    EXPECT_EQ(sendHactar(7, target.name(), 77, 12, &curlCode), 0);
    EXPECT_EQ(target.request("f").body, readFile(file));
}

TEST_F(Hactar, StatisticsHoldWhatHappened) {
    instance(2);
    backup(7, 2, 1000, "total_megs = 5000000, type = 3");
    g_bytesSent = 123;
    const std::string text = "Failed: it's \"broken\"; DROP TABLE x. Network: Couldn't connect";
    ASSERT_EQ(updateSdsStats(7, 1, 2, 3, 4000000000, text, "vault"), 0);
    EXPECT_EQ(catalogue.rows("SELECT client_name, s.backup_no, type_name, presync_seconds, sync_seconds, "
                             "postsync_seconds, done_epoch, bytes_on_arx, bytes_syncd, bytes_on_arv, message, "
                             "destination FROM dq.sds_stats s JOIN dq.sync_type ON type_id = sync_type"),
              "client|7|Incremental|1|2|3|4000000000|5242880000000|123|5242880000000|" + text + "|vault");
    EXPECT_EQ(catalogue.rows("SELECT kind, read_size, write_size, read_time, write_time FROM dq.summary_charts"),
              "replication|5242880000000|123|1|2");
    EXPECT_FALSE(root.logged("Double insert"));

    catalogue.sql("UPDATE dq.nodes SET properties = 32, gcname = 'imported'; DROP FUNCTION dq.update_summary_charts");
    EXPECT_EQ(updateSdsStats(7, 0, 0, 0, 1, "", "vault"), 0) << "neither the charts nor a second row stop it";
    EXPECT_TRUE(root.logged("Double insert into sds_stats") && root.logged("failed to update summary_charts table!"));
    EXPECT_EQ(catalogue.value("SELECT client_name FROM dq.sds_stats WHERE done_epoch = 1"), "imported");
}

TEST_F(Hactar, StatisticsOfABackupThatIsGone) {
    ASSERT_EQ(updateSdsStats(99, 1, 2, 3, 4, "Failed: x", "vault"), 0);
    EXPECT_EQ(catalogue.rows("SELECT client_name IS NULL, sync_type IS NULL, bytes_on_arx IS NULL, message FROM "
                             "dq.sds_stats"),
              "t|t|t|Failed: x");
    EXPECT_EQ(catalogue.value("SELECT count(*) FROM dq.summary_charts"), "0");
    catalogue.sql("DROP TABLE dq.sds_stats");
    EXPECT_EQ(updateSdsStats(99, 1, 2, 3, 4, "Failed: x", "vault"), -1);
    EXPECT_TRUE(root.logged("Failed insert into sds_stats; Query:INSERT INTO"));
}

}  // namespace
}  // namespace testsupport
