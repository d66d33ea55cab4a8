#include "crypto/libCryptoDaemon.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>
#include <vector>

#include "crypto/libCryptoDaemon_internal.h"

static_assert(CDLIB_TOKEN_HEADER_SIZE == wire::TOKEN_HEADER_SIZE && CDLIB_BLOCK_SIZE == CIPHER_UNIT);
static_assert(CDLIB_ENCRYPT == wire::ENCRYPT && CDLIB_DECRYPT == wire::DECRYPT);

namespace {

constexpr int SESSION_SIZE = 624;  // what the service's own record of a session takes; part of a message

using Bytes = std::span<const std::byte>;

void takeResult(const std::byte* record, CDlibResult* result) {
    std::memcpy(result, record, sizeof *result);
}

// What a transfer of `count` bytes that ended with `done` makes of the result: 0 if all went.
int judgeTransfer(ssize_t done, std::size_t count, const char* shortText, CDlibResult* result) {
    if (done == static_cast<ssize_t>(count))
        return 0;
    return done < 0 ? setResult(result, -1, "%s", strerror(errno)) : setResult(result, -1, "%s", shortText);
}

void putHead(std::byte* request, wire::Operation operation) {
    wire::put<std::uint64_t>(request, wire::OPERATION, operation);
}

int sendRequest(int socket, Bytes head, Bytes data, CDlibResult* result) {
    return judgeTransfer(sendAll(socket, head, data), head.size() + data.size(), "short write", result);
}

// Reads a reply of fixed size; `shortText` is for one that holds a good result and not the rest.
int readReply(int socket, std::span<std::byte> reply, const char* shortText, CDlibResult* result) {
    const ssize_t got = receiveRecord(socket, reply);
    if (got < static_cast<ssize_t>(wire::RESULT_SIZE))
        return judgeTransfer(got, wire::RESULT_SIZE, "short read", result);
    takeResult(reply.data(), result);
    if (result->status != 0)
        return resultCode(*result);
    return got == static_cast<ssize_t>(reply.size()) ? 0 : setResult(result, -1, "%s", shortText);
}

// A request that holds a ticket.
struct TicketedRequest : std::vector<std::byte> {
    TicketedRequest(wire::Operation operation, const Ticket& ticket, std::size_t size) : vector(size) {
        putHead(data(), operation);
        std::memcpy(data() + wire::TICKET, ticket.data(), ticket.size());
    }
    TicketedRequest(const TicketedRequest&) = delete;
    TicketedRequest& operator=(const TicketedRequest&) = delete;
    ~TicketedRequest() { OPENSSL_cleanse(data(), size()); }
};

int fetchKey(CDlibData* data, CDlibResult* result) {
    std::byte request[wire::HEAD_SIZE] = {};
    putHead(request, wire::GET_KEY);
    CDlibResult answer{};
    std::byte reply[wire::WORD_REPLY_SIZE] = {};
    int rc = sendRequest(data->socket.get(), request, {}, &answer);
    if (rc == 0)
        rc = readReply(data->socket.get(), reply, "short response", &answer);
    const auto length = wire::get<std::uint32_t>(reply, wire::WORD);
    if (rc == 0 && length > wire::KEY_LIMIT)
        rc = setResult(&answer, -1, "key too long");
    if (rc == 0 && receiveAll(data->socket.get(), std::span(data->key).first(length)) != static_cast<ssize_t>(length))
        rc = setResult(&answer, -1, "can't get archive key");
    if (rc != 0)
        *result = answer;
    else
        data->keyLength = static_cast<int>(length);
    return rc;
}

// Opens a session by operation 6, or by 8 if there is a token.
int openSession(CDlibData* data, Bytes token, CDlibResult* result) {
    Ticket ticket;
    int rc = CDlibConnect(&data->socket, &ticket, result);
    if (rc != 0)
        return rc;
    const bool isNew = token.empty();
    TicketedRequest request(isNew ? wire::OPEN_WITH_ARCHIVE_KEY : wire::OPEN_WITH_TOKEN, ticket,
                            isNew ? wire::TICKETED_SIZE : wire::TOKEN_REQUEST_SIZE);
    Bytes payload;
    if (!isNew) {
        payload = token.subspan(wire::TOKEN_HEADER_SIZE);
        wire::put(request.data(), wire::TOKEN_REQUEST_LENGTH, static_cast<std::uint32_t>(payload.size()));
        std::memcpy(request.data() + wire::TOKEN_REQUEST_HEADER, token.data(), wire::TOKEN_HEADER_SIZE);
    }
    std::byte reply[wire::RESULT_SIZE] = {};
    rc = sendRequest(data->socket.get(), request, payload, result);
    if (rc == 0)
        rc = readReply(data->socket.get(), reply, "short read", result);
    return rc == 0 ? fetchKey(data, result) : rc;
}

int startSession(Bytes token, CryptContext* context, CDlibResult* result) {
    CDlibClose(context);
    std::unique_ptr<CDlibData, CDlibDataDeleter> data(new (std::nothrow) CDlibData);
    if (!data)
        return setResult(result, -1, "Can't malloc(%d)", SESSION_SIZE);
    CDlibInit(data.get(), result);
    const int rc = openSession(data.get(), token, result);
    if (rc != 0)
        return rc;
    data->result = *result;
    context->blockSize = CDLIB_BLOCK_SIZE;
    context->session = std::move(data);
    return 0;
}

int readToken(CDlibData* data, std::byte* buffer, int* length, CDlibResult* result) {
    const int socket = data->socket.get();
    std::byte request[wire::HEAD_SIZE] = {};
    putHead(request, wire::GET_TOKEN);
    std::byte reply[wire::TOKEN_REPLY_SIZE] = {};
    int rc = sendRequest(socket, request, {}, result);
    if (rc == 0)
        rc = readReply(socket, reply, "short read", result);
    if (rc != 0)
        return rc;
    const auto payload = wire::get<std::uint32_t>(reply, wire::TOKEN_REPLY_LENGTH);
    if (payload == 0 || payload > INT_MAX - wire::TOKEN_HEADER_SIZE)
        return setResult(result, -1, "bad token length %u", payload);
    const int need = static_cast<int>(payload + wire::TOKEN_HEADER_SIZE);
    if (*length < need) {
        *length = need;
        return setResult(result, -1, "length too small");
    }
    const std::span place(buffer + wire::TOKEN_HEADER_SIZE, payload);
    rc = judgeTransfer(receiveAll(socket, place), payload, "short read", result);
    if (rc != 0)
        return rc;
    std::memcpy(buffer, reply + wire::TOKEN_REPLY_HEADER, wire::TOKEN_HEADER_SIZE);
    *length = need;
    return 0;
}

int checkCryptArguments(int op, const CryptContext& context, CDlibResult* result) {
    if (!context.session || !context.session->socket.isOpen())
        return setResult(result, -1, "CDlibData not initialized");
    if (context.nextDataInPtr == nullptr)
        return setResult(result, -1, "nextDataInPtr == NULL");
    if (context.dataInBytes < CDLIB_BLOCK_SIZE)
        return setResult(result, -1, "dataInBytes < %d", static_cast<int>(CDLIB_BLOCK_SIZE));
    if (context.nextDataOutPtr == nullptr)
        return setResult(result, -1, "nextDataOutPtr == NULL");
    if (context.dataOutBytes == 0)
        return setResult(result, -1, "dataOutBytes <= 0");
    if (op != CDLIB_ENCRYPT && op != CDLIB_DECRYPT)
        return setResult(result, -1, "confused about what to do");
    return 0;
}

void advance(CryptContext* context, std::size_t count) {
    context->nextDataInPtr += count;
    context->dataInBytes -= count;
    context->nextDataOutPtr += count;
    context->dataOutBytes -= count;
}

int cryptHere(int op, CryptContext* context, std::size_t length, CDlibResult* result) {
    CDlibData& data = *context->session;
    const bool encrypts = op == CDLIB_ENCRYPT;
    ChunkCipher& cipher = encrypts ? data.encryption : data.decryption;
    const CipherDirection direction = encrypts ? CipherDirection::Encrypt : CipherDirection::Decrypt;
    if ((!cipher.isOpen() && cipher.open(direction, data.key.data(), data.keyLength) == -1) ||
        cipher.run(context->nextDataOutPtr, context->nextDataInPtr, length) == -1)
        return setResult(result, -1, "%s", encrypts ? "encryption failed" : "decryption failed");
    advance(context, length);
    return 0;
}

// One chunk through the service. After a failure the connection has no known state and is given up.
int cryptThere(int op, CryptContext* context, std::size_t length, CDlibResult* result) {
    CDlibData& data = *context->session;
    const int socket = data.socket.get();
    std::byte head[wire::CHUNK_HEAD_SIZE] = {};
    putHead(head, static_cast<wire::Operation>(op));
    const std::uint32_t sequence = data.sequence + 1;
    wire::put(head, wire::CHUNK_SEQUENCE, sequence);
    wire::put(head, wire::CHUNK_LENGTH, static_cast<std::uint32_t>(length));
    if (sendAll(socket, head, {context->nextDataInPtr, length}) != static_cast<ssize_t>(sizeof head + length))
        return setResult(result, -1, "short write");
    const ssize_t got = receiveRecord(socket, head);
    if (got < static_cast<ssize_t>(wire::RESULT_SIZE))
        return setResult(result, -1, "short read");
    takeResult(head, result);
    data.result = *result;
    if (result->status != 0 || got < static_cast<ssize_t>(sizeof head)) {
        data.socket.reset();
        return resultCode(*result);
    }
    data.sequence = wire::get<std::uint32_t>(head, wire::CHUNK_SEQUENCE);
    data.replyLength = wire::get<std::uint32_t>(head, wire::CHUNK_LENGTH);
    if (data.sequence != sequence)
        return setResult(result, -1, "outta sync: 0x%X != 0x%X", data.sequence, sequence);
    if (data.replyLength == 0)
        return setResult(result, -1, "no data");
    if (data.replyLength > length || data.replyLength % CDLIB_BLOCK_SIZE != 0)
        return setResult(result, -1, "bad length %u", data.replyLength);
    if (receiveAll(socket, {context->nextDataOutPtr, data.replyLength}) != static_cast<ssize_t>(data.replyLength))
        return setResult(result, -1, "short read");
    advance(context, data.replyLength);
    return 0;
}

}  // namespace

