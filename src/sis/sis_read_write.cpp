// Bytes in and out of the store, and the reservations that give writers their ranges.

#include <sys/file.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "log/logger.h"
#include "sis/SIS_internal.h"

namespace {

int release(SIS* handle) {
    if (handle->reservation.length == 0)
        return 0;
    const std::uint64_t start = handle->reservation.start;
    handle->reservation = {};
    if (unlockSISoffset(handle, start) == 0)
        return 0;
    log_message(0, "Can't unlock SIS offset 0x%lX\n", start);
    return -1;
}

// What the allocation pointer becomes, and where the range begins that it passes. A range never spans two files: the
// tail of a file that is too short is given up. False if the address space ends.
struct Step {
    std::uint64_t start;
    std::uint64_t next;
};
bool stepFrom(std::uint64_t old, std::uint64_t length, std::uint64_t limit, Step* step) {
    step->next = old + length;
    step->start = old;
    const std::uint64_t over = step->next % limit;
    if (over > 0 && over < length) {
        step->start = step->next - over;
        step->next = step->start + length;
    }
    return step->next > old && step->start >= old;
}

int openAt(SIS* handle, std::uint64_t start) {
    const SharedMap shared(handle);
    if (shared.failed() || findSISfile(handle, start, true) == -1)
        return -1;
    if (mapSIS(handle, start) == 0)
        return 0;
    log_message(0, "Can't map single instance store file\n");
    return -1;
}

// A new file is placed by the devices that there are now, if nobody is at work in the store. Without the catalogue
// those known will do.
void updateForNewFile(SIS* handle) {
    std::vector<CatalogueDisk> disks;
    if (listDedupDisks(&disks) == -1 || lockInfo(handle, LOCK_EX | LOCK_NB) == -1)
        return;
    if (refreshMap(handle) == 0)
        (void)updateSISmap(handle, disks);  // logged
    (void)lockInfo(handle, LOCK_UN);
}

void unlockRange(SIS* handle, std::uint64_t start) {
    if (unlockSISoffset(handle, start) == -1)
        log_message(0, "Can't unlock SIS offset 0x%lX\n", start);
}

// Takes the range and the lock of its file. 0 with the former value of the pointer, or -1.
// A file is there before the pointer comes into it: who dies before that leaves at most a file that the next one finds,
// and who reserves behind the first range never comes before the file.
int takeRange(SIS* handle, std::uint64_t length, std::uint64_t* old) {
    *old = handle->nextFree();
    for (;;) {
        if (*old % handle->blockSize != 0) {
            LOG_HERE(0, "%s is damaged: allocation pointer %lX\n", handle->infoPath.c_str(), *old);
            return -1;
        }
        Step step{};
        if (!stepFrom(*old, length, handle->limit, &step)) {
            LOG_HERE(0, "No offsets are left: 0x%lX\n", *old);
            return -1;
        }
        if (lockSISoffset(handle, step.start, F_SETLKW, F_RDLCK) == -1) {
            log_message(0, "Failed to acquire SIS offset lock for 0x%lX\n", step.start);
            return -1;
        }
        const bool isNewFile = step.start % handle->limit == 0;
        if (isNewFile)
            updateForNewFile(handle);
        if (isNewFile && openAt(handle, step.start) == -1) {
            unlockRange(handle, step.start);
            return -1;
        }
        // The header is looked up anew: the map may have moved.
        if (SISword(handle->header().nextFree).compare_exchange_strong(*old, step.next, std::memory_order_acq_rel)) {
            handle->reservation = {step.start, length};
            return 0;
        }
        unlockRange(handle, step.start);
    }
}

// Puts the pointer back where it was, unless someone else has reserved behind us.
void giveRangeBack(SIS* handle, std::uint64_t old) {
    std::uint64_t end = handle->reservation.start + handle->reservation.length;
    if (!SISword(handle->header().nextFree).compare_exchange_strong(end, old, std::memory_order_acq_rel))
        LOG_HERE(0, "The range at 0x%lX stays unused\n", handle->reservation.start);
    (void)release(handle);  // logged
}

// A pointer that went back with the power would give out space that blocks lie in.
int savePointer(SIS* handle) {
    if (msync(handle->map.data(), PAGE, MS_SYNC) == 0)
        return 0;
    LOG_HERE(0, "msync(%s): %s\n", handle->infoPath.c_str(), std::strerror(errno));
    return -1;
}

// The bytes of the open window from `offset` on.
std::size_t windowRest(const SIS* handle, std::uint64_t offset) {
    return handle->open.windowStart + handle->open.window.size() - offset;
}

int openForReading(SIS* handle, std::uint64_t offset) {
    if (findSISfile(handle, offset, false) == -1) {
        log_message(0, "Can't find single instance store file for offset 0x%lX\n", offset);
        return -1;
    }
    if (mapSIS(handle, offset) == 0)
        return 0;
    log_message(0, "Can't map offset 0x%lX in single instance store file\n", offset);
    return -1;
}

int flushWindow(SIS* handle, std::uint64_t offset, std::size_t length) {
    const std::uint64_t inWindow = offset - handle->open.windowStart;
    const std::uint64_t before = inWindow % PAGE;
    std::byte* const start = handle->open.window.data() + (inWindow - before);
    if (msync(start, length + before, MS_SYNC) == 0)
        return 0;
    log_message(0, "msync(0x%lX, %zd, 0x%X): %s\n", reinterpret_cast<std::uintptr_t>(start),
                static_cast<ssize_t>(length + before), static_cast<unsigned>(MS_SYNC), std::strerror(errno));
    return -1;
}

}  // namespace

