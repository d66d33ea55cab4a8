// Whole jobs against a target that says what each ending needs.

#include "worker/worker.h"
#include "bookkeeping/replicationQueue.h"
#include "support/daemon_fixture.h"
#include "support/limited_memory.h"
#include "worker/job.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;

const std::string UBI = std::string(INSTANCE_UUID) + "_1000_1";

class Worker : public DaemonTest {
protected:
    Worker() : disk(device()) {
        instance(2);
        quickly("");
        tool("recipe", "echo metadata >'" + disk.string() + "'/hactar_$2");
    }
    void quickly(const std::string& settings) {
        root.masterIni("[Replication]\nTimeDelay=0\nCheckInterval=0\n" + settings);
    }
    // A new backup with its row, active as the pick leaves it; and the job on it. Row and sync status afterwards.
    std::string carryOut(const std::string& changes = "") {
        catalogue.sql("DELETE FROM dq.backups; DELETE FROM dq.sds_stats");
        backup(7, 2, 1000, changes);
        queue(7, REPLICATION_ACTIVE, target.name());
        return again();
    }
    std::string again() {
        WorkerJob job;
        job.backupNo = 7;
        job.vault = target.name();
        carryOutJob(&job);
        EXPECT_EQ(catalogue.value("SELECT count(*) FROM dq.operation_progress"), "0") << "progress rows stay behind";
        return queueRow(7) + "/" + syncStatus(7);
    }
    std::string messages() { return catalogue.rows("SELECT message FROM dq.sds_stats ORDER BY ctid"); }

    fs::path disk;
    Target target;
};

TEST_F(Worker, CarriesABackupToTheTarget) {
    target.checks = "ubbp";
    EXPECT_EQ(carryOut(), "2/2");
    EXPECT_EQ(target.requests(), (Names{"backup-check", "start-backup", "post-check-offset", "f", "backup-check",
                                        "backup-check", "backup-check"}));
    const Request file = target.request("f");
    const Request check = target.request("backup-check");
    EXPECT_EQ(file.body + file.header("X-BackupNo"), "metadata\n77");
    EXPECT_EQ(check.body + check.header("X-BackupNo"), UBI + '\0' + "77");
    EXPECT_EQ(catalogue.rows("SELECT message, bytes_syncd, destination FROM dq.sds_stats"),
              "Success: |9|" + target.name());
    EXPECT_FALSE(fs::exists(disk / "hactar_7"));

    quickly("SaveHactar=1");
    target.checks = "up";
    EXPECT_EQ(carryOut(), "2/2");
    EXPECT_TRUE(fs::exists(disk / "hactar_7"));
}

TEST_F(Worker, LocalBackupThatCantGoLeavesTheQueueInSilence) {
    const std::pair<const char*, const char*> cases[] = {
        {"status = 0", "not found. Will not try to replicate"},
        {"status = 4160", "is failed. Will not replicate"},
        {"status = 32768", "is failed. Will not replicate"},
        {"tape_no = 4294967295", "has been deleted. Will not replicate"}};
    for (const auto& [changes, log] : cases) {
        root.clearLog();
        EXPECT_EQ(carryOut(changes), "4/0") << changes;
        EXPECT_TRUE(root.logged(std::string("Local backup: 7 ") + log));
        EXPECT_EQ(messages(), "");
    }
    EXPECT_TRUE(target.requests().empty());
}

TEST_F(Worker, FirstAnswerDecides) {
    const std::tuple<const char*, const char*, int, const char*, long> cases[] = {
        {"complete there", "p", 3, "2/2", 1},
        {"on the system only", "o", 3, "2/2", 1},
        {"ended but not on the system", "e", 3, "1/1", 1},
        {"negative answer", "!", 3, "1/1", 1},
        {"no answer", "-", 3, "1/1", 3},
        {"answer cut off", "x", 3, "1/1", 3},
        {"no retries", "-", 0, "1/1", 1}};
    long before = 0;
    for (const auto& [what, answer, tries, ends, asked] : cases) {
        g_settings.retryCount = tries;
        target.checks = answer;
        EXPECT_EQ(carryOut(), ends) << what;
        EXPECT_EQ(messages(), "");
        EXPECT_EQ(target.count("backup-check"), before += asked) << what;
    }
    EXPECT_EQ(static_cast<long>(target.requests().size()), before) << "nothing but questions";
}

