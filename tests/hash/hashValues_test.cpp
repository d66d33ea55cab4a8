#include "hash/hashValues.h"

#include "hash/hash_list.h"
#include "hash/hashed_contents.h"
#include "hash/store_access.h"
#include "hash_fixture.h"

namespace {

using namespace testsupport;

class HashValues : public HashCatalogue {
protected:
    std::string count(const std::string& table) { return catalogue.value("SELECT count(*) FROM dq." + table); }

    HashValuesPtr handle;
    std::vector<hashValue> list = {recordOf("a")};
    std::vector<hashOffset> offsets = {at(0)};
};

TEST_F(HashValues, RecordsAreFoundByIDAndByDigestWhateverTheOrder) {
    std::vector<hashValue> put = records(0, 1500);
    offsets.clear();
    for (int i = 0; i < 1500; ++i)
        offsets.push_back(at(i * 100));
    ASSERT_EQ(putAllHashValues(&handle, 3, 0, put, offsets), 0);
    EXPECT_EQ(count("backups_hash_values WHERE backup_no = 3"), "1500");

    std::vector<hashReferenceInfo> wanted(3001);
    for (std::size_t i = 0; i < 1500; ++i) {
        static_cast<hashValue&>(wanted[i]) = recordOf("block " + std::to_string(1499 - i));
        wanted[i + 1500].flags = hashID_in | hashValue_out;  // the out bit is of an earlier lookup
        wanted[i + 1500].hashID = put[i].hashID;
    }
    static_cast<hashValue&>(wanted[3000]) = wanted[7];  // the same block twice
    ASSERT_EQ(getHashValues_hri(&handle, wanted), 0);
    for (std::size_t i = 0; i < 1500; ++i) {
        const hashReferenceInfo& byID = wanted[i + 1500];
        ASSERT_EQ(wanted[i].flags, hashValue_in | hashID_out | hashValue_out);
        ASSERT_TRUE(wanted[i].hashID == put[1499 - i].hashID && wanted[i].SISoffset == NO_SIS_OFFSET);
        ASSERT_EQ(byID.flags, hashID_in | hashID_out | hashValue_out);
        ASSERT_EQ(hashValueHex(byID), hashValueHex(put[i]));
        ASSERT_EQ(byID.hashedLength, put[i].hashedLength);
    }
    EXPECT_EQ(wanted[3000].hashID, wanted[7].hashID);
}

TEST_F(HashValues, ARecordWithoutARowOrAKeyStaysWithoutOutFlags) {
    const std::uint64_t known = addHash("known");
    list = {recordOf("unknown"), {}, {}, recordOf("known"), recordOf("known")};
    list[1].flags = hashID_in;
    list[1].hashID = known + 1000;
    list[2].flags = hashID_out;
    std::memcpy(list[4].hashType, "md5\0\0\0", 7);
    ASSERT_EQ(getHashValues(&handle, list), 0);
    const std::uint32_t flags[] = {hashValue_in, hashID_in, 0, hashValue_in | hashValue_out | hashID_out, hashValue_in};
    for (std::size_t i = 0; i < list.size(); ++i)
        EXPECT_EQ(list[i].flags, flags[i]) << i;
    EXPECT_TRUE(root.logged("Unknown hash type in entry 4: 'md5"));
    EXPECT_EQ(getHashValues(nullptr, list), -1);
}

TEST_F(HashValues, DuplicatesInOnePutAreStoredOnceAndAllTold) {
    list = {recordOf("a"), recordOf("b"), recordOf("a"), recordOf("a")};
    offsets = {at(0), at(10), at(0), at(20)};
    ASSERT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), 0);
    EXPECT_EQ(count("hash_values"), "2");
    EXPECT_EQ(count("backups_hash_values"), "3");
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(offsets[i].flags, offset_in | offset_out);
        EXPECT_EQ(list[i].flags, hashValue_in | hashID_out | hashValue_out);
    }
    offsets.push_back(at(30));
    list.push_back(recordOf("c"));
    ASSERT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), 0) << "again, with one more";
    for (std::size_t i = 0; i < 5; ++i)
        EXPECT_EQ(offsets[i].flags, i == 4 ? offset_in | offset_out : offset_in) << i;
    EXPECT_EQ(count("backups_hash_values"), "4");
}

