// ingest - makes a real backup of a real directory: its stream on the first disk, its rows in the catalogue.
//
// Prints the number of the new backup. What can't be read is named on standard error and left out.

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "archive/archiverw.h"
#include "base/file_descriptor.h"
#include "bookkeeping/common.h"
#include "common/ctar.h"
#include "common/tool.h"
#include "config/services.h"
#include "crypto/libCryptoDaemon.h"
#include "database/smartbuffer.h"

namespace {

namespace fs = std::filesystem;

struct Options {
    int type = 1;
    std::uint64_t properties = 0;
    std::string client = "localhost";
    fs::path directory;
};

// The stream of one backup as it is written.
class Stream {
public:
    Stream(const fs::path& path, std::uint64_t properties) : path_(path) {
        filter_ = archive_open(path.c_str(), "w", properties);
        if (!filter_)
            fail();
    }

    void add(const char* bytes, std::size_t count) {
        if (archive_write(filter_.get(), bytes, count) == -1)
            fail();
        length_ += count;
    }
    void pad() {
        static constexpr char ZEROS[ctar::BLOCK] = {};
        add(ZEROS, (ctar::BLOCK - length_ % ctar::BLOCK) % ctar::BLOCK);
    }
    // On the disk, before the catalogue says so.
    void finish() {
        if (archive_close(&filter_) == -1)
            fail();
        const FileDescriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.isOpen() || fsync(file.get()) == -1)
            fail();
    }
    [[nodiscard]] std::uint64_t length() const { return length_; }

private:
    [[noreturn]] void fail() const { throw std::runtime_error(path_.string() + ": " + strerror(errno)); }

    fs::path path_;
    ArchiveFilterPtr filter_;
    std::uint64_t length_ = 0;
};

struct FileRow {
    std::uint64_t size;
    std::uint64_t block;  // where the content starts, in blocks of 512 bytes
};

class Ingest {
public:
    explicit Ingest(Options options) : options_(std::move(options)), device_(tool::firstDisk()) {}

    std::uint64_t run() {
        if ((options_.properties & ARCHIVE_ENCRYPTED) != 0)
            needKeyService();
        const PgResultPtr next =
            tool::need(pgExec("SELECT nextval('dq.backups_backup_no_seq') AS no"), "give a backup number");
        backupNo_ = pgUVal(next.get(), 0, "no");
        fs::path path = tool::backupFile(device_, backupNo_);
        if ((options_.properties & ARCHIVE_MAYBE_COMPRESSED) != 0)
            path += tool::COMPRESSED_SUFFIX;
        try {
            Stream stream(path, options_.properties);
            addDirectory(stream, options_.directory);
            const ctar::Header end = ctar::sentinel();
            stream.add(end.data(), end.size());
            stream.finish();
            record(stream.length());
        } catch (...) {
            (void)unlink(path.c_str());
            throw;
        }
        return backupNo_;
    }

private:
    static void needKeyService() {
        unsigned mask = 0;
        CDlibResult result{};
        if (CDgetStatusBitmask(&mask, &result) != 0)
            throw std::runtime_error(std::string("no key service (cryptoDaemon), so nothing can be encrypted: ") +
                                     std::string(result.text, strnlen(result.text, sizeof result.text)));
        if ((mask & CDLIB_STATUS_READY) == 0)
            throw std::runtime_error("the key service (cryptoDaemon) has no keys, so nothing can be encrypted");
    }

