// hash_fixture.h - records, and the catalogue for the tests of the hash room.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "hash/hash_connection.h"
#include "hash/hash_context.h"
#include "hash/hash_generation.h"
#include "hash/hash_value.h"
#include "support/catalogue.h"
#include "support/root.h"

namespace testsupport {

// The record of a block with its digest as the key.
inline hashValue recordOf(std::string_view data) {
    hashValue value{};
    HashContextPtr context;
    EXPECT_EQ(initializeHashContext(&context), 0);
    EXPECT_EQ(addToHashContext(context.get(), data.data(), data.size()), 0);
    EXPECT_EQ(hashFromHashContext(context.get()), 0);
    std::memcpy(value.hashType, context->hashType, sizeof value.hashType);
    std::memcpy(value.digest, context->digest.data(), sizeof value.digest);
    value.hashedLength = data.size();
    value.flags = hashValue_in;
    return value;
}

inline hashOffset at(std::int64_t offset) {
    return {offset_in, 0, offset};
}

inline std::vector<hashValue> records(int first, int count) {
    std::vector<hashValue> list;
    for (int i = first; i < first + count; ++i)
        list.push_back(recordOf("block " + std::to_string(i)));
    return list;
}

class HashCatalogue : public ::testing::Test {
protected:
    HashCatalogue() : catalogue(Catalogue::instance()) {
        catalogue.reset();
        forgetHashTableShape();
        forgetMetadataGeneration();
    }
    ~HashCatalogue() override { forgetMetadataGeneration(); }

    // A hash as the store keeps it; its ID.
    std::uint64_t addHash(const std::string& data) {
        const hashValue record = recordOf(data);
        return std::stoull(catalogue.value(
            "INSERT INTO dq.hash_values (hash_type, hashed_length, hash_value) VALUES "
            "('sha512', " +
            std::to_string(data.size()) + ", decode('" + hashValueHex(record) + "', 'hex')) RETURNING hash_id"));
    }

    void addMapping(std::uint64_t backup, std::uint64_t hash, std::int64_t offset, const char* deduplicated = "NULL",
                    bool incomplete = false) {
        catalogue.sql("INSERT INTO dq.backups_hash_values VALUES (" + std::to_string(backup) + ", " +
                      std::to_string(hash) + ", " + std::to_string(offset) + ", " + deduplicated + ", " +
                      (incomplete ? "true)" : "false)"));
    }

    TestRoot root;
    Catalogue& catalogue;
};

}  // namespace testsupport
