#include "replication/replication.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "bookkeeping/common.h"
#include "database/pghelper.h"
#include "support/catalogue.h"
#include "support/root.h"

namespace {

constexpr const char* UUID_A = "0a1b2c3d-0000-4000-8000-00000000000a";
constexpr const char* UUID_B = "0a1b2c3d-0000-4000-8000-00000000000b";
constexpr const char* UUID_C = "0a1b2c3d-0000-4000-8000-00000000000c";

class ReplicationTest : public testing::Test {
protected:
    void SetUp() override {
        pgCloseAll();
        catalogue.reset();
        catalogue.sql("UPDATE dq.state SET install_id = 'local-uuid'; UPDATE dq.systems SET name = 'here'");
    }
    void TearDown() override { pgCloseAll(); }

    void backup(int number, int type, int start, const std::string& changes = "") {
        catalogue.sql("INSERT INTO dq.backups (backup_no, node_no, instance_id, type, start_time, status) VALUES (" +
                      std::to_string(number) + ",1,2," + std::to_string(type) + "," + std::to_string(start) + "," +
                      std::to_string(ST_COMPLETE | ST_SUCCESS) + ")");
        if (!changes.empty())
            catalogue.sql("UPDATE dq.backups SET " + changes + " WHERE backup_no = " + std::to_string(number));
    }

