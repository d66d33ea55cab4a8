// A backup whose blocks lie in the single instance store alone.

#include "e2e/e2e_fixture.h"
#include "support/test.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

class SingleInstanceStore : public EndToEnd {
protected:
    // A store of files of 16 MiB, on the one disk.
    void makeSmallStore() {
        std::string page(4096, '\0');
        const std::uint64_t sizes[] = {8192, 0x1000000};
        std::memcpy(&page[24], sizes, sizeof sizes);
        std::ofstream(lab().source().disk().parent_path() / "SISinfo", std::ios::binary) << page;
        lab().source().sql("UPDATE devices SET capacity = 134217728 * 4");
    }

    // A tool of the source; its exit status.
    int tool(const std::vector<std::string>& words, std::string* output = nullptr) {
        std::vector<std::string> command = words;
        command[0] = lab::programDirectory() / words[0];
        return lab().source().run(command, output);
    }
};

TEST_F(SingleInstanceStore, AMovedAndPunchedBackupArrivesByteForByteAndVerifyFindsWhatIsWrong) {
    lab().source().startKeyService();  // store files are encrypted then
    makeSmallStore();
    const fs::path disk = lab().source().disk();

    const std::uint64_t backup = lab().ingest(data(9, 24));
    const std::string number = std::to_string(backup);
    const fs::path file = lab().source().backupFile(backup);
    const std::string digest = lab::fileDigest(file);
    ASSERT_EQ(tool({"fileDedup", "-D" + number, "-P"}), 0);
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_LT(st.st_blocks * 512, 1 << 20) << "the data is in the store alone";
    EXPECT_EQ(lab().source().value("SELECT properties & 1536 FROM backups WHERE backup_no = " + number), "1536");
    EXPECT_EQ(lab().source().value("SELECT count(*) FROM backups_hash_values WHERE deduplicated IS NULL"), "0");
    EXPECT_EQ(tool({"fileDedup", "-D" + number}), 0) << "nothing is left to do";

    std::string output;
    EXPECT_EQ(tool({"sisTool", "verify"}, &output), 0) << output;
    EXPECT_NE(output.find(", 0 wrong"), std::string::npos);
    EXPECT_EQ(tool({"sisTool", "info"}, &output), 0);
    EXPECT_NE(output.find("file size limit   0x1000000\n"), std::string::npos) << output;
    EXPECT_EQ(tool({"sisTool", "ring", "0x1000000"}, &output), 0);
    EXPECT_EQ(output, disk.string() + "/SIS/\n");
    const std::string first =
        lab().source().value("SELECT sis_offset || ' ' || hashed_length FROM hash_values ORDER BY sis_offset");
    const auto blank = first.find(' ');
    EXPECT_EQ(tool({"sisTool", "read", first.substr(0, blank), first.substr(blank + 1)}, &output), 0);
    EXPECT_EQ(std::to_string(output.size()), first.substr(blank + 1));
    EXPECT_EQ(tool({"sisTool", "read", "0"}, &output), 2);
    EXPECT_EQ(tool({"sisTool", "read", "0xFFFFFFFFFF", "1"}, &output), 1);

    lab().startVault();
    lab().startDaemon();
    ASSERT_TRUE(reaches(backup, REPLICATION_COMPLETE));
    EXPECT_EQ(lab::fileDigest(lab().vault().backupFile(lab().targetNumber(backup))), digest);

    std::fstream(disk / "SIS/0000000000000000", std::ios::in | std::ios::out).seekp(100000).put('!');
    EXPECT_EQ(tool({"sisTool", "verify"}, &output), 1);
    EXPECT_NE(output.find("has other bytes than its name"), std::string::npos) << output;
    EXPECT_NE(output.find(", 1 wrong"), std::string::npos) << output;
}

// Three backups, all encrypted and compressed with LZ4. Of the last one some blocks lie in the store (where the first
// one brought them), some in the file of the second alone, the rest in its own file; the vault has none of them.
TEST_F(SingleInstanceStore, BlocksOfAnEncryptedBackupComeFromTheStoreAndFromTwoFiles) {
    lab().setFurther("  useSIScompression=true\n[Configuration Options]\n  CompressEngine=lz4\n");
    lab().source().startKeyService();
    makeSmallStore();
    lab().setReplication("QueueScheme", "0");

    const fs::path directory = data(71, 3);
    std::vector<std::string> numbers;
    for (const char* const how : {"-D", "-H", "-H"}) {
        numbers.push_back(std::to_string(lab().ingest(directory, 1, {"--compress", "--encrypt"})));
        ASSERT_EQ(tool({"fileDedup", how + numbers.back()}), 0);
        std::ofstream(directory / ("large" + numbers.back()), std::ios::binary)
            << std::string(700000, static_cast<char>('a' + numbers.size())) << numbers.back();
    }
    lab().source().sql("UPDATE backups_hash_values SET deduplicated = 1 WHERE backup_no = " + numbers[2] +
                       " AND hash_id IN (SELECT hash_id FROM backups_hash_values WHERE backup_no = " + numbers[1] +
                       ")");
    const auto blocks = [&](const std::string& condition) {
        return std::stoi(
            lab().source().value("SELECT count(*) FROM backups_hash_values NATURAL JOIN hash_values WHERE "
                                 "backup_no = " +
                                 numbers[2] + " AND " + condition));
    };
    EXPECT_GT(blocks("sis_offset IS NOT NULL"), 0);
    EXPECT_GT(blocks("sis_offset IS NULL AND deduplicated IS NOT NULL"), 0);
    EXPECT_GT(blocks("sis_offset IS NULL AND deduplicated IS NULL"), 0);

    lab().startVault();
    ASSERT_EQ(lab().source().run(
                  {lab().source().root() / "usr/dq/bin/ferryd", "util", "replicate", numbers[2], lab().vaultName()}),
              0);
    EXPECT_TRUE(lab().sameOnVault(std::stoull(numbers[2])));
}

}  // namespace
}  // namespace e2e
