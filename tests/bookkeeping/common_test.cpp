#include "bookkeeping/common.h"

#include "support/catalogue_fixture.h"

namespace {

class Common : public CatalogueTest {
protected:
    // The groups that end with a backup, as numbers (those of a restore with their type code); empty on failure.
    std::string restoreGroup(int number) {
        std::vector<RestoreGroupRecord> list(3);
        const int result = dqGetRestoreGroupOptimized(static_cast<std::uint64_t>(number), &list);
        EXPECT_EQ(result == 0, !list.empty());
        std::string text;
        for (const auto& r : list)
            text += formatString("%u:%d:%d ", r.backupNo, r.resultCode, r.jobTypeCode);
        return text;
    }
    std::string synthesisGroup(int number, bool skipDiffs = false, bool skipMasters = false) {
        std::string text;
        std::vector<std::uint32_t> list(3);
        const int result =
            dqGetSynthesisGroup(static_cast<std::uint64_t>(number), skipDiffs, skipMasters, &list, &text);
        EXPECT_EQ(result == 0, !list.empty());
        return text;
    }
};

TEST_F(Common, TypeNamesComeFromTheTypeAndTheApplication) {
    const std::tuple<int, int, const char*> cases[] = {{TYPE_MASTER, 1, "Master"},
                                                       {TYPE_SQL_TRANS, 3, "MSSQL Trans"},
                                                       {TYPE_ESX_INCR, 4, "ESX VM Incr"},
                                                       {TYPE_EXTENSION_FULL, 9, "UCS Service Profile Full"},
                                                       {TYPE_EXTENSION_INCR, 9, "UCS Service Profile Incr"},
                                                       {TYPE_NDMP_DIFF, 8, "NDMP Diff"},
                                                       {8, 1, "unknown"}};
    std::string text;
    for (int number = 1; const auto& [type, app, name] : cases) {
        instance(number, app);
        backup(number, type, number, 100);
        EXPECT_EQ(getBackupTypeName(static_cast<std::uint64_t>(number++), &text), 0);
        EXPECT_EQ(text, name);
    }
    text = "kept";
    backup(50, TYPE_MASTER, 999, 100);
    EXPECT_EQ(getBackupTypeName(50, &text), -1) << "an instance that isn't there";
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(backupTypeText(TYPE_EXTENSION_DIFF, nullptr), "Generic Diff");
}

TEST_F(Common, SubfileLimitIsTheMostSpecificThatIsValid) {
    const char* const selective = "_LEGACY_MSSQL=0x5000\nmaxSubfileBytes_Selective=0x6000\n";
    const std::tuple<const char*, const char*, int, int, std::uint64_t> cases[] = {
        {"built in", "_x=1", TYPE_MASTER, 0, 0x40000000},
        {"type before application", "_ESX_VM_Full=0x8000\nmaxSubfileBytes_VMware=0x9000\n", TYPE_ESX_FULL, 0, 0x8000},
        {"application before all", "=0x8000\nmaxSubfileBytes_SQL_Server=40960\n", TYPE_SQL_DIFF, 0, 40960},
        {"file-level", "_file-level=0x3000\n", TYPE_MASTER, 0, 0x3000},
        {"too small falls through", "_Master=8191\nmaxSubfileBytes=0x4000\n", TYPE_MASTER, 0, 0x4000},
        {"two pages are enough", "_Master=8192\n", TYPE_MASTER, 0, 8192},
        {"letters count as unset", "_Master=65536k\n", TYPE_MASTER, 0, 0x40000000},
        {"a negative number too", "=-65536\n", TYPE_MASTER, 0, 0x40000000},
        {"legacy SQL has its own key", selective, TYPE_SELECTIVE, P_LEGACY_SQL, 0x5000},
        {"other selective", selective, TYPE_SELECTIVE, 0, 0x6000},
        {"no type", "_file-level=0x3000\nmaxSubfileBytes=0x4000\n", 0, 0, 0x4000},
        {"extension", "_ZUL=0x7000\n", TYPE_EXTENSION_DIFF, 0, 0x7000}};
    for (const auto& [what, ini, type, properties, bytes] : cases) {
        root.masterIni("[fileDedup]\nmaxSubfileBytes" + std::string(ini));
        EXPECT_EQ(getMaxSubfileBytes(type, properties), bytes) << what;
    }
    root.masterIni("");
    for (const auto& [text, bytes] : {std::pair("noreplication\n", 0x40000000u), {"\treplication x\n", 0x100000u}}) {
        testsupport::writeFile(root / "var/opt/kestrelix/platform_capabilities", std::string("dedupNT\n") + text);
        EXPECT_EQ(getMaxSubfileBytes(TYPE_MASTER, 0), bytes) << text;
    }
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
    catalogue.sql("DROP TABLE dq.backup_files");
    EXPECT_EQ(estimateHactarSize(1, ESTIMATE_HACTAR_FILE) + estimateHactarSize(3, ESTIMATE_WHOLE_BACKUP), 0u);
}

TEST_F(Common, GroupsRefuseWhatCantBeTheirEnd) {
    // Those of a synthesis, and those of a restore.
    const std::pair<const char*, const char*> cases[][10] = {
        {{"status = 4096 | 64 | 2048, tape_no = 4294967295", "Input backup was not successful."},
         {"status = 2048", "Input backup is not complete."},
         {"tape_no = 4294967295, properties = 0", "Input backup has been logically deleted."},
         {"properties = 1", "Input backup is not synthesis-capable."},
         {"properties = 4097", "Cannot restore SDS backups."},
         {"type = 5, status = 0", "Input backup must be a supported type."},
         {"backup_no = 8", "Invalid backup id: 7."},
         {"instance_id = 2, status = 64 + 2048", nullptr}},
        {{"properties = 1, tape_no = 4294967295", "SDS backups cannot be restored"},
         {"tape_no = 4294967295, status = 0", "Purged backups cannot be restored"},
         {"status = 2048", "Active backups cannot be restored"},
         {"type = 1031, status = 4096 | 64", "Failed backups of this type cannot be restored"},
         {"type = 1, status = 4096 | 64", nullptr},
         {"type = 3", "Backup 7 has an unknown or unsupported backup type (3)."},
         {"type = 1039", "Backup 7 has an unknown or unsupported backup type (1039)."},
         {"type = 6", "Backup 7 not returned from query"},
         {"instance_id = 9", "Failed to retrieve application information for backup 7"},
         {"type = 5, instance_id = 2", "Failed to get instance name for backup 7"}}};
    instance(1, 1);
    instance(2, 2);
    for (const bool synthesis : {true, false})
        for (const auto& [change, reason] : cases[synthesis ? 0 : 1]) {
            if (change == nullptr)
                continue;
            SCOPED_TRACE(change);
            catalogue.sql("DELETE FROM dq.backups");
            backup(7, TYPE_MASTER, 1, 100, change);
            EXPECT_EQ((synthesis ? synthesisGroup(7) : restoreGroup(7)).empty(), reason != nullptr);
            EXPECT_TRUE(reason == nullptr || reason == std::string(dqLastError())) << dqLastError();
        }
    EXPECT_TRUE(root.logged("dqGetSynthesisGroup: Error: Invalid backup id: 7."));
    EXPECT_EQ(dqGetRestoreGroupOptimized(7, nullptr), -1);
}

TEST_F(Common, SynthesisGroupStartsAtTheNewestMasterOrDifferential) {
    const std::string synthetic = "properties = " + std::to_string(P_SYNTHETIC | P_SYNTHESIS_CAPABLE);
    const std::tuple<int, int, std::string> cases[] = {{TYPE_MASTER, 1, ""},
                                                       {TYPE_INCREMENTAL, 1, ""},
                                                       {TYPE_DIFFERENTIAL, 1, synthetic},
                                                       {TYPE_INCREMENTAL, 1, ""},
                                                       {TYPE_INCREMENTAL, 1, "status = 4096"},
                                                       {TYPE_INCREMENTAL, 2, ""},
                                                       {TYPE_INCREMENTAL, 1, ""},
                                                       {TYPE_INCREMENTAL, 1, ""}};
    for (int number = 1; const auto& [type, of, changes] : cases) {
        backup(number, type, of, number * 100, changes);
        ++number;
    }
    EXPECT_EQ(synthesisGroup(7), "1,3,4,7");
    EXPECT_EQ(synthesisGroup(7, true), "1,2,4,7");
    catalogue.sql("UPDATE dq.backups SET " + synthetic);
    EXPECT_EQ(synthesisGroup(7, true, true), "2,4,7");
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
    EXPECT_EQ(restoreGroup(5), "1:1:41 3:1:42 4:2:43 5:0:43 ") << "an imported full is not mixed in";
    EXPECT_EQ(list[3].startTime, 400);
    EXPECT_EQ(list[0].appName, "VMware");
    EXPECT_EQ(list[0].instanceName, "host|" + std::string(122, 'm'));
}

// Of each family a full, a differential and two incrementals (or a full and what follows); the groups of the last.
TEST_F(Common, EveryFamilyFollowsItsOwnTypes) {
    // By the application's number, from 1 on.
    const std::tuple<std::vector<int>, const char*, const char*> cases[] = {
        {{TYPE_MASTER, TYPE_DIFFERENTIAL, TYPE_INCREMENTAL, TYPE_INCREMENTAL}, "", "1,2,3,4"},
        {{5, 6, 7, 7}, "1:0:21 2:0:22 3:0:23 4:0:23 ", ""},
        {{9, 10, 11, 11}, "1:0:31 2:0:32 3:0:33 4:0:33 ", ""},
        {{12, 13, 14, 14}, "1:0:41 2:0:42 3:0:43 4:0:43 ", "1,2,3,4"},
        {{1031, 1032, 1033, 1033}, "1:0:51 2:0:52 3:0:53 4:0:53 ", "1,2,3,4"},
        {{1034, 1035, 1035}, "1:0:71 2:0:72 3:0:72 ", ""},
        {{1036, 1037, 1037}, "1:0:81 3:0:82 ", ""},
        {{4098, 4099, 4100, 4100}, "1:0:91 2:0:92 3:0:93 4:0:93 ", "1,2,3,4"},
        {{1039, 4096, 4097, 4097}, "", ""}};  // of this application only fulls are known
    for (int app = 1; const auto& [types, restore, synthesis] : cases) {
        SCOPED_TRACE(app);
        renew();
        instance(1, app++, "'first', 'second'");
        int number = 0;
        for (const int type : types) {
            ++number;
            backup(number, type, 1, number);
        }
        EXPECT_EQ(restoreGroup(number), restore);
        EXPECT_EQ(synthesisGroup(number), synthesis);
    }
}

TEST_F(Common, LegacySqlChainEndsAtTheBackupItself) {
    instance(1, 1);
    const std::pair<int, const char*> cases[] = {{1, "Books"}, {2, "books"}, {3, "BOOKS"}, {3, "other"}, {3, "Books"}};
    for (int number = 1; const auto& [sqlType, database] : cases) {
        backup(number, TYPE_SELECTIVE, 1, number * 100, "properties = 128");
        catalogue.sql(formatString("INSERT INTO dq.sql_backups VALUES (%d,1,%d,'srv','%s',1,%d)", number, sqlType,
                                   database, number));
        ++number;
    }
    EXPECT_EQ(restoreGroup(3), "1:0:1 2:0:2 3:0:3 ");
}

TEST_F(Common, FaultIsInjectedAndAMissingBackupIsNoBackup) {
    backup(1, TYPE_MASTER, 1, 100, "properties = 4294967296 | 256");
    int status = -1;
    std::int64_t properties = -1;
    EXPECT_EQ(getBackupStatusAndProperties(1, &status, &properties), 0);
    EXPECT_EQ(properties, 4294967552);
    root.masterIni("[Replication]\nfailCheckStatus=3\n");
    EXPECT_EQ(getBackupStatusAndProperties(1, &status, &properties), -1);
    bool encrypted = false;
    EXPECT_EQ(dq_is_backup_encrypted(1, &encrypted), 0);
    EXPECT_TRUE(encrypted);
    EXPECT_EQ(dq_is_backup_encrypted(2, &encrypted) + getBackupDevice(2), -2);
    EXPECT_EQ(getBackupMegs(2), 0);
    EXPECT_FALSE(dqGetInstanceName(77));
    EXPECT_STREQ(dqLastError(), "Could not retrieve name of instance_id 77");
}

// On which the pruning of the queue stands.
TEST_F(Common, OnlyMasterHasAJobCodeThatIsASelfContainedType) {
    std::string alone;
    for (int type = 1; type < 5000; ++type) {
        if (isSelfContainedType(type))
            alone += std::to_string(type) + " ";
        EXPECT_TRUE(type == TYPE_MASTER || !isSelfContainedType(jobTypeCode(type))) << type;
    }
    EXPECT_EQ(alone, "1 5 9 12 1024 1031 1034 1036 1038 1039 4098 ");
}

TEST_F(Common, ExtensionTypesAreKnownByTheirApplication) {
    for (const auto& [number, app] : {std::pair(1, 9), {2, 1}}) {
        instance(number, app);
        backup(number, TYPE_EXTENSION_FULL, number, 100);
    }
    EXPECT_EQ(getZulJobTypeCodeBackupNo(25, 1), 61);
    EXPECT_EQ(getZulJobTypeCodeBackupNo(TYPE_EXTENSION_DIFF, 1), 0);
    std::string text;
    EXPECT_EQ(GetZulBackupTypeStringBackupNo(TYPE_EXTENSION_FULL, 2, &text), -1);
    EXPECT_EQ(text, "Unknown");
    EXPECT_TRUE(root.logged("ZUL DIFF:") && root.logged("ZUL FULL:"));
}

}  // namespace