void CDlibDataDeleter::operator()(CDlibData* data) const noexcept {
    OPENSSL_cleanse(data->key.data(), data->key.size());
    delete data;
}

int CDlibInitCryptWithArchiveKey(CryptContext* context, CDlibResult* result) {
    return startSession({}, context, result);
}

int CDlibInitCryptWithToken(const void* token, std::size_t tokenLength, CryptContext* context, CDlibResult* result) {
    CDlibClose(context);
    if (token == nullptr)
        return setResult(result, -1, "NULL pointer");
    if (tokenLength <= CDLIB_TOKEN_HEADER_SIZE)
        return setResult(result, -1, "length too small");
    if (tokenLength - CDLIB_TOKEN_HEADER_SIZE > INT_MAX)
        return setResult(result, -1, "length too large");
    return startSession({static_cast<const std::byte*>(token), tokenLength}, context, result);
}

int CDlibGetToken(void* buffer, int* length, CryptContext* context, CDlibResult* result) {
    int rc = -1;
    if (buffer == nullptr || length == nullptr)
        setResult(result, -1, "NULL pointer");
    else if (!context->session || !context->session->socket.isOpen())
        setResult(result, -1, "CDlibData not initialized");
    else
        rc = readToken(context->session.get(), static_cast<std::byte*>(buffer), length, result);
    if (rc != 0)
        CDlibClose(context);
    return rc;
}

