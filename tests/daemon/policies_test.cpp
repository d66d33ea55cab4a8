#include "daemon/policies.h"

#include "bookkeeping/replicationQueue.h"
#include "support/daemon_fixture.h"

namespace testsupport {
namespace {

constexpr const char* RUNNING = "status = 0, properties = 2048";  // an early-sync backup that hasn't ended

class Policies : public DaemonTest {
protected:
    // One pass of a scheme; the queue as "backup|status" lines.
    std::string pass(int scheme) {
        g_settings.queueScheme = scheme;
        updateQueue();
        return queued();
    }
    std::string retention() { return pass(QUEUE_SCHEME_RETENTION); }
    std::string recency() { return pass(QUEUE_SCHEME_RECENCY); }
};

TEST_F(Policies, OnlyTheTwoSchemesFillAndOnlyWithATarget) {
    instance(2);
    backup(7);
    for (const int scheme : {0, 3, -1})
        EXPECT_EQ(pass(scheme), "");
    g_settings.targetName = "";
    EXPECT_EQ(retention() + recency(), "");
    EXPECT_EQ(fifoEnqueue(), 0);
    g_settings.targetName = "vault";
    EXPECT_EQ(retention(), "7|1");
    EXPECT_EQ(retention(), "7|1") << "a second pass adds nothing";
}

TEST_F(Policies, RetentionTakesWaitingBackupsOldestFirst) {
    backup(12, 4, 100);
    backup(11, 3, 300);
    backup(10, 2, 200);
    backup(13, 5, 400, "sync_status = 3");  // replicated once, and asked for again: not this way
    backup(14, 6, 400, "sync_status = 2");
    backup(15, 7, 400);
    queue(15, REPLICATION_SKIPPED, "other");  // a row for any target keeps it out
    EXPECT_EQ(fifoEnqueue(), 3);
    EXPECT_EQ(queued(), "15|4\n10|1\n11|1\n12|1");
}

TEST_F(Policies, OlderBackupBehindANewerOneIsDroppedForGood) {
    backup(12, 2, 300, "sync_status = 0");
    queue(12, REPLICATION_NEEDED);
    backup(10, 2, 100);
    backup(9, 3, 100);
    EXPECT_EQ(retention(), "12|1\n9|1");
    EXPECT_EQ(syncStatus(10), "0");
    EXPECT_TRUE(root.logged("fifoEnqueue: Attempt was made to add backup 10 to the queue out of order.\n"));

    // The newer one on its way to another target holds nobody back.
    catalogue.sql("UPDATE dq.replication_queue SET vault = 'other'; UPDATE dq.backups SET sync_status = 1");
    EXPECT_EQ(retention(), "12|1\n9|1\n10|1");
}

TEST_F(Policies, RunningEarlySyncBackupLetsOnlyEarlySyncMastersIn) {
    backup(8, 2, 100);
    backup(9, 2, 200, std::string(RUNNING) + ", type = 3, sync_status = 0");
    backup(20, 3, 100);  // another instance
    EXPECT_EQ(retention(), "20|1");
    const std::tuple<const char*, std::string, bool> cases[] = {
        {"master", "type = 1", true},
        {"virtual machine, full", "type = 12", true},
        {"Hyper-V full", "type = 1031", true},
        {"database full", "type = 9", false},
        {"master being built", "type = 1, status = 512", false},
        {"master without early sync", "type = 1, properties = 512", false}};
    for (const auto& [what, changes, isQueued] : cases) {
        catalogue.sql("DELETE FROM dq.replication_queue; DELETE FROM dq.backups WHERE backup_no = 10");
        backup(10, 2, 300, std::string(RUNNING) + "," + "sync_status = 1");
        catalogue.sql("UPDATE dq.backups SET " + changes + " WHERE backup_no = 10");
        (void)retention();
        EXPECT_EQ(queueRow(10) + queueRow(8), isQueued ? "1" : "") << what;
    }
}

TEST_F(Policies, RecencyKeepsTheNewestGroupOfEachInstance) {
    instance(2);
    instance(3, "0a1b2c3d-0000-4000-8000-00000000000b");
    backup(5, 2, 100);
    backup(6, 2, 200, "type = 3, properties = 4608");
    backup(7, 2, 300);
    backup(8, 3, 100);
    EXPECT_EQ(recency(), "7|1\n8|1");
    EXPECT_EQ(syncStatus(5) + syncStatus(6) + syncStatus(7), "001");
}

TEST_F(Policies, RecencyLeavesOutWhatIsBeingBuilt) {
    instance(2);
    backup(5, 2, 100, "sync_status = 0");
    backup(7, 2, 300);
    backup(9, 2, 500, "status = 512, sync_status = 0");
    catalogue.sql("UPDATE dq.application_instances SET priority = 5");
    g_settings.queueScheme = QUEUE_SCHEME_RECENCY;
    ASSERT_EQ(lifoEnqueue(), 0);
    EXPECT_EQ(queued(), "7|1") << "the newest before the one that is being built";
    // With both bits the newest is no candidate, and nothing older takes its place.
    catalogue.sql(
        "DELETE FROM dq.replication_queue; UPDATE dq.backups SET sync_status = backup_no - 4 WHERE backup_no < 9");
    ASSERT_EQ(lifoEnqueue(), 0);
    EXPECT_EQ(queued(), "");
}

TEST_F(Policies, RecencyWaitsForAnEarlySyncBackupUnlessItIsAMasterItself) {
    instance(2);
    backup(5, 2, 100, std::string(RUNNING) + ", type = 3");
    backup(7, 2, 300);
    EXPECT_EQ(recency(), "");
    catalogue.sql("UPDATE dq.backups SET properties = 2048 WHERE backup_no = 7");
    EXPECT_EQ(lifoEnqueue(), 0);
    EXPECT_EQ(queued(), "7|1");
    EXPECT_TRUE(root.logged("lifo enqueue: 7\n"));
}

}  // namespace
}  // namespace testsupport
