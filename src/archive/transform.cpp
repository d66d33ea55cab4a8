#include "archive/transform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "archive/archive_internal.h"
#include "archive/tar_header.h"
#include "config/directories.h"
#include "config/ini.h"
#include "log/logger.h"

namespace {

constexpr char CONFIG_SECTION[] = "Configuration Options";
constexpr unsigned KINDS = TRANSFORM_COMPRESS | TRANSFORM_DECOMPRESS | TRANSFORM_ENCRYPT | TRANSFORM_DECRYPT;
constexpr unsigned WRITING = TRANSFORM_COMPRESS | TRANSFORM_ENCRYPT;
constexpr unsigned READING = TRANSFORM_DECOMPRESS | TRANSFORM_DECRYPT;
constexpr std::size_t ENGINE_NAME_LIMIT = 32;  // with the NUL
constexpr std::size_t LARGEST_BLOCK = 10485760;
constexpr int DEFAULT_BLOCK_KB = 64;
constexpr std::size_t KILO = 1024;

std::string describe(unsigned flags) {
    constexpr struct {
        TransformFlag flag;
        const char* word;
    } WORDS[] = {{TRANSFORM_ENCRYPT, "encrypt"},
                 {TRANSFORM_COMPRESS, "compress"},
                 {TRANSFORM_DECOMPRESS, "decompress"},
                 {TRANSFORM_DECRYPT, "decrypt"}};
    std::string text;
    for (const auto& [flag, word] : WORDS)
        if ((flags & flag) != 0)
            text += (text.empty() ? "" : ", ") + std::string(word);
    return text.empty() ? "none" : text;
}

std::size_t configuredKilobytes(const char* key, int defaultSize) {
    const int size = ini_get_int(CONFIG_SECTION, key, defaultSize, g_master_ini);
    return static_cast<std::size_t>(size < 0 ? defaultSize : size) * KILO;
}

int failUnlessCreated(const Transform& transform) {
    switch (transform.compression._error) {
        case DQ_SUCCESS:
            return 0;
        case DQ_NO_MEMORY:
            return archive_fail(ENOMEM);
        case DQ_FILE_ERROR:
            return archive_fail(ENODEV);
        default:
            return archive_fail(EBADMSG);
    }
}

int prepareCompressor(Transform* transform) {
    DqCompressionEngineType engine =
        engine_type_of(ini_text(CONFIG_SECTION, "CompressEngine", "auto", g_master_ini, ENGINE_NAME_LIMIT).c_str());
    if (engine == DQ_ENGINE_NONE) {
        // Whether a backup is compressed is a property of the backup; the key only chooses how.
        LOG_HERE(1, "Unknown compression type, using ZLIB\n");
        engine = DQ_ENGINE_ZLIB;
    }
    DqCompressionOptions options;
    options.level = ini_get_int(CONFIG_SECTION, "CompressionLevel", 1, g_master_ini);
    options.blockOctets = std::min(configuredKilobytes("CompressionBlockKB", DEFAULT_BLOCK_KB), LARGEST_BLOCK);
    options.segmentOctets = configuredKilobytes("CompressionSegmentKB", 0);
    options.inputOctets = std::max(
        {options.blockOctets, std::min(options.segmentOctets, LARGEST_BLOCK), DQ_DEFAULT_SEGMENT});  // any block
    transform->compression = CreateDqCompressionState(DQ_COMPRESS, engine, options);
    return failUnlessCreated(*transform);
}

int prepareDecompressor(Transform* transform) {
    constexpr int ANY_WRAPPER = 47;  // gzip or zlib, with the largest window
    DqCompressionOptions options;
    options.blockOctets = DQ_DEFAULT_BLOCK;
    transform->compression = CreateDqCompressionState(DQ_DECOMPRESS, DQ_ENGINE_LZ4, options);
    if (failUnlessCreated(*transform) == -1)
        return -1;
    auto stream = std::make_unique<z_stream>();
    const int result = inflateInit2(stream.get(), ANY_WRAPPER);
    if (result != Z_OK)
        return archive_fail(result == Z_MEM_ERROR ? ENOMEM : EBADMSG);
    transform->inflater.reset(stream.release());
    return 0;
}

int refuseToken() {
    LOG_HERE(0, "Failed to initialize decryption");
    LOG_HERE(0, "Should have seen encrypted token header but didn't\n");
    return archive_fail(EBADMSG);
}

}  // namespace

