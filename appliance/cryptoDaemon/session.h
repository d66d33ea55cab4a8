// session.h - what one client may ask, one request at a time.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "crypto/cryptoDaemonWire.h"
#include "cryptoDaemon/keys.h"

namespace keyservice {

using Bytes = std::span<const std::byte>;
using Ticket = std::array<std::byte, wire::TICKET_SIZE>;

inline constexpr std::size_t LONGEST_REQUEST = wire::CHUNK_HEAD_SIZE + wire::CHUNK_LIMIT;

// A request that is refused (Refused) ends the conversation: what follows it on the wire can't be trusted.
class Session {
public:
    Session(const KeyStore& keys, const Ticket& ticket) : keys_(keys), ticket_(ticket) {}

    // The length of the request that `received` begins with, 0 if that can't be told yet; LONGEST_REQUEST at most.
    [[nodiscard]] static std::size_t requestSize(Bytes received);

    // Carries out one whole request. The reply starts with a good result.
    [[nodiscard]] std::string answer(Bytes request);

    [[nodiscard]] bool isOpen() const { return key_.has_value(); }

private:
    void checkTicket(Bytes request) const;
    void open(const Key& key);
    [[nodiscard]] const Key& key() const;
    [[nodiscard]] std::string chunk(Bytes request);
    [[nodiscard]] std::string keyReply() const;
    [[nodiscard]] std::string token() const;
    [[nodiscard]] Key keyOfToken(Bytes request) const;

    const KeyStore& keys_;
    const Ticket& ticket_;
    std::optional<Key> key_;
    std::uint32_t sequence_ = 0;  // of the last chunk
};

// A reply that is a result alone.
[[nodiscard]] std::string resultReply(std::int64_t status, std::string_view text);

}  // namespace keyservice
