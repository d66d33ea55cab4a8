#include "bookkeeping/progress.h"

#include "base/job_gate.h"
#include "support/catalogue_fixture.h"

namespace {

constexpr std::int64_t MEGABYTE = 0x100000;

class Progress : public CatalogueTest {
protected:
    void SetUp() override {
        catalogue.sql(
            "INSERT INTO dq.operation_names VALUES (6, 'prepare'), (7, 'replicate');"
            "INSERT INTO dq.nodes (node_no, node_name, gcname) VALUES (1, 'Büro', 'grandclient')");
        backup(1, TYPE_MASTER, 1, 100, "total_megs = 3000");
    }
    OperationProgress opened(const char* operation = "replicate") {
        OperationProgress record;
        EXPECT_EQ(openProgress("vault", "host", operation, "Master", 1, &record), 0);
        return record;
    }
    // Another update as if the last one were six seconds ago.
    int later(OperationProgress* record, std::int64_t size) {
        record->next_update = 0;
        record->current_size = size;
        return updateProgress(record);
    }
    std::string sizes() { return catalogue.rows("SELECT current_size FROM dq.operation_progress ORDER BY name_id"); }
};

TEST_F(Progress, RowIsWrittenInMegabytesAndUpdatedInPlace) {
    OperationProgress record = opened();
    EXPECT_EQ(catalogue.rows("SELECT name_id, final_size, current_size, pid_to_kill, source, destination, backup_no, "
                             "backup_type, convert_from(convert_to(on_behalf_of, 'LATIN1'), 'UTF8') FROM "
                             "dq.operation_progress"),
              "7|3000|0|" + std::to_string(getpid()) + "|host|vault|1|Master|Büro")
        << "the client's bytes pass unchanged over a LATIN1 connection";
    EXPECT_EQ(later(&record, 1500 * MEGABYTE + 7), 0);
    EXPECT_EQ(sizes(), "1500") << "a name beyond ASCII must match its own row";
    OperationProgress other = record;
    other.on_behalf_of = "somebody else";
    EXPECT_EQ(closeProgress(other), 0);
    EXPECT_EQ(sizes(), "1500") << "this row is another's";
    EXPECT_EQ(closeProgress(record) + closeProgress(record), 0);
    EXPECT_EQ(sizes(), "");
    // Of a backup whose size isn't known, one percent of what was sent.
    record.final_size = 0;
    EXPECT_EQ(later(&record, 2000), 0);
    EXPECT_EQ(record.next_size, 2020);
}

TEST_F(Progress, WritesAreLimitedByTimeAndSize) {
    OperationProgress record = opened();
    record.current_size = 100 * MEGABYTE;
    EXPECT_EQ(updateProgress(&record), 0);
    EXPECT_EQ(sizes(), "0") << "within five seconds";
    EXPECT_EQ(later(&record, 100 * MEGABYTE), 0);
    EXPECT_EQ(sizes(), "100");
    EXPECT_EQ(record.next_size, 130 * MEGABYTE) << "one percent of the whole";
    EXPECT_GE(record.next_update, time(nullptr) + 3);
    const std::tuple<const char*, std::int64_t, const char*> cases[] = {
        {"just below the next percent", 130 * MEGABYTE - 1, "100"},
        {"a megabyte away is written anyway", 129 * MEGABYTE, "129"},
        {"the next percent", 159 * MEGABYTE, "159"},
        {"no size at all", 0, "0"}};
    for (const auto& [what, size, written] : cases) {
        EXPECT_EQ(later(&record, size), 0);
        EXPECT_EQ(sizes(), written) << what;
    }
}

TEST_F(Progress, StaleRowsAreSweptAndComeBackWithTheirStart) {
    OperationProgress dead = opened("prepare");
    const OperationProgress live = opened("replicate");
    dead.start_time -= 5000;
    EXPECT_EQ(later(&dead, 0), 0);
    catalogue.sql("UPDATE dq.operation_progress SET snapshot_time = snapshot_time - 3700 WHERE name_id = 6");
    EXPECT_EQ(closeProgress(live), 0);
    EXPECT_EQ(sizes(), "");
    EXPECT_EQ(later(&dead, 50 * MEGABYTE), 0);
    EXPECT_EQ(catalogue.rows("SELECT name_id, start_time, current_size FROM dq.operation_progress"),
              "6|" + std::to_string(dead.start_time) + "|50");
}

TEST_F(Progress, ImportedClientGoesByItsRealNameAndWhatCantBeWrittenFails) {
    catalogue.sql("UPDATE dq.nodes SET properties = 32");
    EXPECT_EQ(opened().on_behalf_of, "grandclient");
    const std::tuple<std::string, const char*, std::uint64_t, bool> cases[] = {
        {"vault", "replicate", 99, false},
        {"vault", "no such operation", 1, true},
        {std::string(5000, 'v'), "replicate", 1, true}};
    for (const auto& [vault, operation, number, isOpen] : cases) {
        OperationProgress record;
        EXPECT_EQ(openProgress(vault, "host", operation, "Master", number, &record), -1);
        EXPECT_EQ(record.isOpen(), isOpen);
    }
    EXPECT_TRUE(root.logged("can't INSERT progress record") &&
                root.logged("SQL statement too long to UPDATE progress record"));
}

TEST_F(Progress, LostConnectionIsMadeAnew) {
    OperationProgress record = opened();
    catalogue.restart();
    (void)later(&record, 10 * MEGABYTE);  // this one meets the dead connection
    EXPECT_EQ(later(&record, 20 * MEGABYTE), 0);
    EXPECT_EQ(sizes(), "20");
    catalogue.restart();
    EXPECT_EQ(closeProgress(record), 0) << "there is no later close that could make it good";
    EXPECT_EQ(sizes(), "");
}

class ProgressAtExit : public Progress {
protected:
    void SetUp() override {
        Progress::SetUp();
        records = {opened("prepare"), OperationProgress(), opened("replicate")};
    }
    std::vector<OperationProgress> records;
};

TEST_F(ProgressAtExit, DeletesOverAnotherConnectionWhileAnUpdateHoldsTheirs) {
    catalogue.sql("BEGIN; SELECT 1 FROM dq.operation_progress WHERE name_id = 7 FOR UPDATE");
    OperationProgress stuck = records[2];
    std::thread updater([&] { EXPECT_EQ(later(&stuck, 90 * MEGABYTE), 0); });
    ASSERT_TRUE(catalogue.somebodyWaits());
    EXPECT_EQ(closeProgressAtExit(std::span(records).first(1), std::chrono::milliseconds(500)), 0);
    EXPECT_EQ(sizes(), "0") << "only the stuck row is left";
    catalogue.sql("COMMIT");
    updater.join();
    EXPECT_EQ(closeProgressAtExit(records, std::chrono::seconds(20)), 0);
    EXPECT_EQ(sizes(), "");
}

TEST_F(ProgressAtExit, OneLimitIsForAllRecords) {
    catalogue.sql("BEGIN; LOCK TABLE dq.operation_progress");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(closeProgressAtExit(records, std::chrono::milliseconds(300)), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    catalogue.sql("COMMIT");
    EXPECT_EQ(sizes(), "0\n0");
    catalogue.restart();  // the connection is lost, and nobody noticed
    EXPECT_EQ(closeProgressAtExit(records, std::chrono::seconds(20)), 0);
    EXPECT_EQ(sizes(), "");
}

TEST_F(ProgressAtExit, NobodyElseWritesWhileTheJobIsBeingStopped) {
    closeJobGate();
    std::thread updater([&] { EXPECT_EQ(later(&records[0], 90 * MEGABYTE), 0); });
    EXPECT_EQ(closeProgressAtExit(records, std::chrono::seconds(20)), 0);
    EXPECT_EQ(sizes(), "");
    openJobGate();
    updater.join();
    EXPECT_EQ(sizes(), "90") << "later, in a job that goes on after all, it comes back";
}

}  // namespace