void InflateReleaser::operator()(z_stream* stream) const noexcept {
    (void)inflateEnd(stream);  // only a state that is none can make it fail
    delete stream;
}

int transform_prepare(Transform* transform, unsigned flags, int type) {
    if ((flags & ~KINDS) != 0) {
        LOG_HERE(0, "Invalid archive transformation flags: %d\n", static_cast<int>(flags));
        return archive_fail(EBADMSG);
    }
    if ((flags & WRITING) != 0 && (flags & READING) != 0) {
        LOG_HERE(0, "Cannot both (compress or encrypt) and (decompress or decrypt)\n");
        return archive_fail(EBADMSG);
    }
    if ((flags & TRANSFORM_COMPRESS) != 0 && prepareCompressor(transform) == -1)
        return -1;
    if ((flags & TRANSFORM_DECOMPRESS) != 0 && prepareDecompressor(transform) == -1)
        return -1;
    LOG_HERE(2, "Transform flags: %s\n", describe(flags).c_str());
    transform->type = type;
    transform->flags = flags | TRANSFORM_FIRST_CALL | TRANSFORM_NEW_STREAM;
    if ((flags & TRANSFORM_DECRYPT) != 0)
        transform->flags |= TRANSFORM_AWAIT_TOKEN;
    return 0;
}

int transform_take_token(Transform* transform, std::span<const std::byte> data, std::size_t* length) {
    constexpr std::size_t LARGEST_TOKEN = 1048576;
    if (data.size() < TAR_BLOCK)
        return TRANSFORM_NEEDS_INPUT;
    const TarHeader header = data.first<TAR_BLOCK>();
    if (!is_encryption_token(header) || !is_tar(header))
        return refuseToken();
    const std::uint64_t total = tar_octal(header, TAR_SIZE, TAR_SIZE_WIDTH) + TAR_BLOCK;
    if (total > data.size()) {
        if (total <= LARGEST_TOKEN)
            return TRANSFORM_NEEDS_INPUT;
        LOG_HERE(0, "Encrypted token too large");
        LOG_HERE(0, "Limit of 1MB token size\n");
        return archive_fail(EBADMSG);
    }
    // Decryption begins where the token's entry ends, on a block of the stream: the two ways to count must agree, also
    // when the size is in its long form.
    const std::uint64_t size = tar_size(header, TAR_SIZE);
    if (size != total - TAR_BLOCK || size % TAR_BLOCK != 0) {
        LOG_HERE(0, "Bad encrypted header\n");
        return archive_fail(EBADMSG);
    }
    CDlibResult result{};
    if (CDlibInitCryptWithToken(data.data(), total, &transform->crypt, &result) != 0) {
        LOG_HERE(0, "Failed to initialize with token: %.64s\n", result.text);
        return archive_fail(EBADMSG);
    }
    transform->flags &= ~static_cast<unsigned>(TRANSFORM_FIRST_CALL | TRANSFORM_AWAIT_TOKEN);
    *length = total;
    return 0;
}

int transform_cipher(Transform* transform, int op, const std::byte* input, std::byte* output, std::size_t count) {
    if (count == 0)
        return 0;
    if (transform->hasFailed)
        return archive_fail(EBADMSG);
    CryptContext& crypt = transform->crypt;
    crypt.nextDataInPtr = input;
    crypt.dataInBytes = count;
    crypt.nextDataOutPtr = output;
    crypt.dataOutBytes = count;
    CDlibResult result{};
    if (CDlibCrypt(op, &crypt, &result) == 0 && crypt.dataInBytes == 0)
        return 0;
    transform->hasFailed = true;
    const bool encrypts = op == CDLIB_ENCRYPT;
    LOG_HERE(0, "Failed to %s data", encrypts ? "encrypt" : "decrypt");
    LOG_HERE(0, "%d bytes remain in %s buffer\n", static_cast<int>(crypt.dataInBytes),
             encrypts ? "encryption input" : "decryption");
    if (result.status != 0)
        LOG_HERE(0, "Error: %.64s\n", result.text);
    return archive_fail(EBADMSG);
}

void transform_close(Transform* transform, bool isComplete) {
    if ((transform->flags & TRANSFORM_COMPRESS) != 0 && transform->compression.inpput.buf.bytes() != 0)
        LOG_HERE(isComplete ? 0 : 5, "Error: Closed compression with data left in buffer\n");
    CDlibClose(&transform->crypt);
    transform->compression = DqCompressionState();
    transform->inflater.reset();
    transform->flags = 0;
}