TEST_F(Worker, RefusedStartPausesTheInstanceOrRetries) {
    const std::string header = "HTTP/1.1 200 OK\r\nWarning: Failed to process metaData";
    const std::string empty = "\r\nContent-Length: 0\r\n\r\n";
    const std::string cant = "Failed: Unable to process initial meta info on target";
    const std::string paused = ".  This instance is \"paused\" and may require manual intervention to resume.";
    const std::string retry = "Failed: Unable to send initial meta info. This replication will now retry. Network: ";
    const std::tuple<const char*, std::string, const char*, std::string> cases[] = {
        {"out of order", header + ", tried to insert out of order backup sequence." + empty, "128/1",
         cant + ", out of order backup sequence detected" + paused},
        {"can't be processed", header + empty, "64/1", cant + paused},
        {"unavailable", "HTTP/1.1 503 Service Unavailable" + empty, "1/1", retry + "No error"},
        {"number that is none", ok("soon"), "1/1", retry + "No error"},
        {"number cut off", ok("12345").erase(40), "1/1", retry + "Transferred a partial file"}};
    for (const auto& [what, reply, ends, message] : cases) {
        target.start = reply;
        EXPECT_EQ(carryOut(), ends) << what;
        EXPECT_EQ(messages(), message);
        EXPECT_EQ(target.request("end-backup").body, "Failed:");
    }
    EXPECT_EQ(target.count("f"), 0);
}

TEST_F(Worker, QuestionOrStartIsLeftOutWhereItIsNeedless) {
    target.checks = "bp";  // a backup that is being built goes on where it stood
    EXPECT_EQ(carryOut(), "2/2");
    EXPECT_EQ(target.requests(), (Names{"backup-check", "post-check-offset", "f", "backup-check"}));

    catalogue.sql("UPDATE dq.application_instances SET identity = NULL");  // and a new instance can't be known yet
    EXPECT_EQ(carryOut(), "2/2");
    EXPECT_EQ(target.requests(), (Names{"backup-check", "post-check-offset", "f", "backup-check", "start-backup",
                                        "post-check-offset", "f", "backup-check"}));
    EXPECT_EQ(target.request("backup-check").body.size(), UBI.size() + 1) << "by now it has an identity";
}

TEST_F(Worker, VerdictOfTheTarget) {
    const std::string success = "Success: ";
    const std::string retry = " This replication will now retry. Network: ";
    const std::string neither = "Failed: Backup is not in progress or complete on the target." + retry + "No error";
    // Settings; answers, of which the first is given before the start; how often it is asked after that.
    const std::tuple<const char*, const char*, const char*, long, std::string> cases[] = {
        {"cancelled", "", "uc", 1, "CANCELLED: Backup cancelled on the target. Network: No error"},
        {"failed", "", "ubf", 2, "Failed: Failed building on the target." + retry + "No error"},
        {"neither", "", "un", 1, neither},
        {"five that don't know", "", "u", 5, neither},
        {"five that don't answer", "", "u-", 5,
         "Failed: backup status check failed." + retry + "Server returned nothing (no headers, no data)"},
        {"a good one between them", "", "u-u--b-u--p", 10, success},
        {"two are enough", "invalidUUIDcheckRetryCount=2", "u", 2, neither},
        {"no wait at all", "invalidUUIDcheckRetryCount=0", "up", 0, neither},
        {"a long build", "CheckTimeout=-1", "ubbp", 3, success}};
    for (const auto& [what, settings, answers, asked, message] : cases) {
        SCOPED_TRACE(what);
        const long before = target.count("backup-check");
        const long ended = target.count("end-backup");
        quickly(settings);
        target.checks = answers;
        EXPECT_EQ(carryOut(), message == success ? "2/2" : "1/1");
        EXPECT_EQ(messages(), message);
        EXPECT_EQ(target.count("backup-check") - before, asked + 1);
        EXPECT_EQ(target.count("end-backup") - ended, message == success ? 0 : 1);
        EXPECT_TRUE(message == success || target.request("end-backup").body == message.substr(0, 7));
        EXPECT_FALSE(fs::exists(disk / "hactar_7"));
    }
}

TEST_F(Worker, HactarThatStaysMakesAFailureOfASuccess) {
    target.checks = "up";
    target.before = [this](const std::string& request) {
        if (request == "backup-check" && fs::remove(disk / "hactar_7"))
            fs::create_directory(disk / "hactar_7");  // which unlink refuses
    };
    EXPECT_EQ(carryOut(), "1/2");
    EXPECT_EQ(messages(), "Success: \nFailed: Unable to clear local metadata. This replication will now retry.");
    EXPECT_TRUE(root.logged("Double insert into sds_stats attempted."));
    EXPECT_EQ(target.request("end-backup").body, "Failed:");
    EXPECT_EQ(again(), "2/2") << "the next attempt sees that all is well";
}

