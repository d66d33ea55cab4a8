#include "bookkeeping/progress.h"

#include <unistd.h>

#include <thread>

#include "catalogue_fixture.h"

namespace {

constexpr std::int64_t MEGABYTE = 0x100000;

class Progress : public CatalogueTest {
protected:
    void SetUp() override {
        CatalogueTest::SetUp();
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
                             "backup_type FROM dq.operation_progress"),
              "7|3000|0|" + std::to_string(getpid()) + "|host|vault|1|Master");
    EXPECT_EQ(catalogue.value("SELECT convert_from(convert_to(on_behalf_of, 'LATIN1'), 'UTF8') FROM "
                              "dq.operation_progress"),
              "Büro")
        << "bytes pass unchanged over a LATIN1 connection";
    EXPECT_EQ(later(&record, 1500 * MEGABYTE + 7), 0);
    EXPECT_EQ(sizes(), "1500") << "a name beyond ASCII must match its own row";
    EXPECT_EQ(closeProgress(record), 0);
    EXPECT_EQ(sizes(), "");
    EXPECT_EQ(closeProgress(record), 0);
}

TEST_F(Progress, WritesAreLimitedByTimeAndSize) {
    OperationProgress record = opened();
    record.current_size = 100 * MEGABYTE;
    EXPECT_EQ(updateProgress(&record), 0);
    EXPECT_EQ(sizes(), "0") << "within five seconds";
    EXPECT_EQ(later(&record, 100 * MEGABYTE), 0);
    EXPECT_EQ(sizes(), "100");
    EXPECT_EQ(record.next_size, 130 * MEGABYTE);
    EXPECT_GE(record.next_update, time(nullptr) + 3);
    const struct {
        const char* what;
        std::int64_t size;
        const char* written;
    } cases[] = {
        {"just below the next percent", 130 * MEGABYTE - 1, "100"},
        {"a megabyte away is written anyway", 129 * MEGABYTE, "129"},
        {"the next percent", 159 * MEGABYTE, "159"},
        {"no size at all", 0, "0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(later(&record, c.size), 0);
        EXPECT_EQ(sizes(), c.written);
    }
}

TEST_F(Progress, NextSizeGrowsByOnePercentOfWhatIsKnown) {
    const struct {
        std::int64_t finalSize, currentSize, nextSize;
    } cases[] = {{0, 0, 1024}, {0, 2000, 2020}, {50, 80, 1024}, {100000, 5000, 6000}};
    for (const auto& c : cases) {
        OperationProgress record = opened();
        record.final_size = c.finalSize;
        record.next_size = c.currentSize < 1024 && c.currentSize > 0 ? 10 : 1024;
        const std::int64_t before = record.next_size;
        EXPECT_EQ(later(&record, c.currentSize), 0);
        EXPECT_EQ(record.next_size, c.nextSize == 1024 ? before : c.nextSize);
    }
}

TEST_F(Progress, StaleRowsAreSweptAndComeBackWithTheirStart) {
    OperationProgress dead = opened("prepare");
    OperationProgress live = opened("replicate");
    dead.start_time -= 5000;
    EXPECT_EQ(later(&dead, 0), 0);
    catalogue.sql("UPDATE dq.operation_progress SET snapshot_time = snapshot_time - 3700 WHERE name_id = 6");
    EXPECT_EQ(closeProgress(live), 0);
    EXPECT_EQ(sizes(), "");
    EXPECT_EQ(later(&dead, 50 * MEGABYTE), 0);
    EXPECT_EQ(catalogue.rows("SELECT name_id, start_time, current_size FROM dq.operation_progress"),
              "6|" + std::to_string(dead.start_time) + "|50");
}

TEST_F(Progress, ImportedClientGoesByItsRealNameAndUnknownBackupsFail) {
    catalogue.sql("UPDATE dq.nodes SET properties = 32");
    EXPECT_EQ(opened().on_behalf_of, "grandclient");
    OperationProgress record;
    EXPECT_EQ(openProgress("vault", "host", "replicate", "Master", 99, &record), -1);
    EXPECT_FALSE(record.isOpen());
    EXPECT_EQ(openProgress("vault", "host", "no such operation", "Master", 1, &record), -1);
    EXPECT_TRUE(record.isOpen());
    EXPECT_TRUE(root.logged("can't INSERT progress record"));
    EXPECT_EQ(openProgress(std::string(5000, 'v'), "host", "replicate", "Master", 1, &record), -1);
    EXPECT_TRUE(root.logged("SQL statement too long to UPDATE progress record"));
}

TEST_F(Progress, LostConnectionIsMadeAnew) {
    OperationProgress record = opened();
    catalogue.restart();
    (void)later(&record, 10 * MEGABYTE);  // this one meets the dead connection
    EXPECT_EQ(later(&record, 20 * MEGABYTE), 0);
    EXPECT_EQ(sizes(), "20");
}

TEST_F(Progress, ExitDeletesItsRowWhileAnUpdateHoldsTheConnection) {
    OperationProgress stuck = opened("replicate");
    const OperationProgress mine = opened("prepare");
    catalogue.sql("BEGIN; SELECT 1 FROM dq.operation_progress WHERE name_id = 7 FOR UPDATE");
    std::thread updater([&] { EXPECT_EQ(later(&stuck, 90 * MEGABYTE), 0); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (catalogue.value("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0" &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(closeProgressWithin(mine, std::chrono::milliseconds(50)), 0);
    EXPECT_EQ(sizes(), "0") << "only the stuck row is left";
    catalogue.sql("COMMIT");
    updater.join();
    EXPECT_EQ(closeProgressWithin(stuck), 0);
    EXPECT_EQ(sizes(), "");
}

}  // namespace
