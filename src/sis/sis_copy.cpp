// Copying between memory and a mapped store file.
//
// A page of a sparse file gets its place on the device when it is first touched: on a full device that touch raises
// SIGBUS, as does one behind the end of a file that someone has cut. Handlers that jump out of the copy stand for its
// time; they are installed by the first thread that copies and taken away by the last, since a thread that saved and
// restored on its own would leave another thread's handler behind.

#include <csetjmp>
#include <csignal>

#include <array>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

struct Fault {
    int signal;
    struct sigaction former;
};

struct FaultHandlers {
    std::mutex mutex;
    int users = 0;
    std::array<Fault, 2> faults{{{SIGSEGV, {}}, {SIGBUS, {}}}};
};

FaultHandlers& faultHandlers() {
    static auto* handlers = new FaultHandlers;
    return *handlers;
}

thread_local sigjmp_buf t_out;
thread_local volatile std::sig_atomic_t t_armed = 0;

// Of a thread that isn't copying the fault is its own: it comes again, to who had the signal before.
void onFault(int signal) {
    if (t_armed != 0)
        siglongjmp(t_out, 1);
    for (const Fault& fault : faultHandlers().faults)
        if (fault.signal == signal)
            (void)sigaction(signal, &fault.former, nullptr);
}

class FaultsCaught {
public:
    FaultsCaught() {
        FaultHandlers& handlers = faultHandlers();
        const std::lock_guard guard(handlers.mutex);
        if (handlers.users++ > 0)
            return;
        struct sigaction action {};
        action.sa_handler = onFault;
        sigemptyset(&action.sa_mask);
        for (Fault& fault : handlers.faults)
            if (sigaction(fault.signal, &action, &fault.former) == -1)
                log_message(0, fault.signal == SIGBUS ? "sigaction(SIGBUS): %s\n" : "sigaction(SIGSEGV): %s\n",
                            std::strerror(errno));
    }
    FaultsCaught(const FaultsCaught&) = delete;
    FaultsCaught& operator=(const FaultsCaught&) = delete;
    ~FaultsCaught() {
        FaultHandlers& handlers = faultHandlers();
        const std::lock_guard guard(handlers.mutex);
        if (--handlers.users > 0)
            return;
        for (const Fault& fault : handlers.faults)
            (void)sigaction(fault.signal, &fault.former, nullptr);
    }
};

// Nothing with a destructor may live here: the jump would pass it by.
[[gnu::noinline]] bool copyOrJump(void* to, const void* from, std::size_t count) {
    if (sigsetjmp(t_out, 1) != 0) {
        t_armed = 0;
        return false;
    }
    t_armed = 1;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::memcpy(to, from, count);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    t_armed = 0;
    return true;
}

// Ciphered data goes through memory in pieces that stay in the processor's cache.
constexpr std::size_t CIPHER_PIECE = 256 << 10;

std::byte* inWindow(const StoreFile& file, std::uint64_t offset) {
    return file.window.data() + (offset - file.windowStart);
}

CopyResult copyGuarded(void* to, const void* from, std::size_t count) {
    return guardedCopy(to, from, count) ? CopyResult::Done : CopyResult::Faulted;
}

CopyResult cipherUnits(StoreFile* file, int operation, std::span<std::byte> units, std::uint64_t offset) {
    return cipherSIS(file, operation, units, offset) == 0 ? CopyResult::Done : CopyResult::NotCiphered;
}

// Reads whole units from the window in clear.
CopyResult readUnits(StoreFile* file, std::span<std::byte> units, std::uint64_t offset) {
    const CopyResult copied = copyGuarded(units.data(), inWindow(*file, offset), units.size());
    return copied == CopyResult::Done ? cipherUnits(file, CDLIB_DECRYPT, units, offset) : copied;
}

// A range that begins or ends within a unit: through a copy of that unit.
CopyResult readPartOfUnit(StoreFile* file, std::span<std::byte> buffer, std::uint64_t offset) {
    std::array<std::byte, CDLIB_BLOCK_SIZE> unit;
    const std::uint64_t within = offset % unit.size();
    const CopyResult result = readUnits(file, unit, offset - within);
    if (result == CopyResult::Done)
        std::memcpy(buffer.data(), unit.data() + within, buffer.size());
    return result;
}

