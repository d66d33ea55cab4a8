#include "bookkeeping/common.h"

#include "catalogue_fixture.h"

namespace {

using Common = CatalogueTest;

TEST_F(Common, TypeNamesComeFromTheTypeAndTheApplication) {
    const struct {
        int type;
        int app;
        const char* text;
    } cases[] = {
        {TYPE_MASTER, 1, "Master"},
        {TYPE_SQL_TRANS, 3, "MSSQL Trans"},
        {TYPE_ESX_INCR, 4, "ESX VM Incr"},
        {TYPE_EXTENSION_FULL, 9, "UCS Service Profile Full"},
        {TYPE_EXTENSION_INCR, 9, "UCS Service Profile Incr"},
        {TYPE_NDMP_DIFF, 8, "NDMP Diff"},
        {8, 1, "unknown"},
    };
    int number = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        ++number;
        instance(number, c.app);
        backup(number, c.type, number, 100);
        std::string text;
        EXPECT_EQ(getBackupTypeName(static_cast<std::uint64_t>(number), &text), 0);
        EXPECT_EQ(text, c.text);
    }
    std::string text = "kept";
    backup(50, TYPE_MASTER, 999, 100);
    EXPECT_EQ(getBackupTypeName(50, &text), -1) << "an instance that isn't there";
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(backupTypeText(TYPE_EXTENSION_DIFF, nullptr), "Generic Diff");
}

