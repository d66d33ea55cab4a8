#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <utility>

#include "base/paths.h"
#include "compression/compression_internal.h"
#include "log/logger.h"

namespace {

constexpr char CREATE[] = "CreateDqCompressionState";
constexpr char DEBUG_HOLD[] = "/tmp/CreateDqCompressionState_wait";
constexpr int DEBUG_LEVEL = 5;
constexpr char RX9_DEVICE[] = "/dev/rx9";
constexpr std::size_t RX9_BLOCK = 32768;
constexpr std::size_t RX9_TABLE_PADDING = 5120;
constexpr std::size_t BUFFER_RESERVE = 1024;
constexpr std::size_t LARGEST_BUFFER = std::size_t{1} << 32;

// A developer attaches a debugger here.
void holdForDebugger() {
    if (log_level < DEBUG_LEVEL && log_screen_level < DEBUG_LEVEL)
        return;
    const std::string path = systemPath(DEBUG_HOLD);
    while (access(path.c_str(), F_OK) == 0) {
        LOG_HERE(0, "Waiting for %.80s to be removed...\n", path.c_str());
        std::this_thread::sleep_for(std::chrono::seconds(2));
    }
}

bool overlap(std::span<std::byte> a, std::span<std::byte> b) {
    const std::less<> before;
    return before(a.data(), b.data() + b.size()) && before(b.data(), a.data() + a.size());
}

DqCompressionErr checkBuffers(DqCompressionState* state, const DqCompressionOptions& options) {
    const std::span<std::byte> in = options.inputBuffer;
    const std::span<std::byte> out = options.outputBuffer;
    if (in.data() != nullptr && in.empty())
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s inpoctets=%zu\n", CREATE, in.size());
    if (out.data() != nullptr && out.empty())
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s outoctets=%zu\n", CREATE, out.size());
    if (in.data() != nullptr && out.data() != nullptr && overlap(in, out))
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s input and output buffer overlap\n", CREATE);
    if (std::max(options.inputOctets, options.outputOctets) > LARGEST_BUFFER)
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s inpoctets=%zu outoctets=%zu\n", CREATE, options.inputOctets,
                       options.outputOctets);
    const std::size_t given = out.data() != nullptr ? out.size() : options.outputOctets;
    if (state->_op == DQ_COMPRESS && given != 0 && given < DQ_MIN_OUTPUT_BUFFER)
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s outoctets=%lu\n", CREATE, given);
    return DQ_SUCCESS;
}

DqCompressionErr prepareIndex(DqCompressionState* state, std::size_t segmentOctets) {
    DqCompressionIndex& index = state->_impl->_index;
    const std::size_t segment = segmentOctets != 0 ? segmentOctets : DQ_DEFAULT_SEGMENT;
    if (DQ_SECONDARY_CHUNK % segment != 0)
        return DQ_FAIL(state, DQ_INVALID_STATE, "%s Index segment size must be a factor of 10MB\n", CREATE);
    if (state->_op < DQ_COMPRESS || state->_op > DQ_PASS)
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s op=%d\n", CREATE, static_cast<int>(state->_op));
    if (state->_impl->_engine._type == DQ_ENGINE_RX9) {
        index._magic = "ae9b76";
        index._tablepadding = RX9_TABLE_PADDING;
    }
    index._segmentoctets = segment;
    if (state->_op != DQ_COMPRESS)
        return DQ_SUCCESS;
    constexpr std::size_t FIRST_ENTRIES = 8192;
    index._low.reset(static_cast<off_t*>(std::calloc(FIRST_ENTRIES, sizeof(off_t))));
    if (!index._low)
        return DQ_FAIL(state, DQ_NO_MEMORY, "%.80s newlen=%zu\n", CREATE, FIRST_ENTRIES);
    index._p = index._low.get();
    index._high = index._p + FIRST_ENTRIES;
    return DQ_SUCCESS;
}

DqCompressionErr openCard(DqCompressionState* state) {
    DqCompressionEngine& engine = state->_impl->_engine;
    constexpr int FLAGS = O_RDWR | O_CLOEXEC;
    const std::string path = systemPath(RX9_DEVICE);
    engine._fd.reset(open(path.c_str(), FLAGS));
    // No driver is spoken to here, so a device of that name is as good as none.
    const int reason = engine._fd.isOpen() ? ENOTSUP : errno;
    return DQ_FAIL(state, DQ_FILE_ERROR, "%.80s: open(%.32s, %d) failed errno=%d\n", CREATE, path.c_str(), FLAGS,
                   reason);
}

