#include "store_mover.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "base/file_descriptor.h"
#include "block/hash_context.h"
#include "bookkeeping/common.h"
#include "compression/type.h"
#include "hash/hash_list.h"
#include "hash/store_access.h"

namespace {

constexpr std::size_t BATCH = 512;              // blocks whose hashes are locked at a time
constexpr std::uint64_t GROUP_BYTES = 8 << 20;  // written at a time, and reserved for it
constexpr std::uint64_t IN_STORE = 1;           // `deduplicated` of a reference
constexpr std::uint64_t LOCK_ORDER =
    0x3fffffff;  // hashes are locked by these bits; all who lock several keep the order

}  // namespace

StoreMover::StoreMover(const tool::Device& device, std::uint64_t backupNo, tool::BackupReader* stream)
    : device_(device), backupNo_(backupNo), stream_(stream) {
    store_ = openStoreForWriting(&hashes_);
    if (!store_)
        throw std::runtime_error("the store can't be opened");
}

void StoreMover::move() {
    HashListPtr list;
    if (createHashList(&list, backupNo_, {}, 0) == -1)
        throw std::runtime_error("the backup's blocks can't be listed");
    for (std::vector<hashReferenceInfo> batch;;) {
        batch.resize(BATCH);
        const int count = getHashesFromList(&list, batch);
        if (count < 0)
            throw std::runtime_error("the backup's blocks can't be listed");
        if (count == 0)
            break;
        batch.resize(static_cast<std::size_t>(count));
        for (const hashReferenceInfo& reference : batch)
            extents_.push_back({static_cast<std::uint64_t>(reference.fileOffset), reference.hashedLength});
        moveBatch(&batch);
    }
    mark();
}

// Under the locks of its hashes: two backups with the same block must not both put it into the store.
void StoreMover::moveBatch(std::vector<hashReferenceInfo>* batch) {
    const auto key = [](const hashReferenceInfo& r) { return std::pair(r.hashID & LOCK_ORDER, r.hashID); };
    std::sort(batch->begin(), batch->end(), [&](const auto& a, const auto& b) { return key(a) < key(b); });
    batch->erase(
        std::unique(batch->begin(), batch->end(), [](const auto& a, const auto& b) { return a.hashID == b.hashID; }),
        batch->end());
    std::vector<hashValue> ids(batch->size());
    for (std::size_t i = 0; i < ids.size(); ++i) {
        ids[i].flags = hashID_in;
        ids[i].hashID = (*batch)[i].hashID;
    }
    HashLockPtr locks;  // gives them back at the end
    if (lockHashValuesExclusive(&locks, ids) != static_cast<int>(ids.size()))
        throw std::runtime_error("the blocks' hashes can't be locked");
    if (getHashValues(&hashes_, ids) == -1)
        throw std::runtime_error("the blocks can't be looked up");
    std::vector<hashReferenceInfo> group;
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::uint64_t length = ids[i].hashedLength;
        if ((ids[i].flags & hashID_out) == 0)
            throw std::runtime_error("a block has lost its hash");
        if ((ids[i].flags & SISoffset_out) != 0 || length == 0)
            continue;
        if (bytes + length > GROUP_BYTES) {
            writeGroup(group);
            group.clear();
            bytes = 0;
        }
        hashReferenceInfo reference = (*batch)[i];
        static_cast<hashValue&>(reference) = ids[i];
        group.push_back(reference);
        bytes += length;
    }
    writeGroup(group);
}

void StoreMover::writeGroup(const std::vector<hashReferenceInfo>& references) {
    if (references.empty())
        return;
    std::vector<hashReferenceInfo> byPlace = references;  // the backup is read from front to back
    std::sort(byPlace.begin(), byPlace.end(), [](const auto& a, const auto& b) { return a.fileOffset < b.fileOffset; });
    std::vector<hashValue> records(byPlace.begin(), byPlace.end());
    std::uint64_t bytes = 0;
    for (const hashValue& record : records)
        bytes += record.hashedLength;
    std::vector<std::byte> buffer(bytes);
    std::uint64_t at = 0;
    for (const hashReferenceInfo& reference : byPlace) {
        readBlock(reference, std::span(buffer).subspan(at, reference.hashedLength));
        at += reference.hashedLength;
    }
    std::uint64_t offset = 0;
    if (reserveSIS(store_.get(), &offset, static_cast<std::int64_t>(bytes)) == -1)
        throw std::runtime_error("the store has no room");
    if (writeSISmultiBlock(store_.get(), buffer, offset, records) == -1)
        throw std::runtime_error("the store can't be written");
    for (hashValue& record : records)
        record.flags = hashValue_in | SISoffset_in;
    if (updateSISoffsets(&hashes_, records) < 0)
        throw std::runtime_error("the blocks' places can't be recorded");
}

// The store will be the only one to have the block: nothing goes in that isn't what its name says.
void StoreMover::readBlock(const hashReferenceInfo& reference, std::span<std::byte> to) const {
    stream_->read(static_cast<std::uint64_t>(reference.fileOffset), to);
    HashContextPtr context;
    if (initializeHashContext(&context) != 0 || addToHashContext(context.get(), to.data(), to.size()) != 0 ||
        hashFromHashContext(context.get()) != 0)
        throw std::runtime_error("a block can't be hashed");
    if (std::memcmp(context->digest.data(), reference.digest, sizeof reference.digest) != 0)
        throw std::runtime_error("the backup has changed since it was hashed: block at " +
                                 std::to_string(reference.fileOffset));
}

void StoreMover::mark() {
    hashReferenceInfo all{};
    all.backupNumber = backupNo_;
    all.referenceFlags = deduplicated_in;
    all.deduplicated = IN_STORE;
    if (updateHashInfo(&hashes_, all, 0, std::numeric_limits<std::int64_t>::max()) < 0)
        throw std::runtime_error("the references can't be marked");
    (void)tool::need(pgVExec("UPDATE backups SET properties = properties | %u WHERE backup_no = %lu",
                             static_cast<unsigned>(P_DEDUPLICATED), backupNo_),
                     "mark the backup deduplicated");
}

void StoreMover::punch() const {
    const std::filesystem::path path = tool::backupFile(device_, backupNo_);
    const FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct stat st;
    char magic[COMPRESSION_MAGIC_SIZE] = {};
    if (!file.isOpen() || fstat(file.get(), &st) == -1 || pread(file.get(), magic, sizeof magic, 0) == -1)
        throw std::runtime_error(path.string() + ": " + strerror(errno));
    // Offsets in the stream are offsets in the file only if it is neither compressed nor encrypted.
    if (static_cast<std::uint64_t>(st.st_size) != stream_->size() ||
        compression_type_of(magic, sizeof magic) != COMPRESSION_UNKNOWN)
        throw std::runtime_error(path.string() + " isn't a plain file: its blocks can't be cut out");
    for (const Extent& extent : extents_)
        if (extent.length != 0 && fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                                            static_cast<off_t>(extent.offset), static_cast<off_t>(extent.length)) == -1)
            throw std::runtime_error(path.string() + ": " + strerror(errno));
}