    void addDirectory(Stream& stream, const fs::path& directory) {
        std::vector<fs::path> entries;
        std::error_code error;
        for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error))
            entries.push_back(entry->path());
        if (error)
            skip(directory, error.message().c_str());
        std::sort(entries.begin(), entries.end());
        for (const fs::path& entry : entries)
            addEntry(stream, entry);
    }

    void addEntry(Stream& stream, const fs::path& path) {
        struct stat st;
        if (lstat(path.c_str(), &st) == -1) {
            skip(path, strerror(errno));
            return;
        }
        ctar::Entry entry;
        entry.name = path.string();
        entry.mode = st.st_mode;
        entry.uid = st.st_uid;
        entry.gid = st.st_gid;
        entry.mtime = static_cast<std::uint64_t>(st.st_mtime);
        FileDescriptor content;
        if (S_ISDIR(st.st_mode)) {
            entry.kind = '5';
        } else if (S_ISLNK(st.st_mode)) {
            entry.kind = '2';
            std::error_code error;
            entry.linkName = fs::read_symlink(path, error).string();
        } else if (S_ISREG(st.st_mode)) {
            entry.size = static_cast<std::uint64_t>(st.st_size);
            content.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
            if (!content.isOpen()) {
                skip(path, strerror(errno));
                return;
            }
        } else {
            skip(path, "neither file, directory nor link");
            return;
        }
        ctar::Header header;
        if (!ctar::makeHeader(entry, &header)) {
            skip(path, "the name is too long, or the file too large");
            return;
        }
        stream.add(header.data(), header.size());
        if (content.isOpen())
            addContent(stream, content.get(), entry.size);
        if (S_ISDIR(st.st_mode))
            addDirectory(stream, path);
    }

    // As many bytes as the header says, whatever happens to the file meanwhile.
    void addContent(Stream& stream, int fd, std::uint64_t size) {
        rows_.push_back({size, stream.length() / ctar::BLOCK});
        std::vector<char> buffer(256 << 10);
        for (std::uint64_t left = size; left > 0;) {
            const int wanted = static_cast<int>(std::min<std::uint64_t>(left, buffer.size()));
            const int n = std::max(0, safe_read(fd, buffer.data(), wanted));
            std::fill(buffer.begin() + n, buffer.begin() + wanted, '\0');
            stream.add(buffer.data(), static_cast<std::size_t>(wanted));
            left -= static_cast<std::uint64_t>(wanted);
        }
        stream.pad();
    }

    static void skip(const fs::path& path, const char* why) {
        fprintf(stderr, "ingest: left out %s: %s\n", path.c_str(), why);
    }

    [[nodiscard]] std::string quoted(const std::string& text) const {
        std::string escaped;
        if (pgAEscape(&escaped, text) == -1)
            throw std::runtime_error("the catalogue can't be used");
        return "'" + escaped + "'";
    }

    // The client's file-level instance, made on its first backup.
    unsigned long instance(unsigned long* node) {
        const std::string name = quoted(options_.client);
        const char* const find =
            "SELECT instance_id, node_no FROM application_instances JOIN nodes USING (node_no) WHERE node_name = %s "
            "AND app_id = 1";
        PgResultPtr row = tool::need(pgVExec(find, name.c_str()), "find the client");
        if (pgTuples(row.get()) == 0) {
            (void)tool::need(pgVExec("WITH client AS (INSERT INTO nodes (node_name) VALUES (%s) RETURNING node_no) "
                                     "INSERT INTO application_instances (node_no, app_id, key1) SELECT node_no, 1, %s "
                                     "FROM client",
                                     name.c_str(), name.c_str()),
                             "add the client");
            row = tool::need(pgVExec(find, name.c_str()), "find the client");
        }
        *node = pgUVal(row.get(), 0, "node_no");
        return pgUVal(row.get(), 0, "instance_id");
    }

    void addFileRows() {
        for (std::size_t first = 0; first < rows_.size(); first += 1000) {
            smartbuffer text;
            smartbuffer_init(&text);
            smartbuffer_append(&text, "INSERT INTO backup_files (backup_no, size, blk_offset) VALUES ", -1);
            for (std::size_t i = first; i < std::min(first + 1000, rows_.size()); ++i)
                smartbuffer_printf(&text, "%s(%lu, %lu, %lu)", i == first ? "" : ", ", backupNo_, rows_[i].size,
                                   rows_[i].block);
            if (text.error != 0)
                throw std::bad_alloc();
            (void)tool::need(pgExec(text.text.get()), "record the files");
        }
    }

    void record(std::uint64_t length) {
        unsigned long node = 0;
        const unsigned long instanceId = instance(&node);
        const std::string client = quoted(options_.client);
        int savepoint = 0;
        if (pgPushTransaction(&savepoint) == -1)
            throw std::runtime_error("the catalogue can't start a transaction");
        Cleanup rollback([&] {
            if (savepoint != 0)
                (void)pgPopTransaction(false, savepoint);
        });
        const PgResultPtr fileset = tool::need(
            pgVExec("INSERT INTO filesets (backup_no, tape_no, tape_drive_name, server_name, total_megs, status) "
                    "VALUES (%lu, %lu, %s, %s, %lu, %d) RETURNING fileset_no",
                    backupNo_, device_.tapeNo, quoted(device_.name).c_str(), client.c_str(), length >> 20,
                    static_cast<int>(JOB_SUCCESS)),
            "record the fileset");
        // A later backup of an instance starts later, also when two follow within a second.
        (void)tool::need(
            pgVExec("INSERT INTO backups (backup_no, node_no, instance_id, type, status, sync_status, start_time, "
                    "tape_no, fileset_no, server_name, total_megs, total_kilo, properties) SELECT %lu, %lu, %lu, %d, "
                    "%d, 1, "
                    "GREATEST(%ld, (SELECT max(start_time) + 1 FROM backups WHERE instance_id = %lu)), %lu, %lu, %s, "
                    "%lu, %lu, %lu",
                    backupNo_, node, instanceId, options_.type, static_cast<int>(JOB_SUCCESS),
                    static_cast<long>(time(nullptr)), instanceId, device_.tapeNo,
                    pgUVal(fileset.get(), 0, "fileset_no"), client.c_str(), (length + (1 << 20) - 1) >> 20,
                    length >> 10, options_.properties),
            "record the backup");
        addFileRows();
        const int id = std::exchange(savepoint, 0);
        if (pgPopTransaction(true, id) == -1)
            throw std::runtime_error("the catalogue can't commit the backup");
    }

    Options options_;
    tool::Device device_;
    std::uint64_t backupNo_ = 0;
    std::vector<FileRow> rows_;
};

int usage(int status) {
    fprintf(stderr, "Usage: ingest [--type N] [--client NAME] [--compress] [--encrypt] DIR\n");
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const option known[] = {{"type", required_argument, nullptr, 't'}, {"client", required_argument, nullptr, 'c'},
                            {"compress", no_argument, nullptr, 'z'},   {"encrypt", no_argument, nullptr, 'e'},
                            {"help", no_argument, nullptr, 'h'},       {nullptr, 0, nullptr, 0}};
    for (int key; (key = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        if (key == 't')
            options.type = atoi(optarg);
        else if (key == 'c')
            options.client = optarg;
        else if (key == 'z')
            options.properties |= ARCHIVE_MAYBE_COMPRESSED;
        else if (key == 'e')
            options.properties |= ARCHIVE_ENCRYPTED;
        else
            return usage(key == 'h' ? 0 : 2);
    }
    if (optind != argc - 1 || options.type <= 0)
        return usage(2);
    try {
        options.directory = fs::canonical(argv[optind]);
        tool::start("ingest");
        printf("%lu\n", Ingest(std::move(options)).run());
        return 0;
    } catch (const std::exception& e) {
        fprintf(stderr, "ingest: %s\n", e.what());
        return 1;
    }
}
