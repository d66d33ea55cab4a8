#include "bandwidth/blockOut.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "bandwidth/blockOut_internal.h"
#include "base/paths.h"
#include "base/releaser.h"
#include "log/logger.h"
#include "log/thread_record.h"

namespace {

void* const NOT_ATTACHED = reinterpret_cast<void*>(-1);  // NOLINT(performance-no-int-to-ptr): shmat's failure

constexpr int PROJECT_ID = 's';
constexpr int CREATE_FLAGS = IPC_CREAT | 0600;
constexpr int CREATE_ATTEMPTS = 2;

pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_key;
bool g_keyMade = false;

// What a thread without the shared table uses; never written after this.
BandwidthTable* localTable() {
    static BandwidthTable table;
    static const bool isFilled = [] {
        fillBandwidthTable(&table, NO_BANDWIDTH_LIMIT);
        return true;
    }();
    (void)isFilled;
    return &table;
}

void detach(BandwidthHandle* handle) {
    handle->shmid = -1;
    handle->readOnly = 0;
    handle->table = localTable();
    if (handle->attached != nullptr)
        (void)shmdt(handle->attached);  // fails only for an address that is no segment
    handle->attached = nullptr;
}

void dropHandle(void* value) {
    auto* const handle = static_cast<BandwidthHandle*>(value);
    detach(handle);
    std::free(handle);
}

void makeKey() {
    g_keyMade = pthread_key_create(&g_key, dropHandle) == 0;
    if (!g_keyMade)
        LOG_HERE(0, "Failed to create bandwidth key.");
}

BandwidthHandle* handleOrLog() {
    BandwidthHandle* const handle = getBandwidthHandle();
    if (handle == nullptr)
        LOG_HERE(0, "Failed to get bandwidth thread handle.");
    return handle;
}

int createAndAttach(BandwidthHandle* handle) {
    const std::string path = systemPath(paths::DQ_INI);
    const key_t key = ftok(path.c_str(), PROJECT_ID);
    if (key == -1) {
        LOG_HERE(0, "Can't get shared memory key: %s, %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    const int id = shmget(key, sizeof(BandwidthTable), CREATE_FLAGS);
    if (id == -1) {
        LOG_HERE(0, "Can't get shared memory id for key %d: %s\n", key, strerror(errno));
        return -1;
    }
    void* const address = shmat(id, nullptr, 0);
    if (address == NOT_ATTACHED) {
        LOG_HERE(0, "Can't attach to shared memory %d: %s\n", id, strerror(errno));
        return -1;
    }
    detach(handle);
    handle->attached = address;
    handle->table = static_cast<BandwidthTable*>(address);
    handle->shmid = id;
    fillBandwidthTable(handle->table,
                       NO_BANDWIDTH_LIMIT);  // a new segment is all zeros, which would be the least limit
    if (shmctl(id, IPC_RMID, nullptr) == -1)
        LOG_HERE(3, "Can't mark shared memory %d to be destroyed: %s\n", id, strerror(errno));
    return 0;
}

// Who shares a limit: all that are attached but the daemon, which sends nothing.
std::uint64_t sharersOf(int shmid) {
    shmid_ds state{};
    if (shmctl(shmid, IPC_STAT, &state) == -1)
        return 1;
    return state.shm_nattch > 1 ? state.shm_nattch - 1 : 1;
}

}  // namespace

void fillBandwidthTable(BandwidthTable* table, std::uint64_t limit) {
    for (auto& day : *table) {
        for (std::uint64_t& hour : day)
            std::atomic_ref(hour).store(limit, std::memory_order_relaxed);
    }
}

void publishBandwidthTable(const BandwidthTable& from, const BandwidthHandle& to) {
    if (to.attached == nullptr || to.readOnly != 0)
        return;
    for (int day = 0; day < BANDWIDTH_DAYS; ++day) {
        for (int hour = 0; hour < BANDWIDTH_HOURS; ++hour)
            std::atomic_ref((*to.table)[day][hour]).store(from[day][hour], std::memory_order_relaxed);
    }
}

BandwidthHandle* getBandwidthHandle() {
    if (pthread_once(&g_keyOnce, makeKey) != 0) {
        LOG_HERE(0, "Either the once_control or init_routine is invalid.");
        return nullptr;
    }
    if (!g_keyMade)
        return nullptr;
    if (void* known = pthread_getspecific(g_key); known != nullptr)
        return static_cast<BandwidthHandle*>(known);
    MallocPtr<BandwidthHandle> made(static_cast<BandwidthHandle*>(std::calloc(1, sizeof(BandwidthHandle))));
    if (!made) {
        LOG_HERE(0, "Failed to malloc bandwidth table handle");
        return nullptr;
    }
    detach(made.get());
    if (keepThreadRecord(g_key, made.get()) == -1)
        return nullptr;
    return made.release();  // the key's destructor frees it
}

int createBandwidthTable() {
    BandwidthHandle* const handle = handleOrLog();
    if (handle == nullptr)
        return -1;
    for (int attempt = 0; attempt < CREATE_ATTEMPTS; ++attempt) {
        if (createAndAttach(handle) == 0)
            return 0;
    }
    detach(handle);
    return -1;
}

int getBandwidthTableId() {
    const BandwidthHandle* const handle = handleOrLog();
    return handle == nullptr ? -1 : handle->shmid;
}

void attachBandwidthTable(int shmid) {
    BandwidthHandle* const handle = handleOrLog();
    if (handle == nullptr || (handle->attached != nullptr && handle->shmid == shmid))
        return;
    detach(handle);
    if (shmid < 0)
        return;  // there is no shared table
    void* const address = shmat(shmid, nullptr, SHM_RDONLY);
    if (address == NOT_ATTACHED) {
        LOG_HERE(0, "Can't attach to shared memory %d: %s\n", shmid, strerror(errno));
        return;
    }
    handle->attached = address;
    handle->table = static_cast<BandwidthTable*>(address);
    handle->shmid = shmid;
    handle->readOnly = 1;
}

void detachBandwidthTable() {
    if (BandwidthHandle* const handle = handleOrLog(); handle != nullptr)
        detach(handle);
}

std::uint64_t threadBandwidthLimit(std::time_t now) {
    const BandwidthHandle* const handle = handleOrLog();
    tm local{};
    if (handle == nullptr || handle->table == nullptr || localtime_r(&now, &local) == nullptr || local.tm_wday < 0 ||
        local.tm_wday >= BANDWIDTH_DAYS || local.tm_hour < 0 || local.tm_hour >= BANDWIDTH_HOURS)
        return NO_BANDWIDTH_LIMIT;
    const std::uint64_t limit =
        std::atomic_ref((*handle->table)[local.tm_wday][local.tm_hour]).load(std::memory_order_relaxed);
    if (limit == NO_BANDWIDTH_LIMIT)
        return limit;
    return std::max(limit / sharersOf(handle->shmid), LEAST_BANDWIDTH);
}
