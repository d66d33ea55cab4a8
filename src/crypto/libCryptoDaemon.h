// libCryptoDaemon.h - the local key service: sessions, tokens, and the cipher work of a session.
//
// A session is opened with the archive key (to write) or with a file's token (to read); its cipher work is done in this
// process with the session's key, or in the service, chunk by chunk. Which of the two, is settled at the opening.
//
// Threads: a context belongs to one thread at a time; several sessions can be open in one process.
// Errors:  0, or -1 or the service's own negative status. What went wrong is told by *result alone: this layer logs
//          nothing of it, so the caller logs the text. A failed opening or token call leaves the context closed.
// Units:   bytes. Data is ciphered in units of CDLIB_BLOCK_SIZE; each stands for itself, so a reader can begin at any.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

inline constexpr std::size_t CDLIB_BLOCK_SIZE = 32;
inline constexpr std::size_t CDLIB_TEXT_SIZE = 64;
inline constexpr std::size_t CDLIB_TOKEN_HEADER_SIZE = 512;  // a tar header; the payload follows it
inline constexpr int CDLIB_ENCRYPT = 4;
inline constexpr int CDLIB_DECRYPT = 5;
inline constexpr unsigned CDLIB_STATUS_READY = 4;  // bit of the status mask: keys are set, sessions can be opened

struct CDlibResult {
    std::uint64_t value;         // what the service makes of it
    std::int64_t status;         // 0, or negative
    char text[CDLIB_TEXT_SIZE];  // NUL-padded; print with "%.64s"
};
static_assert(sizeof(CDlibResult) == 80);

struct CDlibData;  // one session: its socket, its key, where its chunk numbers stand

struct CDlibDataDeleter {
    void operator()(CDlibData* data) const noexcept;  // closes the socket and wipes the key
};

// One stream of data to cipher. The caller sets the pointers and sizes before each CDlibCrypt, which moves them on.
// Input and output may be the same memory, and must not overlap otherwise.
struct CryptContext {
    const std::byte* nextDataInPtr = nullptr;
    std::size_t dataInBytes = 0;
    std::byte* nextDataOutPtr = nullptr;
    std::size_t dataOutBytes = 0;
    std::size_t blockSize = 0;  // CDLIB_BLOCK_SIZE while a session is open
    std::unique_ptr<CDlibData, CDlibDataDeleter> session;
};

// A session for writing.
[[nodiscard]] int CDlibInitCryptWithArchiveKey(CryptContext* context, CDlibResult* result);

// A session for reading what was written under the token: the whole of it, header and payload.
[[nodiscard]] int CDlibInitCryptWithToken(const void* token, std::size_t tokenLength, CryptContext* context,
                                          CDlibResult* result);

// Writes the session's token, header and payload, to `buffer`; *length is the buffer's size and becomes the token's.
// "length too small" leaves the size that is needed in *length; like every failure it closes the session.
[[nodiscard]] int CDlibGetToken(void* buffer, int* length, CryptContext* context, CDlibResult* result);

// CDLIB_ENCRYPT or CDLIB_DECRYPT, until fewer than 32 bytes of input or of room are left.
[[nodiscard]] int CDlibCrypt(int op, CryptContext* context, CDlibResult* result);

void CDlibClose(CryptContext* context);

// Asks the service for its status, over a connection of its own.
[[nodiscard]] int CDgetStatusBitmask(unsigned* mask, CDlibResult* result);
