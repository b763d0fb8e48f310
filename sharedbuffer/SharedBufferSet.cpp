// Creation and destruction of the shared A/V buffers, and the engine's side of their lock.
#define LOG_TAG "TavoMBBMSEngine"
#include "SharedBufferSet.h"

#include <errno.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "Env.h"
#include "Log.h"
#include "Properties.h"

namespace {

// A waiting engine thread looks this often whether the reader it waits for has gone away.
const int kWaitSliceMs = 50;

int readLockTimeoutMs() {
    char value[PROPERTY_VALUE_MAX];
    property_get(TAVO_LOCK_TIMEOUT_PROPERTY, value, "");
    char* end = nullptr;
    const long parsed = strtol(value, &end, 10);
    if (value[0] == '\0' || end == value || *end != '\0' || parsed < 0 || parsed > 600000)
        return SharedBufferSet::DEFAULT_LOCK_TIMEOUT_MS;
    return static_cast<int>(parsed);
}

}  // namespace

int SharedBufferSet::create(const char* caller) {
    mLockTimeoutMs = readLockTimeoutMs();
    // The platform calls that make a buffer (region, mapping, protection, semaphores) are
    // all here, in this order, made through the Env so that tests can fail each of them.
    Env* env = Env::current();
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++i) {
        char name[32];
        snprintf(name, sizeof(name), CMMB_SHARED_REGION_NAME_FORMAT, i);
        mSharedFds[i].reset(env->createSharedRegion(name, CMMB_SHARED_BUFFER_SIZE));
        if (!mSharedFds[i].valid()) {
            TLOG_FOR(caller, ERROR, "ashmem_create_region_%d", i);
            destroy(nullptr);
            return -1;
        }
        TLOG_FOR(caller, ENGINE, "ashmem_create_region is ok , mSharedFds[%d]=%d", i,
                 mSharedFds[i].get());

        void* mapping = env->mapSharedRegion(mSharedFds[i].get(), CMMB_SHARED_BUFFER_SIZE);
        if (mapping == MAP_FAILED) {
            TLOG_FOR(caller, ERROR, "mmap failed size=%d",
                     static_cast<int>(CMMB_SHARED_BUFFER_SIZE));
            destroy(nullptr);
            return -1;
        }
        mMappings[i] = UniqueMapping(mapping, CMMB_SHARED_BUFFER_SIZE);
        TLOG_FOR(caller, ENGINE, "mmap is ok, size=%d", static_cast<int>(CMMB_SHARED_BUFFER_SIZE));

        if (env->protectSharedRegion(mSharedFds[i].get(), PROT_READ | PROT_WRITE) != 0) {
            TLOG_FOR(caller, ERROR, "ashmem_set_prot_region failed");
            destroy(nullptr);
            return -1;
        }

        CmmbSharedBuffer* shared = buffer(i);
        if (env->initSharedSemaphore(&shared->mutexDataAvailable, 0) == -1) {
            TLOG_FOR(caller, ERROR, "sem_init mutexDataAvailable(session=%d)", i);
            destroy(nullptr);
            return -1;
        }
        TLOG_FOR(caller, SEMAPHORE, "sem_init mutexDataAvailable(session=%d) OK", i);
        if (env->initSharedSemaphore(&shared->mutexDataAccessable, 1) == -1) {
            TLOG_FOR(caller, ERROR, "sem_init mutexDataAccessable(session=%d) Failed", i);
            cmmb_sem_destroy(&shared->mutexDataAvailable);
            destroy(nullptr);
            return -1;
        }
        TLOG_FOR(caller, SEMAPHORE, "sem_init mutexDataAccessable(session=%d) OK", i);
        mSemaphoresReady[i] = true;

        // Records and payload stay as the fresh region holds them (zeros); each frame start
        // marks the NAL records free.
        shared->nalCount = 0;
        shared->aacCount = 0;
        shared->dataLength = 0;
    }
    return 0;
}

void SharedBufferSet::destroy(const char* caller) {
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++i) {
        CmmbSharedBuffer* shared = buffer(i);
        if (shared != nullptr && mSemaphoresReady[i]) {
            cmmb_sem_destroy(&shared->mutexDataAvailable);
            if (caller != nullptr)
                TLOG_FOR(caller, SEMAPHORE, "sem_destroy mutexDataAvailable(session=%d)", i);
            cmmb_sem_destroy(&shared->mutexDataAccessable);
            if (caller != nullptr)
                TLOG_FOR(caller, SEMAPHORE, "sem_destroy mutexDataAccessable(session=%d)", i);
        }
        mSemaphoresReady[i] = false;
        mMappings[i].reset();
        mSharedFds[i].reset();
        Ownership& ownership = mOwnership[i];
        std::lock_guard<std::mutex> guard(ownership.mutex);
        ownership.engineHolds = false;
        ownership.readerGone = false;
        ownership.stalled = false;
    }
}

