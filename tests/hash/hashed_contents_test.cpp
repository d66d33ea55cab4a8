#include "hash/hashed_contents.h"

#include "base/file_descriptor.h"
#include "block/signal_catch.h"
#include "hash_fixture.h"
#include "log/logger.h"
#include "support/test.h"

namespace {

namespace fs = std::filesystem;
using testsupport::recordOf;
using testsupport::writeFile;

class HashedContents : public testsupport::HashCatalogue {
protected:
    HashedContents() {
        disk = root / "disk/d2d";
        fs::create_directories(disk);
        catalogue.sql("INSERT INTO dq.devices (device_no, dev_nr_name, device_type) VALUES (1, '" + disk.string() +
                      "', 128), (2, '/nowhere', 128), (3, '" + disk.string() + "/longer/but/no/disk', 8)");
        std::mt19937_64 random(3);
        for (char& byte : data)
            byte = static_cast<char>(random());
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

    hashValue record() const {
        hashValue value = listed(data, hashID);
        outFlagsToIn(&value);
        return value;
    }

    // A record as lists deliver it.
    static hashValue listed(const std::string& block, std::uint64_t id) {
        hashValue value = recordOf(block);
        value.hashID = id;
        value.flags = hashID_out | hashValue_out;
        return value;
    }

    bool canLock(int number) const {
        const FileDescriptor file(open(fileOf(number).c_str(), O_RDONLY | O_CLOEXEC));
        return flock(file.get(), LOCK_EX | LOCK_NB) == 0;
    }

    // What a read gives: the right bytes, "wrong bytes", or the result as text.
    std::string read(std::size_t count, std::int64_t offset = 0, int refresh = 0) {
        std::vector<std::byte> buffer(count);
        hashValue value = record();
        const std::int64_t got = readHashedContents(&handle, &value, buffer, offset, refresh);
        if (got <= 0)
            return std::to_string(got);
        const auto size = static_cast<std::size_t>(got);
        return std::memcmp(buffer.data(), data.data() + offset, size) == 0 ? "ok " + std::to_string(got)
                                                                           : "wrong bytes";
    }

    fs::path disk;
    std::string data = std::string(300000, ' ');
    std::uint64_t hashID = 0;
    HashedContentsPtr handle;
};

TEST_F(HashedContents, ReadsAnyPartOfABlockFromABackupsFile) {
    addBackup(1, 5000);
    EXPECT_EQ(read(300000), "ok 300000");
    EXPECT_EQ(read(400000), "ok 300000") << "clamped to the block";
    EXPECT_EQ(read(10, 299995), "ok 5");
    EXPECT_EQ(read(10, 300000), "0") << "behind the block";
    EXPECT_EQ(read(10, -1), "-1");
    EXPECT_EQ(read(1, 0), "ok 1");
    std::vector<std::byte> buffer(300000);
    hashValue byName = recordOf(data);
    EXPECT_EQ(readHashedContents(&handle, &byName, buffer, 0), 300000) << "by the digest alone";
    EXPECT_EQ(byName.hashID, hashID);
    hashValue delivered = listed(data, hashID);
    EXPECT_EQ(readHashedContents(&handle, &delivered, buffer, 0), 300000);
    hashValue unknown = recordOf("never seen");
    EXPECT_EQ(readHashedContents(&handle, &unknown, buffer, 0), 0);
    hashValue keyless{};
    EXPECT_EQ(readHashedContents(&handle, &keyless, buffer, 0), -1);
    EXPECT_EQ(readHashedContents(&handle, nullptr, buffer, 0), -1);
    EXPECT_TRUE(root.logged("readHashedContents(, NULL, ,, 0x0): Invalid argument"));
}

TEST_F(HashedContents, LaterPartsComeFromTheReadAheadBuffer) {
    addBackup(1, 100);
    EXPECT_EQ(read(1000, 0), "ok 1000");
    EXPECT_TRUE(root.logged("Data buffered (300000 bytes), transfer 1000 bytes"));
    fs::remove(fileOf(1));
    EXPECT_EQ(read(299000, 1000), "ok 299000") << "no file is needed";
    EXPECT_EQ(read(5000, 299000), "ok 1000") << "the end of the block";
}

TEST_F(HashedContents, APartlyBufferedReadIsCompletedFromTheFile) {
    root.masterIni("[fileDedup]\nmaxSubfileBytes=8192\n");
    data.resize(11u << 20, 'z');
    hashID = addHash(data);
    addBackup(1, 100);
    EXPECT_EQ(read(1000, 500), "ok 1000");
    root.clearLog();
    EXPECT_EQ(read(1 << 20, (10 << 20) + 400), "ok 1048176") << "past the end of the buffer";
    EXPECT_TRUE(root.logged("Partial data found in buffer, transfer 100 bytes."));
}

TEST_F(HashedContents, ABufferOfAnIDThatIsUsedAgainIsNotServed) {
    addBackup(1, 100);
    EXPECT_EQ(read(1000, 0), "ok 1000");
    catalogue.sql("DELETE FROM dq.hash_values");
    data = std::string(300000, 'n');
    const hashValue other = recordOf(data);
    catalogue.sql("INSERT INTO dq.hash_values VALUES (" + std::to_string(hashID) + ", 'sha512', 300000, decode('" +
                  hashValueHex(other) + "', 'hex'))");
    writeFile(fileOf(1), std::string(100, 'x') + data);
    EXPECT_EQ(read(1000, 0), "ok 1000");
}

TEST_F(HashedContents, TheNextCandidateServesWhenOneIsGoneOrBusyOrBroken) {
    addBackup(1, 700);
    addBackup(2, 100, "");
    addBackup(3, 300);
    EXPECT_EQ(read(300000), "ok 300000");
    const auto openFile = [&](int number) { return root.logged("Can't lock backup " + std::to_string(number)); };
    // The newest is busy: its owner is changing it.
    const FileDescriptor owner(open(fileOf(3).c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(owner.get(), LOCK_EX), 0);
    EXPECT_EQ(read(300000), "ok 300000");
    EXPECT_TRUE(openFile(3));
    // The next one has no file any more.
    fs::remove(fileOf(2, ""));
    EXPECT_EQ(read(300000), "ok 300000");
    EXPECT_TRUE(root.logged("Can't open backup 2 file"));
    // Now the last one is busy as well: seen, but none usable.
    const FileDescriptor second(open(fileOf(1).c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(flock(second.get(), LOCK_EX), 0);
    root.clearLog();
    log_level = 0;
    EXPECT_EQ(read(300000), "-1");
    log_level = 6;
    EXPECT_TRUE(root.logged("Couldn't find a backup to open")) << "a failure";
    ASSERT_EQ(flock(second.get(), LOCK_UN), 0);
    EXPECT_EQ(read(300000), "ok 300000");
    EXPECT_EQ(flock(second.get(), LOCK_EX | LOCK_NB), 0) << "no lock is kept between two reads";
    catalogue.sql("DELETE FROM dq.backups_hash_values");
    EXPECT_EQ(read(300000), "0") << "nobody has the data";
}

TEST_F(HashedContents, AFileThatWasReplacedWhileItWasKeptOpenIsOpenedAnew) {
    addBackup(1, 700);
    EXPECT_EQ(read(300000), "ok 300000");
    // The same backup written anew, with the block at another place.
    writeFile(disk / "new", std::string(50, 'y') + data);
    fs::rename(disk / "new", fileOf(1));
    catalogue.sql("UPDATE dq.backups_hash_values SET file_offset = 50");
    EXPECT_EQ(read(300000), "ok 300000");
    // The reference moves to another backup while the file of the first one is still there.
    addBackup(2, 9000);
    catalogue.sql("UPDATE dq.backups_hash_values SET deduplicated = 4 WHERE backup_no = 1");
    EXPECT_EQ(read(300000), "ok 300000");
    catalogue.sql("UPDATE dq.backups_hash_values SET hash_incomplete = true WHERE backup_no = 2");
    EXPECT_EQ(read(300000), "0");
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
        auto reading = std::async(std::launch::async, [&] { return read(300000); });
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (catalogue.value("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0" &&
               std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        // The reader stands before the rows.
        EXPECT_EQ(canLock(1), !isKeptOpen) << "a file that was kept open is locked before the look";
        if (!isKeptOpen) {
            writeFile(fileOf(1), std::string(50, 'y') + data);
            catalogue.sql("UPDATE dq.away SET file_offset = 50");
        }
        catalogue.sql("SELECT pg_advisory_unlock(7)");
        EXPECT_EQ(reading.get(), "ok 300000");
    }
    catalogue.sql("DROP VIEW dq.backups_hash_values; ALTER TABLE dq.away RENAME TO backups_hash_values");
    catalogue.sql("DROP FUNCTION dq.gate()");
}

TEST_F(HashedContents, ASignalEndsTheSearchWhateverItsWay) {
    addBackup(1, 700);
    EXPECT_EQ(read(300000), "ok 300000");
    std::signal(SIGHUP, SIG_IGN);
    const CaughtSignals caught(SignalLayer::hashes, "test");
    raise(SIGHUP);
    EXPECT_EQ(read(300000), "-1") << "in the open backup";
    EXPECT_EQ(read(300000), "-1") << "in any";
}

TEST_F(HashedContents, AShortFileFailsAndBuffersNothing) {
    addBackup(1, 100);
    EXPECT_EQ(read(1000, 0), "ok 1000");
    fs::resize_file(fileOf(1), 100 + 200000);
    handle.reset();
    EXPECT_EQ(read(300000), "-1");
    EXPECT_TRUE(root.logged("Error or premature end-of-file reading backup 1"));
    EXPECT_EQ(read(100000, 50000), "ok 100000") << "what is there can be read";
    EXPECT_EQ(read(100000, 150000), "-1") << "half of it from the buffer, the rest missing";
    fs::resize_file(fileOf(1), 100);
    handle.reset();
    EXPECT_EQ(read(10), "-1") << "a reference to nothing is a failure, not an empty block";
}

TEST_F(HashedContents, ACandidateThatCannotBeSeekedIsNotTriedAgainAndAgain) {
    addBackup(2, 0);
    writeFile(fileOf(2), "\x1f\x8b\x08" + data);  // compressed, as far as anyone can tell
    catalogue.sql("UPDATE dq.backups_hash_values SET file_offset = 3");
    EXPECT_EQ(read(300000), "-1");
    EXPECT_TRUE(root.logged("Can't seek to 0x3 in backup 2"));
    addBackup(1, 700, "");
    EXPECT_EQ(read(300000), "ok 300000");
}

TEST_F(HashedContents, ABlockThatTheStoreCannotGiveIsReadFromABackup) {
    addBackup(1, 700);
    catalogue.sql("UPDATE dq.hash_values SET sis_offset = 4096");
    EXPECT_EQ(read(300000, 0, 1), "ok 300000");
    EXPECT_TRUE(root.logged("Can't open the single instance store"));
    catalogue.sql("DELETE FROM dq.backups_hash_values");
    EXPECT_EQ(read(300000, 0, 1), "0");
}

// Announced blocks are read without a statement a block, under one lock that lasts until they are withdrawn; those that
// lie elsewhere are read as ever.
TEST_F(HashedContents, AnnouncedBlocksAreLookedUpTogether) {
    addBackup(1, 5000);
    addBackup(2, 7000);
    const auto canReadAll = [&](std::initializer_list<hashValue> blocks) {
        std::vector<std::byte> buffer(1000);
        for (hashValue block : blocks)
            if (readHashedContents(&handle, &block, buffer, 0) != 1000)
                return false;
        return read(300000, 0, 1) == "ok 300000";
    };
    const std::string near(1000, 'o');
    const std::string far(1000, 'f');
    const std::uint64_t ids[] = {addHash(near), addHash(far)};
    addMapping(1, ids[0], 100);
    addMapping(2, ids[1], 100);
    catalogue.sql("DELETE FROM dq.backups_hash_values WHERE backup_no = 2 AND hash_id = " + std::to_string(hashID));
    writeFile(fileOf(1), std::string(100, 'x') + near + std::string(3900, 'x') + data);
    writeFile(fileOf(2), std::string(100, 'x') + far);
    hashValue first = record();
    hashValue second = listed(near, ids[0]);
    hashValue third = listed(far, ids[1]);
    hashValue gone = listed("gone", 4711);
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
    std::vector<std::byte> buffer(1000);
    EXPECT_LE(readHashedContents(&handle, &gone, buffer, 0), 0);
    ASSERT_EQ(announceHashedContents(&handle, announced), 0);
    fs::remove(fileOf(2));
    EXPECT_TRUE(canReadAll({second})) << "with a file that has gone meanwhile";
    EXPECT_EQ(announceHashedContents(nullptr, {}), -1);
}

}  // namespace