CopyResult readCiphered(StoreFile* file, std::span<std::byte> buffer, std::uint64_t offset) {
    while (!buffer.empty()) {
        const std::uint64_t toBoundary = CDLIB_BLOCK_SIZE - offset % CDLIB_BLOCK_SIZE;
        std::size_t count = 0;
        CopyResult result = CopyResult::Done;
        if (toBoundary < CDLIB_BLOCK_SIZE || buffer.size() < CDLIB_BLOCK_SIZE) {
            count = std::min<std::size_t>(buffer.size(), toBoundary);
            result = readPartOfUnit(file, buffer.first(count), offset);
        } else {
            count = std::min(buffer.size() - buffer.size() % CDLIB_BLOCK_SIZE, CIPHER_PIECE);
            result = readUnits(file, buffer.first(count), offset);
        }
        if (result != CopyResult::Done)
            return result;
        buffer = buffer.subspan(count);
        offset += count;
    }
    return CopyResult::Done;
}

// One piece: what lies around it in its first and last unit is kept.
CopyResult writePiece(StoreFile* file, std::span<std::byte> room, std::span<const std::byte> data,
                      std::uint64_t offset) {
    const std::uint64_t head = offset % CDLIB_BLOCK_SIZE;
    const std::size_t size = roundUp(head + data.size(), CDLIB_BLOCK_SIZE);
    const std::span<std::byte> units = room.first(size);
    const std::uint64_t start = offset - head;
    const std::size_t last = size - CDLIB_BLOCK_SIZE;
    CopyResult result = CopyResult::Done;
    if (head != 0)
        result = readUnits(file, units.first(CDLIB_BLOCK_SIZE), start);
    const bool tailIsPartial = head + data.size() != size;
    if (result == CopyResult::Done && tailIsPartial && (last != 0 || head == 0))
        result = readUnits(file, units.subspan(last), start + last);
    if (result != CopyResult::Done)
        return result;
    std::memcpy(units.data() + head, data.data(), data.size());
    result = cipherUnits(file, CDLIB_ENCRYPT, units, start);
    return result == CopyResult::Done ? copyGuarded(inWindow(*file, start), units.data(), size) : result;
}

CopyResult writeCiphered(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset) {
    const std::size_t room = std::min(roundUp(buffer.size(), CDLIB_BLOCK_SIZE), CIPHER_PIECE) + CDLIB_BLOCK_SIZE;
    if (!handle->cipherRoom.grow(room)) {
        log_message(0, "Can't malloc(%d)\n", static_cast<int>(room));
        return CopyResult::NotCiphered;
    }
    while (!buffer.empty()) {
        const std::size_t count = std::min(buffer.size(), CIPHER_PIECE - offset % CDLIB_BLOCK_SIZE);
        const CopyResult result =
            writePiece(&handle->open, {handle->cipherRoom.bytes.get(), room}, buffer.first(count), offset);
        if (result != CopyResult::Done)
            return result;
        buffer = buffer.subspan(count);
        offset += count;
    }
    return CopyResult::Done;
}

// A session that failed stays so; with the file closed, the next try opens another one.
CopyResult keepOrClose(StoreFile* file, CopyResult result) {
    if (result == CopyResult::NotCiphered)
        *file = StoreFile();
    return result;
}

}  // namespace

bool guardedCopy(void* to, const void* from, std::size_t count) {
    const FaultsCaught caught;
    return copyOrJump(to, from, count);
}

CopyResult readWindow(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset) {
    if (handle->open.crypt)
        return keepOrClose(&handle->open, readCiphered(&handle->open, buffer, offset));
    return copyGuarded(buffer.data(), inWindow(handle->open, offset), buffer.size());
}

CopyResult writeWindow(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset) {
    if (handle->open.crypt)
        return keepOrClose(&handle->open, writeCiphered(handle, buffer, offset));
    return copyGuarded(inWindow(handle->open, offset), buffer.data(), buffer.size());
}
