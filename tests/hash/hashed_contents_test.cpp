#include "hash/hashed_contents.h"

#include "base/file_descriptor.h"
#include "block/signal_catch.h"
#include "hash_fixture.h"
#include "log/logger.h"
#include "support/bytes.h"

namespace {

namespace fs = std::filesystem;
using namespace testsupport;

class HashedContents : public HashCatalogue {
protected:
    HashedContents() {
        fs::create_directories(disk);
        catalogue.sql("INSERT INTO dq.devices (device_no, dev_nr_name, device_type) VALUES (1, '" + disk.string() +
                      "', 128), (2, '/nowhere', 128), (3, '" + disk.string() + "/longer/but/no/disk', 8)");
        hashID = addHash(data);
    }

    // A backup that holds the block at `offset` of its file, other bytes around it.
    void addBackup(int number, std::int64_t offset, const char* suffix = ".gz") {
        catalogue.sql("INSERT INTO dq.backups (backup_no, properties) VALUES (" + std::to_string(number) + ", 1536)");
        writeFile(fileOf(number, suffix), std::string(static_cast<std::size_t>(offset), 'x') + data + "tail");
        addMapping(static_cast<std::uint64_t>(number), hashID, offset);
    }

    fs::path fileOf(int number, const char* suffix = ".gz") const {
        return disk / ("backup_" + std::to_string(number) + suffix);
    }

    // A record as lists deliver it.
    static hashValue listed(const std::string& block, std::uint64_t id) {
        hashValue value = recordOf(block);
        value.hashID = id;
        value.flags = hashID_out | hashValue_out;
        return value;
    }

    // The whole block into a buffer of that size.
    std::int64_t readInto(std::vector<std::byte>* buffer, hashValue value) {
        return readHashedContents(&handle, &value, *buffer, 0);
    }

    // What a read gives: the right bytes, "wrong bytes", or the result as text.
    std::string read(std::size_t count = 300000, std::int64_t offset = 0, int refresh = 0) {
        std::vector<std::byte> buffer(count);
        hashValue value = listed(data, hashID);
        outFlagsToIn(&value);
        const std::int64_t got = readHashedContents(&handle, &value, buffer, offset, refresh);
        const bool isRight = got <= 0 || std::memcmp(buffer.data(), &data[offset], static_cast<std::size_t>(got)) == 0;
        return isRight ? std::to_string(got) : "wrong bytes";
    }

    FileDescriptor opened(int number) const {
        return FileDescriptor(open(fileOf(number).c_str(), O_RDONLY | O_CLOEXEC));
    }
    bool canLock(int number) const { return flock(opened(number).get(), LOCK_EX | LOCK_NB) == 0; }