TEST_F(Common, SubfileLimitIsTheMostSpecificThatIsValid) {
    const struct {
        const char* what;
        const char* ini;
        int type;
        int properties;
        std::uint64_t bytes;
    } cases[] = {
        {"built in", "", TYPE_MASTER, 0, 0x40000000},
        {"type before application", "maxSubfileBytes_ESX_VM_Full=0x8000\nmaxSubfileBytes_VMware=0x9000\n",
         TYPE_ESX_FULL, 0, 0x8000},
        {"application before all", "maxSubfileBytes=0x8000\nmaxSubfileBytes_SQL_Server=40960\n", TYPE_SQL_DIFF, 0,
         40960},
        {"file-level", "maxSubfileBytes_file-level=0x3000\n", TYPE_MASTER, 0, 0x3000},
        {"too small falls through one step", "maxSubfileBytes_Master=8191\nmaxSubfileBytes=0x4000\n", TYPE_MASTER, 0,
         0x4000},
        {"two pages are enough", "maxSubfileBytes_Master=8192\n", TYPE_MASTER, 0, 8192},
        {"letters count as unset", "maxSubfileBytes_Master=65536k\n", TYPE_MASTER, 0, 0x40000000},
        {"a negative number too", "maxSubfileBytes=-65536\n", TYPE_MASTER, 0, 0x40000000},
        {"legacy SQL has its own key", "maxSubfileBytes_LEGACY_MSSQL=0x5000\nmaxSubfileBytes_Selective=0x6000\n",
         TYPE_SELECTIVE, P_LEGACY_SQL, 0x5000},
        {"other selective", "maxSubfileBytes_LEGACY_MSSQL=0x5000\nmaxSubfileBytes_Selective=0x6000\n", TYPE_SELECTIVE,
         0, 0x6000},
        {"no type", "maxSubfileBytes_file-level=0x3000\nmaxSubfileBytes=0x4000\n", 0, 0, 0x4000},
        {"extension", "maxSubfileBytes_ZUL=0x7000\n", TYPE_EXTENSION_DIFF, 0, 0x7000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        root.masterIni("[fileDedup]\n" + std::string(c.ini));
        EXPECT_EQ(getMaxSubfileBytes(c.type, c.properties), c.bytes);
    }
    root.masterIni("");
    testsupport::writeFile(root / "var/opt/kestrelix/platform_capabilities", "dedupNT\nnoreplication\n");
    EXPECT_EQ(getMaxSubfileBytes(TYPE_MASTER, 0), 0x40000000u);
    testsupport::writeFile(root / "var/opt/kestrelix/platform_capabilities", "dedupNT\n\treplication x\n");
    EXPECT_EQ(getMaxSubfileBytes(TYPE_MASTER, 0), 0x100000u);
}

TEST_F(Common, HactarEstimateCountsHeadersSmallFilesAndReferences) {
    root.masterIni("[fileDedup]\nmaxSubfileBytes=0x100000\n");
    backup(1, TYPE_MASTER, 1, 100, "total_megs = 5");
    EXPECT_EQ(estimateHactarSize(1, ESTIMATE_HACTAR_FILE), 512u) << "no files: the sums are NULL";
    catalogue.sql(
        "INSERT INTO dq.backup_files (backup_no, size) VALUES (1,100), (1,7680), (1,7681), (1,3145728), "
        "(2,9999)");
    EXPECT_EQ(estimateHactarSize(1, ESTIMATE_HACTAR_FILE), 4608u + 7780u + 3u * 224u);
    EXPECT_EQ(estimateHactarSize(1, ESTIMATE_WHOLE_BACKUP), 5u * 1048576u + 512u);
    backup(2, TYPE_ESX_FULL, 1, 100, "total_megs = 4000000");
    EXPECT_EQ(estimateHactarSize(2, ESTIMATE_HACTAR_FILE), 4000000ull * 112);
    EXPECT_EQ(estimateHactarSize(2, ESTIMATE_WHOLE_BACKUP), 4000000ull * 1048576 + 512);
    EXPECT_EQ(estimateHactarSize(3, ESTIMATE_WHOLE_BACKUP), 0u);
    catalogue.sql("DROP TABLE dq.backup_files");
    EXPECT_EQ(estimateHactarSize(1, ESTIMATE_HACTAR_FILE), 0u);
}

TEST_F(Common, SynthesisGroupRefusesWhatCantBeItsEnd) {
    const struct {
        const char* change;
        const char* reason;
    } cases[] = {
        {"status = 4096 | 64 | 2048, tape_no = 4294967295", "Input backup was not successful."},
        {"status = 2048", "Input backup is not complete."},
        {"tape_no = 4294967295, properties = 0", "Input backup has been logically deleted."},
        {"properties = 1", "Input backup is not synthesis-capable."},
        {"properties = 4097", "Cannot restore SDS backups."},
        {"type = 5, status = 0", "Input backup must be a supported type."},
        {"instance_id = 2, status = 64 + 2048", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        catalogue.sql("DELETE FROM dq.backups");
        backup(7, TYPE_MASTER, 1, 100, c.change);
        std::vector<std::uint32_t> list = {99};
        EXPECT_EQ(dqGetSynthesisGroup(7, false, false, &list, nullptr), c.reason != nullptr ? -1 : 0);
        EXPECT_EQ(list.size(), c.reason != nullptr ? 0u : 1u);
        if (c.reason != nullptr) {
            EXPECT_STREQ(dqLastError(), c.reason);
        }
    }
    EXPECT_EQ(dqGetSynthesisGroup(8, false, false, nullptr, nullptr), -1);
    EXPECT_STREQ(dqLastError(), "Invalid backup id: 8.");
    EXPECT_TRUE(root.logged("dqGetSynthesisGroup: Error: Invalid backup id: 8."));
}

TEST_F(Common, SynthesisGroupStartsAtTheNewestMasterOrDifferential) {
    const int synthetic = P_SYNTHETIC | P_SYNTHESIS_CAPABLE;
    backup(1, TYPE_MASTER, 1, 100);
    backup(2, TYPE_INCREMENTAL, 1, 200);
    backup(3, TYPE_DIFFERENTIAL, 1, 300, "properties = " + std::to_string(synthetic));
    backup(4, TYPE_INCREMENTAL, 1, 400);
    backup(5, TYPE_INCREMENTAL, 1, 500, "status = 4096");
    backup(6, TYPE_INCREMENTAL, 2, 600);
    backup(7, TYPE_INCREMENTAL, 1, 700);
    backup(8, TYPE_INCREMENTAL, 1, 800);
    const auto group = [](bool skipDiffs, bool skipMasters) {
        std::string text;
        EXPECT_EQ(dqGetSynthesisGroup(7, skipDiffs, skipMasters, nullptr, &text), 0);
        return text;
    };
    EXPECT_EQ(group(false, false), "1,3,4,7");
    EXPECT_EQ(group(true, false), "1,2,4,7");
    catalogue.sql("UPDATE dq.backups SET properties = " + std::to_string(synthetic));
    EXPECT_EQ(group(true, true), "2,4,7");
}

TEST_F(Common, RestoreGroupRefusals) {
    instance(1, 1);
    instance(2, 2);
    const struct {
        const char* change;
        const char* reason;
    } cases[] = {
        {"properties = 1, tape_no = 4294967295", "SDS backups cannot be restored"},
        {"tape_no = 4294967295, status = 0", "Purged backups cannot be restored"},
        {"status = 2048", "Active backups cannot be restored"},
        {"type = 1031, status = 4096 | 64", "Failed backups of this type cannot be restored"},
        {"type = 1, status = 4096 | 64", nullptr},
        {"type = 3", "Backup 7 has an unknown or unsupported backup type (3)."},
        {"type = 1039", "Backup 7 has an unknown or unsupported backup type (1039)."},
        {"type = 6", "Backup 7 not returned from query"},
        {"instance_id = 9", "Failed to retrieve application information for backup 7"},
        {"type = 5, instance_id = 2", "Failed to get instance name for backup 7"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.change);
        catalogue.sql("DELETE FROM dq.backups");
        backup(7, TYPE_MASTER, 1, 100, c.change);
        std::vector<RestoreGroupRecord> list(3);
        EXPECT_EQ(dqGetRestoreGroupOptimized(7, &list), c.reason != nullptr ? -1 : 0);
        EXPECT_EQ(list.size(), c.reason != nullptr ? 0u : 1u);
        if (c.reason != nullptr) {
            EXPECT_STREQ(dqLastError(), c.reason);
        }
    }
    EXPECT_EQ(dqGetRestoreGroupOptimized(7, nullptr), -1);
}

TEST_F(Common, RestoreGroupMembersCarryResultAndTypeCode) {
    instance(1, 4, "'host', '" + std::string(200, 'm') + "'");
    backup(1, TYPE_ESX_FULL, 1, 100, "status = 64 | 2048 | 16384");
    backup(2, TYPE_ESX_FULL, 1, 150, "properties = 32");
    backup(3, TYPE_ESX_DIFF, 1, 200, "exit_code = 50");
    backup(4, TYPE_ESX_INCR, 1, 300, "status = 64");
    backup(5, TYPE_ESX_INCR, 1, 400);
    std::vector<RestoreGroupRecord> list;
    ASSERT_EQ(dqGetRestoreGroupOptimized(5, &list), 0);
    std::string text;
    for (const auto& r : list)
        text += formatString("%u:%d:%d:%ld ", r.backupNo, r.resultCode, r.jobTypeCode, static_cast<long>(r.startTime));
    EXPECT_EQ(text, "1:1:41:100 3:1:42:200 4:2:43:300 5:0:43:400 ") << "an imported full is not mixed in";
    EXPECT_EQ(list[0].appName, "VMware");
    EXPECT_EQ(list[0].instanceName, "host|" + std::string(122, 'm'));
}

TEST_F(Common, LegacySqlChainEndsAtTheBackupItself) {
    instance(1, 1);
    const auto legacy = [this](int number, int sqlType, int order, const char* database) {
        backup(number, TYPE_SELECTIVE, 1, number * 100, "properties = 128");
        catalogue.sql("INSERT INTO dq.sql_backups VALUES (" + std::to_string(number) + ",1," + std::to_string(sqlType) +
                      ",'srv','" + database + "',1," + std::to_string(order) + ")");
    };
    legacy(1, 1, 1, "Books");
    legacy(2, 2, 2, "books");
    legacy(3, 3, 3, "BOOKS");
    legacy(4, 3, 4, "other");
    legacy(5, 3, 5, "Books");
    std::vector<RestoreGroupRecord> list;
    ASSERT_EQ(dqGetRestoreGroupOptimized(3, &list), 0);
    std::string text;
    for (const auto& r : list)
        text += formatString("%u:%d ", r.backupNo, r.jobTypeCode);
    EXPECT_EQ(text, "1:1 2:2 3:3 ");
}

TEST_F(Common, AttributesOfABackup) {
    catalogue.sql(
        "INSERT INTO dq.devices (device_no, dev_name) VALUES (4, 'D2D');"
        "INSERT INTO dq.filesets (fileset_no, tape_drive_name) VALUES (8, 'D2D')");
    backup(1, TYPE_MASTER, 1, 100, "fileset_no = 8, total_megs = 3000, properties = 4294967296 | 256");
    EXPECT_EQ(getBackupDevice(1), 4);
    EXPECT_EQ(getBackupDevice(2), -1);
    EXPECT_EQ(getBackupMegs(1), 3000);
    EXPECT_EQ(getBackupMegs(2), 0);
    int status = -1;
    std::int64_t properties = -1;
    EXPECT_EQ(getBackupStatusAndProperties(1, &status, &properties), 0);
    EXPECT_EQ(status, ST_COMPLETE | ST_SUCCESS);
    EXPECT_EQ(properties, 4294967552);
    root.masterIni("[Replication]\nfailCheckStatus=3\n");
    EXPECT_EQ(getBackupStatusAndProperties(1, &status, &properties), -1);
    EXPECT_TRUE(root.logged("failCheckStatus:3, return FAILED."));
    bool encrypted = false;
    EXPECT_EQ(dq_is_backup_encrypted(1, &encrypted), 0);
    EXPECT_TRUE(encrypted);
    EXPECT_EQ(dq_is_backup_encrypted(2, &encrypted), -1);
    EXPECT_STREQ(dqLastError(), "Backup number 2 not found\n");
}

TEST_F(Common, ExtensionTypesAreKnownByTheirApplication) {
    instance(1, 9);
    instance(2, 1);
    backup(1, TYPE_EXTENSION_FULL, 1, 100);
    backup(2, TYPE_EXTENSION_FULL, 2, 100);
    EXPECT_EQ(getZulJobTypeCodeBackupNo(25, 1), 61);
    EXPECT_EQ(getZulJobTypeCodeBackupNo(TYPE_EXTENSION_DIFF, 1), 0);
    std::string text;
    EXPECT_EQ(GetZulBackupTypeStringBackupNo(TYPE_EXTENSION_FULL, 2, &text), -1);
    EXPECT_EQ(text, "Unknown");
    EXPECT_TRUE(root.logged("ZUL DIFF:") && root.logged("ZUL FULL:"));
}

}  // namespace
