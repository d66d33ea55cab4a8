// Texts that people and other machines write: the 3tuple of a block, and a week's schedule of limits. A tuple that is
// taken is written again as the same block; a schedule is taken or refused, and nothing in between.

#include <cstring>

#include "bandwidth/blockOut.h"
#include "block/hash_value.h"
#include "fuzz_support.h"

namespace {

void checkTuple(const std::string& text) {
    hashValue value{};
    std::memset(&value, 0x5a, sizeof value);
    if (tuple3ToHashValue(text, &value) == -1) {
        const hashValue zero{};
        FUZZ_CHECK(std::memcmp(&value, &zero, sizeof value) == 0);
        return;
    }
    char again[1024];
    FUZZ_CHECK(hashValueTo3tuple(value, again, sizeof again) == 0);
    hashValue second{};
    FUZZ_CHECK(tuple3ToHashValue(again, &second) == 0);
    FUZZ_CHECK(std::memcmp(&value, &second, sizeof value) == 0);
    FUZZ_CHECK(hashValueTo3tuple(value, again, std::strlen(again)) == -1);  // no room for the NUL
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const bool isTuple = (input.byte() & 1) != 0;
    const std::string text(input.rest());
    if (isTuple)
        checkTuple(text);
    else
        (void)parseBlockOutPeriods(text.c_str());
    return 0;
}
