// archive_support.h - backup files of every kind on a real disk, and the key service that the encrypted ones need.
#pragma once

#include "archive/archiverw.h"
#include "crypto/libCryptoDaemon_internal.h"
#include "support/compressed.h"
#include "support/key_service.h"

namespace testsupport {

inline constexpr std::uint64_t ZIPPED = ARCHIVE_MAYBE_COMPRESSED;
inline constexpr std::uint64_t LOCKED = ARCHIVE_ENCRYPTED;

struct Kind {
    const char* engine;
    std::uint64_t properties;

    // For failures.
    [[nodiscard]] std::string name() const { return engine + (" " + std::to_string(properties)); }
};
inline constexpr Kind KINDS[] = {{"zlib", 0},      {"zlib", ZIPPED},          {"lz4", ZIPPED},
                                 {"zlib", LOCKED}, {"zlib", LOCKED | ZIPPED}, {"lz4", LOCKED | ZIPPED}};

inline const std::string BAD = "failed " + std::to_string(EBADMSG);

// Direct I/O needs a real file system; the temporary directory may be memory.
class ArchiveFile : public ::testing::Test {
protected:
    ArchiveFile() {
        std::string pattern = "/var/tmp/ferryd-archive-XXXXXX";
        if (mkdtemp(pattern.data()) != nullptr)
            path = pattern + "/backup_1";
        configure("zlib");
    }
    ~ArchiveFile() override { std::filesystem::remove_all(std::filesystem::path(path).parent_path()); }

    void configure(const std::string& engine, const std::string& more = "CompressionSegmentKB=1\n") {
        forgetCipherPlace();
        const char* const place = more.find("inlineCryption") == std::string::npos ? "inlineCryption=true\n" : "";
        root.masterIni("[Configuration Options]\n" + (place + ("CompressEngine=" + engine)) + "\n" + more);
    }
    void needKeyService() {
        writeFile(root / "var/opt/kestrelix/platform_capabilities", "encryption\n");
        if (!keyService)
            keyService = std::make_unique<lab::Process>(startKeyService(root));
    }

    void makeBackup(const Kind& kind, const std::string& bytes, const std::string& more = "") {
        configure(kind.engine, more);
        makeBackup(bytes, kind.properties);
    }
    static ssize_t put(archive_filter* filter, const std::string& bytes) {
        return archive_write(filter, bytes.data(), bytes.size());
    }
    // Up to so many bytes, or "failed" and errno.
    static std::string readUpTo(archive_filter* filter, std::size_t count) {
        std::string bytes(count, '?');
        const ssize_t got = archive_read(filter, bytes.data(), count);
        return got == -1 ? "failed " + std::to_string(errno) : bytes.substr(0, static_cast<std::size_t>(got));
    }
    ArchiveFilterPtr create(std::uint64_t properties) {
        std::filesystem::remove(path);
        return archive_open(path.c_str(), "w", properties);
    }
    // A whole backup in one go.
    void makeBackup(const std::string& bytes, std::uint64_t properties) {
        ArchiveFilterPtr filter = create(properties);
        ASSERT_EQ(put(filter.get(), bytes), static_cast<ssize_t>(bytes.size()));
        ASSERT_EQ(archive_close(&filter), 0);
    }
    ArchiveFilterPtr reopen(std::uint64_t properties) const { return archive_open(path.c_str(), "r", properties); }

    // All of the file at `path`, or "failed" and errno.
    std::string readAll(std::uint64_t properties, std::size_t piece = 1 << 20) const {
        const ArchiveFilterPtr filter = reopen(properties);
        return filter ? restOf(filter.get(), piece) : "no file";
    }
    static std::string restOf(archive_filter* filter, std::size_t piece = 1 << 20) {
        std::string all;
        for (std::string got; !(got = readUpTo(filter, piece)).empty(); all += got)
            if (got.starts_with("failed "))
                return got;
        return all;
    }

    TestRoot root;
    std::string path;
    std::unique_ptr<lab::Process> keyService;
};

}  // namespace testsupport
