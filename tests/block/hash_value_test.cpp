#include "block/hash_value.h"

#include "support/block_record.h"
#include "support/root.h"

namespace {

using testsupport::recordOf;
using testsupport::TestRoot;

const std::string ABC_DIGEST =
    "DDAF35A193617ABACC417349AE20413112E6FA4E89A97EA20A9EEEE64B55D39A"
    "2192992A274FC1A836BA3C23A3FEEBBD454D4423643CE80E2A9AC94FA54CA49F";

TEST(Tuple3, NamesABlockAndIsReadBack) {
    const TestRoot root;
    char text[TUPLE3_SIZE];
    ASSERT_EQ(hashValueTo3tuple(recordOf("abc"), text, sizeof text), 0);
    EXPECT_EQ(text, "b-sha512-3-" + ABC_DIGEST);
    EXPECT_EQ(hashValueTo3tuple(recordOf("abc"), text, std::strlen(text)), -1) << "no room for the NUL";
    hashValue longest = recordOf("abc");
    longest.hashedLength = UINT64_MAX;
    std::memcpy(longest.hashType, "8letters", 8);
    EXPECT_EQ(hashValueTo3tuple(longest, text, sizeof text), 0) << "a type without a NUL";
    hashValue back{};
    EXPECT_EQ(tuple3ToHashValue(text, &back), 0);
    longest.flags = hashValue_in;
    EXPECT_EQ(std::memcmp(&back, &longest, sizeof back), 0);
}

TEST(Tuple3, RefusedTextLeavesAZeroedRecord) {
    TestRoot root;
    const hashValue zero{};
    const auto expect = [&](const std::string& text, bool good, bool logged = false) {
        root.clearLog();
        hashValue value = recordOf("other");
        EXPECT_EQ(tuple3ToHashValue(text, &value), good ? 0 : -1) << text;
        EXPECT_EQ(value.flags, good ? hashValue_in : 0u) << text;
        EXPECT_EQ(std::memcmp(&value, &zero, sizeof value) == 0, !good) << text;
        EXPECT_EQ(root.logged("Not a valid block format"), logged) << text;
    };
    const std::string digits(128, 'a');
    expect("b-sha512-3-" + digits + "zz", true);  // more digits than a digest
    expect("b-md5-3-" + digits, true);            // an unknown type is not refused here
    for (const std::string& text : {"c-sha512-3-" + digits, "bb-sha512-3-" + digits, std::string(), std::string("---")})
        expect(text, false, true);
    for (const char* const text : {"b", "b-sha512-3", "b-sha512-3-"})
        expect(text, false);
    for (const char* const named : {"b--3-", "b-sha512abc-3-", "b-sha512-x-", "b-sha512--3-",
                                    "b-sha512-18446744073709551616-"})  // type and length that are none
        expect(named + digits, false);
    for (const char first : {' ', '+', '\0'})
        expect("b-sha512-3-" + std::string(1, first) + digits.substr(1), false);
    expect("b-sha512-3-" + digits.substr(1), false);
}

TEST(HashValue, OnlyTheWholeNameIsAKnownType) {
    for (const std::string type : {"sha512", "sha51", "SHA512", "sha5124", ""}) {
        hashValue value{};
        std::memcpy(value.hashType, type.data(), type.size());
        EXPECT_EQ(hashLength(value), type == "sha512" ? 64 : 0) << type;
    }
}

TEST(HashValue, FoldingCoversDigestOffsetTypeAndLength) {
    const TestRoot root;
    const hashValue value = recordOf("abc");
    const hashOffset offset = testsupport::at(0x0102);
    std::vector<std::uint8_t> all(64 + 8 + 6 + 8);
    foldHashValue(value, offset, all);
    const std::string fields("\2\1\0\0\0\0\0\0sha512\3\0\0\0\0\0\0\0", 22);
    EXPECT_EQ(std::memcmp(all.data(), value.digest, 64), 0);
    EXPECT_EQ(std::string(all.begin() + 64, all.end()), fields);
    EXPECT_FALSE(root.logged("Warning"));
    // A short key is the same bytes laid over each other.
    for (const std::size_t length : {1u, 7u, 16u}) {
        std::vector<std::uint8_t> expected(length);
        for (std::size_t i = 0; i < all.size(); ++i)
            expected[i % length] ^= all[i];
        std::vector<std::uint8_t> key(length, 0xff);
        foldHashValue(value, offset, key);
        EXPECT_EQ(key, expected);
    }
    foldHashValue(value, offset, {});
    std::vector<std::uint8_t> tooLong(87, 0xff);
    foldHashValue(value, offset, tooLong);
    EXPECT_EQ(tooLong.back(), 0);
}

TEST(HashValue, FlagsMoveToTheOtherSide) {
    hashReferenceInfo reference{};
    reference.flags = hashID_in | hashValue_in | SISoffset_out;
    reference.referenceFlags = deduplicated_in | reference_complete | complete_in;
    inFlagsToOut(&reference);
    EXPECT_EQ(reference.flags, hashID_out | hashValue_out | SISoffset_out);
    EXPECT_EQ(reference.referenceFlags, deduplicated_out | reference_complete | complete_out);
    outFlagsToIn(&reference);
    EXPECT_EQ(reference.flags, hashID_in | hashValue_in | SISoffset_in);
}

TEST(HashContext, StartsAnewEachTime) {
    const TestRoot root;
    HashContextPtr context;
    for (const char* const data : {"zzz", "abc"}) {
        ASSERT_TRUE(initializeHashContext(&context) == 0 && addToHashContext(context.get(), data, 3) == 0);
    }
    ASSERT_EQ(hashFromHashContext(context.get()), 0);
    EXPECT_EQ(std::memcmp(context->digest.data(), recordOf("abc").digest, 64), 0);
    EXPECT_EQ(addToHashContext(context.get(), "d", 1), -1) << "the digest is out";
}

}  // namespace
