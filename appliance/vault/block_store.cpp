#include "vault/block_store.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "config/services.h"

namespace vault {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t LARGE = ~std::uint64_t{0};
constexpr char TYPE[8] = {'s', 'h', 'a', '5', '1', '2', 0, 0};
constexpr mode_t FILE_MODE = 0640;

#pragma pack(push, 1)
struct PackHeader {
    char type[8];
    std::uint64_t length;
    Sha512 digest;
};
struct ReferenceRecord {
    Sha512 digest;
    std::uint64_t length;
    std::uint64_t fileOffset;
};
#pragma pack(pop)
static_assert(sizeof(PackHeader) == 80 && sizeof(ReferenceRecord) == 80);

[[noreturn]] void fail(const fs::path& what) {
    throw std::system_error(errno, std::generic_category(), what.string());
}

FileDescriptor openFile(const fs::path& path, int flags) {
    FileDescriptor file(open(path.c_str(), flags | O_CLOEXEC, FILE_MODE));
    if (!file.isOpen())
        fail(path);
    return file;
}

std::uint64_t sizeOf(int fd, const fs::path& path) {
    struct stat st;
    if (fstat(fd, &st) == -1)
        fail(path);
    return static_cast<std::uint64_t>(st.st_size);
}

void writeAll(int fd, const std::string& bytes, const fs::path& path) {
    if (safe_write(fd, bytes.data(), static_cast<int>(bytes.size())) != static_cast<int>(bytes.size()))
        fail(path);
}

fs::path largeName(const fs::path& directory, const BlockKey& key) {
    return directory / "large" / (toHex(key.digest) + "-" + std::to_string(key.length));
}

}  // namespace

std::size_t BlockKeyHash::operator()(const BlockKey& key) const noexcept {
    std::size_t hash;
    std::memcpy(&hash, key.digest.data(), sizeof hash);
    return hash;
}

IncomingBlock::IncomingBlock(const fs::path& directory, const BlockKey& key, bool keep) : key_(key), keep_(keep) {
    static std::atomic<unsigned> counter;
    path_ = directory / "large" / ("incoming-" + std::to_string(getpid()) + "-" + std::to_string(++counter));
    if (keep_)
        file_ = openFile(path_, O_WRONLY | O_CREAT | O_TRUNC);
}

IncomingBlock::~IncomingBlock() {
    if (file_.isOpen())
        (void)unlink(path_.c_str());
}

void IncomingBlock::add(const char* bytes, std::size_t count) {
    received_ += count;
    if (received_ > key_.length)
        return;
    digest_.add(bytes, count);
    if (keep_ && safe_write(file_.get(), bytes, static_cast<int>(count)) != static_cast<int>(count))
        fail(path_);
}

bool IncomingBlock::matches() {
    return received_ == key_.length && digest_.finish() == key_.digest;
}

BlockStore::BlockStore(const fs::path& directory, bool discard) : directory_(directory), discard_(discard) {
    fs::create_directories(directory_ / "large");
    fs::create_directories(directory_ / "refs");
    loadPack();
    for (const auto& entry : fs::directory_iterator(directory_ / "large")) {
        const std::string name = entry.path().filename();
        const std::size_t dash = name.find('-');
        BlockKey key{};
        if (dash == 128 && fromHex(std::string_view(name).substr(0, dash), &key.digest)) {
            key.length = std::stoull(name.substr(dash + 1));
            index_[key] = LARGE;
        } else {
            fs::remove(entry.path());  // one that a death left half received
        }
    }
}

void BlockStore::loadPack() {
    const fs::path path = directory_ / "blocks.pack";
    pack_ = openFile(path, O_RDWR | O_CREAT);
    const std::uint64_t size = sizeOf(pack_.get(), path);
    PackHeader header;
    while (packSize_ + sizeof header <= size) {
        if (pread(pack_.get(), &header, sizeof header, static_cast<off_t>(packSize_)) != sizeof header)
            fail(path);
        if (std::memcmp(header.type, TYPE, sizeof TYPE) != 0 || header.length > size - packSize_ - sizeof header)
            break;
        index_[{header.digest, header.length}] = packSize_ + sizeof header;
        packSize_ += sizeof header + header.length;
    }
    if (packSize_ != size && ftruncate(pack_.get(), static_cast<off_t>(packSize_)) == -1)
        fail(path);
}

std::optional<std::uint64_t> BlockStore::find(const BlockKey& key) const {
    const std::lock_guard guard(lock_);
    const auto found = index_.find(key);
    return found == index_.end() ? std::nullopt : std::optional(found->second);
}

bool BlockStore::holds(const BlockKey& key) const {
    return find(key).has_value();
}

