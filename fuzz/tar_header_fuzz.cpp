// Headers of a backup's stream, the token's among them. What counts as a header has the checksum that its bytes add up
// to, numbers are those of the C library, and a size in the long form comes back as it was put in.

#include "archive/tar_header.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_support.h"

namespace {

constexpr std::string_view ALPHABET = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::uint64_t MOST_EXTENDED_BLOCKS = (std::uint64_t{1} << 27) + (1 << 18) + 1;

// The sum as other programs take it: unsigned, and then less 256 for each byte with its top bit.
int checksumOf(const std::string& header) {
    int sum = 0;
    for (std::size_t i = 0; i < header.size(); i++) {
        const bool isField = i >= TAR_CHECKSUM && i < TAR_CHECKSUM + 8;
        const int byte = isField ? ' ' : static_cast<unsigned char>(header[i]);
        sum += byte >= 128 ? byte - 256 : byte;
    }
    return static_cast<std::uint16_t>(sum);
}

std::uint64_t octalOf(const std::string& header, std::size_t offset, std::size_t width) {
    const std::string text = header.substr(offset, width);
    const std::size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos || text[start] < '0' || text[start] > '7')
        return 0;
    return std::strtoull(text.c_str() + start, nullptr, 8);
}

void checkLongForm(std::string header, std::uint64_t value) {
    header[TAR_ORIGINAL_SIZE] = '#';
    std::uint64_t rest = value;
    for (std::size_t i = 1; i < TAR_SIZE_WIDTH; i++, rest >>= 6)
        header[TAR_ORIGINAL_SIZE + i] = ALPHABET[rest & 63];
    const auto bytes = std::as_bytes(std::span(header).first<TAR_BLOCK>());
    FUZZ_CHECK(tar_size(bytes, TAR_ORIGINAL_SIZE) == value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const bool mend = (input.byte() & 1) != 0;
    std::uint64_t value = 0;
    std::memcpy(&value, input.take(sizeof value).data(), sizeof value);
    std::string header = input.take(TAR_BLOCK);
    if (mend)
        (void)std::snprintf(header.data() + TAR_CHECKSUM, 8, "%07o", static_cast<unsigned>(checksumOf(header)));
    const auto bytes = std::as_bytes(std::span(header).first<TAR_BLOCK>());

    FUZZ_CHECK(tar_checksum(bytes) == checksumOf(header));
    if (is_tar(bytes))
        FUZZ_CHECK(octalOf(header, TAR_CHECKSUM, 8) == static_cast<std::uint64_t>(checksumOf(header)));
    if (header[TAR_SIZE] != '#')
        FUZZ_CHECK(tar_size(bytes, TAR_SIZE) == octalOf(header, TAR_SIZE, TAR_SIZE_WIDTH));
    FUZZ_CHECK(ctar_extended_blocks(bytes) <= MOST_EXTENDED_BLOCKS);
    FUZZ_CHECK(ctar_is_extended(bytes) || ctar_extended_blocks(bytes) == 0);
    if (is_encryption_token(bytes))
        FUZZ_CHECK(header[TAR_LINK_FLAG] == 'E' && header.substr(1, 8) != "");
    checkLongForm(header, value);
    return 0;
}
