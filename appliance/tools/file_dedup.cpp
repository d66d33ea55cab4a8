// fileDedup -H<backup_no> - hashes a backup: cuts its stream into blocks, records them in the hash layer, and marks the
// backup hashed. Exit status 3: another process holds the backup.
// fileDedup -D<backup_no> [-P] - hashes it if needed, and moves its blocks into the single instance store; with -P
// their bytes are cut out of the backup's file.
//
// The stream is cut where the content of a larger file begins and ends, and there into blocks of the subfile limit;
// what lies between (headers, small files) is cut where its own bytes say so, so that an entry that was added or
// removed moves the cuts around it only.

#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "block/hash_context.h"
#include "bookkeeping/common.h"
#include "common/backup_reader.h"
#include "common/ctar.h"
#include "common/tool.h"
#include "config/services.h"
#include "hash/hashValues.h"
#include "log/logger.h"
#include "store_mover.h"

namespace {

constexpr int EXIT_LOCKED = 3;
constexpr std::uint64_t LARGE_FILE = 64 << 10;      // bytes from which a file is cut by itself
constexpr std::uint64_t SMALLEST_PIECE = 16 << 10;  // bytes of a run of small entries
constexpr std::uint64_t LONGEST_PIECE = 1 << 20;
constexpr std::uint64_t WINDOW = 8 << 20;  // bytes read at a time
constexpr std::uint32_t CUT_MASK = 63;     // one block of 512 bytes in 64 ends a run
constexpr std::size_t BATCH = 512;         // blocks recorded at a time

struct Locked {};

struct LargeFile {
    std::uint64_t offset;
    std::uint64_t size;
};

class Deduplicator {
public:
    Deduplicator(const tool::Device& device, std::uint64_t backupNo) : backupNo_(backupNo), stream_(device, backupNo) {
        if (flock(stream_.descriptor(), LOCK_EX | LOCK_NB) == -1)
            throw Locked();
        size_ = stream_.size();
    }

    void hash() {
        const PgResultPtr row = backupRow();
        limit_ = getMaxSubfileBytes(static_cast<int>(pgIVal(row.get(), 0, "type")), pgUVal(row.get(), 0, "properties"));
        for (const LargeFile& large : largeFiles()) {
            hashRun(large.offset);
            while (position_ < large.offset + large.size)
                hashPiece(std::min(limit_, large.offset + large.size - position_));
        }
        hashRun(size_);
        record();
        complete();
    }

    void moveToStore(const tool::Device& device, bool punches) {
        if ((pgUVal(backupRow().get(), 0, "properties") & P_ANY_HASHED) == 0)
            hash();
        StoreMover mover(device, backupNo_, &stream_);
        mover.move();
        if (punches)
            mover.punch();
    }

private:
    PgResultPtr backupRow() const {
        PgResultPtr row = tool::need(pgVExec("SELECT type, properties FROM backups WHERE backup_no = %lu", backupNo_),
                                     "find the backup");
        if (pgTuples(row.get()) != 1)
            throw std::runtime_error("the catalogue doesn't have the backup");
        return row;
    }

    std::vector<LargeFile> largeFiles() const {
        const PgResultPtr rows = tool::need(pgVExec("SELECT size, blk_offset FROM backup_files WHERE backup_no = %lu "
                                                    "AND size >= %lu AND blk_offset >= 0 ORDER BY blk_offset",
                                                    backupNo_, LARGE_FILE),
                                            "list the backup's files");
        std::vector<LargeFile> files;
        std::uint64_t last = 0;
        for (int i = 0; i < pgTuples(rows.get()); ++i) {
            const LargeFile file{pgUVal(rows.get(), i, "blk_offset") * ctar::BLOCK, pgUVal(rows.get(), i, "size")};
            if (file.offset < last || file.offset > size_ || file.size > size_ - file.offset)
                throw std::runtime_error("the catalogue names a file outside the backup");
            files.push_back(file);
            last = file.offset + file.size;
        }
        return files;
    }

    // What lies before `end` and belongs to no large file.
    void hashRun(std::uint64_t end) {
        while (position_ < end)
            hashPiece(runLength(end));
    }