BlockStore::References& BlockStore::referencesOf(std::uint64_t backupNo) {
    const auto [entry, isNew] = references_.try_emplace(backupNo);
    References& references = entry->second;
    if (!isNew)
        return references;
    const fs::path path = directory_ / "refs" / std::to_string(backupNo);
    references.file = openFile(path, O_RDWR | O_CREAT);
    const std::uint64_t size = sizeOf(references.file.get(), path);
    const std::uint64_t whole = size - size % sizeof(ReferenceRecord);
    if (whole != size && ftruncate(references.file.get(), static_cast<off_t>(whole)) == -1)
        fail(path);
    std::vector<ReferenceRecord> records(8192);
    for (std::uint64_t left = whole / sizeof(ReferenceRecord); left > 0; left -= records.size()) {
        records.resize(std::min<std::uint64_t>(left, records.size()));
        const int bytes = static_cast<int>(records.size() * sizeof(ReferenceRecord));
        if (safe_read(references.file.get(), records.data(), bytes) != bytes)
            fail(path);
        for (const ReferenceRecord& record : records)
            references.blocks.insert({record.digest, record.length});
    }
    return references;
}

std::vector<bool> BlockStore::refer(std::uint64_t backupNo, std::span<const Reference> wanted) {
    std::vector<bool> held(wanted.size());
    std::string records;
    const std::lock_guard guard(lock_);
    References* references = backupNo == 0 ? nullptr : &referencesOf(backupNo);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        held[i] = index_.contains(wanted[i].block);
        if (!held[i] || references == nullptr)
            continue;
        const ReferenceRecord record{wanted[i].block.digest, wanted[i].block.length, wanted[i].fileOffset};
        records.append(reinterpret_cast<const char*>(&record), sizeof record);
        references->blocks.insert(wanted[i].block);
    }
    if (!records.empty())
        writeAll(references->file.get(), records, directory_ / "refs");
    return held;
}

void BlockStore::store(std::span<const std::pair<BlockKey, std::span<const std::byte>>> blocks) {
    const std::lock_guard guard(lock_);
    std::string batch;
    std::vector<std::pair<BlockKey, std::uint64_t>> added;
    for (const auto& [key, data] : blocks) {
        if (index_.contains(key))
            continue;
        PackHeader header{{}, key.length, key.digest};
        std::memcpy(header.type, TYPE, sizeof TYPE);
        if (!discard_) {
            batch.append(reinterpret_cast<const char*>(&header), sizeof header);
            added.emplace_back(key, packSize_ + batch.size());
            batch.append(reinterpret_cast<const char*>(data.data()), data.size());
        } else {
            added.emplace_back(key, LARGE);
        }
    }
    const ssize_t written =
        batch.empty() ? 0 : pwrite(pack_.get(), batch.data(), batch.size(), static_cast<off_t>(packSize_));
    if (written != static_cast<ssize_t>(batch.size())) {
        // What a full disk let through would look like a record; the next one is written over it.
        (void)!ftruncate(pack_.get(), static_cast<off_t>(packSize_));
        fail(directory_ / "blocks.pack");
    }
    packSize_ += batch.size();
    for (const auto& [key, offset] : added)
        index_.emplace(key, offset);
}

IncomingBlock BlockStore::receive(const BlockKey& key) const {
    return {directory_, key, !discard_};
}

void BlockStore::store(IncomingBlock& block) {
    if (block.keep_) {
        if (rename(block.path_.c_str(), largeName(directory_, block.key_).c_str()) == -1)
            fail(block.path_);
        block.file_.reset();
    }
    const std::lock_guard guard(lock_);
    index_.emplace(block.key_, LARGE);
}

std::uint64_t BlockStore::uniqueBlocks(std::uint64_t backupNo) {
    const std::lock_guard guard(lock_);
    return referencesOf(backupNo).blocks.size();
}

void BlockStore::forget(std::uint64_t backupNo) {
    const std::lock_guard guard(lock_);
    references_.erase(backupNo);
    fs::remove(directory_ / "refs" / std::to_string(backupNo));
}

bool BlockStore::copyTo(const BlockKey& key, int fd) const {
    const std::optional<std::uint64_t> offset = find(key);
    if (!offset)
        return false;
    FileDescriptor large;
    if (*offset == LARGE)
        large = openFile(largeName(directory_, key), O_RDONLY);
    off_t position = *offset == LARGE ? 0 : static_cast<off_t>(*offset);
    for (std::uint64_t left = key.length; left > 0;) {
        const ssize_t n = sendfile(fd, large.isOpen() ? large.get() : pack_.get(), &position, left);
        if (n <= 0)
            fail(directory_);
        left -= static_cast<std::uint64_t>(n);
    }
    return true;
}

void BlockStore::sync() const {
    if (fdatasync(pack_.get()) == -1)
        fail(directory_ / "blocks.pack");
}

}  // namespace vault
