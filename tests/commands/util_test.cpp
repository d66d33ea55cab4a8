// The operator's command line, as a process: what it prints and how it ends.

#include "base/run_command.h"
#include "bookkeeping/replicationQueue.h"
#include "support/daemon_fixture.h"

namespace testsupport {
namespace {

namespace fs = std::filesystem;

class Util : public DaemonTest {
protected:
    // The built program, which lies beside this one.
    const std::string ferryd = shellQuoted((fs::read_symlink("/proc/self/exe").parent_path() / "ferryd").string());

    Util() { root.masterIni("[LogRetentionInstances]\ndefault=50\n"); }  // each command keeps its log

    int run(const std::string& arguments) {
        const std::string environment = "FERRYD_ROOT=" + shellQuoted(root.path().string());
        const int status = runCommand(environment + " exec " + ferryd + " util " + arguments);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string output(const std::string& arguments, int status = 0) {
        EXPECT_EQ(run(arguments + " >" + shellQuoted((root / "output").string())), status) << arguments;
        return readFile(root / "output");
    }
    bool utilLogged(const std::string& text) {
        for (const auto& entry : fs::directory_iterator(root / "usr/dq/logs.dir"))
            if (entry.path().filename().string().starts_with("ferryd-util") &&
                readFile(entry.path()).find(text) != std::string::npos)
                return true;
        return false;
    }
};

TEST_F(Util, UsageIsPrintedWheneverTheArgumentsDontFit) {
    for (const char* arguments : {"", "enqueue 5", "enqueue 5 vault more", "peek", "createqueue now", "replicate 5",
                                  "post-check vault", "post-check-offset vault 7 b-sha512-1-00",
                                  "post-check-offset vault 7 b-sha512-1-00 0 b-sha512-1-00", "list-backup-status"})
        EXPECT_EQ(output(arguments), readFile(FERRYD_USAGE_TEXT)) << arguments;
    EXPECT_EQ(output("Peek 0") + output("cancel-ubi vault ubi"), "");
}

TEST_F(Util, TextsThatAreNoNumbersOrNo3TuplesAreRefused) {
    const std::string tuple = " b-sha512-1-" + std::string(128, '0');
    const std::string cases[] = {"enqueue 7x vault",
                                 "swap 7 vault -7 vault",
                                 "lbe 7 ''",
                                 "tuple-hash c-sha512-1-00 0 1",
                                 "block b-sha512-12",
                                 "tuple-hash" + tuple + " 0 18446744073709551616",
                                 "put-block vault 7 0x10" + tuple + " 0",
                                 "post-check-offset vault 7" + tuple + " 0" + tuple + " 1k"};
    for (const std::string& arguments : cases)
        EXPECT_EQ(output(arguments + " 2>/dev/null", 1), "") << arguments;
    EXPECT_EQ(output("tuple-hash" + tuple + " 0 18446744073709551615 2>/dev/null", 1), "");
    EXPECT_TRUE(utilLogged("Failed to allocate enough memory for output value"));
}

// Nobody listens at the target's port.
TEST_F(Util, TargetThatDoesNotAnswerIsReported) {
    device();
    tool("recipe", "echo metadata >'" + (root / "disk").string() + "'/hactar_$2");
    instance(2);
    backup(7);
    queue(7, REPLICATION_OUT_OF_ORDER, "127.0.0.1:1");
    const std::string tuple = " b-sha512-1-" + std::string(128, '0') + " 0";
    const std::string ubi = std::string(INSTANCE_UUID) + "_1000_1";
    const std::string at = " 127.0.0.1:1";
    const std::tuple<std::string, int, const char*> cases[] = {
        {"check-ubi " + ubi + at, 255, "-1 0 0\n"},
        {"start-backup" + at + " 7", 1, "-1\n"},
        {"fix-paused-instance" + at + " 7", 255, "fix-paused-instance failed, error=-1\n"},
        {"post-check-offset" + at + " 7" + tuple + " 2>/dev/null", 1, ""},
        {"send-hactar" + at + " 7 7", 255, ""},
        {"cancel-backup" + at + " 7", 255, ""},
        {"list-backup-status" + at, 1,
         "SOURCE: backup_no = 7 instance_id = 2 start_time = 1000 properties = 512 replication_queue_status = 128 "
         "backups_status = 2112 type = 1\tTARGET: backup not on target\n"},
        {"replicate 7" + at, 1, ""}};
    for (const auto& [arguments, status, text] : cases)
        EXPECT_EQ(output(arguments, status), text) << arguments;
    EXPECT_TRUE(utilLogged("Curl Status: Couldn't connect to server"));
}

TEST_F(Util, QueueIsChangedByHand) {
    instance(2);
    backup(7);
    backup(300, 3);
    instance(3, "0a1b2c3d-0000-4000-8000-00000000000b");
    // Eight bits of the status, the output, and the queue then.
    const std::tuple<std::string, int, const char*, const char*> steps[] = {
        {"enqueue 7 vault", 0, "", "7|1"},
        {"enqueue 300 vault", 0, "", "7|1\n300|1"},
        {"enqueue 7 " + std::string(65, 'v'), 1, "", "7|1\n300|1"},
        {"peek 0", 7, "7", "7|1\n300|1"},
        {"peek 4294967296", 0, "0", "7|1\n300|1"},
        {"swap 7 vault 300 vault", 0, "", "300|1\n7|1"},
        {"peek 0", 300 & 0xff, "300", "300|1\n7|1"},
        {"cleanup 7 vault", 0, "", "300|1\n7|32"},
        {"complete 300 vault", 0, "", "300|2\n7|32"},
        {"remove 300 vault", 0, "", "7|32"}};
    for (const auto& [arguments, status, text, rows] : steps) {
        EXPECT_EQ(output(arguments, status), text);
        EXPECT_EQ(queued(), rows) << arguments;
    }
    catalogue.sql("DELETE FROM dq.operation_names WHERE name_id < 10");
    EXPECT_EQ(output("createtypes"), "");
    EXPECT_EQ(catalogue.rows("SELECT * FROM dq.operation_names ORDER BY 1"),
              "6|prepare\n7|replicate\n8|wait\n9|rebuild\n10|processing\n11|no_activity");
    EXPECT_EQ(output("createtypes", 255) + output("createqueue", 255), "") << "they are there already";
}

TEST_F(Util, CommandsThatRefuse) {
    const std::pair<const char*, int> cases[] = {{"post-check vault b-sha512-1-00", 1},
                                                 {"import-metadata /etc/passwd", 1},
                                                 {"put-block vault 7 100 b-sha512-1-00 0", 1},
                                                 {"export-ubi 99", 255},
                                                 {"export-metadata 99", 255},
                                                 {"fix-paused-instance vault 99", 255},
                                                 {"check-ubi nonsense", 255},
                                                 {"list-backup-status vault", 0}};
    for (const auto& [arguments, status] : cases)
        EXPECT_EQ(run(std::string(arguments) + " >/dev/null 2>&1"), status) << arguments;
    instance(2);
    backup(7);
    EXPECT_EQ(run("export-metadata 7 >/dev/full"), 1);
    EXPECT_TRUE(utilLogged("The output could not be written"));
}

TEST_F(Util, IdentitiesAreToldAndChecked) {
    instance(2);
    backup(7, 2, 1000, "properties = 16384");
    backup(8, 3);
    instance(3, "");
    const std::string ubi = std::string(INSTANCE_UUID) + "_1000_1";
    EXPECT_EQ(output("export-ubi 7"), ubi + "\n");
    EXPECT_EQ(output("export-ubi 8"), "\n");
    EXPECT_TRUE(utilLogged("Backup not found. No UBI to generate."));
    EXPECT_EQ(output("check-ubi " + ubi), "7 2112 16384\n");
    Target target;
    target.checks = "p";
    EXPECT_EQ(output("check-ubi " + ubi + " " + target.name()), "77 1088 512\n");
    catalogue.sql("UPDATE dq.backups SET properties = 512");
    EXPECT_NE(output("export-metadata 7").find("<instance-uuid>" + std::string(INSTANCE_UUID)), std::string::npos);
    EXPECT_EQ(output("cancel-backup " + target.name() + " 7"), "");
    EXPECT_EQ(target.request("end-backup").body.size(), 28u);
    EXPECT_EQ(output("start-backup " + target.name() + " 7"), "77\n");
    EXPECT_EQ(target.request("start-backup").header("X-Force"), "");
}

TEST_F(Util, BlocksAreFoldedAndAskedAbout) {
    std::string digest;
    for (int i = 0; i < 64; ++i)
        digest += formatString("%02X", i);
    const std::string tuple = "b-sha512-5-" + digest;
    // 86 bytes go in: 64 digest, 8 offset, 6 type, 8 length.
    const std::string unfolded = digest + "01000000000000007368613531320500000000000000";
    const std::pair<const char*, std::string> lengths[] = {
        {" 1 86", unfolded}, {" 1 87", unfolded + "00"}, {" 1 1", "48"}, {" 1 0", ""}};
    for (const auto& [rest, hash] : lengths)
        EXPECT_EQ(output("tuple-hash " + tuple + rest), hash + "\n");
    EXPECT_TRUE(utilLogged("maxBytesLen:86 output requested:87"));
    ScriptedServer server;
    server.standing(answer(ok("10")));
    EXPECT_EQ(output("post-check-offset " + server.name() + " 77 " + tuple + " 0 " + tuple + " 512"), "10\n");
    EXPECT_EQ(server.lastRequest().body.size(), 2u * 88u);
    server.standing(answer(ok("")));
    EXPECT_EQ(output("post-check-offset " + server.name() + " 77 " + tuple + " 0 2>/dev/null", 1), "");
}

TEST_F(Util, PausedInstanceIsRepairedOnlyWhenItCanBe) {
    instance(2);
    backup(7);
    backup(9, 2, 3000);
    Target target;
    const std::string command = "fix-paused-instance " + target.name() + " 7";
    for (const int status : {REPLICATION_NEED_ASSIST, REPLICATION_NEEDED, REPLICATION_ACTIVE}) {
        catalogue.sql("DELETE FROM dq.replication_queue");
        queue(7, status);
        EXPECT_EQ(output(command, 255), "");
        EXPECT_EQ(queueRow(7), std::to_string(status));
    }
    EXPECT_TRUE(target.requests().empty());
    EXPECT_TRUE(utilLogged("Unexpected status 1 for Backup 7, no action taken."));

    catalogue.sql("UPDATE dq.replication_queue SET status = 128");
    queue(9, REPLICATION_COMPLETE);
    target.start = "HTTP/1.1 200 OK\r\nWarning: Failed to process metaData\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(output(command, 255), "fix-paused-instance failed, error=-6\n");
    EXPECT_EQ(queueRow(7) + queueRow(9), "1282");
    target.start = ok("78");
    EXPECT_EQ(output(command), "Target backup record created.  Target backup_no = 78.\n");
    EXPECT_EQ(target.request("start-backup").header("X-Force"), "FORCE");
    EXPECT_EQ(queueRow(7) + queueRow(9), "1");
}

TEST_F(Util, StatusOfAllBackupsIsListed) {
    instance(2);
    for (int number = 5; number < 9; ++number) {
        backup(number, 2, 1000 + number);
        queue(number, REPLICATION_COMPLETE);
    }
    Target target;
    target.checks = "unep";
    const auto source = [](int number) {
        return "SOURCE: backup_no = " + std::to_string(number) +
               " instance_id = 2 start_time = " + std::to_string(1000 + number) +
               " properties = 512 replication_queue_status = 2 backups_status = 2112 type = 1\tTARGET: backup";
    };
    EXPECT_EQ(output("list-backup-status " + target.name(), 4),
              source(5) + " not on target\n" + source(6) +
                  "_no = 77 properties = 0 status = 0(backup marked ST_FAILED)\n" + source(7) +
                  "_no = 77 properties = 0 status = 64(P_HASHED/P_DEDUPLICATED is clear)\n" + source(8) +
                  "_no = 77 properties = 512 status = 1088\n");
    EXPECT_EQ(readFile(root / "tmp/replicationResult.csv"),
              "backup_no,instance_id,start_time,properties,backups_status,replication_queue_status,type,backup_no,"
              "properties,status\n"
              "5,2,1005,512,2,2112,1,,,\n6,2,1006,512,2,2112,1,77,0,0\n7,2,1007,512,2,2112,1,77,0,64\n"
              "8,2,1008,512,2,2112,1,77,512,1088\n");
    // What others put in the file's place stays as it is, and a file that can't be written is no success.
    const fs::path csv = root / "tmp/replicationResult.csv";
    fs::remove(csv);
    writeFile(root / "victim", "precious");
    fs::create_symlink(root / "victim", csv);
    (void)output("list-backup-status " + target.name(), 4);
    EXPECT_EQ(readFile(root / "victim"), "precious");
    EXPECT_FALSE(fs::is_symlink(csv));
    EXPECT_EQ(runCommand("trap '' XFSZ; ulimit -f 0; FERRYD_ROOT=" + root.path().string() + " " + ferryd +
                         " util list-backup-status " + target.name() + " >/dev/null 2>&1"),
              1 << 8);
    // An instance that has never replicated ends the list.
    backup(9, 3, 2000);
    instance(3, "");
    queue(9, REPLICATION_NEEDED);
    (void)output("list-backup-status " + target.name(), 255);
    EXPECT_TRUE(utilLogged("First time instance replication."));
}

TEST_F(Util, OneBackupIsReplicatedAtOnce) {
    root.masterIni("[Replication]\nCheckInterval=0\n");  // not even enabled
    const fs::path disk = device();
    tool("recipe", "echo metadata >'" + disk.string() + "'/hactar_$2");
    instance(2);
    backup(7);
    Target target;
    target.checks = "up";
    EXPECT_EQ(output("replicate 7 " + target.name()), "");
    EXPECT_EQ(syncStatus(7), "2");
    EXPECT_EQ(output("send-hactar " + target.name() + " 7 80"), "");
    EXPECT_EQ(target.request("f").header("X-BackupNo"), "80");
}

}  // namespace
}  // namespace testsupport