TEST_F(HashValues, AFailedPutLeavesNothingBehind) {
    list = records(0, 3);
    offsets = {at(0), at(10), {0, 0, 20}};
    const auto expectFailure = [&](const char* what) {
        EXPECT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), -1) << what;
        EXPECT_EQ(count("hash_values"), "0") << what;
    };
    expectFailure("a mapping without an offset");
    offsets[2] = at(10);
    expectFailure("two hashes at one place");
    for (const hashOffset& offset : offsets)
        EXPECT_EQ(offset.flags, offset_in);
    offsets[2] = at(20);
    EXPECT_EQ(putBackupsHashValues(&handle, 1, 0, list, offsets), -1) << "hashes that must exist";
    EXPECT_EQ(putAllHashValues(&handle, 1, 0, list, std::span(offsets).first(2)), -1) << "lists of unlike length";
    std::memcpy(list[1].hashType, "sha1\0\0", 7);
    expectFailure("an unknown type");
    list[1] = recordOf("block 1");
    EXPECT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), 0) << "the handle is still good";
    EXPECT_EQ(putBackupsHashValues(&handle, 2, 0, list, offsets), 0);
    EXPECT_EQ(count("hash_values"), "3");
}

TEST_F(HashValues, ADeduplicatedMappingNeedsDataSomewhere) {
    const std::uint64_t inBackup = addHash("in a backup");
    addMapping(1, inBackup, 0);
    addMapping(1, addHash("half hashed"), 100, "NULL", true);
    addMapping(1, addHash("only a reference"), 200, "7");
    list = {recordOf("in a backup"), recordOf("half hashed"), recordOf("only a reference"), recordOf("in the store"),
            recordOf("nowhere")};
    list[3].flags |= SISoffset_in;
    list[3].SISoffset = 0x800000;
    list[3].compressedLength = 11;
    offsets = {at(0), at(1), at(2), at(3), at(4)};
    ASSERT_EQ(putAllHashValues(&handle, 2, 9, list, offsets), 0);
    const bool inserted[] = {true, false, false, true, false};
    for (std::size_t i = 0; i < list.size(); ++i)
        EXPECT_EQ((offsets[i].flags & offset_out) != 0, inserted[i]) << i;
    EXPECT_TRUE(root.logged("checkForDataPSQL(): Did NOT find Data for hashID " + std::to_string(list[4].hashID)));
    EXPECT_EQ(catalogue.rows("SELECT file_offset, deduplicated, hash_incomplete FROM dq.backups_hash_values WHERE "
                             "backup_no = 2 ORDER BY 1"),
              "0|9|f\n3|9|f");
    EXPECT_EQ(list[3].flags & SISoffset_out, SISoffset_out);
    EXPECT_EQ(catalogue.value("SELECT sis_offset || ' ' || compressed_length FROM dq.hash_values WHERE sis_offset IS "
                              "NOT NULL"),
              "8388608 11");
}

TEST_F(HashValues, ADatabaseWithoutCompressedLengthIsServedToo) {
    catalogue.sql("ALTER TABLE dq.hash_values DROP COLUMN compressed_length");
    list[0].flags |= SISoffset_in;
    list[0].SISoffset = 4096;
    ASSERT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), 0);
    list[0].SISoffset = 8192;
    ASSERT_EQ(updateSISoffsets(&handle, list), 0);
    EXPECT_EQ(catalogue.value("SELECT sis_offset FROM dq.hash_values"), "8192");
    SIShashReference references[2];
    EXPECT_TRUE(getSIShashReferencesBySISoffset(&handle, 0, references) == 1 && references[0].SISoffset == 8192);
}

TEST_F(HashValues, UpdateChangesTheMappingsThatItsBoundsName) {
    hashReferenceInfo record{};
    record.backupNumber = 4;
    record.hashID = addHash("a");
    const auto expect = [&](const char* what, std::uint32_t referenceFlags, std::uint64_t deduplicated,
                            std::int64_t first, std::int64_t last, std::int64_t changed, const char* rows) {
        catalogue.sql("DELETE FROM dq.backups_hash_values");
        for (const std::int64_t offset : {0, 10, 20})
            addMapping(4, record.hashID, offset, "7", true);
        record.referenceFlags = referenceFlags;
        record.deduplicated = deduplicated;
        EXPECT_EQ(updateHashInfo(&handle, record, first, last), changed) << what;
        EXPECT_EQ(catalogue.rows("SELECT file_offset, deduplicated, hash_incomplete FROM dq.backups_hash_values "
                                 "ORDER BY 1"),
                  rows)
            << what;
    };
    const std::uint32_t complete = complete_in | reference_complete;
    expect("nothing to do", 0, 5, 0, INT64_MAX, 0, "0|7|t\n10|7|t\n20|7|t");
    expect("all complete", complete, 5, 0, INT64_MAX, 3, "0|7|f\n10|7|f\n20|7|f");
    expect("0 writes the default", deduplicated_in, 0, 10, 10, 1, "0|7|t\n10||t\n20|7|t");
    expect("a first bound is the only one", deduplicated_in, 5, 10, 15, 2, "0|7|t\n10|5|t\n20|5|t");
    expect("the last bound without a first", deduplicated_in, 5, 0, 10, 2, "0|5|t\n10|5|t\n20|7|t");
    record.flags = hashID_in;
    expect("both", deduplicated_in | complete, 5, 0, 0, 1, "0|5|f\n10|7|t\n20|7|t");
    EXPECT_EQ(deleteHashValueMappings(&handle, 4, 10, 15), 1);
    EXPECT_EQ(deleteHashValueMappings(&handle, 4, 0, INT64_MAX), 2);
}

