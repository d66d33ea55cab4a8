// recipe -b<backup_no> - writes the final metadata file of a hashed backup, hactar_<backup_no> on its device: each
// block of the stream by its digest, and what was not hashed as it is.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "common/hactar.h"
#include "common/tool.h"
#include "foundation/file_descriptor.h"
#include "foundation/logger.h"
#include "hash/hash_list.h"

namespace {

namespace fs = std::filesystem;

class Recipe {
public:
    Recipe(const tool::Device& device, std::uint64_t backupNo)
        : backupNo_(backupNo), writer_(device.directory / ("hactar_" + std::to_string(backupNo)), backupNo) {
        const fs::path path = tool::backupFile(device, backupNo);
        file_.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat st;
        if (!file_.isOpen() || fstat(file_.get(), &st) == -1)
            throw std::runtime_error(path.string() + ": " + strerror(errno));
        size_ = static_cast<std::uint64_t>(st.st_size);
    }

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
            const ssize_t n = pread(file_.get(), buffer.data(), std::min<std::uint64_t>(end - position_, buffer.size()),
                                    static_cast<off_t>(position_));
            if (n <= 0)
                throw std::runtime_error("the backup file can't be read to its end");
            writer_.literal(std::span(buffer).first(static_cast<std::size_t>(n)));
            position_ += static_cast<std::uint64_t>(n);
        }
    }

    std::uint64_t backupNo_;
    hactar::Writer writer_;
    FileDescriptor file_;
    std::uint64_t size_ = 0;
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
