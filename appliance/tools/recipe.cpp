// recipe -b<backup_no> - writes the final metadata file of a hashed backup, hactar_<backup_no> on its device: each
// block of the stream by its digest, and what was not hashed as it is.

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "common/backup_reader.h"
#include "common/hactar.h"
#include "common/tool.h"
#include "hash/hash_list.h"
#include "log/logger.h"

namespace {

class Recipe {
public:
    Recipe(const tool::Device& device, std::uint64_t backupNo)
        : backupNo_(backupNo),
          stream_(device, backupNo),
          size_(stream_.size()),
          writer_(device.directory / ("hactar_" + std::to_string(backupNo)), backupNo, stream_.isEncrypted()) {}

    void write() {
        HashListPtr list;
        if (createHashList(&list, backupNo_, {}, 0) == -1)
            throw std::runtime_error("the backup's blocks can't be listed");
        std::vector<hashReferenceInfo> records(4096);
        for (;;) {
            const long count = getHashesFromList(&list, records);
            if (count < 0)
                throw std::runtime_error("the backup's blocks can't be listed");
            if (count == 0)
                break;
            for (const hashReferenceInfo& record : std::span(records).first(static_cast<std::size_t>(count)))
                add(record);
        }
        literalUpTo(size_);
        writer_.finish();
    }

private:
    void add(const hashReferenceInfo& record) {
        const auto offset = static_cast<std::uint64_t>(record.fileOffset);
        if (offset < position_ || offset > size_ || record.hashedLength > size_ - offset)
            throw std::runtime_error("the block at " + std::to_string(offset) + " lies outside its place");
        literalUpTo(offset);
        Sha512 digest;
        std::copy(std::begin(record.digest), std::end(record.digest), digest.begin());
        writer_.block(record.hashedLength, digest);
        position_ += record.hashedLength;
    }

    void literalUpTo(std::uint64_t end) {
        std::vector<std::byte> buffer(hactar::LITERAL_LIMIT);
        while (position_ < end) {
            const std::size_t n = std::min<std::uint64_t>(end - position_, buffer.size());
            stream_.read(position_, std::span(buffer).first(n));
            writer_.literal(std::span(buffer).first(n));
            position_ += n;
        }
    }

    std::uint64_t backupNo_;
    tool::BackupReader stream_;
    std::uint64_t size_;
    hactar::Writer writer_;
    std::uint64_t position_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t backupNo = 0;
    for (int key; (key = getopt(argc, argv, "b:")) != -1;)
        backupNo = key == 'b' ? tool::backupNumber(optarg) : 0;
    if (backupNo == 0 || optind != argc) {
        fprintf(stderr, "Usage: recipe -b <backup_no>\n");
        return 2;
    }
    try {
        tool::start("recipe");
        Recipe(tool::deviceOf(backupNo), backupNo).write();
        return 0;
    } catch (const std::exception& e) {
        LOG_HERE(0, "recipe of backup %lu: %s", backupNo, e.what());
        fprintf(stderr, "recipe: %s\n", e.what());
        return 1;
    }
}
