// block_store.h - the blocks that a vault holds, and which backup refers to which.
//
// On disk, under one directory:
//   blocks.pack    records: 8 bytes type, u64 length, 64 bytes SHA-512, the data; appended only. A record cut short by
//                  a death is dropped at the next start.
//   large/         one file for each block above PACKED_LIMIT, named <digest>-<length>, put in place by rename.
//   refs/<number>  64 bytes SHA-512, u64 length, u64 offset per reference of one backup; appended only.
// Invariant: a block's bytes are in place before a reference to it is written.
// Threads: all functions may be called at once. Errors: std::runtime_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/file_descriptor.h"
#include "common/digest.h"

namespace vault {

inline constexpr std::uint64_t PACKED_LIMIT = 16u << 20;  // bytes

struct BlockKey {
    Sha512 digest;
    std::uint64_t length;
    bool operator==(const BlockKey&) const = default;
};

struct BlockKeyHash {
    std::size_t operator()(const BlockKey& key) const noexcept;
};

struct Reference {
    BlockKey block;
    std::uint64_t fileOffset;
};

// A large block on its way in: hashed while it is written.
class IncomingBlock {
public:
    IncomingBlock(const std::filesystem::path& directory, const BlockKey& key, bool keep);
    ~IncomingBlock();
    void add(const char* bytes, std::size_t count);
    [[nodiscard]] bool matches();  // length and digest are those announced

private:
    friend class BlockStore;
    BlockKey key_;
    bool keep_;
    std::filesystem::path path_;
    FileDescriptor file_;
    Sha512Stream digest_;
    std::uint64_t received_ = 0;
};

class BlockStore {
public:
    // With `discard` bodies are hashed and forgotten: for measuring what comes before the store.
    BlockStore(const std::filesystem::path& directory, bool discard);

    [[nodiscard]] bool discards() const { return discard_; }

    [[nodiscard]] bool holds(const BlockKey& key) const;

    // Adds references; those whose block the store lacks are left out. Returns one flag per entry: held or not.
    std::vector<bool> refer(std::uint64_t backupNo, std::span<const Reference> references);

    // The caller has checked the digest. Blocks that are there already are not stored twice.
    void store(std::span<const std::pair<BlockKey, std::span<const std::byte>>> blocks);

    [[nodiscard]] IncomingBlock receive(const BlockKey& key) const;
    void store(IncomingBlock& block);

    // Unique blocks that a backup refers to.
    [[nodiscard]] std::uint64_t uniqueBlocks(std::uint64_t backupNo);
    void forget(std::uint64_t backupNo);

    // Writes a block's bytes to a file; false if the store doesn't hold it.
    [[nodiscard]] bool copyTo(const BlockKey& key, int fd) const;

    // Makes all that was stored so far safe against a power cut.
    void sync() const;

private:
    struct References {
        FileDescriptor file;
        std::unordered_set<BlockKey, BlockKeyHash> blocks;
    };

    void loadPack();
    References& referencesOf(std::uint64_t backupNo);  // under the lock
    [[nodiscard]] std::optional<std::uint64_t> find(const BlockKey& key) const;

    std::filesystem::path directory_;
    bool discard_;
    mutable std::mutex lock_;  // guards all below; the pack is read without it
    FileDescriptor pack_;
    std::uint64_t packSize_ = 0;
    std::unordered_map<BlockKey, std::uint64_t, BlockKeyHash> index_;  // offset of the data; LARGE for a file
    std::map<std::uint64_t, References> references_;
};

}  // namespace vault