TEST_F(HashValues, OrphansAreDeletedAndWhatIsUsedStays) {
    const std::uint64_t used = addHash("used");
    addMapping(1, used, 0);
    addMapping(2, used, 0);
    addHash("orphan in the store");
    catalogue.sql("UPDATE dq.hash_values SET compressed_length = 3, sis_offset = CASE hash_id WHEN " +
                  std::to_string(used) + " THEN 8192 ELSE 4096 END");
    addMapping(1, addHash("mapped"), 50);
    addHash("orphan");
    SIShashReference reference[1];
    ASSERT_EQ(getSIShashReferencesBySISoffset(&handle, 100, reference), 1) << "behind a page of orphans";
    EXPECT_TRUE(reference[0].hashID == used && reference[0].compressedLength == 3);
    EXPECT_TRUE(getSIShashReferencesBySISoffset(&handle, 8193, reference) == 0 &&
                reference[0].SISoffset == NO_SIS_OFFSET);
    EXPECT_EQ(deleteOrphanedHashes(&handle, 100), 1);
    EXPECT_EQ(count("hash_values"), "2");
    EXPECT_EQ(count("hash_values JOIN dq.backups_hash_values USING (hash_id)"), "3") << "both are mapped";
}

TEST_F(HashValues, AServerThatWasRestartedIsConnectedToAgain) {
    addHash("a");
    ASSERT_EQ(getHashValues(&handle, list), 0);
    catalogue.restart();
    ASSERT_EQ(getHashValues(&handle, list), 0);
    EXPECT_EQ(list[0].flags & hashID_out, hashID_out);
    root.masterIni("[fileDedup]\n  dbconnectTries=2\n");
    const std::string services = getenv("PGSERVICEFILE");
    setenv("PGSERVICEFILE", "/dev/null", 1);
    handle.reset();
    EXPECT_EQ(getHashValues(&handle, list), -1);
    setenv("PGSERVICEFILE", services.c_str(), 1);
    EXPECT_TRUE(root.logged("ERROR: Exceeded retry count without making a connection."));
}

// A statement isn't repeated on a new connection inside a transaction: the locks and the first half are gone.
TEST_F(HashValues, APutWhoseServerProcessDiesLeavesNothingBehind) {
    catalogue.sql(
        "CREATE SEQUENCE dq.lives; CREATE FUNCTION dq.die() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN IF "
        "nextval('dq.lives') = 1 THEN PERFORM pg_terminate_backend(pg_backend_pid()); END IF; RETURN NULL; END $$; "
        "CREATE TRIGGER dies AFTER INSERT ON dq.backups_hash_values FOR EACH STATEMENT EXECUTE FUNCTION dq.die()");
    list = records(0, 3);
    offsets = {at(0), at(10), at(20)};
    EXPECT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), -1);
    EXPECT_EQ(count("hash_values"), "0");
    catalogue.sql("DROP FUNCTION dq.die() CASCADE; DROP SEQUENCE dq.lives");
    EXPECT_EQ(putAllHashValues(&handle, 1, 0, list, offsets), 0);
}

TEST_F(HashValues, AnotherGenerationIsRefusedBeforeAnythingIsTouched) {
    writeFile(root / "var/opt/kestrelix/platform_capabilities", "dedupNT\n");
    root.masterIni("[fileDedup]\nMetadataGeneration=1\n");
    forgetMetadataGeneration();
    EXPECT_TRUE(putAllHashValues(&handle, 1, 0, list, offsets) == -1 && getHashValues(&handle, list) == -1);
    EXPECT_FALSE(openStoreForWriting(&handle));
    EXPECT_TRUE(root.logged("Invalid metadata generation: 1"));
    EXPECT_FALSE(handle);
    HashedContentsPtr contents;
    EXPECT_EQ(announceHashedContents(&contents, std::vector{&list[0]}), 0) << "a help that isn't needed";
    HashListPtr blocks;
    EXPECT_EQ(createHashList(&blocks, 1, {}, 1), -1);
}

}  // namespace
