#include "rest/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "foundation/file_descriptor.h"
#include "foundation/logger.h"
#include "rest/session_internal.h"

namespace {

using StreamPtr = std::unique_ptr<FILE, Releaser<&fclose>>;

constexpr int PROTOCOL = 1;

// What a file looks like before it is opened for sending. Returns its size, or -1 (logged).
std::int64_t sizeOfFile(const std::string& path) {
    FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen()) {
        LOG_HERE(0, "Failed to open:%s", path.c_str());
        LOG_HERE(0, "Error opening: %s", strerror(errno));
        return -1;
    }
    struct stat st;
    if (fstat(file.get(), &st) == -1) {
        LOG_HERE(0, "Failed to stat:%s", path.c_str());
        LOG_HERE(0, "Error checking: %s", strerror(errno));
        return -1;
    }
    if (close(file.release()) == -1) {
        LOG_HERE(0, "Failed to close:%s", path.c_str());
        LOG_HERE(0, "Error closing: %s", strerror(errno));
        return -1;
    }
    return st.st_size;
}

// The stream to send, which must have the size that is announced.
StreamPtr openStream(const std::string& path, std::int64_t size) {
    StreamPtr stream(fopen(path.c_str(), "rbe"));
    if (!stream) {
        LOG_HERE(0, "Failed to open:%s", path.c_str());
        LOG_HERE(0, "Error opening: %s", strerror(errno));
        return nullptr;
    }
    struct stat st;
    if (fstat(fileno(stream.get()), &st) == -1 || st.st_size != size) {
        LOG_HERE(0, "The size of %s changed while it was opened", path.c_str());
        return nullptr;
    }
    return stream;
}

struct FileSource {
    FILE* stream;
    std::uint64_t remaining;  // of the announced size
};

std::size_t fileReadCallback(char* buffer, std::size_t size, std::size_t count, void* threadData) {
    auto* const data = static_cast<ThreadCurlData*>(threadData);
    auto* const source = static_cast<FileSource*>(data->userData);
    const timeval now = paceStart(data);
    LOG_HERE(2, "remainingB:%lu", data->remainingB);
    LOG_HERE(6, "curl_size:%zd", static_cast<ssize_t>(size * count));
    const std::size_t n = std::min({static_cast<std::uint64_t>(size * count), data->remainingB, source->remaining});
    const std::size_t got = fread(buffer, 1, n, source->stream);
    // A file that ends before its announced size must fail the transfer: a plain 0 would leave it waiting.
    if (got == 0 && source->remaining != 0) {
        LOG_HERE(0, "The file ended %lu bytes too early", source->remaining);
        return CURL_READFUNC_ABORT;
    }
    source->remaining -= got;
    paceSpend(data, got, now);
    return got;
}

}  // namespace

int putFile(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget, int* curlStatus,
            std::uint64_t elapsed) {
    LOG_HERE(6, "Starting putFiles(3)\n");
    const std::int64_t size = sizeOfFile(path);
    if (size == -1)
        return -1;
    const StreamPtr stream = openStream(path, size);
    TargetRequest request;
    if (!stream || request.open(TargetRequest::Body::Some, url, "f-" + path) == -1 ||
        request.header(PROTOCOL_HEADER_SIZE, "X-Protocol: %d", PROTOCOL) == -1 ||
        request.header(HEADER_SIZE, "X-BackupNo: %ld", backupNoOnTarget) == -1 ||
        request.header(HEADER_SIZE, "X-ElapsedTime: %lu", elapsed) == -1)
        return -1;
    FileSource source{stream.get(), static_cast<std::uint64_t>(size)};
    if (request.put(fileReadCallback, &source, source.remaining, curlStatus) == -1)
        return -1;
    LOG_HERE(6, "Exiting putFiles(3)\n");
    return request.result();
}
