// libCryptoDaemon_internal.h - how a session reaches the service, and who does its cipher work.
#pragma once

#include <openssl/crypto.h>

#include <array>
#include <span>
#include <string>

#include "base/file_descriptor.h"
#include "crypto/cryptoDaemonWire.h"
#include "crypto/crypto_internal.h"
#include "crypto/libCryptoDaemon.h"

struct CDlibData {
    FileDescriptor socket;
    CDlibResult result{};           // of the last exchange
    std::uint32_t sequence = 0;     // of the last chunk
    std::uint32_t replyLength = 0;  // of the last chunk's data
    bool doOurOwnCryption = false;
    int keyLength = 0;
    std::array<std::byte, wire::KEY_LIMIT> key{};
    ChunkCipher encryption;  // opened with the key when first needed
    ChunkCipher decryption;
};

// Opens sessions for whoever has it, so its copies are wiped.
struct Ticket : std::array<std::byte, wire::TICKET_SIZE> {
    Ticket() : array{} {}
    Ticket(const Ticket&) = default;
    Ticket& operator=(const Ticket&) = default;
    ~Ticket() { OPENSSL_cleanse(data(), size()); }
};

// Fills in a result made on this side; the text is cut to fit. Returns `status`.
[[gnu::format(printf, 3, 4)]] int setResult(CDlibResult* result, int status, const char* format, ...);

// What a call returns for a result: 0, the negative status, or -1 for a status that is neither.
[[nodiscard]] int resultCode(const CDlibResult& result);

// Opens a connection to the service, and gives the ticket that belongs to it.
[[nodiscard]] int CDlibConnect(FileDescriptor* socket, Ticket* ticket, CDlibResult* result);

// Transfers over a socket that ends each wait after 60 s. Both return the bytes done, fewer if the other end closed or
// time ran out, or -1 with errno.
[[nodiscard]] ssize_t sendAll(int socket, std::span<const std::byte> head, std::span<const std::byte> data = {});
[[nodiscard]] ssize_t receiveAll(int socket, std::span<std::byte> data);

// Reads a record that begins with a result. One whose status isn't 0 may end behind the result; for the rest of a good
// one it waits a second at most. Returns as receiveAll does.
[[nodiscard]] ssize_t receiveRecord(int socket, std::span<std::byte> record);

// Whether this process can do a session's cipher work itself; the service does it otherwise. Puts the reason in the
// result's text. Software that was found working once is kept for the process. The file is /proc/interrupts.
[[nodiscard]] bool cryptoAvailable(const std::string& interrupts, CDlibResult* result);
void forgetCipherPlace();  // for tests

// Settles a new session's doOurOwnCryption.
void CDlibInit(CDlibData* data, CDlibResult* result);