TEST_F(Worker, HashingWaitsForTheLockAndEndsTheJobWhenItFails) {
    tool("fileDedup", "echo x >>\"$0.calls\"; [ $(wc -l <\"$0.calls\") -gt 2 ] || exit 3; exit 1");
    EXPECT_EQ(carryOut("properties = 0"), "1/1");
    EXPECT_EQ(readFile(root / "usr/dq/bin/fileDedup.calls"), "x\nx\nx\n");
    EXPECT_EQ(messages(), "Failed: Failed to hash backup");
    EXPECT_EQ(target.requests(), Names{"backup-check"}) << "the target has nothing to forget";
}

TEST_F(Worker, FinalMetadataThatCantBeMadeOrSent) {
    const std::string unmade = "Failed: Unable to create final metadata. This replication will now retry.";
    tool("recipe", "exit 1");
    EXPECT_EQ(carryOut(), "1/1");
    EXPECT_EQ(messages(), unmade);
    EXPECT_EQ(target.request("end-backup").header("X-BackupUUID"), UBI);

    tool("recipe", "touch \"$0.called\"");  // says it did, and didn't
    EXPECT_EQ(carryOut(), "1/1");
    EXPECT_EQ(messages(), "Failed: Unable to send final metadata. This replication will now retry. Network: No error");

    // A local job that fails while the blocks are on their way is told in the same words as the first.
    fs::remove(root / "usr/dq/bin/recipe.called");
    target.before = [this](const std::string& request) {
        if (request == "start-backup")
            catalogue.sql("UPDATE dq.backups SET status = 4160");
    };
    EXPECT_EQ(carryOut(), "1/1");
    EXPECT_EQ(messages(), unmade);
    EXPECT_FALSE(fs::exists(root / "usr/dq/bin/recipe.called"));
}

TEST_F(Worker, ProgressRowsTellThePhase) {
    quickly("CheckTimeout=-1");
    std::string seen;
    target.before = [&](const std::string& request) {
        seen += request + ":" +
                catalogue.rows(
                    "SELECT name_value FROM dq.operation_progress NATURAL JOIN "
                    "dq.operation_names ORDER BY 1") +
                " ";
    };
    target.checks = "ubbp";
    EXPECT_EQ(carryOut(), "2/2");
    EXPECT_EQ(seen,
              "backup-check:prepare start-backup:replicate post-check-offset:replicate f:processing "
              "backup-check:wait backup-check:no_activity backup-check:no_activity ");
}

TEST_F(Worker, TimesAreAddedUp) {
    tool("recipe", "sleep 1.1; echo metadata >'" + disk.string() + "'/hactar_$2");
    target.checks = "up";
    EXPECT_EQ(carryOut(), "2/2");
    const std::string sum = catalogue.value("SELECT presync_seconds + sync_seconds FROM dq.sds_stats");
    EXPECT_NE(sum, "0");
    EXPECT_EQ(target.request("f").header("X-ElapsedTime"), sum);
    // The slot is kept for a while after a check that failed: that paces the retries.
    root.masterIni("[Replication]\nTimeDelay=1\n");
    target.checks = "-";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(carryOut(), "1/1");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST_F(Worker, MemoryThatCantBeHadStillEndsTheJobProperly) {
    // Values that are larger than any piece of memory that can be had: for the export, and when the job begins.
    for (const auto& [value, told] :
         {std::pair("INSERT INTO dq.application_properties VALUES (2, 'key', repeat('x', 1000000))", true),
          {"UPDATE dq.nodes SET node_name = repeat('x', 1000000)", false}}) {
        SCOPED_TRACE(value);
        catalogue.sql(value);
        const long ended = target.count("end-backup");
        writeFile(disk / "hactar_7", "left by an earlier attempt");
        g_largestPiece = 900000;
        const std::string ends = carryOut();
        g_largestPiece = SIZE_MAX;
        EXPECT_EQ(ends, "1/1");
        EXPECT_EQ(messages(), "Failed: Out of memory. This replication will now retry.");
        EXPECT_EQ(target.count("end-backup") - ended, told ? 1 : 0);
        EXPECT_NE(fs::exists(disk / "hactar_7"), told);
    }
}

TEST_F(Worker, StatusTextThatIsTooLongIsReplaced) {
    WorkerJob job;
    setFailedStatusText(&job, "Failed: %s", std::string(2047 - 8, 'x').c_str());
    EXPECT_EQ(std::string(job.failedStatusText).size(), 2047u);
    setFailedStatusText(&job, "Failed: %s", std::string(2048 - 8, 'x').c_str());
    EXPECT_STREQ(job.failedStatusText, "Failed: invalid message");
}

}  // namespace
}  // namespace testsupport
