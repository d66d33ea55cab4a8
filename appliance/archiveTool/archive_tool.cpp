// archiveTool - the archive filter by hand: writes a backup file from a clean stream, reads one back, shows its index.

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>
#include <vector>

#include "archive/archiverw.h"
#include "base/file_descriptor.h"
#include "common/tool.h"
#include "compression/compression.h"
#include "config/services.h"

namespace {

constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_DAMAGED = 3;
constexpr std::size_t PIECE = 1 << 20;
constexpr std::uint64_t ALL = std::numeric_limits<std::int64_t>::max();

constexpr char USAGE[] =
    "Usage: archiveTool write PATH [--properties N]\n"
    "       archiveTool read PATH [--properties N] [--offset BYTES] [--length BYTES]\n"
    "       archiveTool index PATH\n"
    "write  makes the file from the clean stream on standard input; a file that exists is left alone\n"
    "read   puts the clean stream, or a part of it, on standard output\n"
    "index  shows the tables behind the data of a compressed file\n"
    "Properties are those of a backup: 0x2 compressed (with the engine of master.ini), 0x100 encrypted,\n"
    "0x10000000 direct I/O. Numbers are decimal, octal (0...) or hexadecimal (0x...).\n"
    "Exit status: 0 done, 1 failed, 2 wrong use, 3 the stored data makes no sense or can't be decrypted.\n";

struct Options {
    std::string command;
    std::string path;
    std::uint64_t properties = 0;
    std::uint64_t offset = 0;
    std::uint64_t length = ALL;
};

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// What was made and couldn't be finished goes; a device was there before, and stays.
void removeRemains(const std::string& path) {
    const int saved = errno;
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        (void)unlink(path.c_str());  // what failed before is what counts
    errno = saved;
}

void write(const Options& options) {
    ArchiveFilterPtr filter = archive_open(options.path.c_str(), "w", options.properties);
    if (!filter)
        fail(options.path);
    std::vector<char> buffer(PIECE);
    bool isDone = false;
    while (!isDone) {
        const int got = safe_read(STDIN_FILENO, buffer.data(), static_cast<int>(buffer.size()));
        const bool isFailed =
            got == -1 || (got > 0 && archive_write(filter.get(), buffer.data(), static_cast<std::size_t>(got)) == -1);
        isDone = got < static_cast<int>(buffer.size());
        if (isFailed || (isDone && archive_close(&filter) == -1)) {
            removeRemains(options.path);
            fail(got == -1 ? "standard input" : options.path);
        }
    }
}

void read(const Options& options) {
    const ArchiveFilterPtr filter = archive_open(options.path.c_str(), "r", options.properties);
    const auto offset = static_cast<off_t>(options.offset);
    if (!filter || (offset > 0 && archive_seek(filter.get(), offset, SEEK_SET) == -1))
        fail(options.path);
    if (archive_seek(filter.get(), 0, SEEK_CUR) < offset)
        return;  // the stream ends before
    std::vector<char> buffer(PIECE);
    for (std::uint64_t left = options.length; left > 0;) {
        const ssize_t got = archive_read(filter.get(), buffer.data(), std::min<std::uint64_t>(left, buffer.size()));
        if (got == -1)
            fail(options.path);
        if (got == 0)
            break;
        if (safe_write(STDOUT_FILENO, buffer.data(), static_cast<int>(got)) != got)
            fail("standard output");
        left -= static_cast<std::uint64_t>(got);
    }
}

void show(const char* name, const compression_index& index) {
    printf("%s: chunk %zu, %zu entries\n", name, index.chunkSize, index.count());
    for (std::size_t i = 0; i < index.count(); ++i)
        printf("%zu %" PRId64 "\n", i, index.entries[i]);
}

void showIndex(const Options& options) {
    const FileDescriptor file(open(options.path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        fail(options.path);
    std::string error;
    const auto tables = LoadCompressionIndexTables(file.get(), &error);
    if (tables.empty()) {
        while (error.ends_with('\n'))
            error.pop_back();
        errno = EBADMSG;
        fail(options.path + ": no index: " + error);
    }
    show("primary", *tables.front());
    if (tables.size() > 1)
        show("secondary", *tables.back());
    if (fflush(stdout) != 0)
        fail("standard output");
}

bool parseNumber(const char* text, std::uint64_t* number) {
    char* end = nullptr;
    errno = 0;
    *number = strtoull(text, &end, 0);
    return *text >= '0' && *text <= '9' && *end == '\0' && errno == 0 && *number <= ALL;
}

// 0, or the exit status to leave with.
int parse(int argc, char** argv, Options* options, bool* isHelp) {
    const option known[] = {{"properties", required_argument, nullptr, 'p'},
                            {"offset", required_argument, nullptr, 'o'},
                            {"length", required_argument, nullptr, 'l'},
                            {"help", no_argument, nullptr, 'h'},
                            {nullptr, 0, nullptr, 0}};
    for (int key; (key = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        std::uint64_t* const number = key == 'p'   ? &options->properties
                                      : key == 'o' ? &options->offset
                                      : key == 'l' ? &options->length
                                                   : nullptr;
        *isHelp = *isHelp || key == 'h';
        if (key != 'h' && (number == nullptr || !parseNumber(optarg, number)))
            return EXIT_USAGE;
    }
    if (*isHelp)
        return 0;
    if (optind != argc - 2)
        return EXIT_USAGE;
    options->command = argv[optind];
    options->path = std::filesystem::absolute(argv[optind + 1]);  // the start goes to a directory of its own
    return 0;
}

int run(const Options& options) {
    try {
        tool::start("archiveTool");
        if (options.command == "write")
            write(options);
        else if (options.command == "read")
            read(options);
        else
            showIndex(options);
        return 0;
    } catch (const std::system_error& e) {
        const bool isDamaged = e.code().value() == EBADMSG;
        fprintf(stderr, "archiveTool: %s%s\n", e.what(),
                isDamaged ? ": the stored data makes no sense, or can't be decrypted; the log says more" : "");
        return isDamaged ? EXIT_DAMAGED : EXIT_FAILED;
    } catch (const std::exception& e) {
        fprintf(stderr, "archiveTool: %s\n", e.what());
        return EXIT_FAILED;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool isHelp = false;
    const int status = parse(argc, argv, &options, &isHelp);
    const bool isKnown = options.command == "write" || options.command == "read" || options.command == "index";
    if (isHelp) {
        fputs(USAGE, stdout);
        return 0;
    }
    if (status != 0 || !isKnown) {
        fputs(USAGE, stderr);
        return EXIT_USAGE;
    }
    return run(options);
}
