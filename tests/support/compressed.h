// compressed.h - test data, other people's tools, and short ways through a compression state.
#pragma once

#include "compression/compression.h"
#include "support/root.h"
#include "support/test.h"

namespace testsupport {

enum class Content { zeros, text, noise, mixed };

inline std::string contentOf(Content kind, std::size_t size) {
    std::mt19937_64 random(size);
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size && kind != Content::zeros; i++) {
        const bool isNoise = kind == Content::noise || (kind == Content::mixed && i / 65536 % 2 == 1);
        bytes[i] = isNoise ? static_cast<char>(random()) : static_cast<char>('a' + (i / 7 + random() % 3) % 20);
    }
    return bytes;
}

// Runs a shell line in the root's tmp directory; its exit status.
inline int tool(const TestRoot& root, const std::string& line) {
    return WEXITSTATUS(std::system(("cd '" + (root / "tmp").string() + "' && " + line).c_str()));
}

// What the tool makes of `input`, which it reads as the file "in".
inline std::string through(const TestRoot& root, const std::string& input, const std::string& command) {
    writeFile(root / "tmp/in", input);
    EXPECT_EQ(tool(root, command + " > out 2> err"), 0) << command << ": " << readFile(root / "tmp/err");
    return readFile(root / "tmp/out");
}

inline void feed(DqCompressionState* state, std::string_view* rest, std::size_t most) {
    DqCompressionBuffer& in = state->inpput.buf;
    const std::size_t count = std::min({rest->size(), in.room(), most});
    std::copy_n(reinterpret_cast<const std::byte*>(rest->data()), count, in.p);
    in.p += count;
    rest->remove_prefix(count);
}

inline void take(DqCompressionState* state, std::string* to, std::size_t most) {
    const std::size_t count = std::min(most, state->output.buf.bytes());
    to->append(reinterpret_cast<const char*>(state->output.buf.low), count);
    DqCompressionConsume(&state->output, count);
}

// Compresses by hand in pieces of up to `piece` bytes, the output taken in as small ones. Data and index.
inline std::string compressed(const std::string& data, DqCompressionEngineType engine,
                              const DqCompressionOptions& options = {}, std::size_t piece = SIZE_MAX) {
    DqCompressionState state = CreateDqCompressionState(DQ_COMPRESS, engine, options);
    EXPECT_EQ(state._error, DQ_SUCCESS) << state._errorDetails;
    std::string file;
    std::string_view rest = data;
    std::mt19937_64 random(data.size());
    const auto next = [&] { return piece == SIZE_MAX ? piece : 1 + random() % piece; };
    while (!rest.empty() && state._error == DQ_SUCCESS) {
        feed(&state, &rest, next());
        DqCompressionFlush(&state);
        take(&state, &file, next());
    }
    DqCompressionErr closed = DQ_OUTPUT_PENDING;
    while ((closed = DqCompressionClose(&state)) == DQ_OUTPUT_PENDING) {
        EXPECT_GT(state.output.buf.bytes(), 0u);
        take(&state, &file, next());
    }
    EXPECT_EQ(closed, DQ_SUCCESS);
    EXPECT_EQ(state._version, 0);
    return file;
}

// Bytes of both tables behind the data.
inline std::size_t indexSize(std::size_t dataSize, std::size_t segment = DQ_DEFAULT_SEGMENT) {
    const auto table = [&](std::size_t chunk) {
        return 64 + 8 * std::max<std::size_t>((dataSize + chunk - 1) / chunk, 8192);
    };
    return table(segment) + table(DQ_SECONDARY_CHUNK);
}

struct Unpacked {
    std::string data;
    DqCompressionErr error = DQ_SUCCESS;
    bool inFrame = false;
    std::size_t consumed = 0;  // of the file
};

// The LZ4 reader's answer to a file, in pieces.
inline Unpacked unpacked(std::string_view file, std::size_t piece = SIZE_MAX) {
    DqCompressionState state = CreateDqCompressionState(DQ_DECOMPRESS, DQ_ENGINE_LZ4, {});
    EXPECT_EQ(state._error, DQ_SUCCESS) << state._errorDetails;
    Unpacked result;
    std::string_view rest = file;
    for (;;) {
        const off_t before = state.inpput.offset + state.output.offset;
        const std::size_t left = rest.size();
        feed(&state, &rest, piece);
        result.error = DqCompressionBlock(&state);
        take(&state, &result.data, SIZE_MAX);
        if (result.error != DQ_SUCCESS || (left == rest.size() && before == state.inpput.offset + state.output.offset))
            break;
    }
    result.inFrame = DqCompressionInFrame(state);
    result.consumed = static_cast<std::size_t>(state.inpput.offset);
    return result;
}

}  // namespace testsupport
