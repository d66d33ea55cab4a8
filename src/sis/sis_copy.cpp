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

// Reads whole units from the window in clear.
int readUnits(StoreFile* file, std::span<std::byte> units, std::uint64_t offset) {
    if (!guardedCopy(units.data(), inWindow(*file, offset), units.size()))
        return -1;
    return cipherSIS(file, CDLIB_DECRYPT, units, offset);
}

// A range that begins or ends within a unit: through a copy of that unit.
int readPartOfUnit(StoreFile* file, std::span<std::byte> buffer, std::uint64_t offset) {
    std::array<std::byte, CDLIB_BLOCK_SIZE> unit;
    const std::uint64_t within = offset % unit.size();
    if (readUnits(file, unit, offset - within) == -1)
        return -1;
    std::memcpy(buffer.data(), unit.data() + within, buffer.size());
    return 0;
}

int readCiphered(StoreFile* file, std::span<std::byte> buffer, std::uint64_t offset) {
    while (!buffer.empty()) {
        const std::uint64_t toBoundary = CDLIB_BLOCK_SIZE - offset % CDLIB_BLOCK_SIZE;
        std::size_t count = 0;
        int result = 0;
        if (toBoundary < CDLIB_BLOCK_SIZE || buffer.size() < CDLIB_BLOCK_SIZE) {
            count = std::min<std::size_t>(buffer.size(), toBoundary);
            result = readPartOfUnit(file, buffer.first(count), offset);
        } else {
            count = std::min(buffer.size() - buffer.size() % CDLIB_BLOCK_SIZE, CIPHER_PIECE);
            result = readUnits(file, buffer.first(count), offset);
        }
        if (result == -1)
            return -1;
        buffer = buffer.subspan(count);
        offset += count;
    }
    return 0;
}

// One piece: what lies around it in its first and last unit is kept.
int writePiece(StoreFile* file, std::span<std::byte> room, std::span<const std::byte> data, std::uint64_t offset) {
    const std::uint64_t head = offset % CDLIB_BLOCK_SIZE;
    const std::size_t size = roundUp(head + data.size(), CDLIB_BLOCK_SIZE);
    const std::span<std::byte> units = room.first(size);
    const std::uint64_t start = offset - head;
    const std::size_t last = size - CDLIB_BLOCK_SIZE;
    if (head != 0 && readUnits(file, units.first(CDLIB_BLOCK_SIZE), start) == -1)
        return -1;
    const bool tailIsPartial = head + data.size() != size;
    if (tailIsPartial && (last != 0 || head == 0) && readUnits(file, units.subspan(last), start + last) == -1)
        return -1;
    std::memcpy(units.data() + head, data.data(), data.size());
    if (cipherSIS(file, CDLIB_ENCRYPT, units, start) == -1)
        return -1;
    return guardedCopy(inWindow(*file, start), units.data(), size) ? 0 : -1;
}

int writeCiphered(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset) {
    const std::size_t room = std::min(roundUp(buffer.size(), CDLIB_BLOCK_SIZE), CIPHER_PIECE) + CDLIB_BLOCK_SIZE;
    if (!handle->cipherRoom.grow(room)) {
        log_message(0, "Can't malloc(%d)\n", static_cast<int>(room));
        return -1;
    }
    while (!buffer.empty()) {
        const std::size_t count = std::min(buffer.size(), CIPHER_PIECE - offset % CDLIB_BLOCK_SIZE);
        if (writePiece(&handle->open, {handle->cipherRoom.bytes.get(), room}, buffer.first(count), offset) == -1)
            return -1;
        buffer = buffer.subspan(count);
        offset += count;
    }
    return 0;
}

}  // namespace

bool guardedCopy(void* to, const void* from, std::size_t count) {
    const FaultsCaught caught;
    return copyOrJump(to, from, count);
}

int readWindow(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset) {
    if (handle->open.crypt)
        return readCiphered(&handle->open, buffer, offset);
    return guardedCopy(buffer.data(), inWindow(handle->open, offset), buffer.size()) ? 0 : -1;
}

int writeWindow(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset) {
    if (handle->open.crypt)
        return writeCiphered(handle, buffer, offset);
    return guardedCopy(inWindow(handle->open, offset), buffer.data(), buffer.size()) ? 0 : -1;
}
