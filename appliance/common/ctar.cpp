#include "common/ctar.h"

#include <cstring>
#include <span>

#include "base/text.h"

namespace ctar {
namespace {

struct Piece {
    std::size_t offset;
    std::size_t size;
};
constexpr Piece NAME_PIECES[] = {{0, 100}, {368, 70}, {159, 98}, {440, 70}, {305, 62}};
constexpr std::size_t LINK_NAME_PIECES = 2;  // the pieces of a name that a link's own target leaves free
constexpr Piece LINK_NAME = {157, 100};
constexpr std::size_t CHECKSUM = 148;
constexpr std::size_t CHECKSUM_SIZE = 8;
constexpr std::uint64_t LINK_NAME_ALLOWED = 64;  // flag: the link name's place is in use

bool putOctal(Header* header, std::size_t offset, std::size_t size, std::uint64_t number) {
    char text[32];
    if (formatText(text, sizeof text, "%0*lo", static_cast<int>(size - 1), number) > static_cast<int>(size - 1))
        return false;
    std::memcpy(header->data() + offset, text, size - 1);
    return true;
}

bool putPieces(Header* header, std::span<const Piece> pieces, std::string_view text) {
    for (const Piece& piece : pieces) {
        const std::size_t n = std::min(piece.size, text.size());
        std::memcpy(header->data() + piece.offset, text.data(), n);
        text.remove_prefix(n);
    }
    return text.empty();
}

void putChecksum(Header* header) {
    std::memset(header->data() + CHECKSUM, ' ', CHECKSUM_SIZE);
    long sum = 0;
    for (const char byte : *header)
        sum += static_cast<signed char>(byte);
    (void)putOctal(header, CHECKSUM, CHECKSUM_SIZE, static_cast<std::uint64_t>(sum & 0xffff));  // fits: 16 bits
}

}  // namespace

bool makeHeader(const Entry& entry, Header* header) {
    header->fill(0);
    const std::span<const Piece> pieces(NAME_PIECES);
    const bool isLink = entry.kind == '2';
    if (entry.name.empty() || !putPieces(header, isLink ? pieces.first(LINK_NAME_PIECES) : pieces, entry.name))
        return false;
    if (isLink && !putPieces(header, {&LINK_NAME, 1}, entry.linkName))
        return false;
    const bool usesLinkPlace = !isLink && entry.name.size() > NAME_PIECES[0].size + NAME_PIECES[1].size;
    (*header)[156] = entry.kind;
    if (!putOctal(header, 100, 8, entry.mode & 07777) || !putOctal(header, 108, 8, entry.uid & 07777777) ||
        !putOctal(header, 116, 8, entry.gid & 07777777) || !putOctal(header, 124, 12, entry.size) ||
        !putOctal(header, 136, 12, entry.mtime & 077777777777) || !putOctal(header, 265, 12, entry.size) ||
        !putOctal(header, 293, 8, usesLinkPlace ? LINK_NAME_ALLOWED : 0))
        return false;
    putChecksum(header);
    return true;
}

Header sentinel() {
    Header header{};
    putChecksum(&header);
    return header;
}

}  // namespace ctar
