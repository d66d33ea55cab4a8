#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>

#include "base/text.h"
#include "compression/compression_internal.h"
#include "log/logger.h"

namespace {

constexpr std::size_t FRAME_SIZE = 32;
constexpr std::size_t MAGIC_SIZE = 6;
constexpr std::size_t CHUNK_OFFSET = 6;
constexpr std::size_t VERSION_OFFSET = 14;
constexpr std::size_t SIZE_OFFSET = 7;
constexpr std::string_view VERSION = "111";
constexpr std::string_view SPACES = " ";
constexpr std::uint64_t FRAMES = 2 * FRAME_SIZE;
constexpr unsigned CUT_DIGITS = 3;  // of the checksum's text that a trailer may have lost

struct Known {
    std::string_view magic;
    std::uint64_t padding;  // least bytes of entries in a table
};
constexpr Known MAGICS[] = {{"ae9b76", 40960}, {"ae9b77", 65536}};

// One table of the file, as its trailer and header tell.
struct Table {
    off_t header = 0;  // where it begins
    std::uint64_t entriesSize = 0;
    std::size_t chunkSize = 0;
    std::uint64_t checksum = 0;
};

// O_DIRECT would refuse the small reads at odd places that an index needs.
class WithoutDirect {
public:
    explicit WithoutDirect(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        if (!isSet())
            return;
        LOG_HERE(5, "clear O_DIRECT to get compression index.\n");
        if (fcntl(fd_, F_SETFL, flags_ & ~O_DIRECT) == -1)
            LOG_HERE(0, "ERROR: failed to clear O_DIRECT to get compression index.\n");
    }
    WithoutDirect(const WithoutDirect&) = delete;
    WithoutDirect& operator=(const WithoutDirect&) = delete;
    ~WithoutDirect() {
        const int saved = errno;
        if (isSet() && fcntl(fd_, F_SETFL, flags_) == -1)
            LOG_HERE(0, "ERROR: failed to reset O_DIRECT.\n");
        errno = saved;
    }

private:
    [[nodiscard]] bool isSet() const { return flags_ != -1 && (flags_ & O_DIRECT) != 0; }
    int fd_;
    int flags_;
};

// All of `size` bytes at `offset`. A file that ends before gives false, like a failure; errno is 0 then.
bool readAt(int fd, off_t offset, std::byte* to, std::size_t size) {
    while (size > 0) {
        const ssize_t got = pread(fd, to, size, offset);
        if (got == -1 && errno == EINTR)
            continue;
        if (got <= 0) {
            errno = got == 0 ? 0 : errno;
            return false;
        }
        to += got;
        offset += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

using Frame = std::array<char, FRAME_SIZE>;

bool readFrame(int fd, off_t offset, Frame* frame, std::string* error) {
    if (readAt(fd, offset, reinterpret_cast<std::byte*>(frame->data()), frame->size()))
        return true;
    *error = formatString("failed to read index file: %s", errno == 0 ? "end of file" : std::strerror(errno));
    return false;
}

// The text up to its NUL, from `offset` on.
std::string_view textFrom(const Frame& frame, std::size_t offset) {
    const std::string_view text(frame.data() + offset, frame.size() - offset);
    return text.substr(0, text.find('\0'));
}

// A decimal at the start of the text, which then begins behind it. Nothing for no digits, or too many.
std::optional<std::uint64_t> takeNumber(std::string_view* text) {
    text->remove_prefix(std::min(text->find_first_not_of(SPACES), text->size()));
    std::uint64_t value = 0;
    const auto [end, problem] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (problem != std::errc())
        return std::nullopt;
    text->remove_prefix(static_cast<std::size_t>(end - text->data()));
    return value;
}

bool readTrailer(const Frame& trailer, Table* table, std::uint64_t* padding, std::string* error) {
    const std::string_view magic(trailer.data(), MAGIC_SIZE);
    const auto* const known =
        std::find_if(std::begin(MAGICS), std::end(MAGICS), [&](const Known& k) { return k.magic == magic; });
    if (known == std::end(MAGICS)) {
        *error = "bad magic\n";
        return false;
    }
    std::string_view text = textFrom(trailer, SIZE_OFFSET);
    const std::optional<std::uint64_t> size = takeNumber(&text);
    if (!size || *size <= FRAMES || *size % sizeof(std::int64_t) != 0) {
        *error = "bad index file size";
        return false;
    }
    const std::optional<std::uint64_t> checksum = takeNumber(&text);
    if (!checksum) {
        *error = "bad index checksum";
        return false;
    }
    table->entriesSize = *size - FRAMES;
    table->checksum = *checksum;
    *padding = known->padding;
    return true;
}

bool readHeader(const Frame& header, const Frame& trailer, Table* table, std::string* error) {
    std::string_view chunk(header.data() + CHUNK_OFFSET, VERSION_OFFSET - CHUNK_OFFSET);
    const std::optional<std::uint64_t> size = takeNumber(&chunk);
    if (std::memcmp(header.data(), trailer.data(), MAGIC_SIZE) != 0)
        *error = "bad index header magic";
    else if (std::string_view(header.data() + VERSION_OFFSET, VERSION.size()) != VERSION)
        *error = "bad index version";
    else if (!size || *size == 0)
        *error = "bad index chunk size";
    else {
        table->chunkSize = *size;
        return true;
    }
    return false;
}

// The table whose trailer ends at `end`.
bool SeekToPriorIndex(int fd, off_t end, Table* table, std::string* error) {
    constexpr off_t FRAME = FRAME_SIZE;
    if (end < FRAME) {
        *error = formatString("lseek64(, -32, SEEK_CUR): %s", std::strerror(EINVAL));
        return false;
    }
    Frame trailer;
    Frame header;
    std::uint64_t padding = 0;
    if (!readFrame(fd, end - FRAME, &trailer, error) || !readTrailer(trailer, table, &padding, error))
        return false;
    const std::uint64_t stored = std::max(table->entriesSize, padding);
    const auto before = static_cast<std::uint64_t>(end - FRAME);
    if (stored > before || before - stored < FRAME_SIZE) {
        *error = formatString("seek to start of index failed: lseek64(, %lld, SEEK_SET): %s",
                              static_cast<long long>(before - stored - FRAME_SIZE), std::strerror(EINVAL));
        return false;
    }
    table->header = static_cast<off_t>(before - stored) - FRAME;
    return readFrame(fd, table->header, &header, error) && readHeader(header, trailer, table, error);
}

// The trailer's text may have lost digits at its end.
bool isChecksum(std::uint64_t stored, std::uint64_t calculated) {
    for (unsigned cut = 0; cut <= CUT_DIGITS; cut++, calculated /= 10)
        if (stored == calculated)
            return true;
    return false;
}

std::unique_ptr<compression_index> readEntries(int fd, const Table& table, std::string* error) {
    auto index = std::make_unique<compression_index>();
    index->chunkSize = table.chunkSize;
    index->entries.resize(table.entriesSize / sizeof(std::int64_t));
    const std::span<std::byte> bytes = std::as_writable_bytes(std::span(index->entries));
    if (!readAt(fd, table.header + static_cast<off_t>(FRAME_SIZE), bytes.data(), bytes.size())) {
        *error = formatString("failed to read index file: %s", errno == 0 ? "end of file" : std::strerror(errno));
        return nullptr;
    }
    const std::uint64_t calculated = dqIndexChecksum(index->entries, 1);
    if (!isChecksum(table.checksum, calculated)) {
        *error = "bad index checksum";
        LOG_HERE(0, "index %lu, calculated %lu\n", table.checksum, calculated);
        return nullptr;
    }
    return index;
}

// The tables, the one in front first: its chunks are finer. An older writer made only one.
bool findTables(int fd, std::vector<Table>* tables, std::string* error) {
    struct stat st;
    if (fstat(fd, &st) == -1) {
        *error = "failed to seek to end of backup file";
        return false;
    }
    Table last;
    if (!SeekToPriorIndex(fd, st.st_size, &last, error))
        return false;
    Table prior;
    std::string reason;
    if (SeekToPriorIndex(fd, last.header, &prior, &reason))
        tables->push_back(prior);
    else
        LOG_HERE(4, "No secondary index found: %s\n", reason.c_str());
    tables->push_back(last);
    return true;
}

// Up to `most` of them. Fewer or none with the reason in *error.
std::vector<std::unique_ptr<compression_index>> loadTables(int fd, std::size_t most, std::string* error) {
    const WithoutDirect plain(fd);
    std::vector<std::unique_ptr<compression_index>> loaded;
    try {
        std::vector<Table> tables;
        if (findTables(fd, &tables, error))
            for (std::size_t i = 0; i < std::min(most, tables.size()); ++i) {
                loaded.push_back(readEntries(fd, tables[i], error));
                if (!loaded.back()) {
                    loaded.pop_back();
                    break;
                }
            }
    } catch (const std::bad_alloc&) {
        *error = "no memory for the index";
    }
    if (!error->empty())
        LOG_HERE(0, "failed to read index: %s\n", error->c_str());
    return loaded;
}

}  // namespace

std::unique_ptr<compression_index> LoadCompressionIndex(int fd, std::string* error) {
    error->clear();
    auto tables = loadTables(fd, 1, error);
    return tables.empty() ? nullptr : std::move(tables.front());
}

std::vector<std::unique_ptr<compression_index>> LoadCompressionIndexTables(int fd, std::string* error) {
    error->clear();
    return loadTables(fd, SIZE_MAX, error);
}

off_t SeekToCompressedOffset(int fd, const compression_index* index, off_t offset) {
    if (index == nullptr || index->chunkSize == 0) {
        LOG_HERE(0, "Invalid index structure\n");
        errno = EINVAL;
        return -1;
    }
    const auto chunk = static_cast<std::size_t>(offset) / index->chunkSize;
    if (offset < 0 || chunk >= index->count()) {
        LOG_HERE(0, "Requested seek offset %lld out of range (%zu index entries of size %lld each)\n",
                 static_cast<long long>(offset), index->count(), static_cast<long long>(index->chunkSize));
        errno = ERANGE;
        return -1;
    }
    return lseek(fd, index->entries[chunk], SEEK_SET);
}
