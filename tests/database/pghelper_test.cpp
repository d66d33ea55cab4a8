// The database helper against a real server: connections that die, are inherited or run out, transactions, parameters.
#include "database/pghelper.h"

#include "database/pghelper_internal.h"
#include "support/catalogue.h"
#include "support/root.h"
#include "support/test.h"

namespace {

using namespace std::chrono_literals;
using testsupport::Catalogue;
using testsupport::eventually;

class PgHelper : public testing::Test {
protected:
    void SetUp() override {
        pgCloseAll();
        catalogue.reset();
        catalogue.sql("CREATE TABLE dq.t (a text, n bigint)");
        ASSERT_EQ(pgOpen("localhost", 1), 0);
    }
    void TearDown() override { pgCloseAll(); }

    static long backendPid() { return pgIVal(pgExec("SELECT pg_backend_pid() AS pid").get(), 0, "pid"); }
    static long count(const char* query) { return pgIVal(pgExec(query).get(), 0, "count"); }

    void killBackend(long pid) {
        catalogue.sql("SELECT pg_terminate_backend(" + std::to_string(pid) + ")");
        ASSERT_TRUE(eventually([&] { return !alive(pid); }));
    }
    bool alive(long pid) {
        return catalogue.value("SELECT 1 FROM pg_stat_activity WHERE pid = " + std::to_string(pid)) == "1";
    }

