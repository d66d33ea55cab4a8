#include "block/hash_lock.h"

#include <new>

#include "base/paths.h"
#include "block/byte_lock.h"
#include "log/logger.h"

namespace {

constexpr std::uint64_t LOCK_BYTE_MASK = 0x3fffffff;

// Never destroyed: handles may be released while the process ends.
ByteLockFile* hashLockFile() {
    static auto* file = new ByteLockFile(paths::HASH_LOCK_FILE, "getLockedHashState", "doTheLock");
    return file;
}

off_t byteOf(const hashValue& value) {
    return static_cast<off_t>(value.hashID & LOCK_BYTE_MASK);
}

}  // namespace

struct lockedHashState {
    ByteLocks locks{hashLockFile()};
};

namespace {

int getLockedHashState(HashLockPtr* handle) {
    if (!*handle)
        handle->reset(new (std::nothrow) lockedHashState);
    if (!*handle) {
        log_message(0, "%s: malloc(%zd) failed\n", __func__, static_cast<ssize_t>(sizeof(lockedHashState)));
        return -1;
    }
    return (*handle)->locks.prepare();
}

int doTheLock(HashLockPtr* handle, short type, std::span<const hashValue> list, const char* function) {
    if (handle == nullptr) {
        log_message(0, "%s(NULL,,)\n", function);
        return -1;
    }
    if (list.empty())
        return 0;
    if (getLockedHashState(handle) == -1) {
        log_message(0, "Can't get locked hash state\n");
        return -1;
    }
    ByteLocks& locks = (*handle)->locks;
    int handled = 0;
    for (const hashValue& value : list) {
        int result = 0;
        if ((value.flags & hashID_in) != 0)
            result = type == F_UNLCK ? locks.unlock(byteOf(value)) : locks.lock(byteOf(value), type == F_WRLCK);
        if (result == -1)
            return handled > 0 ? handled : -1;
        ++handled;
    }
    return handled;
}

}  // namespace

void freeLockedHashState(lockedHashState* state) {
    const std::unique_ptr<lockedHashState> owner(state);
}

int lockHashValuesShared(HashLockPtr* handle, std::span<const hashValue> list) {
    return doTheLock(handle, F_RDLCK, list, __func__);
}

int lockHashValuesExclusive(HashLockPtr* handle, std::span<const hashValue> list) {
    return doTheLock(handle, F_WRLCK, list, __func__);
}

int unlockHashValues(HashLockPtr* handle, std::span<const hashValue> list) {
    return doTheLock(handle, F_UNLCK, list, __func__);
}
