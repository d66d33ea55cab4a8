#include "block/hash_value.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <optional>

#include "base/text.h"
#include "log/logger.h"

namespace {

constexpr char SHA512_TYPE[] = "sha512";
constexpr int SHA512_LENGTH = 64;
constexpr std::uint32_t IN_FLAGS = hashID_in | SISoffset_in | locationID_in | hashValue_in;
constexpr std::uint32_t OUT_FLAGS = IN_FLAGS << HASH_OUT_SHIFT;

std::size_t typeLength(const hashValue& value) {
    return strnlen(value.hashType, HASH_TYPE_SIZE);
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Cuts the next token off `rest`; none if the text has ended or nothing stands before the next '-'.
std::optional<std::string_view> nextToken(std::string_view* rest) {
    const std::size_t length = std::min(rest->find('-'), rest->size());
    const std::string_view token = rest->substr(0, length);
    rest->remove_prefix(std::min(length + 1, rest->size()));
    return token.empty() ? std::nullopt : std::optional(token);
}

bool readDigest(std::string_view digits, std::uint8_t* digest) {
    if (digits.size() < 2 * HASH_VALUE_SIZE)
        return false;
    for (std::size_t i = 0; i < HASH_VALUE_SIZE; ++i) {
        const int high = hexDigit(digits[2 * i]);
        const int low = hexDigit(digits[2 * i + 1]);
        if (high == -1 || low == -1)
            return false;
        digest[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return true;
}

bool readBlockName(std::string_view rest, hashValue* value) {
    const auto type = nextToken(&rest);
    const auto length = nextToken(&rest);
    const auto digest = nextToken(&rest);
    if (!type || !length || !digest || type->size() > HASH_TYPE_SIZE)
        return false;
    if (type->find('\0') != std::string_view::npos)  // it would be written shorter, as another block
        return false;
    std::copy(type->begin(), type->end(), value->hashType);
    const auto number = std::from_chars(length->data(), length->data() + length->size(), value->hashedLength);
    return number.ec == std::errc{} && readDigest(*digest, value->digest);
}

std::array<std::uint8_t, 8> littleEndian(std::uint64_t number) {
    std::array<std::uint8_t, 8> bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(number >> (8 * i));
    return bytes;
}

}  // namespace

int hashLength(const hashValue& value) {
    return std::memcmp(value.hashType, SHA512_TYPE, sizeof SHA512_TYPE) == 0 ? SHA512_LENGTH : 0;
}

std::string hashValueHex(const hashValue& value) {
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    std::string text;
    text.reserve(2 * HASH_VALUE_SIZE);
    for (const std::uint8_t byte : value.digest) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

int hashValueTo3tuple(const hashValue& value, char* buffer, std::size_t size) {
    if (formatText(buffer, size, "b-%.8s-%lu-%s", value.hashType, value.hashedLength, hashValueHex(value).c_str()) ==
        -1) {
        log_message(0, "Query too long for buffer");
        return -1;
    }
    return 0;
}

int tuple3ToHashValue(std::string_view text, hashValue* value) {
    *value = {};
    const auto mark = nextToken(&text);
    if (!mark || *mark != "b") {
        log_message(0, "Not a valid block format");
        return -1;
    }
    hashValue read{};
    if (!readBlockName(text, &read))
        return -1;
    read.flags = hashValue_in;
    *value = read;
    return 0;
}

void foldHashValue(const hashValue& value, const hashOffset& offset, std::span<std::uint8_t> output) {
    if (output.empty())
        return;
    const auto digestLength = static_cast<std::size_t>(hashLength(value));
    const std::size_t inputLength = digestLength + typeLength(value) + 16;
    if (output.size() > inputLength)
        log_message(0,
                    "Warning: asking for more bytes of hash value than exist in input. maxBytesLen:%zd output "
                    "requested:%zd",
                    static_cast<ssize_t>(inputLength), static_cast<ssize_t>(output.size()));
    std::fill(output.begin(), output.end(), std::uint8_t{0});
    std::size_t cursor = 0;
    const auto fold = [&](auto bytes) {
        for (const auto byte : bytes) {
            output[cursor] ^= static_cast<std::uint8_t>(byte);
            cursor = (cursor + 1) % output.size();
        }
    };
    fold(std::span(value.digest, digestLength));
    fold(littleEndian(static_cast<std::uint64_t>(offset.offset)));
    fold(std::string_view(value.hashType, typeLength(value)));
    fold(littleEndian(value.hashedLength));
}

void dumpHashValue(int level, const hashValue& value) {
    const auto is = [&](std::uint32_t bit) { return (value.flags & bit) != 0 ? 1 : 0; };
    LOG_HERE(level,
             "struct hashValue:\n\tin values:\n\t\t hashID_in:%d\n\t\t SISoffset_in:%d\n\t\t locationID_in:%d\n\t\t "
             "hashValue_in:%d\n\tout values:\n\t\t hashID_out:%d\n\t\t SISoffset_out:%d\n\t\t locationID_out:%d\n\t\t "
             "hashValue_out:%d\n\tdata:\n\t\t hashID:%lu\n\t\t hashedLength:%lu\n\t\t SISoffset:%lu\n\t\t "
             "locationID:%lu\n\t\t hashType:%.8s\n\t\t hashValue:%s\n",
             is(hashID_in), is(SISoffset_in), is(locationID_in), is(hashValue_in), is(hashID_out), is(SISoffset_out),
             is(locationID_out), is(hashValue_out), value.hashID, value.hashedLength, value.SISoffset, value.locationID,
             value.hashType, hashValueHex(value).c_str());
}

void outFlagsToIn(hashValue* value) {
    value->flags = (value->flags & ~OUT_FLAGS) | (value->flags & OUT_FLAGS) >> HASH_OUT_SHIFT;
}

void inFlagsToOut(hashValue* value) {
    value->flags = (value->flags & ~IN_FLAGS) | (value->flags & IN_FLAGS) << HASH_OUT_SHIFT;
}

void inFlagsToOut(hashReferenceInfo* reference) {
    inFlagsToOut(static_cast<hashValue*>(reference));
    std::uint32_t flags = reference->referenceFlags;
    if ((flags & deduplicated_in) != 0)
        flags = (flags & ~deduplicated_in) | deduplicated_out;
    if ((flags & complete_in) != 0)
        flags = (flags & ~complete_in) | complete_out;
    reference->referenceFlags = flags;
}
