#include "archive/tar_header.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <string_view>

#include "base/text.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"

namespace {

constexpr std::size_t NAME_SIZE = 100;
constexpr std::size_t GID = 116;
constexpr std::size_t CHECKSUM_WIDTH = 8;
constexpr std::size_t LINK_NAME = 157;
constexpr std::size_t LINK_NAME_SIZE = 100;
constexpr std::size_t FLAGS_WIDTH = 8;
constexpr std::uint64_t FLAG_LINK_NAME_ALLOWED = 64;
constexpr int ALL_BLANKS = 256;  // the checksum of a block with nothing in it

// An extended header tells, as octal numbers, where its names end: whole blocks and bytes beyond them.
constexpr std::size_t EXTENDED_NAME = 13;
constexpr std::size_t EXTENDED_LINK_NAME = 31;
constexpr std::size_t EXTENDED_WIDTH = 9;

constexpr char TOKEN_NAME[] = "Kestrelix encrypted TAR v";

constexpr std::string_view SIX_BIT_ALPHABET = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr unsigned BITS_PER_CHARACTER = 6;
constexpr std::uint8_t NOT_IN_ALPHABET = 255;

constexpr std::array<std::uint8_t, 256> SIX_BIT_VALUES = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(NOT_IN_ALPHABET);
    for (std::size_t i = 0; i < SIX_BIT_ALPHABET.size(); i++)
        values[static_cast<unsigned char>(SIX_BIT_ALPHABET[i])] = static_cast<std::uint8_t>(i);
    return values;
}();

char charAt(TarHeader header, std::size_t offset) {
    return static_cast<char>(header[offset]);
}

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

bool isLink(TarHeader header) {
    const char flag = charAt(header, TAR_LINK_FLAG);
    return flag == '1' || flag == '2';
}

bool isZero(std::span<const std::byte> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](std::byte b) { return b == std::byte{0}; });
}

// Six bits a character, least significant first. What lies above bit 63 is lost, as with those who write it.
std::uint64_t sixBitNumber(TarHeader header, std::size_t offset) {
    std::uint64_t value = 0;
    unsigned shift = 0;
    for (std::size_t i = offset + 1; i < offset + TAR_SIZE_WIDTH; i++, shift += BITS_PER_CHARACTER) {
        const std::uint8_t bits = SIX_BIT_VALUES[static_cast<unsigned char>(charAt(header, i))];
        if (bits == NOT_IN_ALPHABET)
            break;
        value |= std::uint64_t{bits} << shift;
    }
    return value;
}

// Where a name of an extended header ends, counted from the end of the header.
std::uint64_t extendedEnd(TarHeader header, std::size_t offset) {
    return tar_octal(header, offset, EXTENDED_WIDTH) * TAR_BLOCK +
           tar_octal(header, offset + EXTENDED_WIDTH, EXTENDED_WIDTH);
}

bool gidMayBeginWithBlank() {
    static const bool allowed = ini_get_int("Configuration Options", "INCL_TAR_COMPAT", 0, g_master_ini) != 0;
    return allowed;
}

// Why the bytes behind a good checksum are no header, or null.
const char* faultOf(TarHeader header) {
    const char gid = charAt(header, GID);
    if (!isOctalDigit(gid) && !(gid == ' ' && gidMayBeginWithBlank()))
        return "Gid";
    if (ctar_is_extended(header) && charAt(header, 2) == '\0') {
        LOG_HERE(4, "EXTHEADER block\n");
        return nullptr;
    }
    const auto name = header.first<NAME_SIZE>();
    const auto nameEnd = std::find(name.begin(), name.end(), std::byte{0});
    if (!isZero({nameEnd, name.end()}))
        return "Non-blank name";
    const bool mayHaveLinkName =
        isLink(header) || (tar_octal(header, TAR_FLAGS, FLAGS_WIDTH) & FLAG_LINK_NAME_ALLOWED) != 0;
    if (!mayHaveLinkName && !isZero(header.subspan(LINK_NAME, LINK_NAME_SIZE)))
        return "Non-blank linkname";
    return nullptr;
}