DqCompressionErr prepareEngine(DqCompressionState* state, std::size_t blockOctets) {
    DqCompressionEngine& engine = state->_impl->_engine;
    const std::size_t segment = state->_impl->_index._segmentoctets;
    switch (engine._type) {
        case DQ_ENGINE_NONE:
            engine._blockoctets = blockOctets != 0 ? blockOctets : DQ_DEFAULT_BLOCK;
            break;
        case DQ_ENGINE_RX9:
            engine._blockoctets = blockOctets != 0 ? blockOctets : RX9_BLOCK;
            return openCard(state);
        case DQ_ENGINE_ZLIB:
        case DQ_ENGINE_LZ4:
            engine._blockoctets = blockOctets != 0 ? blockOctets : segment;
            break;
        default:
            return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s engine=%d\n", CREATE, static_cast<int>(engine._type));
    }
    if (state->_op != DQ_PASS && engine._type == DQ_ENGINE_NONE)
        return DQ_FAIL(state, DQ_BAD_ARGUMENT, "%.80s engine=%d\n", CREATE, static_cast<int>(engine._type));
    // Entry i of the index is the start of a block at exactly i segments, so blocks must not straddle segments.
    if (state->_op == DQ_COMPRESS && segment % engine._blockoctets != 0)
        engine._blockoctets = segment;
    if (engine._type == DQ_ENGINE_LZ4 && state->_op != DQ_PASS && !lz4Prepare(&engine))
        return DQ_FAIL(state, DQ_NO_MEMORY, "%.80s no memory for the LZ4 engine\n", CREATE);
    return DQ_SUCCESS;
}

DqCompressionErr prepareFile(DqCompressionState* state, DqCompressionChannel* channel, const char* path, FILE* file,
                             int fd, const char* mode) {
    channel->_file = file;
    channel->_fd = file == nullptr && path == nullptr ? fd : -1;
    if (path != nullptr) {
        channel->_file = std::fopen(path, mode);
        if (channel->_file == nullptr)
            return DQ_FAIL(state, DQ_FILE_ERROR, "%.80s: can't open %s: %s\n", CREATE, path, std::strerror(errno));
        channel->_apicloses = true;
    }
    // A file that was handed over in its middle goes on from there.
    const off_t position = channel->_file != nullptr ? ftello(channel->_file) : -1;
    channel->offset = std::max<off_t>(position, 0);
    return DQ_SUCCESS;
}

DqCompressionErr prepareBuffer(DqCompressionState* state, DqCompressionBuffer* buffer, std::span<std::byte> given,
                               std::size_t size, std::size_t least) {
    buffer->base = given.data();
    if (buffer->base == nullptr) {
        buffer->base = static_cast<std::byte*>(std::malloc(size));
        buffer->_apifrees = true;
    } else {
        size = given.size();
    }
    if (buffer->base == nullptr)
        return DQ_FAIL(state, DQ_NO_MEMORY, "%.80s no memory for a buffer of %zu bytes\n", CREATE, size);
    buffer->low = buffer->p = buffer->base;
    buffer->high = buffer->base + size;
    if (size < least)
        return DQ_FAIL(state, DQ_INVALID_STATE, "%.80s a buffer of %zu bytes, less than %zu\n", CREATE, size, least);
    return DQ_SUCCESS;
}

std::size_t outputSize(const DqCompressionState& state, std::size_t given) {
    if (given != 0)
        return given + BUFFER_RESERVE;
    const DqCompressionImpl& impl = *state._impl;
    const std::size_t size = impl._engine._blockoctets + impl._index._segmentoctets;
    return (state._op == DQ_COMPRESS ? std::max(size, DQ_MIN_OUTPUT_BUFFER) : size) + BUFFER_RESERVE;
}

