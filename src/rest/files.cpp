#include "rest/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/file_descriptor.h"
#include "crypto/libCryptoDaemon.h"
#include "log/logger.h"
#include "rest/session_internal.h"

namespace {

using StreamPtr = std::unique_ptr<FILE, Releaser<&fclose>>;

constexpr int SOURCE_ENCRYPTION = 1;
constexpr std::size_t TOKEN_SIZE = 1536;            // of every file that the system encrypts
constexpr std::size_t STAGED_CIPHER_BLOCKS = 5000;  // room for what is read and not decrypted yet

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

// Read source of an encrypted file.
struct EncryptedFileSource {
    FILE* file = nullptr;           // behind the token
    std::vector<std::byte> buffer;  // ciphertext on its way
    CryptContext crypt;
    CDlibResult error{};
    std::vector<char> token;
    std::uint64_t toSend = 0;  // bytes behind the token
    std::uint64_t sentBytes = 0;
};

void logDecryptFailure(const EncryptedFileSource& source) {
    LOG_HERE(0, "Failed to decrypt");
    LOG_HERE(0, "Error:%.64s", source.error.text);
    LOG_HERE(0, "dataInBytes: %d dataOutBytes: %d", static_cast<int>(source.crypt.dataInBytes),
             static_cast<int>(source.crypt.dataOutBytes));
    LOG_HERE(0, "input encryption header: %.*s\n", static_cast<int>(CDLIB_TEXT_SIZE),
             source.error.text[0] != '\0' ? source.token.data() : "error return");
    LOG_HERE(0, "data->sent: %lu ", source.sentBytes);
}

// Fills the staging buffer with `wanted` bytes, fewer at the end of the file; 0 is a failure (logged).
std::size_t readCiphertext(EncryptedFileSource* source, std::size_t wanted) {
    const std::size_t got = fread(source->buffer.data(), 1, wanted, source->file);
    if (got == 0) {
        if (feof(source->file) != 0)
            LOG_HERE(0, "EOF");
        else
            LOG_HERE(0, "Error: fread returned 0 but not at EOF");
    } else if (got < wanted) {
        LOG_HERE(4, "short read, requested %zu, returned %zu", wanted, got);
    }
    return got;
}

bool decryptInto(char* out, EncryptedFileSource* source, std::size_t count) {
    source->crypt.nextDataInPtr = source->buffer.data();
    source->crypt.nextDataOutPtr = reinterpret_cast<std::byte*>(out);
    source->crypt.dataInBytes = source->crypt.dataOutBytes = count;
    if (CDlibCrypt(CDLIB_DECRYPT, &source->crypt, &source->error) != 0) {
        logDecryptFailure(*source);
        return false;
    }
    if (source->crypt.dataInBytes != 0) {
        LOG_HERE(0, "dataInBytes not zero; decrypt failed");
        return false;
    }
    return true;
}

// Takes whole cipher blocks only, so the pace's allowance isn't kept to the byte: what oversteps it wraps around, and
// there is no more waiting within that second.
std::size_t encryptedReadCallback(char* buffer, std::size_t size, std::size_t count, void* threadData) try {
    auto* const data = static_cast<ThreadCurlData*>(threadData);
    auto* const source = static_cast<EncryptedFileSource*>(data->userData);
    const timeval now = paceStart(data);
    const std::uint64_t left = source->toSend - source->sentBytes;
    if (left == 0)
        return 0;
    const std::size_t room = size * count - size * count % source->crypt.blockSize;
    const std::size_t got =
        readCiphertext(source, std::min({static_cast<std::uint64_t>(room), source->buffer.size(), left}));
    // As for a plain file: only the announced end may end the body.
    if (got == 0 || !decryptInto(buffer, source, got))
        return CURL_READFUNC_ABORT;
    source->sentBytes += got;
    paceSpend(data, got, now);
    return got;
} catch (const std::exception& e) {
    LOG_HERE(0, "Reading an encrypted file failed: %s", e.what());
    return CURL_READFUNC_ABORT;
}

// The URL and headers that both kinds of files have.
int openFileRequest(TargetRequest* request, const std::string& url, const std::string& path, bool isEncrypted,
                    std::int64_t backupNoOnTarget, std::uint64_t elapsed) {
    if (request->open(TargetRequest::Body::Some, url, "f-" + path) == -1)
        return -1;
    request->protocolHeader();
    if (isEncrypted)
        request->header(HEADER_SIZE, "X-SRCENC: %d", SOURCE_ENCRYPTION);
    request->backupNoHeader(backupNoOnTarget);
    request->header(HEADER_SIZE, "X-ElapsedTime: %lu", elapsed);
    return 0;
}

// Opens the session that the file's token asks for, and leaves the stream behind the token.
int openDecryption(EncryptedFileSource* source) {
    source->token.resize(TOKEN_SIZE);
    if (fread(source->token.data(), 1, TOKEN_SIZE, source->file) != TOKEN_SIZE) {
        LOG_HERE(0, "read failed");
        return -1;
    }
    if (CDlibInitCryptWithToken(source->token.data(), TOKEN_SIZE, &source->crypt, &source->error) != 0) {
        LOG_HERE(0, "Failed CDlibInitCryptWithToken");
        LOG_HERE(0, "Error:%.64s", source->error.text);
        return -1;
    }
    source->buffer.resize(STAGED_CIPHER_BLOCKS * source->crypt.blockSize);
    return 0;
}

int sendPlain(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget, int* curlStatus,
              std::uint64_t elapsed) {
    const std::int64_t size = sizeOfFile(path);
    if (size == -1)
        return -1;
    const StreamPtr stream = openStream(path, size);
    TargetRequest request;
    if (!stream || openFileRequest(&request, url, path, false, backupNoOnTarget, elapsed) == -1)
        return -1;
    FileSource source{stream.get(), static_cast<std::uint64_t>(size)};
    return request.put(fileReadCallback, &source, source.remaining, curlStatus) == -1 ? -1 : request.result();
}

int sendDecrypted(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget, int* curlStatus,
                  std::uint64_t elapsed) {
    const std::int64_t size = sizeOfFile(path);
    if (size == -1)
        return -1;
    const StreamPtr stream = openStream(path, size);
    EncryptedFileSource source;
    source.file = stream.get();
    if (!stream || openDecryption(&source) == -1)
        return -1;
    source.toSend = static_cast<std::uint64_t>(size) - TOKEN_SIZE;
    LOG_HERE(4, "toSend: %lu", source.toSend);
    TargetRequest request;
    if (openFileRequest(&request, url, path, true, backupNoOnTarget, elapsed) == -1 ||
        request.put(encryptedReadCallback, &source, source.toSend, curlStatus) == -1)
        return -1;
    return request.result();
}

}  // namespace

int putFile(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget, int* curlStatus,
            std::uint64_t elapsed) {
    LOG_HERE(6, "Starting putFiles(3)\n");
    const int result = failWithoutMemory([&] { return sendPlain(url, path, backupNoOnTarget, curlStatus, elapsed); });
    LOG_HERE(6, "Exiting putFiles(3)\n");
    return result;
}

int putEncryptedFile(const std::string& url, const std::string& path, std::int64_t backupNoOnTarget, int* curlStatus,
                     std::uint64_t elapsed) {
    LOG_HERE(4, "Starting putEncryptedFiles(3) num: %ld", backupNoOnTarget);
    return failWithoutMemory([&] { return sendDecrypted(url, path, backupNoOnTarget, curlStatus, elapsed); });
}