int lockSISoffset(SIS* handle, std::uint64_t offset, int command, short type) {
    if (handle->offsetLocks.prepare() == -1)
        return -1;
    return handle->offsetLocks.lock(lockByteOf(handle, offset), type == F_WRLCK, command == F_SETLKW);
}

int unlockSISoffset(SIS* handle, std::uint64_t offset) {
    return handle->offsetLocks.unlock(lockByteOf(handle, offset));
}

int reserveSIS(SIS* handle, std::uint64_t* offset, std::int64_t length) {
    if (handle == nullptr) {
        log_message(0, "reserveSIS(NULL,)\n");
        return -1;
    }
    if (length < 0) {
        log_message(0, "reserveSIS(, 0x%lX)\n", static_cast<std::uint64_t>(length));
        return -1;
    }
    if (SISword(handle->header().version) != 0) {
        log_message(0, "The version changed?!?!\n");
        return -1;
    }
    if (release(handle) == -1)
        return -1;
    if (length == 0) {
        *offset = handle->nextFree();
        return 0;
    }
    const std::uint64_t rounded = roundUp(static_cast<std::uint64_t>(length), handle->blockSize);
    if (rounded > handle->limit) {
        log_message(0, "Length > SIS file size:  0x%lX > 0x%lX\n", rounded, handle->limit);
        return -1;
    }
    std::uint64_t old = 0;
    if (takeRange(handle, rounded, &old) == -1)
        return -1;
    if (openAt(handle, handle->reservation.start) == -1 || savePointer(handle) == -1) {
        giveRangeBack(handle, old);
        return -1;
    }
    *offset = handle->reservation.start;
    return 0;
}

ssize_t readSIS(SIS* handle, std::span<std::byte> buffer, std::uint64_t offset) {
    const std::uint64_t end = handle->nextFree();
    if (offset >= end) {
        log_message(0, "readSIS(): offset 0x%lX >= 0x%lX\n", offset, end);
        return -1;
    }
    const SharedMap shared(handle);
    if (shared.failed() || openForReading(handle, offset) == -1)
        return -1;
    std::size_t length = buffer.size();
    if (const std::size_t rest = windowRest(handle, offset); length > rest) {
        length = rest;
        log_message(5, "Adjusting length to end of mapping:  %zd\n", static_cast<ssize_t>(length));
    }
    if (length > end - offset) {
        length = end - offset;
        log_message(5, "Adjusting length to end of single instance store file:  %zd\n", static_cast<ssize_t>(length));
    }
    if (length == 0)
        return 0;
    const CopyResult result = readWindow(handle, buffer.first(length), offset);
    if (result == CopyResult::Faulted)
        log_message(0, "readSIS(, 0x%lX, %zd) faulted\n", offset, static_cast<ssize_t>(length));
    return result == CopyResult::Done ? static_cast<ssize_t>(length) : -1;
}

ssize_t writeSIS(SIS* handle, std::span<const std::byte> buffer, std::uint64_t offset) {
    const std::uint64_t start = handle->reservation.start;
    const std::uint64_t end = start + handle->reservation.length;
    if (offset < start || offset >= end) {
        log_message(0, "writeSIS(): 0x%lX > offset 0x%lX >= 0x%lX\n", end, offset, start);
        return -1;
    }
    const SharedMap shared(handle);
    if (shared.failed() || openForReading(handle, offset) == -1)
        return -1;
    const std::size_t length = std::min<std::size_t>({buffer.size(), end - offset, windowRest(handle, offset)});
    if (length == 0)
        return 0;
    if (claimSpace(handle, length) == -1)
        return -1;
    const CopyResult result = writeWindow(handle, buffer.first(length), offset);
    if (result == CopyResult::Faulted)
        log_message(0, "writeSIS(, 0x%lX, %zd) faulted\n", offset, static_cast<ssize_t>(length));
    if (result != CopyResult::Done)
        return -1;
    if (flushWindow(handle, offset, length) == -1 || confirmSpace(handle, length) == -1)
        return -1;
    return static_cast<ssize_t>(length);
}
