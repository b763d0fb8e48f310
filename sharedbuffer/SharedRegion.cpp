// Creation and release of one shared A/V buffer region.
#define LOG_TAG "TavoMBBMSEngine"
#include "SharedRegion.h"

#include <sys/mman.h>

#include <cstdio>
#include <utility>

#include "BufferWriteState.h"
#include "Env.h"
#include "Log.h"

SharedRegion& SharedRegion::operator=(SharedRegion&& other) noexcept {
    if (this != &other) {
        abandon();
        mFd = std::move(other.mFd);
        mMapping = std::move(other.mMapping);
        mSemaphoresReady = other.mSemaphoresReady;
        other.mSemaphoresReady = false;
    }
    return *this;
}

int SharedRegion::create(int session, const char* caller, Env* env) {
    // The platform calls that make a buffer (region, mapping, protection, semaphores) are all
    // here, in this order, made through the Env so that tests can fail each of them.
    char name[32];
    snprintf(name, sizeof(name), CMMB_SHARED_REGION_NAME_FORMAT, session);
    mFd.reset(env->createSharedRegion(name, CMMB_SHARED_BUFFER_SIZE));
    if (!mFd.valid()) {
        TLOG_FOR(caller, ERROR, "ashmem_create_region_%d", session);
        abandon();
        return -1;
    }
    TLOG_FOR(caller, ENGINE, "ashmem_create_region is ok , mSharedFds[%d]=%d", session, mFd.get());

    void* mapping = env->mapSharedRegion(mFd.get(), CMMB_SHARED_BUFFER_SIZE);
    if (mapping == MAP_FAILED) {
        TLOG_FOR(caller, ERROR, "mmap failed size=%d", static_cast<int>(CMMB_SHARED_BUFFER_SIZE));
        abandon();
        return -1;
    }
    mMapping = UniqueMapping(Mapping{mapping, CMMB_SHARED_BUFFER_SIZE});
    TLOG_FOR(caller, ENGINE, "mmap is ok, size=%d", static_cast<int>(CMMB_SHARED_BUFFER_SIZE));

    if (env->protectSharedRegion(mFd.get(), PROT_READ | PROT_WRITE) != 0) {
        TLOG_FOR(caller, ERROR, "ashmem_set_prot_region failed");
        abandon();
        return -1;
    }

    CmmbSharedBuffer* shared = address();
    if (env->initSharedSemaphore(&shared->mutexDataAvailable, 0) == -1) {
        TLOG_FOR(caller, ERROR, "sem_init mutexDataAvailable(session=%d)", session);
        abandon();
        return -1;
    }
    TLOG_FOR(caller, SEMAPHORE, "sem_init mutexDataAvailable(session=%d) OK", session);
    if (env->initSharedSemaphore(&shared->mutexDataAccessable, 1) == -1) {
        TLOG_FOR(caller, ERROR, "sem_init mutexDataAccessable(session=%d) Failed", session);
        cmmb_sem_destroy(&shared->mutexDataAvailable);
        abandon();
        return -1;
    }
    TLOG_FOR(caller, SEMAPHORE, "sem_init mutexDataAccessable(session=%d) OK", session);
    mSemaphoresReady = true;

    // Records and payload stay as the fresh region holds them (zeros); each frame start marks
    // the NAL records free.
    publishEmpty(shared);
    return 0;
}

void SharedRegion::destroy(int session, const char* caller) {
    CmmbSharedBuffer* shared = address();
    if (shared != nullptr && mSemaphoresReady) {
        cmmb_sem_destroy(&shared->mutexDataAvailable);
        if (caller != nullptr)
            TLOG_FOR(caller, SEMAPHORE, "sem_destroy mutexDataAvailable(session=%d)", session);
        cmmb_sem_destroy(&shared->mutexDataAccessable);
        if (caller != nullptr)
            TLOG_FOR(caller, SEMAPHORE, "sem_destroy mutexDataAccessable(session=%d)", session);
    }
    abandon();
}

void SharedRegion::abandon() {
    mSemaphoresReady = false;
    mMapping.reset();
    closeDescriptor();
}

void SharedRegion::closeDescriptor() {
    // A region descriptor of 0 (the process had closed its standard input) is left open:
    // descriptor 0 may belong to someone else by the time the region goes.
    if (mFd.get() == 0)
        mFd.release();
    mFd.reset();
}