    testsupport::TestRoot root;
    testsupport::Catalogue& catalogue = testsupport::Catalogue::instance();
};

class Identity : public ReplicationTest {
protected:
    void SetUp() override {
        ReplicationTest::SetUp();
        catalogue.sql(std::string("INSERT INTO dq.application_instances (instance_id, node_no, app_id, identity) "
                                  "VALUES (2,1,1,'") +
                      UUID_A + "')");
    }
    std::uint64_t find(const std::string& ubi) {
        std::uint64_t number = 99;
        EXPECT_EQ(UBIstringToBackupNumber(ubi.c_str(), &number), 0);
        return number;
    }
};

TEST_F(Identity, NamesABackupOnBothSides) {
    backup(7, TYPE_MASTER, 1000, "properties = 16384");
    std::optional<std::string> ubi;
    ASSERT_EQ(getUniversalBackupIdentity(7, &ubi), 0);
    EXPECT_EQ(ubi, std::string(UUID_A) + "_1000_1");
    EXPECT_EQ(find(*ubi), 7u);
    EXPECT_EQ(find("0A1B2C3D-0000-4000-8000-00000000000A_1000_1"), 7u);
    backup(9, TYPE_MASTER, 1000, "properties = 16384");
    backup(10, TYPE_MASTER, 1000);
    backup(11, TYPE_MASTER, 1000, "properties = 16384, status = 4096");
    backup(12, TYPE_MASTER, 1000, "properties = 16384, tape_no = 4294967295");
    EXPECT_EQ(find(*ubi), 9u) << "the newest that is replicated, good and there";
    EXPECT_EQ(find(std::string(UUID_A) + "_1000_2"), 0u);
    EXPECT_EQ(find(std::string(UUID_B) + "_1000_1"), 0u);
    catalogue.sql("UPDATE dq.application_instances SET identity = NULL");
    EXPECT_EQ(getUniversalBackupIdentity(7, &ubi), 0);
    EXPECT_FALSE(ubi);
    EXPECT_EQ(getUniversalBackupIdentity(77, &ubi), -1);
    EXPECT_EQ(getUniversalBackupIdentity(0, &ubi), -1);
}

TEST_F(Identity, MalformedTextIsRefused) {
    const struct {
        const char* what;
        std::string ubi;
    } cases[] = {
        {"empty", ""},
        {"no separator", UUID_A},
        {"separator too late", std::string(UUID_A) + "0_1000_1"},
        {"short identity", "0a1b2c3d_1000_1"},
        {"groups of other lengths", "0a1b2c3-d0000-4000-8000-00000000000a_1000_1"},
        {"start time 0", std::string(UUID_A) + "_0_1"},
        {"start time no number", std::string(UUID_A) + "_x_1"},
        {"no type", std::string(UUID_A) + "_1000"},
        {"empty type", std::string(UUID_A) + "_1000_"},
        {"blank behind the type", std::string(UUID_A) + "_1000_1 "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::uint64_t number = 99;
        EXPECT_EQ(UBIstringToBackupNumber(c.ubi.c_str(), &number), -1);
        EXPECT_EQ(number, 0u);
    }
    std::uint64_t number = 99;
    EXPECT_EQ(UBIstringToBackupNumber(nullptr, &number), -1);
}

TEST_F(Identity, TextFromOutsideCantChangeTheStatement) {
    backup(7, TYPE_MASTER, 1000, "properties = 16384");
    EXPECT_EQ(find("') OR1=1-0000-0000-0000-000000000000_1000_1"), 0u);
    EXPECT_EQ(find("x')OR(''-0000-0000-0000-0'='0'OR''='_1000_1"), 0u);
}

TEST(Uuid, IsGeneratedValidAndInLowerCase) {
    char buffer[UUID_BUFFER_SIZE + 3] = "";
    EXPECT_EQ(genUUID(buffer, UUID_BUFFER_SIZE - 1), -1);
    EXPECT_EQ(genUUID(nullptr, 100), -1);
    ASSERT_EQ(genUUID(buffer, UUID_BUFFER_SIZE), 0);
    EXPECT_TRUE(isValidUUID(buffer));
    EXPECT_EQ(std::string(buffer).find_first_not_of("0123456789abcdef-"), std::string::npos);
    EXPECT_FALSE(isValidUUID(std::string(buffer) + "0"));
    EXPECT_FALSE(isValidUUID("0a1b2c3d-0000-400-08000-00000000000a"));
    EXPECT_TRUE(isValidUUID("0a1b2c3d-0000-4000-8000-000000-0000a")) << "the last group isn't looked at";
}

TEST_F(Identity, NewerBackupsOfTheInstanceAreCountedOrMarked) {
    backup(1, TYPE_MASTER, 1000);
    backup(2, TYPE_INCREMENTAL, 1001);
    backup(3, TYPE_NDMP_FULL, 1002);
    backup(4, TYPE_BARE_METAL, 1003);
    backup(5, TYPE_SELECTIVE, 1003);
    backup(6, TYPE_MASTER, 1003, "status = 4096");
    backup(7, TYPE_MASTER, 1003, "tape_no = 4294967295");
    backup(8, TYPE_MASTER, 1003, "instance_id = 3");
    catalogue.sql("INSERT INTO dq.backup_msg (backup_no, messages) VALUES (2, 'so far'), (4, 'untouched')");
    const std::string before = catalogue.rows("SELECT backup_no, status FROM dq.backups ORDER BY backup_no");
    EXPECT_EQ(enforceGroupOrdering(2, 1002, false), 0);
    EXPECT_EQ(enforceGroupOrdering(2, 1000, false), 2);
    EXPECT_EQ(catalogue.rows("SELECT backup_no, status FROM dq.backups ORDER BY backup_no"), before);
    EXPECT_EQ(enforceGroupOrdering(2, 1000, true), 0);
    EXPECT_EQ(catalogue.rows("SELECT backup_no FROM dq.backups WHERE status = 5184 ORDER BY 1"), "2\n3");
    EXPECT_EQ(catalogue.rows("SELECT messages FROM dq.backup_msg ORDER BY backup_no"),
              "so farMark backup as failed, out of order.\n\nuntouched");
    EXPECT_EQ(enforceGroupOrdering(2, 1000, false), 0);
}

TEST_F(Identity, LongListsOfNewerBackupsFillSeveralLines) {
    catalogue.sql(
        "INSERT INTO dq.backups (backup_no, instance_id, type, start_time) SELECT 1000000 + n, 2, 1, 50 FROM "
        "generate_series(1, 100) AS n");
    EXPECT_EQ(enforceGroupOrdering(2, 10, false), 100);
    EXPECT_TRUE(root.logged("enforceGroupOrdering: 1000001, 1000002, "));
    EXPECT_TRUE(root.logged("enforceGroupOrdering: 1000058, ")) << "57 numbers with separators make 511 characters";
    EXPECT_TRUE(root.logged(", 1000100\n"));
}

class Export : public ReplicationTest {
protected:
    void SetUp() override {
        ReplicationTest::SetUp();
        catalogue.sql(
            "INSERT INTO dq.nodes (node_no, node_name, type, os, properties, options, generic_property) VALUES "
            "(1, 'Sons & <Co> B\xc3\xbcro', 3, 5, 4 + 16 + 1024, 6, 7);"
            "INSERT INTO dq.application_instances (instance_id, node_no, app_id, key1, key3) VALUES "
            "(1, 1, 1, NULL, NULL), (2, 1, 4, 'host', 'third')");
        backup(7, TYPE_ESX_FULL, 1000,
               "properties = 536936512, total_megs = 3000, verify_after = 2, is_verified = true");
    }
    std::string exported(int number = 7) {
        std::string blob;
        std::size_t size = 0;
        EXPECT_EQ(exportReplicationMetadata(number, &blob, &size), 0);
        EXPECT_EQ(size, blob.size() + 1);
        return blob;
    }
    std::string identity(int number) {
        return catalogue.value("SELECT identity FROM dq.application_instances WHERE instance_id = " +
                               std::to_string(number));
    }
};

TEST_F(Export, FirstBackupOfAClientMakesBothIdentitiesAndTheWholeDocument) {
    const std::string blob = exported();
    ASSERT_TRUE(isValidUUID(identity(1)) && isValidUUID(identity(2)));
    EXPECT_NE(identity(1), identity(2));
    EXPECT_EQ(blob,
              "<?xml version=\"1.0\"?>\n"
              "<backup_metadata>\n"
              "  <metadata_version>1</metadata_version>\n"
              "  <systems>\n"
              "    <name>here</name>\n"
              "    <UUID>local-uuid</UUID>\n"
              "  </systems>\n"
              "  <nodes>\n"
              "    <node_name>Sons &amp; &lt;Co&gt; B&#xFC;ro</node_name>\n"
              "    <file-level-uuid>" +
                  identity(1) +
                  "</file-level-uuid>\n"
                  "    <type>3</type>\n"
                  "    <os>5</os>\n"
                  "    <properties>20</properties>\n"
                  "    <generic_property>7</generic_property>\n"
                  "    <options>6</options>\n"
                  "  </nodes>\n"
                  "  <application_instances>\n"
                  "    <instance-uuid>" +
                  identity(2) +
                  "</instance-uuid>\n"
                  "    <app_id>4</app_id>\n"
                  "    <app_type>VMware</app_type>\n"
                  "    <key1>host</key1>\n"
                  "    <key3>third</key3>\n"
                  "  </application_instances>\n"
                  "  <backups>\n"
                  "    <properties>536936448</properties>\n"
                  "    <type>12</type>\n"
                  "    <start_time>1000</start_time>\n"
                  "    <total_megs>3000</total_megs>\n"
                  "    <verify_after>2</verify_after>\n"
                  "    <is_verified>1</is_verified>\n"
                  "  </backups>\n"
                  "</backup_metadata>\n");
    EXPECT_EQ(exported(), blob) << "the identities stay";
}

TEST_F(Export, ElementsOfTheApplicationFollowInOrder) {
    catalogue.sql(
        "INSERT INTO dq.application_properties VALUES (2, 'k', 'v&w'), (2, 'l', ''), (1, 'not', 'mine');"
        "INSERT INTO dq.backup_snapshots VALUES (7, 990); INSERT INTO dq.vmware_snapshots VALUES (7, '52 de/3');"
        "INSERT INTO dq.vmware_hardware_hashes VALUES (7, 'h'); INSERT INTO dq.ndmp_nas VALUES (1, '', '', 'ven', '');"
        "INSERT INTO dq.sql_backups VALUES (7, 1, 3, 'srv', 'db', 4, 5);"
        "UPDATE dq.backups SET x_command_short = 'a<b'");
    std::string blob = exported();
    EXPECT_NE(
        blob.find("  <application_properties>\n    <kv_pair>\n      <prop_key>k</prop_key>\n      "
                  "<prop_value>v&amp;w</prop_value>\n    </kv_pair>\n    <kv_pair>\n      <prop_key>l</prop_key>\n"
                  "      <prop_value></prop_value>\n    </kv_pair>\n  </application_properties>\n  <backups>"),
        std::string::npos)
        << blob;
    EXPECT_NE(blob.find("    <x_command_short>a&lt;b</x_command_short>\n  </backups>\n  <backup_snapshots>\n    "
                        "<snapshot_time>990</snapshot_time>\n  </backup_snapshots>\n  <vmware_snapshots>\n    "
                        "<change_id>52 de/3</change_id>\n  </vmware_snapshots>\n  <vmware_hardware_hashes>\n    "
                        "<hardware_hash>h</hardware_hash>\n  </vmware_hardware_hashes>\n</backup_metadata>"),
              std::string::npos)
        << blob;
    catalogue.sql(
        "UPDATE dq.application_instances SET app_id = 8 WHERE instance_id = 2;"
        "UPDATE dq.backups SET properties = 128");
    blob = exported();
    EXPECT_EQ(blob.find("vmware"), std::string::npos);
    EXPECT_NE(blob.find("  <NDMP_backups>\n    <vendor>ven</vendor>\n  </NDMP_backups>\n  <sql_backups>\n    "
                        "<server_instance_name>srv</server_instance_name>\n    <database_name>db</database_name>\n    "
                        "<sql_type>3</sql_type>\n    <group_file_order>4</group_file_order>\n    "
                        "<file_order_no>5</file_order_no>\n  </sql_backups>\n"),
              std::string::npos)
        << blob;
}

TEST_F(Export, ExporterThatLosesTheRaceSendsTheWinnersIdentity) {
    for (int instance : {1, 2}) {
        SCOPED_TRACE(instance);
        catalogue.sql("UPDATE dq.application_instances SET identity = NULL");
        const std::string winner = instance == 1 ? UUID_A : UUID_B;
        catalogue.sql("BEGIN; UPDATE dq.application_instances SET identity = '" + winner +
                      "' WHERE instance_id = " + std::to_string(instance));
        std::string blob;
        std::thread exporter([&] { blob = exported(); });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (catalogue.value("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0" &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        catalogue.sql("COMMIT");
        exporter.join();
        EXPECT_EQ(identity(instance), winner);
        EXPECT_NE(blob.find("uuid>" + winner + "<"), std::string::npos) << blob;
    }
    EXPECT_TRUE(root.logged("Possible race on creating file-level uuid for node 1"));
    EXPECT_TRUE(root.logged("Possible race on creating uuid for instance_id 2"));
}

class Rereplication : public Export {
protected:
    void SetUp() override {
        Export::SetUp();
        catalogue.sql(std::string("INSERT INTO dq.systems (system_id, name, identity) VALUES (5, 'origin', '") +
                      UUID_C +
                      "'); UPDATE dq.nodes SET system_id = 5, gcname = 'real name';"
                      "UPDATE dq.backups SET properties = 16384;"
                      "UPDATE dq.application_instances SET identity = '" +
                      UUID_A +
                      "' WHERE instance_id = 1;"
                      "UPDATE dq.application_instances SET identity = '" +
                      UUID_B + "' WHERE instance_id = 2");
    }
};

TEST_F(Rereplication, TellsOfTheOriginAndOfWhoPassesItOn) {
    const std::string blob = exported();
    EXPECT_NE(blob.find(std::string("  <systems>\n    <name>origin</name>\n    <UUID>") + UUID_C +
                        "</UUID>\n    <re-replicated-from>\n      <name>here</name>\n      <UUID>local-uuid</UUID>\n"
                        "    </re-replicated-from>\n  </systems>\n  <nodes>\n    <node_name>real name</node_name>\n"),
              std::string::npos)
        << blob;
}

TEST_F(Rereplication, WithoutTheNamesOfTheOriginNothingIsSentOrMade) {
    const struct {
        const char* change;
        const char* reason;
    } cases[] = {
        {"UPDATE dq.nodes SET system_id = NULL", "Could not identify source system_id for replicated backup 7."},
        {"UPDATE dq.nodes SET system_id = 6", "Query for system information failed."},
        {"UPDATE dq.systems SET identity = NULL", "Appliance uuid is NULL."},
        {"UPDATE dq.nodes SET gcname = NULL", "real client name for grandclient 1 is NULL."},
        {"UPDATE dq.application_instances SET identity = NULL WHERE instance_id = 1",
         "file-level identity for grandclient 1 is NULL."},
        {"UPDATE dq.application_instances SET identity = NULL WHERE instance_id = 2",
         "Failed to get identity for grandclient instance_id 2."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        SetUp();
        catalogue.sql(c.change);
        std::string blob = "old";
        std::size_t size = 3;
        EXPECT_EQ(exportReplicationMetadata(7, &blob, &size), -1);
        EXPECT_EQ(blob + std::to_string(size), "0");
        EXPECT_TRUE(root.logged(c.reason));
        EXPECT_EQ(identity(1) == "" ? UUID_A : identity(1), UUID_A);
    }
}

TEST_F(Export, BackupThatIsNotThereIsRefused) {
    const struct {
        const char* change;
        const char* reason;
    } cases[] = {
        {"UPDATE dq.backups SET tape_no = 4294967295", "Backup 7 was not found or is logically deleted"},
        {"UPDATE dq.backups SET instance_id = 0", "Backup 7 doesn't have an instance_id."},
        {"UPDATE dq.backups SET instance_id = 44", "Failed to add elements to application_instances tag."},
        {"DELETE FROM dq.application_instances WHERE app_id = 1", "Failed to add elements to nodes tag."},
        {"DELETE FROM dq.systems", "Query for system information failed."},
        {"DROP TABLE dq.application_properties", "Failed to add elements to application_properties tag."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        SetUp();
        catalogue.sql(c.change);
        std::string blob;
        std::size_t size = 0;
        EXPECT_EQ(exportReplicationMetadata(7, &blob, &size), -1);
        EXPECT_TRUE(root.logged(c.reason));
    }
    std::string blob;
    std::size_t size = 0;
    EXPECT_EQ(exportReplicationMetadata(0, &blob, &size), -1);
    EXPECT_EQ(exportReplicationMetadata(7, nullptr, &size), -1);
}

}  // namespace