std::atomic<unsigned long> refusalsInARow = 0;

// Whoever looks for a header at every block of a stream would flood the log.
void logRefusal(const char* reason, int stored, int computed) {
    constexpr unsigned long FIRST_LINES = 3;
    constexpr unsigned long THEN_EACH = 512;
    const unsigned long count = refusalsInARow.fetch_add(1) + 1;
    if (count > FIRST_LINES && count % THEN_EACH != 0)
        return;
    const std::string repeated = count > 1 ? formatString(" (repeated %lu times)", count) : std::string();
    log_message(4, "Not a header because %s%s\n", reason, repeated.c_str());
    log_message(5, "checksum [%d != %d]\n", stored, computed);
}

void logHeader(TarHeader header) {
    const char flag = charAt(header, TAR_LINK_FLAG);
    const auto* name = reinterpret_cast<const char*>(header.data());
    log_message(3, "File: %.100s sz:[%.0lf] linkflag:[%c]\n", name,
                static_cast<double>(tar_size(header, TAR_ORIGINAL_SIZE)), flag == '\0' ? '0' : flag);
}

}  // namespace

std::uint64_t tar_octal(TarHeader header, std::size_t offset, std::size_t width) {
    std::size_t i = offset;
    const std::size_t end = std::min(offset + width, TAR_BLOCK);
    while (i < end && (charAt(header, i) == ' ' || charAt(header, i) == '\t'))
        i++;
    std::uint64_t value = 0;
    for (; i < end && isOctalDigit(charAt(header, i)); i++)
        value = value << 3 | static_cast<std::uint64_t>(charAt(header, i) - '0');
    return value;
}

std::uint64_t tar_size(TarHeader header, std::size_t offset) {
    return charAt(header, offset) == '#' ? sixBitNumber(header, offset) : tar_octal(header, offset, TAR_SIZE_WIDTH);
}

int tar_checksum(TarHeader header) {
    int sum = 0;
    for (const std::byte byte : header)
        sum += static_cast<signed char>(byte);
    for (const std::byte byte : header.subspan(TAR_CHECKSUM, CHECKSUM_WIDTH))
        sum += ' ' - static_cast<signed char>(byte);
    return sum & 0xFFFF;
}

bool is_tar(TarHeader header) {
    const int computed = tar_checksum(header);
    const auto stored = static_cast<int>(tar_octal(header, TAR_CHECKSUM, CHECKSUM_WIDTH));
    const bool matches = stored == computed;
    const bool isSentinel = matches && computed == ALL_BLANKS;
    const char* const fault = !matches ? "checksum" : isSentinel ? nullptr : faultOf(header);
    if (fault != nullptr) {
        logRefusal(fault, stored, computed);
        return false;
    }
    refusalsInARow = 0;
    logHeader(header);
    return true;
}

bool ctar_is_extended(TarHeader header) {
    return charAt(header, TAR_NAME) == '\0' && charAt(header, TAR_NAME + 1) == 'L';
}

std::uint64_t ctar_extended_blocks(TarHeader header) {
    if (!ctar_is_extended(header))
        return 0;
    std::uint64_t end = extendedEnd(header, EXTENDED_NAME);
    if (isLink(header))
        end = std::max(end, extendedEnd(header, EXTENDED_LINK_NAME));
    return (end + TAR_BLOCK - 1) / TAR_BLOCK;
}

bool is_encryption_token(TarHeader header) {
    return charAt(header, TAR_LINK_FLAG) == TAR_ENCRYPTION_TOKEN &&
           strncasecmp(reinterpret_cast<const char*>(header.data()), TOKEN_NAME, sizeof TOKEN_NAME - 1) == 0;
}
