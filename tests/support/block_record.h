// block_record.h - records of blocks.
#pragma once

#include "block/hash_context.h"
#include "block/hash_value.h"
#include "support/test.h"

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

}  // namespace testsupport
