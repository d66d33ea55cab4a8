// Encryption of store files. Whether a file is encrypted is settled when it is made and told by its length: the token,
// from which the key service makes the file's key again, stands behind the data.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "archive/tar_header.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

constexpr std::uint64_t LONGEST_TOKEN = 1 << 20;
constexpr unsigned STATUS_RUNNING = 1;
constexpr unsigned STATUS_INITIALIZED = 2;

const char* negated(unsigned mask, unsigned bit) {
    return (mask & bit) != 0 ? "" : "not ";
}

bool newFilesAreEncrypted() {
    unsigned char wanted = 1;
    (void)ini_get_bool("fileDedup", "encryptSIS", 1, &wanted, g_master_ini);  // the default is in place
    if (wanted == 0) {
        log_message(3, "Not encrypting: configured as such\n");
        return false;
    }
    unsigned mask = 0;
    CDlibResult result{};
    if (CDgetStatusBitmask(&mask, &result) != 0) {
        log_message(3, "Not encrypting: CDgetStatusBitmask() failed\n  %.*s\n", static_cast<int>(CDLIB_TEXT_SIZE),
                    result.text);
        return false;
    }
    if ((mask & CDLIB_STATUS_READY) == 0)
        log_message(3, "Not encrypting: daemon %srunning, %sinitialized,%sready\n", negated(mask, STATUS_RUNNING),
                    negated(mask, STATUS_INITIALIZED), negated(mask, CDLIB_STATUS_READY));
    return (mask & CDLIB_STATUS_READY) != 0;
}

// A new session with its token, whose length nobody knows beforehand: too little room closes the session.
int openWithToken(CryptContext* crypt, std::vector<std::byte>* token) {
    for (std::uint64_t room = PAGE;;) {
        CDlibResult result{};
        if (CDlibInitCryptWithArchiveKey(crypt, &result) != 0) {
            log_message(0, "CDlibInitCryptWithArchiveKey() failed\n");
            log_message(0, "  %.*s\n", static_cast<int>(CDLIB_TEXT_SIZE), result.text);
            return -1;
        }
        token->resize(room);
        int length = static_cast<int>(room);
        if (CDlibGetToken(token->data(), &length, crypt, &result) == 0) {
            token->resize(static_cast<std::size_t>(length));
            return 0;
        }
        const std::uint64_t needed = roundUp(static_cast<std::uint64_t>(std::max(length, 0)), PAGE);
        if (needed <= room || needed > LONGEST_TOKEN) {
            log_message(0, "CDlibGetToken() failed\n");
            log_message(0, "  %.*s\n", static_cast<int>(CDLIB_TEXT_SIZE), result.text);
            return -1;
        }
        room = needed;
    }
}

// One call, so that the file is empty or complete also when we die in the middle.
int writeToken(const StoreFile& file, std::uint64_t limit, std::span<const std::byte> token) {
    const ssize_t written = pwrite(file.file.get(), token.data(), token.size(), static_cast<off_t>(limit));
    if (written == static_cast<ssize_t>(token.size()))
        return 0;
    log_message(0, "token msync(%s): %s\n", file.path.c_str(), std::strerror(written == -1 ? errno : ENOSPC));
    return -1;
}

bool isToken(std::span<const std::byte> token) {
    if (token.size() < TAR_BLOCK)
        return false;
    const TarHeader header = token.first<TAR_BLOCK>();
    return is_encryption_token(header) && tar_octal(header, TAR_SIZE, TAR_SIZE_WIDTH) == token.size() - TAR_BLOCK;
}

}  // namespace

int setUpSIScrypt(StoreFile* file, std::uint64_t limit) {
    if (!newFilesAreEncrypted())
        return 0;
    CryptContext crypt;
    std::vector<std::byte> token;
    if (openWithToken(&crypt, &token) == -1)
        return -1;
    if (!isToken(token)) {
        log_message(0, "Bad encryption token at 0x%lX in %s\n", limit, file->path.c_str());
        return -1;
    }
    if (writeToken(*file, limit, token) == -1)
        return -1;
    file->crypt = std::move(crypt);
    return 1;
}

int openSIScrypt(StoreFile* file, std::uint64_t limit, std::uint64_t length) {
    const std::uint64_t tokenLength = length - limit;
    if (tokenLength == 0) {
        log_message(5, "fstat64(%s): %lu, not encrypted.\n", file->path.c_str(), length);
        return 0;
    }
    std::vector<std::byte> token(std::min(tokenLength, LONGEST_TOKEN));
    const ssize_t got = pread(file->file.get(), token.data(), token.size(), static_cast<off_t>(limit));
    if (got != static_cast<ssize_t>(tokenLength) || !isToken(token)) {
        log_message(0, "Bad encryption token at 0x%lX in %s\n", limit, file->path.c_str());
        return -1;
    }
    CryptContext crypt;
    CDlibResult result{};
    if (CDlibInitCryptWithToken(token.data(), token.size(), &crypt, &result) != 0) {
        log_message(0, "CDlibInitCryptWithToken(%s) failed\n", file->path.c_str());
        log_message(0, "  %.*s\n", static_cast<int>(CDLIB_TEXT_SIZE), result.text);
        return -1;
    }
    file->crypt = std::move(crypt);
    return 0;
}

int cipherSIS(StoreFile* file, int operation, std::span<std::byte> data, std::uint64_t offset) {
    CryptContext& crypt = *file->crypt;
    crypt.nextDataInPtr = data.data();
    crypt.dataInBytes = data.size();
    crypt.nextDataOutPtr = data.data();
    crypt.dataOutBytes = data.size();
    CDlibResult result{};
    if (CDlibCrypt(operation, &crypt, &result) != 0) {
        log_message(0, "CDlibCrypt(SIS @ 0x%lX): %.*s\n", offset, static_cast<int>(CDLIB_TEXT_SIZE), result.text);
        return -1;
    }
    if (crypt.dataInBytes == 0 && crypt.dataOutBytes == 0)
        return 0;
    log_message(0, "CDlibCrypt(SIS @ 0x%lX) failed\n", offset);
    return -1;
}