    testsupport::TestRoot root;
    Catalogue& catalogue = Catalogue::instance();
};

TEST_F(PgHelper, ChildOfAForkLeavesTheParentsConnectionIntact) {
    for (const bool childQueries : {true, false}) {
        SCOPED_TRACE(childQueries ? "child queries" : "child only closes");
        const long pid = backendPid();
        ASSERT_TRUE(pgExec("CREATE TEMP TABLE IF NOT EXISTS session_mark (a int)"));
        const pid_t child = fork();
        if (child == 0) {
            const bool good = !childQueries || (backendPid() != pid && backendPid() != 0);
            pgCloseAll();
            _exit(good ? 0 : 1);
        }
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(backendPid(), pid);
        EXPECT_EQ(count("SELECT count(*) FROM session_mark"), 0);
    }
    EXPECT_TRUE(root.logged("Reinitializing child process connection to database"));
}

TEST_F(PgHelper, ConnectionLostInTransactionFailsUntilTheTransactionIsEnded) {
    const std::tuple<const char*, int, int (*)(), bool> cases[] = {
        // depth, how it is ended, and whether statements work then
        {"pop of the present depth", 1, [] { return pgPopTransaction(true, 0); }, true},
        {"pop 0 of nested ones", 3, [] { return pgPopTransaction(false, 0); }, true},
        {"pop by id", 2, [] { return pgPopTransaction(true, 1); }, true},
        {"pop of the inner only", 2, [] { return pgPopTransaction(true, 2); }, false},
        {"rollback", 1, [] { return pgRollback(); }, true},
        {"commit", 2, [] { return pgCommit(); }, true},
    };
    for (const auto& [what, depth, end, isUsable] : cases) {
        SCOPED_TRACE(what);
        for (int i = 0; i < depth; ++i)
            ASSERT_EQ(pgPushTransaction(nullptr), 0);
        ASSERT_TRUE(pgExec("INSERT INTO t VALUES ('lost', 1)"));
        killBackend(backendPid());
        EXPECT_FALSE(pgExec("SELECT 1") || pgQuery("SELECT %d::int", 1));
        EXPECT_EQ(end(), -1);
        EXPECT_EQ(pgExec("SELECT 1") != nullptr, isUsable);
        (void)pgRollback();
        EXPECT_EQ(count("SELECT count(*) FROM t"), 0);
    }
}

TEST_F(PgHelper, ConnectionLostOutsideATransactionHealsWithItsStatements) {
    const auto ask = [] { return pgIVal(pgQuery("SELECT %d::int + 1 AS n", 4).get(), 0, "n"); };
    ASSERT_EQ(ask(), 5);
    killBackend(backendPid());
    (void)ask();  // this one meets the dead connection
    EXPECT_EQ(ask(), 5);
    catalogue.restart();
    (void)ask();
    EXPECT_EQ(ask(), 5);
}

TEST_F(PgHelper, ConnectionIsProvedAliveOnlyAfterTwoMinutes) {
    // A proof in the future is none.
    for (const auto& [age, isProved] : {std::pair(119, false), std::pair(121, true), std::pair(-10, true)}) {
        root.clearLog();
        pghelper::pgResourcePtr->lastChecked = time(nullptr) - age;
        EXPECT_TRUE(pgExec("SELECT 1"));
        EXPECT_EQ(root.logged("Verified connection state: good"), isProved) << age;
    }
}

TEST_F(PgHelper, SavepointsUndoOnlyWhatIsInsideThem) {
    int outer = 0;
    int inner = 0;
    ASSERT_EQ(pgPushTransaction(&outer), 0);
    ASSERT_TRUE(pgExec("INSERT INTO t VALUES ('outer', 1)"));
    ASSERT_EQ(pgPushTransaction(&inner), 0);
    EXPECT_EQ(inner, outer + 1);
    EXPECT_FALSE(pgExec("INSERT INTO nowhere VALUES (1)"));
    EXPECT_EQ(pgPopTransaction(true, 3), -1);
    EXPECT_EQ(pgPopTransaction(true, -1), -1);
    EXPECT_EQ(pgPopTransaction(false, inner), 0);
    ASSERT_EQ(pgPushTransaction(&inner), 0);
    ASSERT_TRUE(pgExec("INSERT INTO t VALUES ('kept', 1)"));
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    ASSERT_TRUE(pgExec("INSERT INTO t VALUES ('undone by id', 1)"));
    EXPECT_EQ(pgPopTransaction(false, 3), 0);
    EXPECT_EQ(pgPopTransaction(true, inner), 0);
    EXPECT_EQ(catalogue.rows("SELECT a FROM dq.t"), "");
    EXPECT_EQ(pgPopTransaction(true, 0), 0);
    EXPECT_EQ(catalogue.rows("SELECT a FROM dq.t ORDER BY a"), "kept\nouter");
    EXPECT_EQ(pgPopTransaction(true, 0), 0) << "nothing to do is no failure";
    // A savepoint that was rolled back to is gone as well: its name can't be met again.
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    EXPECT_EQ(pgPopTransaction(false, 0), 0);
    EXPECT_FALSE(pgExec("ROLLBACK TO SAVEPOINT pghelper_savepoint_2"));
    (void)pgRollback();
}

TEST_F(PgHelper, CommitOfASpoiledTransactionIsAFailure) {
    ASSERT_EQ(pgPushTransaction(nullptr), 0);
    ASSERT_TRUE(pgExec("INSERT INTO t VALUES ('lost', 1)"));
    EXPECT_FALSE(pgExec("SELECT 1/0"));
    // Old enough to be proved alive first, which a spoiled transaction refuses: it is ended all the same.
    pghelper::pgResourcePtr->lastChecked = time(nullptr) - 200;
    EXPECT_EQ(pgPopTransaction(true, 0), -1);
    EXPECT_EQ(count("SELECT count(*) FROM t"), 0);
}

TEST_F(PgHelper, AServerThatIsAwayIsTriedTwiceAndFoundAgain) {
    const char* const present = getenv("PGSERVICEFILE");
    ASSERT_NE(present, nullptr);
    const std::string services = present;
    testsupport::writeFile(root / "tmp/away", "[localhost]\nhost=127.0.0.1\nport=1\n");
    setenv("PGSERVICEFILE", (root / "tmp/away").c_str(), 1);
    pgCloseAll();
    EXPECT_EQ(pgPushTransaction(nullptr), -1);
    EXPECT_TRUE(root.logged("Retrying connection (try 2 of 2)") && root.logged("Tried connecting 2 times"));
    setenv("PGSERVICEFILE", services.c_str(), 1);
    EXPECT_EQ(pgPopTransaction(true, 0), 0) << "what never began needs no end";
    EXPECT_TRUE(pgExec("SELECT 1"));
    // A BEGIN that failed is on the books too, and stays there when somebody connects anew by hand.
    killBackend(backendPid());
    EXPECT_EQ(pgPushTransaction(nullptr), -1);
    EXPECT_EQ(pghelper::savepointDepth(), 1);
    EXPECT_EQ(pgOpen("localhost", 1), 0);
    EXPECT_EQ(pghelper::savepointDepth(), 1);
    (void)pgPopTransaction(false, 0);
    EXPECT_EQ(pghelper::savepointDepth(), 0);
}

TEST_F(PgHelper, ComparisonsWithNullFindTheNullRows) {
    catalogue.sql("INSERT INTO dq.t VALUES ('x', 1), ('y', 2), (NULL, NULL)");
    const auto rows = [](const PgResultPtr& result) { return result ? pgIVal(result.get(), 0, "count") : -1; };
    for (int flag : {1, 0, 1}) {
        SCOPED_TRACE(flag);
        EXPECT_EQ(rows(pgQuery("SELECT count(*) FROM t WHERE a = %ns", flag, "x")), 1);
        EXPECT_EQ(rows(pgQuery("SELECT count(*) FROM t WHERE a=\t %ns AND 1 = %d", flag, "x", 1)), 1);
        EXPECT_EQ(rows(pgQuery("SELECT count(*) FROM t WHERE n != %nld", flag, 2L)), flag == 1 ? 2 : 1);
        EXPECT_EQ(rows(pgQuery("SELECT count(*) FROM t WHERE n <= %nlf::float AND n > %d", flag, 2.5, 0)),
                  flag == 1 ? 0 : 2);
    }
    EXPECT_EQ(rows(pgQuery("SELECT count(*) FROM t WHERE a = %ns OR n = %nld", 0, "x", 1, 1L)), 2);
    EXPECT_TRUE(root.logged("WHERE a IS NULL %z%z"));
    EXPECT_TRUE(root.logged("query string: SELECT count(*) FROM t WHERE a IS NULL "));
    ASSERT_TRUE(pgQuery("INSERT INTO t VALUES (%ns, %nlld)", 1, "unseen", 0, 77LL));
    EXPECT_EQ(catalogue.value("SELECT a IS NULL FROM dq.t WHERE n = 77"), "t");
}

TEST_F(PgHelper, EveryCodeArrivesAsTheValueItWas) {
    const PgResultPtr result = pgQuery(
        "SELECT concat_ws('|', %s::text, %c::text, %hd::int, %hu::int, %d::int, %u::bigint, %ld::bigint, %lu::numeric,"
        " %f::float, %lf::float, %lld::bigint, %llu::numeric, 100 %% 7) AS line WHERE 1 = %d %z",
        "it's %s \\", 'c', -7, 65535, -2000000000, 4000000000u, -9000000000000000000L, 18446744073709551615UL, 0.5,
        0.25, -5LL, 18446744073709551614ULL, 1, 99L);
    EXPECT_EQ(pgSDup(result.get(), 0, "line"),
              "it's %s \\|c|-7|65535|-2000000000|4000000000|-9000000000000000000|18446744073709551615|0.5|0.25|-5|"
              "18446744073709551614|2");
    EXPECT_FALSE(pgQuery("SELECT %lx", 1));
    EXPECT_TRUE(root.logged("Invalid format code: %x") && root.logged("Modifier was: l"));
    EXPECT_FALSE(pgQuery(""));
}

// A statement that is asked for again and again costs the server memory once.
TEST_F(PgHelper, AFormatIsPreparedOncePerConnection) {
    const auto prepared = [] { return count("SELECT count(*) FROM pg_prepared_statements"); };
    const long before = prepared();
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(pgQuery("SELECT %d::int", i) && pgQuery("SELECT %s::text", "x"));
    EXPECT_EQ(prepared(), before + 2);
}

TEST_F(PgHelper, FieldsThatCantBeReadGiveTheNeutralValue) {
    const PgResultPtr result =
        pgExec("SELECT 'abc' AS word, NULL AS nothing, 't' AS yes, '99999999999999999999' AS big, 2.5 AS d");
    EXPECT_EQ(pgIVal(result.get(), 0, "nothing"), 0);
    EXPECT_TRUE(pgBVal(result.get(), 0, "yes"));
    EXPECT_DOUBLE_EQ(pgDVal(result.get(), 0, "d"), 2.5);
    EXPECT_EQ(pgIVal(result.get(), 0, "word"), 0);
    EXPECT_EQ(pgUVal(result.get(), 0, "big"), 0u);
    EXPECT_TRUE(root.logged("col big: strtoul(99999999999999999999) failed with errno 34"));
    EXPECT_FALSE(pgBVal(result.get(), 0, "word"));
    EXPECT_EQ(pgSVal(result.get(), 0, "absent"), nullptr);
    EXPECT_EQ(pgSVal(result.get(), 5, "word"), nullptr);
    EXPECT_EQ(pgSVal(nullptr, 0, "word"), nullptr);
    EXPECT_EQ(pgTuples(nullptr) + pgAffected(nullptr), 0);
}

TEST_F(PgHelper, SignalDuringACallIsDeliveredAfterIt) {
    static std::atomic<int> delivered;
    delivered = 0;
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ++delivered; };
    sigaction(SIGUSR1, &action, &before);
    catalogue.sql("SELECT pg_advisory_lock(7)");
    int seenDuringCall = -1;
    std::thread other([&, caller = pthread_self()] {
        EXPECT_TRUE(eventually([&] {
            return catalogue.value("SELECT 1 FROM pg_locks WHERE locktype='advisory' AND NOT granted") == "1";
        }));
        pthread_kill(caller, SIGUSR1);
        seenDuringCall = eventually([] { return delivered != 0; }, 0s) ? 1 : 0;
        catalogue.sql("SELECT pg_advisory_unlock(7)");
    });
    EXPECT_TRUE(pgExec("SELECT pg_advisory_lock(7)"));
    EXPECT_EQ(delivered, 1);
    other.join();
    EXPECT_EQ(seenDuringCall, 0);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(PgHelper, AsyncQueryCanBeWaitedForAndCancelled) {
    PgResultPtr quick = sendTextQuery("SELECT 7 AS n");
    EXPECT_TRUE(eventually([&] { return pgAsyncWait(quick.get(), 100) == 1; }));
    EXPECT_EQ(pgIVal(quick.get(), 0, "n"), 7);
    PgResultPtr slow = sendTextQuery("SELECT pg_sleep(600)");
    EXPECT_EQ(pgAsyncWait(slow.get(), 0), 0);
    // A cancellation that comes before the server has begun is lost.
    EXPECT_TRUE(eventually(
        [&] { return catalogue.value("SELECT count(*) FROM pg_stat_activity WHERE wait_event = 'PgSleep'") == "1"; }));
    EXPECT_EQ(pgAsyncCancel(), 0);
    EXPECT_TRUE(eventually([&] { return pgAsyncWait(slow.get(), 100) == 1; }));
    EXPECT_EQ(pgStatus(slow.get()), -1);
    EXPECT_TRUE(pgExec("SELECT 1"));
}

TEST_F(PgHelper, CopyStoresRowsAndABadRowLeavesTheConnectionUsable) {
    EXPECT_EQ(pgCopy("t", "|", "one|1\ntwo|2\n"), 0);
    EXPECT_EQ(pgCopy("t", "|", "three|not a number\n"), -1);
    EXPECT_EQ(count("SELECT count(*) FROM t"), 2);
}

TEST_F(PgHelper, EscapedTextSurvivesQuotesAndRefusesBrokenUtf8) {
    std::string escaped;
    ASSERT_EQ(pgAEscape(&escaped, "O'Neil \\ 'x"), 0);
    EXPECT_EQ(pgSDup(pgVExec("SELECT '%s' AS v", escaped.c_str()).get(), 0, "v"), "O'Neil \\ 'x");
    EXPECT_EQ(pgAEscape(&escaped, "\xff'"), -1);
    char small[4];
    EXPECT_EQ(pgEscape(small, sizeof small, "a'b"), -1);
    EXPECT_EQ(pgEscape(small, sizeof small, "a'"), 0);
    EXPECT_STREQ(small, "a''");
}

TEST_F(PgHelper, ColumnAnswersStayRightWhenTheCacheIsFull) {
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 18; ++i)
            EXPECT_EQ(columnExists("backups", ("absent" + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(columnExists("backups", "instance_id"), 1);
        EXPECT_EQ(columnExists("t", "n"), 1);
    }
    EXPECT_TRUE(root.logged("CEC table overflow"));
}

// There is room for thirty.
TEST_F(PgHelper, TheOldestServiceWithoutATransactionMakesRoomForAnother) {
    const std::string original = getenv("PGSERVICEFILE") == nullptr ? "" : getenv("PGSERVICEFILE");
    std::string body = testsupport::readFile(original);
    body.erase(0, body.find(']') + 1);
    std::string text;
    for (int i = 0; i < 32; ++i)
        text += "[service" + std::to_string(i) + "]" + body + "\n";
    testsupport::writeFile(root / "tmp/services", text);
    setenv("PGSERVICEFILE", (root / "tmp/services").c_str(), 1);
    pgCloseAll();
    const auto open = [](int i) { return pgOpen(("service" + std::to_string(i)).c_str(), 1); };
    ASSERT_EQ(open(0) + pgPushTransaction(nullptr), 0);
    const long inTransaction = backendPid();
    ASSERT_EQ(open(1), 0);
    const long oldest = backendPid();
    for (int i = 2; i < 30; ++i)
        ASSERT_EQ(open(i), 0);
    EXPECT_TRUE(alive(oldest));
    ASSERT_EQ(open(30), 0);
    EXPECT_TRUE(eventually([&] { return !alive(oldest); }));
    ASSERT_EQ(open(0), 0);
    EXPECT_EQ(backendPid(), inTransaction);
    for (int i = 2; i < 31; ++i)
        ASSERT_EQ(open(i) + pgPushTransaction(nullptr), 0);
    EXPECT_EQ(open(31), -1) << "all are in transactions";
    ASSERT_EQ(open(29), 0);
    EXPECT_EQ(pgPopTransaction(true, 0), 0);
    EXPECT_EQ(open(31), 0);
    setenv("PGSERVICEFILE", original.c_str(), 1);
}

}  // namespace
