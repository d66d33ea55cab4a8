#include "replication/replication.h"

#include "support/catalogue_fixture.h"

namespace {

constexpr const char* UUID_A = "0a1b2c3d-0000-4000-8000-00000000000a";
constexpr const char* UUID_B = "0a1b2c3d-0000-4000-8000-00000000000b";
constexpr const char* IDENTITIES = "SELECT identity FROM dq.application_instances ORDER BY instance_id";
constexpr const char* UUID_C = "0a1b2c3d-0000-4000-8000-00000000000c";

class Identity : public CatalogueTest {
protected:
    void SetUp() override {
        renew();
        instance(2, 1);
        catalogue.sql(std::string("UPDATE dq.application_instances SET identity = '") + UUID_A + "'");
    }
    std::uint64_t find(const std::string& ubi) {
        std::uint64_t number = 99;
        EXPECT_EQ(UBIstringToBackupNumber(ubi.c_str(), &number), 0);
        return number;
    }
};

TEST_F(Identity, NamesABackupOnBothSides) {
    backup(7, TYPE_MASTER, 2, 1000, "properties = 16384");
    std::optional<std::string> ubi;
    ASSERT_EQ(getUniversalBackupIdentity(7, &ubi), 0);
    EXPECT_EQ(ubi, std::string(UUID_A) + "_1000_1");
    EXPECT_EQ(find(*ubi), 7u);
    EXPECT_EQ(find("0A1B2C3D-0000-4000-8000-00000000000A_1000_1"), 7u);
    for (int number = 9; const char* const changes : {"properties = 16384", "", "properties = 16384, status = 4096",
                                                      "properties = 16384, tape_no = 4294967295"})
        backup(number++, TYPE_MASTER, 2, 1000, changes);
    EXPECT_EQ(find(*ubi), 9u) << "the newest that is replicated, good and there";
    EXPECT_EQ(find(std::string(UUID_A) + "_1000_2"), 0u);
    EXPECT_EQ(find(std::string(UUID_B) + "_1000_1"), 0u);
    catalogue.sql("UPDATE dq.application_instances SET identity = NULL");
    EXPECT_EQ(getUniversalBackupIdentity(7, &ubi), 0);
    EXPECT_FALSE(ubi);
    EXPECT_EQ(getUniversalBackupIdentity(77, &ubi) + getUniversalBackupIdentity(0, &ubi), -2);
}

TEST_F(Identity, MalformedTextIsRefused) {
    const std::string uuid = UUID_A;
    const std::string cases[] = {"",
                                 uuid,
                                 uuid + "0_1000_1",
                                 "0a1b2c3d_1000_1",
                                 "0a1b2c3-d0000-4000-8000-00000000000a_1000_1",
                                 uuid + "_0_1",
                                 uuid + "_x_1",
                                 uuid + "_1000",
                                 uuid + "_1000_",
                                 uuid + "_1000_1 "};
    std::uint64_t number = 0;
    for (const std::string& ubi : cases) {
        number = 99;
        EXPECT_EQ(UBIstringToBackupNumber(ubi.c_str(), &number), -1) << ubi;
        EXPECT_EQ(number, 0u);
    }
    EXPECT_EQ(UBIstringToBackupNumber(nullptr, &number), -1);
    // Nor can it change the statement.
    backup(7, TYPE_MASTER, 2, 1000, "properties = 16384");
    EXPECT_EQ(find("') OR1=1-0000-0000-0000-000000000000_1000_1"), 0u);
    EXPECT_EQ(find("x')OR(''-0000-0000-0000-0'='0'OR''='_1000_1"), 0u);
}

TEST(Uuid, IsGeneratedValidAndInLowerCase) {
    char buffer[UUID_BUFFER_SIZE + 3] = "";
    EXPECT_EQ(genUUID(buffer, UUID_BUFFER_SIZE - 1) + genUUID(nullptr, 100), -2);
    ASSERT_EQ(genUUID(buffer, UUID_BUFFER_SIZE), 0);
    EXPECT_TRUE(isValidUUID(buffer));
    EXPECT_EQ(std::string(buffer).find_first_not_of("0123456789abcdef-"), std::string::npos);
    EXPECT_FALSE(isValidUUID(std::string(buffer) + "0"));
    EXPECT_FALSE(isValidUUID("0a1b2c3d-0000-400-08000-00000000000a"));
    EXPECT_TRUE(isValidUUID("0a1b2c3d-0000-4000-8000-000000-0000a")) << "the last group isn't looked at";
}

TEST_F(Identity, NewerBackupsOfTheInstanceAreCountedOrMarked) {
    const std::tuple<int, int, const char*> cases[] = {{TYPE_MASTER, 1000, ""},
                                                       {TYPE_INCREMENTAL, 1001, ""},
                                                       {TYPE_EXTENSION_DIFF, 1002, ""},
                                                       {TYPE_BARE_METAL, 1003, ""},
                                                       {TYPE_SELECTIVE, 1003, ""},
                                                       {TYPE_MASTER, 1003, "status = 4096"},
                                                       {TYPE_MASTER, 1003, "tape_no = 4294967295"},
                                                       {TYPE_MASTER, 1003, "instance_id = 3"}};
    for (int number = 1; const auto& [type, start, changes] : cases)
        backup(number++, type, 2, start, changes);
    catalogue.sql("INSERT INTO dq.backup_msg (backup_no, messages) VALUES (2, 'so far'), (4, 'untouched')");
    EXPECT_EQ(enforceGroupOrdering(2, 1002, false), 0);
    EXPECT_EQ(enforceGroupOrdering(2, 1000, false), 2);
    EXPECT_EQ(catalogue.value("SELECT count(*) FROM dq.backups WHERE status = 5184"), "0");
    catalogue.sql("ALTER TABLE dq.backups ADD CONSTRAINT refused CHECK (status <> 5184)");
    EXPECT_EQ(enforceGroupOrdering(2, 1000, true), -1) << "they can't be marked";
    catalogue.sql("ALTER TABLE dq.backups DROP CONSTRAINT refused");
    EXPECT_EQ(enforceGroupOrdering(2, 1000, true), 0);
    EXPECT_EQ(catalogue.rows("SELECT backup_no FROM dq.backups WHERE status = 5184 ORDER BY 1"), "2\n3");
    EXPECT_EQ(catalogue.rows("SELECT messages FROM dq.backup_msg ORDER BY backup_no"),
              "so farMark backup as failed, out of order.\n\nuntouched");
    EXPECT_EQ(enforceGroupOrdering(2, 1000, false), 0);
    catalogue.sql("ALTER TABLE dq.backups RENAME TO hidden");
    EXPECT_EQ(enforceGroupOrdering(2, 1000, false), -1);
}

// A document of a golden file, in which $1 and $2 stand for identities.
std::string document(const char* name, const std::string& client, const std::string& instance) {
    std::string text = testsupport::readFile(std::filesystem::path(FERRYD_DOCUMENTS) / name);
    for (const auto& [mark, identity] : {std::pair("$1", client), std::pair("$2", instance)})
        text.replace(text.find(mark), 2, identity);
    return text;
}

class Export : public CatalogueTest {
protected:
    // A virtual machine, with rows of all kinds and with all properties set but that of a replicated backup.
    void SetUp() override {
        renew();
        catalogue.sql(
            "UPDATE dq.state SET install_id = 'local-uuid'; UPDATE dq.systems SET name = 'here';"
            "INSERT INTO dq.nodes (node_no, node_name, type, os, properties, options, generic_property) VALUES "
            "(1, 'Sons & <Co> B\xc3\xbcro', 3, 5, 4 + 16 + 1024, 6, 7);"
            "INSERT INTO dq.application_instances (instance_id, node_no, app_id, key1, key3) VALUES "
            "(1, 1, 1, NULL, NULL), (2, 1, 4, 'host', 'third');"
            "INSERT INTO dq.application_properties VALUES (2, 'k', 'v&w'), (2, 'l', ''), (1, 'not', 'mine');"
            "INSERT INTO dq.backup_snapshots VALUES (7, 990); INSERT INTO dq.vmware_snapshots VALUES (7, '52 de/3');"
            "INSERT INTO dq.vmware_hardware_hashes VALUES (7, 'h'); "
            "INSERT INTO dq.ndmp_nas VALUES (1, '', '', 'ven', '');"
            "INSERT INTO dq.sql_backups VALUES (7, 1, 3, 'srv', 'db', 4, 5)");
        backup(7, TYPE_ESX_FULL, 2, 1000,
               "properties = -1 - 16384, total_megs = 3000, verify_after = 2, is_verified = true, "
               "x_command_short = 'a<b'");
    }
    std::string exported() {
        std::string blob;
        std::size_t size = 0;
        EXPECT_EQ(exportReplicationMetadata(7, &blob, &size), 0);
        EXPECT_EQ(size, blob.size() + 1);
        return blob;
    }
    std::string identity(int number) {
        return catalogue.value("SELECT identity FROM dq.application_instances WHERE instance_id = " +
                               std::to_string(number));
    }
    void cameFromElsewhere() {
        catalogue.sql(std::string("INSERT INTO dq.systems (system_id, name, identity) VALUES (5, 'origin', '") +
                      UUID_C +
                      "'); UPDATE dq.nodes SET system_id = 5, gcname = 'real name';"
                      "UPDATE dq.backups SET properties = 16384;"
                      "UPDATE dq.application_instances SET identity = CASE instance_id WHEN 1 THEN '" +
                      UUID_A + "' ELSE '" + UUID_B + "' END");
    }
};

TEST_F(Export, FirstBackupOfAClientMakesBothIdentitiesAndTheWholeDocument) {
    const std::string blob = exported();
    ASSERT_TRUE(isValidUUID(identity(1)) && isValidUUID(identity(2)));
    EXPECT_NE(identity(1), identity(2));
    EXPECT_EQ(blob, document("virtual_machine.xml", identity(1), identity(2)));
    EXPECT_EQ(exported(), blob) << "the identities stay";

    // A device of another kind, with nothing that need not be there.
    catalogue.sql(
        "UPDATE dq.application_instances SET app_id = 8, key1 = NULL, key3 = NULL WHERE instance_id = 2;"
        "UPDATE dq.backups SET properties = 0, x_command_short = NULL; DELETE FROM dq.application_properties;"
        "DELETE FROM dq.backup_snapshots");
    EXPECT_EQ(exported(), document("network_device.xml", identity(1), identity(2)));
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
        EXPECT_TRUE(catalogue.somebodyWaits());
        catalogue.sql("COMMIT");
        exporter.join();
        EXPECT_EQ(identity(instance), winner);
        EXPECT_NE(blob.find("uuid>" + winner + "<"), std::string::npos) << blob;
    }
    EXPECT_TRUE(root.logged("Possible race on creating file-level uuid for node 1, re-querying to get it."));
    EXPECT_TRUE(root.logged("Possible race on creating uuid for instance_id 2, re-querying to get it."));
}

