#include "cryptoDaemon/session.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

#include "crypto/crypto.h"

namespace keyservice {
namespace {

constexpr std::uint32_t STATUS_RUNNING = 1;
constexpr std::uint32_t STATUS_INITIALIZED = 2;
constexpr std::uint32_t STATUS_READY = 4;
constexpr std::size_t CIPHER_UNIT = 32;

// A good result and room behind it.
std::string goodReply(std::size_t size) {
    return std::string(size, '\0');
}

std::byte* bytesOf(std::string& reply) {
    return reinterpret_cast<std::byte*>(reply.data());
}

std::string wordReply(std::uint32_t word) {
    std::string reply = goodReply(wire::WORD_REPLY_SIZE);
    wire::put(bytesOf(reply), wire::WORD, word);
    return reply;
}

std::size_t chunkSize(Bytes received) {
    if (received.size() < wire::CHUNK_HEAD_SIZE)
        return 0;
    const auto length = wire::get<std::uint32_t>(received.data(), wire::CHUNK_LENGTH);
    if (length == 0 || length > wire::CHUNK_LIMIT || length % CIPHER_UNIT != 0)
        throw Refused("bad chunk length");
    return wire::CHUNK_HEAD_SIZE + length;
}

std::size_t tokenRequestSize(Bytes received) {
    if (received.size() < wire::TOKEN_REQUEST_HEADER)
        return 0;
    if (wire::get<std::uint32_t>(received.data(), wire::TOKEN_REQUEST_LENGTH) != TOKEN_PAYLOAD)
        throw Refused("bad token length");
    return wire::TOKEN_REQUEST_SIZE + TOKEN_PAYLOAD;
}

}  // namespace

std::string resultReply(std::int64_t status, std::string_view text) {
    std::string reply = goodReply(wire::RESULT_SIZE);
    wire::put(bytesOf(reply), wire::RESULT_STATUS, status);
    std::memcpy(reply.data() + wire::RESULT_TEXT, text.data(), std::min(text.size(), wire::TEXT_SIZE - 1));
    return reply;
}

std::size_t Session::requestSize(Bytes received) {
    if (received.size() < wire::HEAD_SIZE)
        return 0;
    if (wire::get<std::uint64_t>(received.data(), 0) != 0)
        throw Refused("this is no request");
    switch (wire::get<std::uint64_t>(received.data(), wire::OPERATION)) {
        case wire::OPEN_WITH_VALUE:
            return wire::VALUE_REQUEST_SIZE;
        case wire::ENCRYPT:
        case wire::DECRYPT:
            return chunkSize(received);
        case wire::OPEN_WITH_ARCHIVE_KEY:
        case wire::GET_STATUS:
            return wire::TICKETED_SIZE;
        case wire::GET_TOKEN:
        case wire::GET_KEY:
            return wire::HEAD_SIZE;
        case wire::OPEN_WITH_TOKEN:
            return tokenRequestSize(received);
        case wire::SET_KEY:
        case wire::CHANGE_KEY:
        case 11:
        case 12:
            throw Refused("this service has no administration");
        default:
            throw Refused("unknown operation");
    }
}

std::string Session::answer(Bytes request) {
    switch (wire::get<std::uint64_t>(request.data(), wire::OPERATION)) {
        case wire::OPEN_WITH_VALUE:
            checkTicket(request);
            open(keys_.keyForValue(wire::get<std::uint64_t>(request.data(), wire::VALUE)));
            return resultReply(0, "session opened");
        case wire::OPEN_WITH_ARCHIVE_KEY:
            checkTicket(request);
            open(randomKey());
            return resultReply(0, "session opened");
        case wire::OPEN_WITH_TOKEN:
            checkTicket(request);
            open(keyOfToken(request));
            return resultReply(0, "session opened");
        case wire::GET_STATUS:
            checkTicket(request);
            return wordReply(STATUS_RUNNING | STATUS_INITIALIZED | STATUS_READY);
        case wire::GET_TOKEN:
            return token();
        case wire::GET_KEY:
            return keyReply();
        default:  // the two that are left
            return chunk(request);
    }
}

void Session::checkTicket(Bytes request) const {
    if (CRYPTO_memcmp(request.data() + wire::TICKET, ticket_.data(), ticket_.size()) != 0)
        throw Refused("bad ticket");
}

void Session::open(const Key& key) {
    if (key_)
        throw Refused("the session is open already");
    key_ = key;
}

const Key& Session::key() const {
    if (!key_)
        throw Refused("there is no session");
    return *key_;
}

std::string Session::chunk(Bytes request) {
    const Key& sessionKey = key();
    const auto sequence = wire::get<std::uint32_t>(request.data(), wire::CHUNK_SEQUENCE);
    if (sequence != sequence_ + 1)
        throw Refused("out of sequence");
    const Bytes data = request.subspan(wire::CHUNK_HEAD_SIZE);
    std::string reply = goodReply(wire::CHUNK_HEAD_SIZE + data.size());
    wire::put(bytesOf(reply), wire::CHUNK_SEQUENCE, sequence);
    wire::put(bytesOf(reply), wire::CHUNK_LENGTH, static_cast<std::uint32_t>(data.size()));
    std::byte* const out = bytesOf(reply) + wire::CHUNK_HEAD_SIZE;
    const bool encrypts = wire::get<std::uint64_t>(request.data(), wire::OPERATION) == wire::ENCRYPT;
    std::size_t outLength = data.size();
    std::size_t inLength = data.size();
    const int keyLength = static_cast<int>(sessionKey.bytes.size());
    if ((encrypts ? softwareEncryptChunk : softwareDecryptChunk)(out, &outLength, data.data(), &inLength,
                                                                 sessionKey.bytes.data(), keyLength) != 0)
        throw Refused("the cipher failed");
    sequence_ = sequence;
    return reply;
}

// In one piece of memory from the start: one that grew would leave the key behind.
std::string Session::keyReply() const {
    const auto& bytes = key().bytes;
    std::string reply = goodReply(wire::WORD_REPLY_SIZE + bytes.size());
    wire::put(bytesOf(reply), wire::WORD, static_cast<std::uint32_t>(bytes.size()));
    std::memcpy(reply.data() + wire::WORD_REPLY_SIZE, bytes.data(), bytes.size());
    return reply;
}

std::string Session::token() const {
    const Token token = keys_.wrap(key());
    std::string reply = goodReply(wire::TOKEN_REPLY_SIZE + TOKEN_PAYLOAD);
    wire::put(bytesOf(reply), wire::TOKEN_REPLY_LENGTH, static_cast<std::uint32_t>(TOKEN_PAYLOAD));
    std::memcpy(reply.data() + wire::TOKEN_REPLY_HEADER, token.data(), wire::TOKEN_HEADER_SIZE);
    std::memcpy(reply.data() + wire::TOKEN_REPLY_SIZE, token.data() + wire::TOKEN_HEADER_SIZE, TOKEN_PAYLOAD);
    return reply;
}

Key Session::keyOfToken(Bytes request) const {
    Token token;
    std::memcpy(token.data(), request.data() + wire::TOKEN_REQUEST_HEADER, wire::TOKEN_HEADER_SIZE);
    std::memcpy(token.data() + wire::TOKEN_HEADER_SIZE, request.data() + wire::TOKEN_REQUEST_SIZE, TOKEN_PAYLOAD);
    return keys_.unwrap(token);
}

}  // namespace keyservice
