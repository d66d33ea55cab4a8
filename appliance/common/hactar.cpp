#include "common/hactar.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "base/file_descriptor.h"
#include "config/services.h"

namespace hactar {
namespace {

constexpr char MAGIC[8] = {'F', 'H', 'A', 'C', 'T', 'A', 'R', '1'};
constexpr std::size_t BUFFER_SIZE = 1 << 16;
constexpr std::size_t CIPHER_UNIT = 32;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Reads the file front to back, with the digest of what was read.
class Source {
public:
    explicit Source(const std::filesystem::path& path)
        : name_(path.string()), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (!file_.isOpen())
            fail(name_);
    }

    void take(void* bytes, std::size_t count) {
        auto* out = static_cast<std::byte*>(bytes);
        while (count > 0) {
            if (position_ == filled_)
                refill();
            const std::size_t n = std::min(count, filled_ - position_);
            std::memcpy(out, buffer_.data() + position_, n);
            position_ += n;
            out += n;
            count -= n;
        }
    }

    // What is told to the digest: all that is taken, up to the digest itself.
    void takeHashed(void* bytes, std::size_t count) {
        take(bytes, count);
        digest_.add(bytes, count);
    }
    [[nodiscard]] Sha512 digest() { return digest_.finish(); }
    [[noreturn]] void bad(const char* why) const { throw std::runtime_error(name_ + ": " + why); }

private:
    void refill() {
        const int n = safe_read(file_.get(), buffer_.data(), static_cast<int>(buffer_.size()));
        if (n < 0)
            fail(name_);
        if (n == 0)
            bad("the file ends too early");
        position_ = 0;
        filled_ = static_cast<std::size_t>(n);
    }

    std::string name_;
    FileDescriptor file_;
    Sha512Stream digest_;
    std::vector<std::byte> buffer_ = std::vector<std::byte>(BUFFER_SIZE);
    std::size_t position_ = 0;
    std::size_t filled_ = 0;
};

std::uint64_t takeNumber(Source& source) {
    std::uint64_t number = 0;
    source.takeHashed(&number, sizeof number);
    return number;
}

}  // namespace

Writer::Writer(const std::filesystem::path& path, std::uint64_t backupNo, bool isEncrypted)
    : path_(path), temporary_(path.string() + ".tmp") {
    (void)unlink(temporary_.c_str());  // left behind by a death
    file_ = archive_open(temporary_.c_str(), "w", isEncrypted ? ARCHIVE_ENCRYPTED : 0);
    if (!file_)
        fail(temporary_.string());
    append(MAGIC, sizeof MAGIC);
    append(&backupNo, sizeof backupNo);
}

Writer::~Writer() {
    if (!finished_)
        (void)unlink(temporary_.c_str());
}

void Writer::append(const void* bytes, std::size_t count) {
    digest_.add(bytes, count);
    put(bytes, count);
}

void Writer::put(const void* bytes, std::size_t count) {
    if (archive_write(file_.get(), bytes, count) == -1)
        fail(temporary_.string());
    fileSize_ += count;
}

void Writer::literal(std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const std::uint64_t count = std::min<std::uint64_t>(bytes.size(), LITERAL_LIMIT);
        append("L", 1);
        append(&count, sizeof count);
        append(bytes.data(), count);
        total_ += count;
        bytes = bytes.subspan(count);
    }
}

void Writer::block(std::uint64_t length, const Sha512& digest) {
    append("B", 1);
    append(&length, sizeof length);
    append(digest.data(), digest.size());
    total_ += length;
}

void Writer::finish() {
    append("E", 1);
    append(&total_, sizeof total_);
    const Sha512 digest = digest_.finish();
    put(digest.data(), digest.size());
    static constexpr char PADDING[CIPHER_UNIT] = {};
    put(PADDING, (CIPHER_UNIT - fileSize_ % CIPHER_UNIT) % CIPHER_UNIT);
    close();
    if (rename(temporary_.c_str(), path_.c_str()) == -1)
        fail(path_.string());
    finished_ = true;
}

void Writer::close() {
    if (archive_close(&file_) == -1)
        fail(temporary_.string());
    const FileDescriptor file(open(temporary_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen() || fsync(file.get()) == -1)
        fail(temporary_.string());
}

std::uint64_t read(const std::filesystem::path& path, const Visitor& visitor) {
    Source source(path);
    char magic[sizeof MAGIC];
    source.takeHashed(magic, sizeof magic);
    if (std::memcmp(magic, MAGIC, sizeof MAGIC) != 0)
        source.bad("not a final metadata file");
    (void)takeNumber(source);
    std::uint64_t total = 0;
    std::vector<std::byte> literal;
    for (;;) {
        char kind = 0;
        source.takeHashed(&kind, 1);
        const std::uint64_t length = takeNumber(source);
        Sha512 digest;
        if (kind == 'L') {
            if (length > LITERAL_LIMIT)
                source.bad("a literal is too long");
            literal.resize(length);
            source.takeHashed(literal.data(), length);
            visitor.literal(literal);
        } else if (kind == 'B') {
            source.takeHashed(digest.data(), digest.size());
            visitor.block(length, digest);
        } else if (kind == 'E') {
            source.take(digest.data(), digest.size());
            if (length != total || digest != source.digest())
                source.bad("the file is damaged");
            return total;
        } else {
            source.bad("unknown record");
        }
        total += length;
    }
}

}  // namespace hactar