// The output must take a segment, and the largest that can become of a block.
std::size_t leastOutput(const DqCompressionState& state) {
    const DqCompressionImpl& impl = *state._impl;
    const std::size_t segment = impl._index._segmentoctets;
    if (state._op != DQ_COMPRESS)
        return segment;
    return std::max(segment, dqBlockBound(impl._engine));
}

DqCompressionErr prepare(DqCompressionState* state, const DqCompressionOptions& options) {
    DqCompressionErr error = checkBuffers(state, options);
    if (error == DQ_SUCCESS)
        error = prepareIndex(state, options.segmentOctets);
    if (error == DQ_SUCCESS)
        error = prepareEngine(state, options.blockOctets);
    if (error == DQ_SUCCESS)
        error = prepareFile(state, &state->inpput, options.inputPath, options.inputFile, options.inputFd, "rbe");
    if (error == DQ_SUCCESS)
        error = prepareBuffer(state, &state->inpput.buf, options.inputBuffer,
                              options.inputOctets != 0 ? options.inputOctets : state->_impl->_index._segmentoctets,  //
                              state->_impl->_engine._blockoctets);
    if (error == DQ_SUCCESS)
        error = prepareFile(state, &state->output, options.outputPath, options.outputFile, options.outputFd, "wbe");
    if (error == DQ_SUCCESS)
        error = prepareBuffer(state, &state->output.buf, options.outputBuffer, outputSize(*state, options.outputOctets),
                              leastOutput(*state));
    return error;
}

void freeBuffer(DqCompressionBuffer* buffer) {
    if (buffer->_apifrees)
        std::free(buffer->base);
    *buffer = DqCompressionBuffer{};
}

}  // namespace

DqCompressionState CreateDqCompressionState(DqCompressionOp op, DqCompressionEngineType engine,
                                            const DqCompressionOptions& options) {
    holdForDebugger();
    DqCompressionState state;
    state._op = op;
    state.inpput._version = state.inpput.buf._version = DQ_VERSION;
    state.output._version = state.output.buf._version = DQ_VERSION;
    state._impl.reset(new DqCompressionImpl);
    state._impl->_engine._type = engine;
    state._impl->_engine._level = options.level;
    state._error = prepare(&state, options);
    if (state._error == DQ_SUCCESS)
        dqDump(6, state);
    return state;
}

void dqDestroy(DqCompressionState* state) {
    (void)dqCloseChannel(&state->inpput);
    (void)dqCloseChannel(&state->output);  // whoever closed in good order did so before, and looked at the result
    freeBuffer(&state->inpput.buf);
    freeBuffer(&state->output.buf);
    state->_impl.reset();
    state->_version = 0;
}

void DqCompressionImplDeleter::operator()(DqCompressionImpl* impl) const noexcept {
    delete impl;
}

DqCompressionState::~DqCompressionState() {
    dqDestroy(this);
}

DqCompressionState::DqCompressionState(DqCompressionState&& other) noexcept {
    *this = std::move(other);
}

DqCompressionState& DqCompressionState::operator=(DqCompressionState&& other) noexcept {
    if (this == &other)
        return *this;
    dqDestroy(this);
    _version = std::exchange(other._version, 0);
    _error = other._error;
    std::copy(std::begin(other._errorDetails), std::end(other._errorDetails), _errorDetails);
    _op = other._op;
    inpput = std::exchange(other.inpput, DqCompressionChannel{});
    output = std::exchange(other.output, DqCompressionChannel{});
    _impl = std::move(other._impl);
    return *this;
}

DqCompressionEngineType engine_type_of(const char* name) {
    constexpr struct {
        const char* name;
        DqCompressionEngineType type;
    } ENGINES[] = {{"ugz", DQ_ENGINE_ZLIB}, {"lz4", DQ_ENGINE_LZ4},   {"zlib", DQ_ENGINE_ZLIB},
                   {"rx9", DQ_ENGINE_RX9},  {"none", DQ_ENGINE_NONE}, {"auto", DQ_ENGINE_ZLIB}};
    constexpr std::size_t COMPARED = 8;
    if (name == nullptr)
        name = "auto";
    for (const auto& engine : ENGINES)
        if (strncasecmp(name, engine.name, COMPARED) == 0)
            return engine.type;
    LOG_HERE(1, "unknown CompressEngine value: %.80s\n", name);
    return DQ_ENGINE_NONE;
}