    fs::path disk = root / "disk/d2d";
    std::string data = noise(300000, 3);
    std::uint64_t hashID = 0;
    HashedContentsPtr handle;
};

TEST_F(HashedContents, ReadsAnyPartOfABlockFromABackupsFile) {
    addBackup(1, 5000);
    EXPECT_EQ(read(400000), "300000") << "clamped to the block";
    EXPECT_EQ(read(10, 299995), "5");
    EXPECT_EQ(read(10, 300000), "0") << "behind the block";
    EXPECT_EQ(read(10, -1), "-1");
    EXPECT_EQ(read(1), "1");
    std::vector<std::byte> buffer(300000);
    hashValue byName = recordOf(data);
    EXPECT_EQ(readHashedContents(&handle, &byName, buffer, 0), 300000) << "by the digest alone";
    EXPECT_EQ(byName.hashID, hashID);
    EXPECT_EQ(readInto(&buffer, listed(data, hashID)), 300000);
    EXPECT_EQ(readInto(&buffer, recordOf("never seen")), 0);
    EXPECT_EQ(readInto(&buffer, {}), -1) << "without a key";
    EXPECT_EQ(readHashedContents(&handle, nullptr, buffer, 0), -1);
}

TEST_F(HashedContents, LaterPartsComeFromTheReadAheadBufferAsFarAsItGoes) {
    addBackup(1, 100);
    EXPECT_EQ(read(1000), "1000");
    fs::remove(fileOf(1));
    EXPECT_EQ(read(299000, 1000), "299000") << "no file is needed";
    EXPECT_EQ(read(5000, 299000), "1000") << "the end of the block";
    root.masterIni("[fileDedup]\nmaxSubfileBytes=8192\n");
    data.resize(11u << 20, 'z');
    hashID = addHash(data);
    addBackup(2, 100);
    EXPECT_EQ(read(1000, 500), "1000");
    EXPECT_EQ(read(1 << 20, (10 << 20) + 400), "1048176") << "past the end of the buffer";
    EXPECT_TRUE(root.logged("Partial data found in buffer, transfer 100 bytes."));
}

TEST_F(HashedContents, ABufferOfAnIDThatIsUsedAgainIsNotServed) {
    addBackup(1, 100);
    EXPECT_EQ(read(1000, 0), "1000");
    data = std::string(300000, 'n');
    catalogue.sql("UPDATE dq.hash_values SET hash_value = decode('" + hashValueHex(recordOf(data)) + "', 'hex')");
    writeFile(fileOf(1), std::string(100, 'x') + data);
    EXPECT_EQ(read(1000, 0), "1000");
}

TEST_F(HashedContents, TheNextCandidateServesWhenOneIsGoneOrBusyOrBroken) {
    addBackup(1, 700);
    addBackup(2, 100, "");
    addBackup(3, 300);
    EXPECT_EQ(read(), "300000");
    // The newest is busy: its owner is changing it.
    const FileDescriptor owner = opened(3), second = opened(1);
    ASSERT_EQ(flock(owner.get(), LOCK_EX), 0);
    EXPECT_EQ(read(), "300000");
    EXPECT_TRUE(root.logged("Can't lock backup 3"));
    // The next one has no file any more.
    fs::remove(fileOf(2, ""));
    EXPECT_EQ(read(), "300000");
    // Now the last one is busy as well: seen, but none usable.
    ASSERT_EQ(flock(second.get(), LOCK_EX), 0);
    root.clearLog();
    log_level = 0;
    EXPECT_EQ(read(), "-1");
    log_level = 6;
    EXPECT_TRUE(root.logged("Couldn't find a backup to open"));
    ASSERT_EQ(flock(second.get(), LOCK_UN), 0);
    EXPECT_EQ(read(), "300000");
    EXPECT_EQ(flock(second.get(), LOCK_EX | LOCK_NB), 0) << "no lock is kept between two reads";
    catalogue.sql("DELETE FROM dq.backups_hash_values");
    EXPECT_EQ(read(), "0") << "nobody has the data";
}

TEST_F(HashedContents, AFileThatWasReplacedWhileItWasKeptOpenIsOpenedAnew) {
    addBackup(1, 700);
    EXPECT_EQ(read(), "300000");
    // The same backup written anew, with the block at another place.
    writeFile(disk / "new", std::string(50, 'y') + data);
    fs::rename(disk / "new", fileOf(1));
    catalogue.sql("UPDATE dq.backups_hash_values SET file_offset = 50");
    EXPECT_EQ(read(), "300000");
    // The reference moves to another backup while the file of the first one is still there.
    addBackup(2, 9000);
    catalogue.sql("UPDATE dq.backups_hash_values SET deduplicated = 4 WHERE backup_no = 1");
    EXPECT_EQ(read(), "300000");
    catalogue.sql("UPDATE dq.backups_hash_values SET hash_incomplete = true WHERE backup_no = 2");
    EXPECT_EQ(read(), "0");
}

// What is read was seen in the tables while the file was locked; what was seen before may have changed meanwhile.
TEST_F(HashedContents, ThePlaceIsSeenUnderTheLock) {
    addBackup(1, 700);
    catalogue.sql(
        "CREATE FUNCTION dq.gate() RETURNS boolean LANGUAGE sql VOLATILE AS 'SELECT pg_advisory_xact_lock_shared(7); "
        "SELECT true'; ALTER TABLE dq.backups_hash_values RENAME TO away; "
        "CREATE VIEW dq.backups_hash_values AS SELECT * FROM dq.away WHERE dq.gate()");
    for (const bool isKeptOpen : {false, true}) {
        catalogue.sql("SELECT pg_advisory_lock(7)");
        auto reading = std::async(std::launch::async, [&] { return read(); });
        EXPECT_TRUE(catalogue.somebodyWaits()) << "the reader stands before the rows";
        EXPECT_EQ(canLock(1), !isKeptOpen) << "a file that was kept open is locked before the look";
        if (!isKeptOpen) {
            writeFile(fileOf(1), std::string(50, 'y') + data);
            catalogue.sql("UPDATE dq.away SET file_offset = 50");
        }
        catalogue.sql("SELECT pg_advisory_unlock(7)");
        EXPECT_EQ(reading.get(), "300000");
    }
    catalogue.sql(
        "DROP VIEW dq.backups_hash_values; ALTER TABLE dq.away RENAME TO backups_hash_values; DROP FUNCTION dq.gate()");
}

TEST_F(HashedContents, ASignalEndsTheSearchWhateverItsWay) {
    addBackup(1, 700);
    EXPECT_EQ(read(), "300000");
    std::signal(SIGHUP, SIG_IGN);
    const CaughtSignals caught(SignalLayer::hashes, "test");
    raise(SIGHUP);
    EXPECT_EQ(read(), "-1") << "in the open backup";
    EXPECT_EQ(read(), "-1") << "in any";
}

TEST_F(HashedContents, AShortFileFailsAndBuffersNothing) {
    addBackup(1, 100);
    fs::resize_file(fileOf(1), 100 + 200000);
    EXPECT_EQ(read(), "-1");
    EXPECT_EQ(read(100000, 50000), "100000") << "what is there can be read";
    EXPECT_EQ(read(100000, 150000), "-1") << "half of it from the buffer, the rest missing";
    fs::resize_file(fileOf(1), 100);
    handle.reset();
    EXPECT_EQ(read(10), "-1") << "a reference to nothing is a failure, not an empty block";
}

TEST_F(HashedContents, ACandidateThatCannotBeSeekedIsNotTriedAgainAndAgain) {
    addBackup(2, 0);
    writeFile(fileOf(2), "\x1f\x8b\x08" + data);  // compressed, as far as anyone can tell
    catalogue.sql("UPDATE dq.backups_hash_values SET file_offset = 3");
    EXPECT_EQ(read(), "-1");
    addBackup(1, 700, "");
    EXPECT_EQ(read(), "300000");
}

TEST_F(HashedContents, ABlockThatTheStoreCannotGiveIsReadFromABackup) {
    addBackup(1, 700);
    catalogue.sql("UPDATE dq.hash_values SET sis_offset = 4096");
    EXPECT_EQ(read(300000, 0, 1), "300000");
    catalogue.sql("DELETE FROM dq.backups_hash_values");
    EXPECT_EQ(read(300000, 0, 1), "0");
}

// Announced blocks are read without a statement a block, under one lock that lasts until they are withdrawn; those that
// lie elsewhere are read as ever.
TEST_F(HashedContents, AnnouncedBlocksAreLookedUpTogether) {
    addBackup(1, 5000);
    addBackup(2, 7000);
    std::vector<std::byte> buffer(1000);
    const auto canReadAll = [&](std::initializer_list<hashValue> blocks) {
        return std::ranges::all_of(blocks, [&](const hashValue& block) { return readInto(&buffer, block) == 1000; }) &&
               read(300000, 0, 1) == "300000";
    };
    const std::string near(1000, 'o'), far(1000, 'f');
    hashValue first = listed(data, hashID);
    hashValue second = listed(near, addHash(near));
    hashValue third = listed(far, addHash(far));
    hashValue gone = listed("gone", 4711);
    outFlagsToIn(&first);
    addMapping(1, second.hashID, 100);
    addMapping(2, third.hashID, 100);
    catalogue.sql("DELETE FROM dq.backups_hash_values WHERE backup_no = 2 AND hash_id = " + std::to_string(hashID));
    writeFile(fileOf(1), std::string(100, 'x') + near + std::string(3900, 'x') + data);
    writeFile(fileOf(2), std::string(100, 'x') + far);
    const std::vector<hashValue*> announced{&first, &second, &gone, &third};
    ASSERT_EQ(announceHashedContents(&handle, announced), 0);
    EXPECT_FALSE(canLock(1));
    catalogue.sql("ALTER TABLE dq.backups_hash_values RENAME TO away");
    EXPECT_TRUE(canReadAll({second}));
    EXPECT_FALSE(canReadAll({third})) << "the table is asked";
    withdrawHashedContents(&handle);
    EXPECT_TRUE(canLock(1));
    EXPECT_FALSE(canReadAll({second})) << "now the table is asked";
    EXPECT_EQ(announceHashedContents(&handle, announced), -1);
    catalogue.sql("ALTER TABLE dq.away RENAME TO backups_hash_values");
    EXPECT_TRUE(canReadAll({second, third})) << "as if nothing had been announced";
    ASSERT_EQ(announceHashedContents(&handle, announced), 0);
    EXPECT_TRUE(canReadAll({second, third, second, third})) << "with another file in between";
    EXPECT_LE(readInto(&buffer, gone), 0);
    ASSERT_EQ(announceHashedContents(&handle, announced), 0);
    fs::remove(fileOf(2));
    EXPECT_TRUE(canReadAll({second})) << "with a file that has gone meanwhile";
    EXPECT_EQ(announceHashedContents(nullptr, {}), -1);
}

}  // namespace
