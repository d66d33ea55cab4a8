// Blocks that lie in the single instance store, as readers of hashed contents see them.

#include "hash/store_access.h"

#include "base/file_descriptor.h"
#include "hash/hashed_contents.h"
#include "support/hashed_backup.h"

namespace {

namespace fs = std::filesystem;
using namespace testsupport;

class StoreAccess : public HashedBackup {
protected:
    StoreAccess() {
        fs::create_directories(root / "backups");
        std::string page(4096, '\0');
        const std::uint64_t sizes[] = {8192, 0x1000000};
        std::memcpy(&page[24], sizes, sizeof sizes);
        writeFile(root / "backups/SISinfo", page);
        catalogue.sql("UPDATE dq.devices SET dedup = true, capacity = 134217728");
        root.masterIni("[fileDedup]\n  useSIScompression=true\n  maxSubfileBytes=8192\n");
        makeBackup(1, {data});
    }
    ~StoreAccess() override { tellCompressedLengthColumn(false); }

    void moveToStore() {
        HashValuesPtr hashes;
        const SISPtr store = openStoreForWriting(&hashes);
        ASSERT_TRUE(store);
        hashValue stored = recordOf(data);
        ASSERT_EQ(reserveSIS(store.get(), &stored.SISoffset, whole), 0);
        const auto bytes = std::as_bytes(std::span(data.data(), data.size()));
        ASSERT_EQ(writeSISsubfile(store.get(), bytes, stored.SISoffset, &stored), whole);
        stored.flags = hashValue_in | SISoffset_in;
        ASSERT_GE(updateSISoffsets(&hashes, {&stored, 1}), 0);
        catalogue.sql("UPDATE dq.backups_hash_values SET deduplicated = 1");
    }

    // The result of a read, and whether the bytes were right.
    std::int64_t read(std::size_t count, std::int64_t offset) {
        std::vector<std::byte> buffer(count);
        const std::int64_t got = readHashedContents(&handle, &record, buffer, offset);
        EXPECT_TRUE(got <= 0 || std::memcmp(buffer.data(), &data[offset], static_cast<std::size_t>(got)) == 0);
        return got;
    }

    std::int64_t readAll() { return read(data.size(), 0); }

    static FileDescriptor lockedBy(const fs::path& owner) {
        FileDescriptor file(open(owner.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(flock(file.get(), LOCK_EX), 0);
        return file;
    }

    const std::string data = randomBytes(200000, 1) + std::string(300000, 'c') + randomBytes(11 << 10, 2);
    const std::int64_t whole = static_cast<std::int64_t>(data.size());
    hashValue record = recordOf(data);
    HashedContentsPtr handle;
};

TEST_F(StoreAccess, ABlockThatMovedIntoTheStoreBetweenTwoReadsIsReadFromThere) {
    EXPECT_EQ(readAll(), whole);
    moveToStore();
    EXPECT_NE(catalogue.value("SELECT compressed_length FROM dq.hash_values"), "0");
    fs::remove(fileOf(1));
    EXPECT_EQ(readAll(), whole);
    EXPECT_EQ(read(100, 250000), 100);
    EXPECT_TRUE(root.logged("Data buffered (261264 bytes), transfer 100 bytes")) << "to the end of the block";
    EXPECT_EQ(read(1000, 100), 1000) << "before what is buffered";
    EXPECT_EQ(read(1000, whole - 10), 10);
}

// Nobody holds the file of a block that was announced but lies elsewhere than the first: its owner may move it.
TEST_F(StoreAccess, AnAnnouncedBlockThatMovesBeforeItIsReadIsReadFromItsNewPlace) {
    const std::string other(1000, 'o');
    makeBackup(2, {other});
    hashValue blocks[] = {recordOf(other), recordOf(data)};
    hashValue& moving = blocks[1];
    HashValuesPtr hashes;
    ASSERT_EQ(getHashValues(&hashes, blocks), 0);
    const std::vector<hashValue*> announced{&blocks[0], &moving};
    const auto readsRight = [&] {
        record = moving;
        const bool isRight = readAll() == whole;
        withdrawHashedContents(&handle);
        return isRight;
    };
    ASSERT_EQ(announceHashedContents(&handle, announced), 0);
    moveToStore();
    EXPECT_TRUE(readsRight()) << "from a file to the store";
    catalogue.sql(
        "UPDATE dq.hash_values SET sis_offset = sis_offset + 8192 WHERE sis_offset IS NOT NULL;"
        "UPDATE dq.backups_hash_values SET deduplicated = NULL");
    handle.reset();
    ASSERT_EQ(announceHashedContents(&handle, std::span(announced).last(1)), 0);
    catalogue.sql("UPDATE dq.hash_values SET sis_offset = sis_offset - 8192 WHERE sis_offset IS NOT NULL");
    EXPECT_TRUE(readsRight()) << "within the store";
    catalogue.sql("UPDATE dq.hash_values SET sis_offset = NULL; UPDATE dq.backups_hash_values SET deduplicated = NULL");
    {
        const FileDescriptor owners[] = {lockedBy(fileOf(1)), lockedBy(fileOf(2))};
        ASSERT_EQ(announceHashedContents(&handle, announced), 0);
        moveToStore();
    }
    EXPECT_TRUE(readsRight()) << "out of a file that nobody could lock";
}

TEST_F(StoreAccess, AStoreThatCannotBeOpenedLeavesTheBackupsAndOneThatCannotBeReadFails) {
    moveToStore();
    catalogue.sql("UPDATE dq.backups_hash_values SET deduplicated = NULL");
    const std::string info = readFile(root / "backups/SISinfo");
    writeFile(root / "backups/SISinfo", "\x07" + info.substr(1));
    EXPECT_EQ(readAll(), whole);
    EXPECT_TRUE(root.logged("Can't handle single instance store version 0x00000007"));
    writeFile(root / "backups/SISinfo", info);
    fs::resize_file(root / "disk/SIS/0000000000000000", 100000);
    EXPECT_EQ(readAll(), -1);
    EXPECT_TRUE(root.logged("Error or premature end-of-file reading single instance store"));
    EXPECT_EQ(read(1000, 5), -1) << "and nothing of it is buffered";
}

}  // namespace