TEST_F(Export, BackupThatCameByReplicationTellsOfItsOriginAndOfWhoPassesItOn) {
    cameFromElsewhere();
    const std::string blob = exported();
    EXPECT_NE(blob.find(std::string("  <systems>\n    <name>origin</name>\n    <UUID>") + UUID_C +
                        "</UUID>\n    <re-replicated-from>\n      <name>here</name>\n      <UUID>local-uuid</UUID>\n"
                        "    </re-replicated-from>\n  </systems>\n  <nodes>\n    <node_name>real name</node_name>\n"),
              std::string::npos)
        << blob;
    EXPECT_NE(blob.find("<properties>16384</properties>"), std::string::npos);
}

TEST_F(Export, WhatIsMissingOrCantBeCarriedIsRefused) {
    const std::string identity = "UPDATE dq.application_instances SET identity = NULL WHERE instance_id = ";
    const std::string blank = "Failed to add elements to ";
    // Whether the backup came from elsewhere, what changes, and the reason.
    const std::tuple<bool, std::string, std::string> cases[] = {
        {false, "UPDATE dq.backups SET tape_no = 4294967295", "Backup 7 was not found or is logically deleted"},
        {false, "UPDATE dq.backups SET instance_id = 0", "Backup 7 doesn't have an instance_id."},
        {false, "UPDATE dq.backups SET instance_id = 44", blank + "application_instances tag."},
        {false, "DELETE FROM dq.application_instances WHERE app_id = 1", blank + "nodes tag."},
        {false, "DELETE FROM dq.systems", "Query for system information failed."},
        {false, "DROP TABLE dq.application_properties", blank + "application_properties tag."},
        {false, "UPDATE dq.backups SET x_command_short = E'tar \x1b[1m'", blank + "backups tag."},
        {false, "UPDATE dq.nodes SET node_name = U&'a\\FFFF'", "Text of XML element <node_name> is not UTF-8, or has"},
        {true, "UPDATE dq.nodes SET system_id = NULL", "Could not identify source system_id for replicated backup 7."},
        {true, "UPDATE dq.nodes SET system_id = 6", "Query for system information failed."},
        {true, "UPDATE dq.systems SET identity = NULL", "Appliance uuid is NULL."},
        {true, "UPDATE dq.nodes SET gcname = NULL", "real client name for grandclient 1 is NULL."},
        {true, identity + "1", "file-level identity for grandclient 1 is NULL."},
        {true, identity + "2", "Failed to get identity for grandclient instance_id 2."}};
    for (const auto& [fromElsewhere, change, reason] : cases) {
        SCOPED_TRACE(change);
        SetUp();
        if (fromElsewhere)
            cameFromElsewhere();
        root.clearLog();
        catalogue.sql(change);
        const std::string before = catalogue.rows(IDENTITIES);
        std::string blob = "old";
        std::size_t size = 3;
        EXPECT_EQ(exportReplicationMetadata(7, &blob, &size), -1);
        EXPECT_EQ(blob + std::to_string(size), "0");
        EXPECT_TRUE(root.logged(reason)) << root.log();
        EXPECT_TRUE(!fromElsewhere || catalogue.rows(IDENTITIES) == before) << "none is made here";
    }
    std::string blob;
    std::size_t size = 0;
    EXPECT_EQ(exportReplicationMetadata(0, &blob, &size) + exportReplicationMetadata(7, nullptr, &size), -2);
}

}  // namespace
