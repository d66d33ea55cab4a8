// Whole jobs on backups whose files are compressed, encrypted, or both, or whose blocks lie in the single instance
// store.

#include "e2e/e2e_fixture.h"

namespace e2e {
namespace {

class Kinds : public EndToEnd {
protected:
    // A store of files of 16 MiB, on the one disk.
    void makeSmallStore() {
        std::string page(4096, '\0');
        const std::uint64_t sizes[] = {8192, 0x1000000};
        std::memcpy(&page[24], sizes, sizeof sizes);
        testsupport::writeFile(source().disk().parent_path() / "SISinfo", page);
        source().sql("UPDATE devices SET capacity = 134217728 * 4");
    }
    // A tool of the source; its output.
    std::string tool(std::vector<std::string> command, int status = 0) {
        std::string output;
        command[0] = lab::programDirectory() / command[0];
        EXPECT_EQ(source().run(command, &output), status) << command[0] << ' ' << command[1] << ": " << output;
        return output;
    }
};

TEST_F(Kinds, CompressedAndEncryptedBackupsAreRebuiltAsCleanStreams) {
    source().startKeyService();
    startBoth();
    const std::pair<const char*, std::vector<std::string>> cases[] = {{"zlib", {"--compress"}},
                                                                      {"lz4", {"--compress"}},
                                                                      {"lz4", {"--encrypt"}},
                                                                      {"lz4", {"--compress", "--encrypt"}}};
    for (unsigned seed = 51; const auto& [engine, options] : cases) {
        SCOPED_TRACE(seed);
        lab().setFurther("[Configuration Options]\n  CompressEngine=" + std::string(engine) + "\n");
        const std::uint64_t backup = lab().ingest(data(seed++, 3), 1, options);
        ASSERT_TRUE(arrives(backup));
    }
}

// Without its keys an encrypted backup can't be read: the job fails, and comes through when the service is back.
TEST_F(Kinds, KeyServiceThatDiesIsWaitedForByRetries) {
    source().startKeyService();
    set("Enabled", "false");
    startBoth();
    hold("recipe");
    const std::uint64_t backup = lab().ingest(data(61, 2), 1, {"--compress", "--encrypt"});
    set("Enabled", "true");
    ASSERT_TRUE(isHeld("recipe"));
    source().stopKeyService(SIGKILL);
    release("recipe");
    ASSERT_TRUE(ended(backup, "Failed: "));
    EXPECT_FALSE(lab().sameOnVault(backup));
    source().startKeyService();
    ASSERT_TRUE(arrives(backup));
}

TEST_F(Kinds, MovedAndPunchedBackupArrivesByteForByteAndVerifyFindsWhatIsWrong) {
    source().startKeyService();  // store files are encrypted then
    makeSmallStore();
    const std::uint64_t backup = lab().ingest(data(9, 24));
    const std::string number = std::to_string(backup);
    const fs::path file = source().backupFile(backup);
    const std::string digest = lab::fileDigest(file);
    tool({"fileDedup", "-D" + number, "-P"});
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_LT(st.st_blocks * 512, 1 << 20) << "the data is in the store alone";
    EXPECT_EQ(value("SELECT properties & 1536 FROM backups WHERE backup_no = " + number), "1536");
    EXPECT_EQ(value("SELECT count(*) FROM backups_hash_values WHERE deduplicated IS NULL"), "0");
    tool({"fileDedup", "-D" + number});  // nothing is left to do

    EXPECT_THAT(tool({"sisTool", "verify"}), ::testing::HasSubstr(", 0 wrong"));
    EXPECT_THAT(tool({"sisTool", "info"}), ::testing::HasSubstr("file size limit   0x1000000\n"));
    EXPECT_EQ(tool({"sisTool", "ring", "0x1000000"}), source().disk().string() + "/SIS/\n");
    const std::string first = value("SELECT sis_offset || ' ' || hashed_length FROM hash_values ORDER BY sis_offset");
    const auto blank = first.find(' ');
    const std::string length = first.substr(blank + 1);
    EXPECT_EQ(std::to_string(tool({"sisTool", "read", first.substr(0, blank), length}).size()), length);
    tool({"sisTool", "read", "0"}, 2);
    tool({"sisTool", "read", "0xFFFFFFFFFF", "1"}, 1);

    startBoth();
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    EXPECT_EQ(lab::fileDigest(vault().backupFile(lab().targetNumber(backup))), digest);

    std::fstream(source().disk() / "SIS/0000000000000000", std::ios::in | std::ios::out).seekp(100000).put('!');
    EXPECT_THAT(tool({"sisTool", "verify"}, 1),
                ::testing::ContainsRegex("has other bytes than its name(.|\n)*, 1 wrong"));
}

// Three backups, all encrypted and compressed with LZ4. Of the last one some blocks lie in the store (where the first
// one brought them), some in the file of the second alone, the rest in its own file; the vault has none of them.
TEST_F(Kinds, BlocksOfAnEncryptedBackupComeFromTheStoreAndFromTwoFiles) {
    lab().setFurther("  useSIScompression=true\n[Configuration Options]\n  CompressEngine=lz4\n");
    source().startKeyService();
    makeSmallStore();
    set("QueueScheme", "0");

    const fs::path directory = data(71, 3);
    std::vector<std::string> numbers;
    for (const char* const how : {"-D", "-H", "-H"}) {
        numbers.push_back(std::to_string(lab().ingest(directory, 1, {"--compress", "--encrypt"})));
        tool({"fileDedup", how + numbers.back()});
        testsupport::writeFile(directory / ("large" + numbers.back()),
                               std::string(700000, static_cast<char>('a' + numbers.size())) + numbers.back());
    }
    source().sql("UPDATE backups_hash_values SET deduplicated = 1 WHERE backup_no = " + numbers[2] +
                 " AND hash_id IN (SELECT hash_id FROM backups_hash_values WHERE backup_no = " + numbers[1] + ")");
    for (const char* const place : {"sis_offset IS NOT NULL", "sis_offset IS NULL AND deduplicated IS NOT NULL",
                                    "sis_offset IS NULL AND deduplicated IS NULL"})
        EXPECT_NE(value("SELECT count(*) FROM backups_hash_values NATURAL JOIN hash_values WHERE backup_no = " +
                        numbers[2] + " AND " + place),
                  "0");
    lab().startVault();
    (void)util({"replicate", numbers[2], lab().vaultName()});
    EXPECT_TRUE(lab().sameOnVault(std::stoull(numbers[2])));
}

}  // namespace
}  // namespace e2e
