#include "crypto/usha.h"

#include "support/bytes.h"

namespace {

TEST(Usha, GivesThePublishedDigestsWithOneContext) {
    constexpr std::string_view TWO_BLOCKS = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    const std::tuple<int, std::string_view, std::string> cases[] = {
        {USHA_SHA256, TWO_BLOCKS, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {USHA_SHA512, "abc",
         "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
         "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f"},
        {9, "",  // above the table: as SHA-512
         "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
         "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e"}};
    USHAContext context;
    for (const auto& [which, text, expected] : cases)
        for (const std::size_t step : {1, 64}) {
            std::array<std::uint8_t, USHA_MAX_DIGEST_SIZE> digest{};
            EXPECT_EQ(USHAReset(&context, which), 0);
            for (std::size_t at = 0; at < text.size(); at += step)
                EXPECT_EQ(USHAInput(&context, &text[at], std::min(step, text.size() - at)), 0);
            EXPECT_EQ(USHAResult(&context, digest.data()), 0);
            EXPECT_EQ(testsupport::hexOf(std::as_bytes(std::span(digest))).substr(0, expected.size()), expected);
        }
}

TEST(Usha, RefusesInputOutsideADigest) {
    std::array<std::uint8_t, USHA_MAX_DIGEST_SIZE> digest{};
    USHAContext context;
    EXPECT_EQ(USHAReset(nullptr, USHA_SHA512) + USHAInput(nullptr, "a", 1) + USHAResult(nullptr, digest.data()), 3);
    EXPECT_EQ(USHAInput(&context, "a", 1), 1) << "never reset";
    ASSERT_EQ(USHAReset(&context, USHA_SHA512) + USHAResult(&context, digest.data()), 0);
    EXPECT_EQ(USHAInput(&context, "a", 1), 1) << "behind the result";
    EXPECT_EQ(USHAResult(&context, digest.data()), 1) << "a second result";
    EXPECT_EQ(USHAReset(&context, -1), 1);
    EXPECT_EQ(USHAInput(&context, "a", 1), 1) << "after a failed reset";
}

}  // namespace
