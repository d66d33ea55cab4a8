// hash_fixture.h - the catalogue for the tests of the hash room.
#pragma once

#include "hash/hash_connection.h"
#include "hash/hash_generation.h"
#include "support/block_record.h"
#include "support/catalogue.h"
#include "support/root.h"
#include "support/test.h"

namespace testsupport {

class HashCatalogue : public ::testing::Test {
protected:
    HashCatalogue() {
        catalogue.reset();
        forgetHashTableShape();
        forgetMetadataGeneration();
    }
    ~HashCatalogue() override { forgetMetadataGeneration(); }

    // A hash as the store keeps it; its ID.
    std::uint64_t addHash(const std::string& data) {
        return std::stoull(
            catalogue.value("INSERT INTO dq.hash_values (hash_type, hashed_length, hash_value) VALUES ('sha512', " +
                            std::to_string(data.size()) + ", decode('" + hashValueHex(recordOf(data)) +
                            "', 'hex')) RETURNING hash_id"));
    }

    void addMapping(std::uint64_t backup, std::uint64_t hash, std::int64_t offset, const char* deduplicated = "NULL",
                    bool incomplete = false) {
        catalogue.sql("INSERT INTO dq.backups_hash_values VALUES (" + std::to_string(backup) + ", " +
                      std::to_string(hash) + ", " + std::to_string(offset) + ", " + deduplicated + ", " +
                      (incomplete ? "true)" : "false)"));
    }

    TestRoot root;
    Catalogue& catalogue = Catalogue::instance();
};

}  // namespace testsupport