int CDlibCrypt(int op, CryptContext* context, CDlibResult* result) {
    if (result == nullptr)
        return -1;
    if (context == nullptr)
        return setResult(result, -1, "NULL pointer");
    if (const int rc = checkCryptArguments(op, *context, result); rc != 0)
        return rc;
    CDlibData& data = *context->session;
    *result = data.result = {};
    int rc = 0;
    // A reply that holds no more than a good result ends the loop with the connection.
    while (rc == 0 && data.socket.isOpen()) {
        const std::size_t both = std::min(context->dataInBytes, context->dataOutBytes);
        const std::size_t length = both / CDLIB_BLOCK_SIZE * CDLIB_BLOCK_SIZE;
        if (length == 0)
            break;
        rc = data.doOurOwnCryption ? cryptHere(op, context, length, result)
                                   : cryptThere(op, context, std::min(length, wire::CHUNK_LIMIT), result);
    }
    if (rc != 0 && !data.doOurOwnCryption)
        data.socket.reset();
    return rc;
}

void CDlibClose(CryptContext* context) {
    *context = {};
}

int CDgetStatusBitmask(unsigned* mask, CDlibResult* result) {
    FileDescriptor socket;
    Ticket ticket;
    int rc = CDlibConnect(&socket, &ticket, result);
    if (rc != 0)
        return rc;
    std::byte reply[wire::WORD_REPLY_SIZE] = {};
    rc = sendRequest(socket.get(), TicketedRequest(wire::GET_STATUS, ticket, wire::TICKETED_SIZE), {}, result);
    if (rc == 0)
        rc = readReply(socket.get(), reply, "short response", result);
    if (rc == 0)
        *mask = wire::get<std::uint32_t>(reply, wire::WORD);
    return rc;
}
