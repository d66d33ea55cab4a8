// A compressed backup file of any kind through the filter: however it is read, the stream is the same, and it ends in
// the same way. A gzip file that zlib reads to its end comes out as zlib has it.

#include <zlib.h>

#include <cstring>

#include "archive/archiverw.h"
#include "fuzz_support.h"

namespace {

constexpr std::size_t MOST = 4 << 20;  // clean bytes; a small file can hold very many

struct Stream {
    std::string bytes;
    bool isGood = false;
};

Stream readAll(const std::string& path, std::size_t piece) {
    Stream stream;
    const ArchiveFilterPtr filter = archive_open(path.c_str(), "r", ARCHIVE_MAYBE_COMPRESSED);
    FUZZ_CHECK(filter != nullptr);
    std::string buffer(piece, '\0');
    while (stream.bytes.size() < MOST) {
        const ssize_t got = archive_read(filter.get(), buffer.data(), buffer.size());
        FUZZ_CHECK(got >= -1 && got <= static_cast<ssize_t>(piece));
        stream.isGood = got == 0;
        if (got <= 0)
            break;
        stream.bytes.append(buffer, 0, static_cast<std::size_t>(got));
    }
    return stream;
}

// All members, to the last byte of the file; false for anything else.
bool inflateAll(std::string_view file, std::string* bytes) {
    z_stream z{};
    FUZZ_CHECK(inflateInit2(&z, 16 + MAX_WBITS) == Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(file.data()));
    z.avail_in = static_cast<uInt>(file.size());
    std::string room(65536, '\0');
    int rc = Z_OK;
    while (bytes->size() < MOST && (rc == Z_OK || (rc == Z_STREAM_END && z.avail_in > 0))) {
        if (rc == Z_STREAM_END)
            (void)inflateReset(&z);
        z.next_out = reinterpret_cast<Bytef*>(room.data());
        z.avail_out = static_cast<uInt>(room.size());
        rc = inflate(&z, Z_SYNC_FLUSH);
        bytes->append(room, 0, room.size() - z.avail_out);
    }
    (void)inflateEnd(&z);
    return rc == Z_STREAM_END;
}

void checkSeek(const std::string& path, const Stream& stream, std::size_t target) {
    const ArchiveFilterPtr filter = archive_open(path.c_str(), "r", ARCHIVE_MAYBE_COMPRESSED);
    char got[64];
    if (archive_seek(filter.get(), static_cast<off_t>(target), SEEK_SET) != static_cast<off_t>(target))
        return;  // most inputs have no index
    const ssize_t count = archive_read(filter.get(), got, sizeof got);
    const std::string_view expected = std::string_view(stream.bytes).substr(target, sizeof got);
    if (count > 0)
        FUZZ_CHECK(expected.starts_with(std::string_view(got, static_cast<std::size_t>(count))));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const std::size_t piece = 1 + std::size_t{input.byte()} * 37;
    const std::size_t target = std::size_t{input.byte()} * 11;
    const MemoryFile file(input.rest());
    const Stream whole = readAll(file.path(), 1 << 20);
    const Stream pieces = readAll(file.path(), piece);
    const std::size_t common = std::min(whole.bytes.size(), pieces.bytes.size());
    FUZZ_CHECK(std::string_view(whole.bytes).substr(0, common) == std::string_view(pieces.bytes).substr(0, common));
    FUZZ_CHECK(common >= MOST || whole.isGood == pieces.isGood);
    if (whole.isGood)
        FUZZ_CHECK(whole.bytes.size() == pieces.bytes.size());
    std::string expected;
    if (input.rest().starts_with("\x1f\x8b") && inflateAll(input.rest(), &expected) && expected.size() < MOST)
        FUZZ_CHECK(whole.isGood && whole.bytes == expected);
    // An index that leads astray can't be told from a good one, so only a file without one is held to its stream.
    if (whole.isGood && input.rest().find("ae9b7") == std::string_view::npos && target < whole.bytes.size())
        checkSeek(file.path(), whole, target);
    return 0;
}
