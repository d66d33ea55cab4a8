// cryptoDaemonWire.h - what goes between the key service and its clients, and the file by which they find it.
//
// Integers are in host order, since both ends are on one machine; the port alone is in network order. Records are
// packed: read and write their fields through `wire::get` and `wire::put`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace wire {

// The state file.
inline constexpr std::size_t STATE_SIZE = 536;
inline constexpr std::size_t STATE_TICKET = 4;
inline constexpr std::size_t STATE_PORT = 520;  // 16 bits, network order
inline constexpr std::size_t TICKET_SIZE = 512;

// Every request begins with 8 bytes of 0 and the operation; those that open a session or ask for the status have the
// ticket next.
enum Operation : std::uint64_t {
    SET_KEY = 1,
    CHANGE_KEY = 2,
    OPEN_WITH_VALUE = 3,
    ENCRYPT = 4,
    DECRYPT = 5,
    OPEN_WITH_ARCHIVE_KEY = 6,
    GET_TOKEN = 7,
    OPEN_WITH_TOKEN = 8,
    GET_KEY = 9,
    GET_STATUS = 10,
};
inline constexpr std::size_t OPERATION = 8;
inline constexpr std::size_t HEAD_SIZE = 16;
inline constexpr std::size_t TICKET = 16;
inline constexpr std::size_t TICKETED_SIZE = 528;
inline constexpr std::size_t VALUE = 528;
inline constexpr std::size_t VALUE_REQUEST_SIZE = 536;

// Every reply begins with the result.
inline constexpr std::size_t RESULT_SIZE = 80;
inline constexpr std::size_t RESULT_STATUS = 8;
inline constexpr std::size_t RESULT_TEXT = 16;
inline constexpr std::size_t TEXT_SIZE = 64;

// Chunk, in both directions: this, then the data.
inline constexpr std::size_t CHUNK_SEQUENCE = 80;
inline constexpr std::size_t CHUNK_LENGTH = 92;
inline constexpr std::size_t CHUNK_HEAD_SIZE = 96;
inline constexpr std::size_t CHUNK_LIMIT = 65536;

// Reply with one 32-bit word: the key's length (the key follows) or the status mask.
inline constexpr std::size_t WORD = 80;
inline constexpr std::size_t WORD_REPLY_SIZE = 88;
inline constexpr std::size_t KEY_LIMIT = 512;

// Token: the payload follows either record.
inline constexpr std::size_t TOKEN_HEADER_SIZE = 512;
inline constexpr std::size_t TOKEN_REPLY_LENGTH = 80;
inline constexpr std::size_t TOKEN_REPLY_HEADER = 84;
inline constexpr std::size_t TOKEN_REPLY_SIZE = 600;
inline constexpr std::size_t TOKEN_REQUEST_LENGTH = 528;
inline constexpr std::size_t TOKEN_REQUEST_HEADER = 532;
inline constexpr std::size_t TOKEN_REQUEST_SIZE = 1048;

template <typename T>
[[nodiscard]] T get(const std::byte* record, std::size_t offset) {
    T value;
    std::memcpy(&value, record + offset, sizeof value);
    return value;
}

template <typename T>
void put(std::byte* record, std::size_t offset, T value) {
    std::memcpy(record + offset, &value, sizeof value);
}

}  // namespace wire
