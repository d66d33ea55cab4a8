#include "bookkeeping/replicationQueue.h"

#include "support/catalogue_fixture.h"

namespace {

class Queue : public CatalogueTest {
protected:
    // Masters of that instance, one a hundred seconds; of one each if it is 0.
    void masters(int from, int to, int of = 0) {
        for (int number = from; number <= to; ++number)
            backup(number, TYPE_MASTER, of == 0 ? number : of, number * 100);
    }
    void rows(std::initializer_list<std::pair<int, int>> list) {
        for (const auto& [number, status] : list)
            queue(number, status);
    }
    std::string sync() { return catalogue.rows("SELECT backup_no, sync_status FROM dq.backups ORDER BY backup_no"); }
};

TEST_F(Queue, PickPassesOverBlockedInstancesAndDeletedBackups) {
    masters(1, 2, 1);
    backup(3, TYPE_MASTER, 2, 300);
    backup(4, TYPE_MASTER, 3, 400, "tape_no = 4294967295");
    rows({{4, 1}, {2, 1}, {1, 1}, {3, 1}});
    std::string vault;
    EXPECT_EQ(next_rq(&vault), 2) << "position, not number, is the order; the deleted one is passed over";
    EXPECT_EQ(vault, "vault");
    EXPECT_EQ(next_rq(nullptr), 3) << "instance 1 has an active row";
    EXPECT_EQ(next_rq(nullptr), 0);
    EXPECT_EQ(queued(), "4|1\n2|16\n1|1\n3|16");
    EXPECT_EQ(catalogue.value("SELECT count(*) FROM dq.replication_queue WHERE rep_start > 1000000000"), "2");
    EXPECT_EQ(complete_rq(2, "vault"), 0);
    EXPECT_EQ(next_rq(nullptr), 1);
}

TEST_F(Queue, OnlyActiveAndPausedRowsBlockTheirInstance) {
    const std::pair<int, std::int64_t> cases[] = {{REPLICATION_COMPLETE, 2},    {REPLICATION_SKIPPED, 2},
                                                  {REPLICATION_TERMINATED, 2},  {REPLICATION_TERMINATE, 2},
                                                  {REPLICATION_ACTIVE, 3},      {REPLICATION_NEED_ASSIST, 3},
                                                  {REPLICATION_OUT_OF_ORDER, 3}};
    masters(1, 2, 1);
    backup(3, TYPE_MASTER, 2, 300);
    for (const auto& [status, picked] : cases) {
        catalogue.sql("DELETE FROM dq.replication_queue");
        queue(1, status, "other target");
        rows({{2, REPLICATION_NEEDED}, {3, REPLICATION_NEEDED}});
        EXPECT_EQ(next_rq(nullptr), picked) << status;
    }
}

TEST_F(Queue, PickWithoutInstanceRuleGivesTheTypeAndCutsTheNameAndRowThatCantBeMarkedIsNotPicked) {
    backup(1, TYPE_ESX_FULL, 1, 100);
    backup(2, TYPE_SELECTIVE, 1, 200);
    queue(1, REPLICATION_ACTIVE);
    queue(2, REPLICATION_NEEDED, std::string(80, 'v'));
    std::string vault;
    int type = 0;
    EXPECT_EQ(next_any_rq(&vault, &type), 2);
    EXPECT_EQ(type, TYPE_SELECTIVE);
    EXPECT_EQ(vault, std::string(64, 'v'));
    EXPECT_EQ(queued(), "1|16\n2|16");
    catalogue.sql("UPDATE dq.replication_queue SET vault = NULL, status = backup_no - 1");
    EXPECT_EQ(next_rq(nullptr) + next_any_rq(nullptr, nullptr), 0);
    EXPECT_EQ(queued(), "1|0\n2|1");
}

TEST_F(Queue, StatementThatDoesNotFitIsNotRun) {
    backup(1234567, TYPE_MASTER, 1, 100);
    queue(1234567, REPLICATION_NEEDED, std::string(42, 'v'));
    queue(1234567, REPLICATION_NEEDED, std::string(43, 'v'));
    EXPECT_EQ(set_status_rq(1234567, std::string(42, 'v'), REPLICATION_OUT_OF_ORDER), 0);
    EXPECT_EQ(set_status_rq(1234567, std::string(43, 'v'), REPLICATION_OUT_OF_ORDER), -1);
    EXPECT_TRUE(root.logged("Query too long for buffer"));
    EXPECT_EQ(queued(), "1234567|128\n1234567|1");
    EXPECT_EQ(status_rq(1234567, "absent"), 0);
    EXPECT_EQ(status_rq(1234567, std::string(60, 'v')), -1);
    EXPECT_EQ(set_status_rq(1, "absent", REPLICATION_SKIPPED), 0);
}

TEST_F(Queue, SwapExchangesPositionsAndNothingElse) {
    masters(1, 3);
    rows({{1, 1}, {2, 1}, {3, 1}});
    queue(1, 2, "other");
    EXPECT_EQ(swap_rq(1, "vault", 3, "vault"), 0);
    EXPECT_EQ(queued(), "3|1\n2|1\n1|1\n1|2");
    EXPECT_EQ(swap_rq(2, "vault", 2, "vault"), 0);
    EXPECT_EQ(swap_rq(2, "vault", 99, "vault"), -1) << "a missing row has no position to give";
    EXPECT_EQ(queued(), "3|1\n2|1\n1|1\n1|2");
    EXPECT_EQ(swap_rq(1, "other", 2, "vault"), 0);
    EXPECT_EQ(queued(), "3|1\n1|2\n1|1\n2|1");
}

TEST_F(Queue, TerminationRequestsComeInOrderWithTheFirstTarget) {
    masters(1, 3);
    queue(3, REPLICATION_NEEDED, "first");
    queue(1, REPLICATION_NEEDED, "second");
    queue(2, REPLICATION_ACTIVE, "second");
    EXPECT_EQ(cleanup_rq(3, "first") + cleanup_rq(1, "second"), 0);
    std::vector<QueueEntry> rows;
    EXPECT_EQ(terminated_rq(1, &rows), 1);
    ASSERT_EQ(terminated_rq(5, &rows), 2);
    EXPECT_TRUE(rows[0].backupNo == 3 && rows[1].backupNo == 1 && rows[1].vault == "first");
    EXPECT_TRUE(peek_rq(0) == 0 && reset_active_rq() == 0 && peek_rq(0) == 2 && peek_rq(1) == 0);
    queue(2, REPLICATION_COMPLETE, "third");
    EXPECT_EQ(backup_status_rq(2), 0) << "two rows tell nothing";
    EXPECT_EQ(delete_complete_rq(), 0);
    EXPECT_EQ(backup_status_rq(2), REPLICATION_NEEDED);
    catalogue.sql("DELETE FROM dq.backups WHERE backup_no = 2");
    EXPECT_EQ(queued(), "3|32\n1|32") << "a deleted backup takes its rows along";
}

TEST_F(Queue, SelfContainedBackupIsEnqueuedOnce) {
    backup(1, TYPE_HYPERV_FULL, 1, 100, "sync_status = 2");
    EXPECT_EQ(enqueue_rq(1, "vault"), 0);
    EXPECT_EQ(sync(), "1|1");
    EXPECT_TRUE(complete_rq(1, "vault") == 0 && enqueue_rq(1, "vault") == 0);
    EXPECT_EQ(queued(), "1|2");
    EXPECT_EQ(enqueue_rq(99, "vault"), -1);
}

TEST_F(Queue, EnqueueBringsTheChainAndRevivesOnlyWhatIsAtRest) {
    instance(1, 1);
    backup(1, TYPE_MASTER, 1, 100);
    backup(2, TYPE_DIFFERENTIAL, 1, 200);
    for (int number : {3, 4, 5, 6, 7})
        backup(number, TYPE_INCREMENTAL, 1, number * 100);
    rows({{2, REPLICATION_COMPLETE},
          {3, REPLICATION_SKIPPED},
          {4, REPLICATION_TERMINATED},
          {5, REPLICATION_OUT_OF_ORDER},
          {6, REPLICATION_ACTIVE}});
    EXPECT_EQ(enqueue_rq(7, "vault"), 0);
    EXPECT_EQ(queued(), "2|2\n3|1\n4|1\n5|128\n6|16\n1|1\n7|1");
    EXPECT_EQ(enqueue_rq(7, "vault"), 0);
    EXPECT_EQ(queued(), "2|2\n3|1\n4|1\n5|128\n6|16\n1|1\n7|1") << "nothing new";
}

TEST_F(Queue, EnqueueOfOtherFamiliesBringsTheRestoreChainOrNothing) {
    instance(1, 4, "'host', 'machine'");
    backup(1, TYPE_ESX_FULL, 1, 100);
    backup(2, TYPE_ESX_INCR, 1, 300);
    backup(5, TYPE_ESX_INCR, 2, 400);
    EXPECT_EQ(enqueue_rq(2, "vault") + enqueue_rq(5, "vault"), 0) << "that there is no chain is no failure";
    EXPECT_EQ(queued(), "1|1\n2|1");
    EXPECT_TRUE(root.logged("ERROR:Could not determine restore group; Skipping backup 5"));
}

class Prune : public Queue {
protected:
    // Instance 1: an old chain with bare-metal backups, queued and not, then a new Master. Instance 2: an older row.
    void SetUp() override {
        renew();
        instance(1, 1);
        const std::tuple<int, int, int, int> backups[] = {{1, TYPE_BARE_METAL, 1, 50},   {2, TYPE_MASTER, 1, 100},
                                                          {3, TYPE_INCREMENTAL, 1, 110}, {4, TYPE_BARE_METAL, 1, 120},
                                                          {5, TYPE_INCREMENTAL, 1, 130}, {6, TYPE_MASTER, 2, 90},
                                                          {10, TYPE_MASTER, 1, 200},     {20, TYPE_MASTER, 1, 300}};
        for (const auto& [number, type, of, start] : backups)
            backup(number, type, of, start, "sync_status = 1");
        rows({{2, 1}, {3, 1}, {4, 1}, {6, 1}, {10, 1}, {20, 1}, {5, REPLICATION_ACTIVE}});
    }
    const std::string untouched = "2|1\n3|1\n4|1\n6|1\n10|1\n20|1\n5|16";
};

TEST_F(Prune, MasterOfTheChainMakesOlderWaitingRowsNeedless) {
    for (const int type : {TYPE_MASTER, TYPE_INCREMENTAL, TYPE_DIFFERENTIAL}) {
        SetUp();
        backup(11, type, 1, 210, "sync_status = 1");
        EXPECT_EQ(prune_older_rq(type == TYPE_MASTER ? 10 : 11, "vault"), 0);
        EXPECT_EQ(queued(), "4|1\n6|1\n10|1\n20|1\n5|16");
        EXPECT_EQ(sync(), "1|0\n2|0\n3|0\n4|1\n5|1\n6|1\n10|1\n11|1\n20|1");
    }
}

TEST_F(Prune, WithoutAnchorNothingIsPruned) {
    catalogue.sql("UPDATE dq.backups SET type = 12 WHERE type = 1");
    backup(11, TYPE_ESX_DIFF, 1, 210);
    catalogue.sql("UPDATE dq.application_instances SET app_id = 4, key1 = 'h', key2 = 'm'");
    EXPECT_EQ(prune_older_rq(11, "vault"), 0);
    EXPECT_EQ(queued(), untouched);
    backup(12, TYPE_INCREMENTAL, 1, 220, "status = 4096");
    EXPECT_EQ(prune_older_rq(12, "vault"), -1);
    EXPECT_EQ(queued(), untouched);
    EXPECT_EQ(prune_older_rq(10, "other target"), 0);
    EXPECT_EQ(queued(), untouched);
}

TEST_F(Queue, ResolvingDropsNewerRowsOnlyIfOneWasReplicated) {
    masters(1, 3, 1);
    backup(4, TYPE_MASTER, 2, 400);
    rows(
        {{1, REPLICATION_COMPLETE}, {2, REPLICATION_OUT_OF_ORDER}, {3, REPLICATION_NEEDED}, {4, REPLICATION_COMPLETE}});
    EXPECT_EQ(resolve_out_of_order_rq(2), 0);
    EXPECT_EQ(queued(), "1|2\n2|1\n3|1\n4|2");
    EXPECT_EQ(set_status_rq(2, "vault", REPLICATION_OUT_OF_ORDER) + complete_rq(3, "vault"), 0);
    queue(3, REPLICATION_NEEDED, "second");  // one delete takes both rows
    EXPECT_EQ(resolve_out_of_order_rq(2), 0);
    EXPECT_EQ(queued(), "1|2\n2|1\n4|2");
    EXPECT_EQ(resolve_out_of_order_rq(3), -1) << "it has no row any more";
    EXPECT_EQ(resolve_out_of_order_rq(99), -1);
}

// Work that waits behind a paused instance is passed over row by row, but not by a walk over all backups for each.
TEST_F(Queue, PickStaysCheapWithALongChainBehindAPausedInstance) {
    catalogue.sql(
        "INSERT INTO dq.backups (backup_no, instance_id) SELECT n, CASE WHEN n > 19500 THEN 1 ELSE n END FROM "
        "generate_series(1, 20000) n; INSERT INTO dq.replication_queue (backup_no, vault, status) SELECT n, 'vault', "
        "CASE WHEN n > 19500 THEN 1 ELSE 2 END FROM generate_series(1, 20000) n; UPDATE dq.replication_queue SET "
        "status = 128 WHERE backup_no = 19501; UPDATE dq.backups SET instance_id = 2 WHERE backup_no = 20000; ANALYZE");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(next_rq(nullptr), 20000);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
}

TEST_F(Queue, TableThatIsMissingIsMade) {
    EXPECT_EQ(create_replication_queue(), -1) << "it exists";
    catalogue.sql("DROP TABLE dq.replication_queue");
    backup(1, TYPE_MASTER, 1, 100);
    instance(1, 1);
    EXPECT_EQ(insert_rq(1, "vault") + enqueue_rq(1, "vault") + reset_active_rq(), -3);
    EXPECT_EQ(next_rq(nullptr), -1);
    EXPECT_TRUE(create_replication_queue() == 0 && insert_rq(1, "vault") == 0);
}

}  // namespace
