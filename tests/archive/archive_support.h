// archive_support.h - backup files of every kind on a real disk, and the key service that the encrypted ones need.
#pragma once

#include "archive/archiverw.h"
#include "crypto/libCryptoDaemon_internal.h"
#include "support/compressed.h"
#include "support/key_service.h"
#include "support/test.h"

namespace testsupport {

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

    ArchiveFilterPtr create(std::uint64_t properties) {
        std::filesystem::remove(path);
        return archive_open(path.c_str(), "w", properties);
    }
    // A whole backup in one go.
    void makeBackup(const std::string& bytes, std::uint64_t properties) {
        ArchiveFilterPtr filter = create(properties);
        ASSERT_TRUE(filter);
        ASSERT_EQ(archive_write(filter.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
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
        std::string bytes(piece, '?');
        for (ssize_t got; (got = archive_read(filter, bytes.data(), piece)) != 0;) {
            if (got == -1)
                return "failed " + std::to_string(errno);
            all.append(bytes, 0, static_cast<std::size_t>(got));
        }
        return all;
    }

    TestRoot root;
    std::string path;
    std::unique_ptr<lab::Process> keyService;
};

}  // namespace testsupport
