// fileDedup -H<backup_no> - hashes a backup: cuts its stream into blocks, records them in the hash layer, and marks the
// backup hashed. Exit status 3: another process holds the backup.
//
// The stream is cut where the content of a larger file begins and ends, and there into blocks of the subfile limit;
// what lies between (headers, small files) is cut where its own bytes say so, so that an entry that was added or
// removed moves the cuts around it only.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <vector>

#include "bookkeeping/common.h"
#include "common/ctar.h"
#include "common/tool.h"
#include "foundation/file_descriptor.h"
#include "foundation/logger.h"
#include "foundation/services.h"
#include "hash/hashValues.h"
#include "hash/hash_context.h"

namespace {

namespace fs = std::filesystem;

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
    Deduplicator(const tool::Device& device, std::uint64_t backupNo) : backupNo_(backupNo) {
        const fs::path path = tool::backupFile(device, backupNo);
        file_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (!file_.isOpen() || fstat(file_.get(), &st) == -1)
            throw std::runtime_error(path.string() + ": " + strerror(errno));
        if (flock(file_.get(), LOCK_EX | LOCK_NB) == -1)
            throw Locked();
        size_ = static_cast<std::uint64_t>(st.st_size);
    }

    void hash() {
        const PgResultPtr row = tool::need(
            pgVExec("SELECT type, properties FROM backups WHERE backup_no = %lu", backupNo_), "find the backup");
        if (pgTuples(row.get()) != 1)
            throw std::runtime_error("the catalogue doesn't have the backup");
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

private:
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

    // The bytes from `offset` on, at least `length` of them; valid until the next call.
    const std::byte* window(std::uint64_t offset, std::uint64_t length) {
        if (offset < windowStart_ || offset + length > windowStart_ + windowFill_) {
            buffer_.resize(std::max<std::uint64_t>(buffer_.size(), std::max(length, WINDOW)));
            windowStart_ = offset;
            windowFill_ = std::min<std::uint64_t>(buffer_.size(), size_ - offset);
            fill();
        }
        return buffer_.data() + (offset - windowStart_);
    }

    void fill() {
        for (std::uint64_t done = 0; done < windowFill_;) {
            const ssize_t n =
                pread(file_.get(), buffer_.data() + done, windowFill_ - done, static_cast<off_t>(windowStart_ + done));
            if (n <= 0)
                throw std::runtime_error("the backup file can't be read to its end");
            done += static_cast<std::uint64_t>(n);
        }
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
    FileDescriptor file_;
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
    for (int key; (key = getopt(argc, argv, "H:")) != -1;)
        backupNo = key == 'H' ? tool::backupNumber(optarg) : 0;
    if (backupNo == 0 || optind != argc) {
        fprintf(stderr, "Usage: fileDedup -H<backup_no>\n");
        return 2;
    }
    try {
        tool::start("fileDedup");
        Deduplicator(tool::deviceOf(backupNo), backupNo).hash();
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