CmmbSharedBuffer* SharedBufferSet::buffer(int session) const {
    if (session < 0 || session >= static_cast<int>(CMMB_SHARED_BUFFER_COUNT))
        return nullptr;
    return static_cast<CmmbSharedBuffer*>(mMappings[session].get());
}

int SharedBufferSet::fd(int session) const {
    if (session < 0 || session >= static_cast<int>(CMMB_SHARED_BUFFER_COUNT))
        return -1;
    return mSharedFds[session].get();
}

void SharedBufferSet::emptyBuffer(CmmbSharedBuffer* shared) {
    shared->nalCount = 0;
    shared->aacCount = 0;
    shared->dataLength = 0;
}

bool SharedBufferSet::takeLocked(int session, Ownership& ownership) {
    CmmbSharedBuffer* shared = buffer(session);
    if (cmmb_sem_trywait(&shared->mutexDataAccessable) == 0) {
        ownership.readerGone = false;
    } else if (ownership.readerGone) {
        // The reader died holding the lock: its hold passes to this thread, and whatever it
        // left half read is dropped.
        ownership.readerGone = false;
        emptyBuffer(shared);
    } else {
        return false;
    }
    ownership.engineHolds = true;
    ownership.stalled = false;
    return true;
}

bool SharedBufferSet::lock(int session) {
    Ownership& ownership = mOwnership[session];
    {
        std::lock_guard<std::mutex> guard(ownership.mutex);
        if (takeLocked(session, ownership))
            return true;
        if (ownership.stalled || mLockTimeoutMs == 0)
            return false;
        ownership.engineWaiters += 1;
    }

    CmmbSharedSemaphore* lockWord = &buffer(session)->mutexDataAccessable;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(mLockTimeoutMs);
    for (;;) {
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   deadline - std::chrono::steady_clock::now())
                                   .count();
        bool taken = false;
        if (remaining > 0) {
            const int slice = static_cast<int>(std::min<long long>(remaining, kWaitSliceMs));
            taken = cmmb_sem_timedwait(lockWord, slice) == 0;
        }
        std::lock_guard<std::mutex> guard(ownership.mutex);
        if (taken) {
            ownership.engineWaiters -= 1;
            ownership.engineHolds = true;
            ownership.readerGone = false;
            ownership.stalled = false;
            return true;
        }
        if (takeLocked(session, ownership)) {
            ownership.engineWaiters -= 1;
            return true;
        }
        if (remaining <= 0) {
            ownership.engineWaiters -= 1;
            ownership.stalled = true;
            return false;
        }
    }
}

void SharedBufferSet::unlock(int session) {
    Ownership& ownership = mOwnership[session];
    std::lock_guard<std::mutex> guard(ownership.mutex);
    ownership.engineHolds = false;
    cmmb_sem_post(&buffer(session)->mutexDataAccessable);
}

bool SharedBufferSet::takeBackFromReader(int session, const char* caller) {
    CmmbSharedBuffer* shared = buffer(session);
    if (shared == nullptr)
        return false;
    Ownership& ownership = mOwnership[session];
    std::lock_guard<std::mutex> guard(ownership.mutex);
    // Frame signals posted for the reader that left would wake the next one for frames it
    // never saw; it starts from the next frame instead.
    while (cmmb_sem_trywait(&shared->mutexDataAvailable) == 0) {
    }
    ownership.stalled = false;  // the next reader gets a full wait again
    int value = 1;
    cmmb_sem_getvalue(&shared->mutexDataAccessable, &value);
    if (ownership.engineHolds || value != 0)
        return false;  // the reader does not hold the lock
    if (ownership.engineWaiters > 0) {
        // An engine thread waits for the lock: it takes it over at its next look.
        ownership.readerGone = true;
        TLOG_FOR(caller, WARNING,
                 "play engine left holding the buffer lock of session=%d, handed to the waiting "
                 "engine",
                 session);
        return true;
    }
    emptyBuffer(shared);
    cmmb_sem_post(&shared->mutexDataAccessable);
    TLOG_FOR(caller, WARNING,
             "play engine left holding the buffer lock of session=%d, lock taken back and buffer "
             "emptied",
             session);
    return true;
}
