#include "fuzz_support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "log/logger.h"

void fuzzCheck(bool holds, const char* condition, const char* file, int line) {
    if (holds)
        return;
    (void)std::fprintf(stderr, "%s:%d: doesn't hold: %s\n", file, line, condition);
    std::abort();
}

MemoryFile::MemoryFile(std::string_view bytes) : fd_(memfd_create("fuzz", MFD_CLOEXEC)) {
    FUZZ_CHECK(fd_.isOpen());
    while (!bytes.empty()) {
        const ssize_t took = write(fd_.get(), bytes.data(), bytes.size());
        FUZZ_CHECK(took > 0);
        bytes.remove_prefix(static_cast<std::size_t>(took));
    }
}

void fuzzStart() {
    log_level = LOG_SILENT;
    log_screen_level = -1;
}