    std::uint64_t runLength(std::uint64_t end) {
        const std::uint64_t longest = std::min({limit_, LONGEST_PIECE, end - position_});
        std::uint64_t length = std::min(SMALLEST_PIECE, longest);
        const auto* bytes = reinterpret_cast<const unsigned char*>(window(position_, longest));
        while (length < longest) {
            const std::uint64_t step = std::min<std::uint64_t>(ctar::BLOCK, longest - length);
            length += step;
            if ((crc32_buffer(bytes + length - step, step) & CUT_MASK) == 0)
                break;
        }
        return length;
    }

    void hashPiece(std::uint64_t length) {
        const std::byte* bytes = window(position_, length);
        HashContextPtr context;
        if (initializeHashContext(&context) != 0 || addToHashContext(context.get(), bytes, length) != 0 ||
            hashFromHashContext(context.get()) != 0)
            throw std::runtime_error("a block can't be hashed");
        hashValue value{};
        value.flags = hashValue_in;
        value.hashedLength = length;
        std::memcpy(value.hashType, "sha512", 7);
        std::memcpy(value.digest, context->digest.data(), sizeof value.digest);
        values_.push_back(value);
        offsets_.push_back({offset_in, 0, static_cast<std::int64_t>(position_)});
        position_ += length;
        if (values_.size() == BATCH)
            record();
    }

    // The bytes from `offset` on, at least `length` of them; valid until the next call. What is there stays: a backup
    // is read once, from front to back.
    const std::byte* window(std::uint64_t offset, std::uint64_t length) {
        if (offset + length > windowStart_ + windowFill_) {
            buffer_.resize(std::max<std::uint64_t>(buffer_.size(), std::max(length, WINDOW)));
            const std::uint64_t kept = windowStart_ + windowFill_ - offset;
            std::memmove(buffer_.data(), buffer_.data() + (windowFill_ - kept), kept);
            windowStart_ = offset;
            windowFill_ = std::min<std::uint64_t>(buffer_.size(), size_ - offset);
            stream_.read(offset + kept, std::span(buffer_).subspan(kept, windowFill_ - kept));
        }
        return buffer_.data() + (offset - windowStart_);
    }

    void record() {
        if (!values_.empty() && putAllHashValues(&handle_, backupNo_, 0, values_, offsets_) < 0)
            throw std::runtime_error("the blocks can't be recorded");
        values_.clear();
        offsets_.clear();
    }

    void complete() {
        hashReferenceInfo all{};
        all.backupNumber = backupNo_;
        all.referenceFlags = complete_in | reference_complete;
        if (updateHashInfo(&handle_, all, 0, std::numeric_limits<std::int64_t>::max()) < 0)
            throw std::runtime_error("the blocks can't be marked complete");
        (void)tool::need(pgVExec("UPDATE backups SET properties = properties | %u WHERE backup_no = %lu",
                                 static_cast<unsigned>(P_HASHED), backupNo_),
                         "mark the backup hashed");
    }

    std::uint64_t backupNo_;
    tool::BackupReader stream_;
    std::uint64_t size_ = 0;
    std::uint64_t limit_ = 0;
    std::uint64_t position_ = 0;
    std::vector<std::byte> buffer_;  // windowFill_ bytes of the file from windowStart_ on
    std::uint64_t windowStart_ = 0;
    std::uint64_t windowFill_ = 0;
    HashValuesPtr handle_;
    std::vector<hashValue> values_;
    std::vector<hashOffset> offsets_;
};

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t backupNo = 0;
    bool moves = false;
    bool punches = false;
    for (int key; (key = getopt(argc, argv, "H:D:P")) != -1;) {
        moves = moves || key == 'D';
        punches = punches || key == 'P';
        if (key != 'P')
            backupNo = key == '?' ? 0 : tool::backupNumber(optarg);
    }
    if (backupNo == 0 || optind != argc || (punches && !moves)) {
        fprintf(stderr, "Usage: fileDedup -H<backup_no> | -D<backup_no> [-P]\n");
        return 2;
    }
    try {
        tool::start("fileDedup");
        const tool::Device device = tool::deviceOf(backupNo);
        Deduplicator deduplicator(device, backupNo);
        if (moves)
            deduplicator.moveToStore(device, punches);
        else
            deduplicator.hash();
        return 0;
    } catch (const Locked&) {
        LOG_HERE(0, "Backup %lu is locked by another process", backupNo);
        return EXIT_LOCKED;
    } catch (const std::exception& e) {
        LOG_HERE(0, "fileDedup of backup %lu: %s", backupNo, e.what());
        fprintf(stderr, "fileDedup: %s\n", e.what());
        return 1;
    }
}
