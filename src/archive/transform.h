// transform.h - what turns a file's bytes into the clean stream and back: decompression and decryption for reading,
// encryption and compression for writing. A stream is encrypted first and compressed then.
//
// Threads: a transform belongs to one thread at a time. It must not move while it is in use.
// Errors:  -1 with errno (EBADMSG unless told), logged; a transform that failed stays so until it is restarted.
// Units:   bytes. Encrypted data comes in units of 32 bytes, counted from the end of the token.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "compression/compression.h"
#include "crypto/libCryptoDaemon.h"

struct ArchiveBuffer;

enum TransformFlag : unsigned {
    TRANSFORM_COMPRESS = 0x1,
    TRANSFORM_DECOMPRESS = 0x2,
    TRANSFORM_ENCRYPT = 0x4,
    TRANSFORM_DECRYPT = 0x8,
    TRANSFORM_FIRST_CALL = 0x200,
    TRANSFORM_LAST_CALL = 0x400,
    TRANSFORM_AWAIT_TOKEN = 0x1000,
    TRANSFORM_NEW_STREAM = 0x2000,      // a compressed stream has ended: what comes begins another, of any kind
    TRANSFORM_NOT_COMPRESSED = 0x4000,  // the compressed data has ended: the index has been met
};

enum TransformResult : int {
    TRANSFORM_PROGRESS = 0,
    TRANSFORM_NEEDS_INPUT = 1,
    TRANSFORM_NEEDS_ROOM = 2  // for one block, of TRANSFORM_LARGEST_BLOCK at most
};
inline constexpr std::size_t TRANSFORM_LARGEST_BLOCK = 4 << 20;

struct InflateReleaser {
    void operator()(z_stream* stream) const noexcept;
};

struct Transform {
    unsigned flags = 0;
    int type = COMPRESSION_UNKNOWN;
    bool isPending = false;      // a decoder holds output that it had no room for
    bool hasFailed = false;      // nothing goes through it before it is restarted
    bool isTypeChecked = false;  // the present stream's first bytes were seen to be those of its type
    std::unique_ptr<z_stream, InflateReleaser> inflater;  // zlib refuses a stream that was moved
    DqCompressionState compression;
    CryptContext crypt;
};

// Gets ready for one direction: `flags` of compress and encrypt, or of decompress and decrypt; `type` is that of the
// data to decompress. Compression takes its engine and sizes from master.ini.
[[nodiscard]] int transform_prepare(Transform* transform, unsigned flags, int type);

// Decompresses until the input or the room is used up or the compressed data ends (TRANSFORM_NOT_COMPRESSED). `atEnd`
// tells that no input follows this. Returns TRANSFORM_PROGRESS, one of the other results if nothing could be done (more
// input goes behind what wasn't consumed), or -1.
[[nodiscard]] int transform_decompress(Transform* transform, std::span<const std::byte> input, bool atEnd,
                                       std::span<std::byte> room, std::size_t* consumed, std::size_t* produced);

// The decompressor's next input is the start of a stream, somewhere else in the file.
void transform_restart(Transform* transform);

// Whether the data can end here. False in the middle of a compressed stream.
[[nodiscard]] bool transform_may_end(const Transform& transform);

// CDLIB_ENCRYPT or CDLIB_DECRYPT on whole units. Input and output may be the same memory.
[[nodiscard]] int transform_cipher(Transform* transform, int op, const std::byte* input, std::byte* output,
                                   std::size_t count);

// Takes the token at the start of `data` and opens its session. 0 with the token's length, 1 if more bytes are needed,
// -1 for anything but a token.
[[nodiscard]] int transform_take_token(Transform* transform, std::span<const std::byte> data, std::size_t* length);

// Encrypts and compresses, and appends what comes out to `output`. The first call puts the token in front of the stream
// and tells its length, if there is one. Only the last bytes of a stream may be no whole units: then it fails.
[[nodiscard]] int transform_write(Transform* transform, std::span<const std::byte> data, ArchiveBuffer* output,
                                  std::size_t* tokenLength);

// After the last bytes: appends the end of the compressed data, and its index. 0 done, 1 more is to come, -1.
[[nodiscard]] int transform_finish(Transform* transform, ArchiveBuffer* output);

// Ends the session and the compressor. `isComplete` tells that nothing should be left in them.
void transform_close(Transform* transform, bool isComplete);
