// Creation, destruction and reset of the two per-session shared A/V buffers.
//
// Each buffer is an anonymous shared-memory region of CMMB_SHARED_BUFFER_SIZE bytes, mapped
// once into the engine and handed by descriptor to the play engine. The buffers live from a
// successful initSharedBuffers() to deinitSharedBuffers(), both called under mLock by init
// and deinit; resetSharedBuffer() runs on application threads while they exist.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>

#include "Ashmem.h"
#include "EngineLog.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

// Undoes one session's buffer: semaphores, mapping, descriptor. Safe on a half-made buffer.
// `semaphoresReady` tells whether the two semaphores were initialised.
void releaseBuffer(CmmbSharedBuffer*& buffer, int& fd, bool semaphoresReady) {
    if (buffer != nullptr) {
        if (semaphoresReady) {
            cmmb_sem_destroy(&buffer->mutexDataAvailable);
            cmmb_sem_destroy(&buffer->mutexDataAccessable);
        }
        munmap(buffer, CMMB_SHARED_BUFFER_SIZE);
        buffer = nullptr;
    }
    if (fd > 0)
        close(fd);
    fd = -1;
}

}  // namespace

int TavoMBBMSEngineImpl::initSharedBuffers() {
    TLOG(ENGINE, "%s()", __func__);
    // Number of sessions whose buffer is complete (semaphores initialised), for the cleanup
    // of a partial failure.
    int ready = 0;
    bool failed = false;
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT) && !failed; ++i) {
        char name[32];
        snprintf(name, sizeof(name), CMMB_SHARED_REGION_NAME_FORMAT, i);
        mSharedFds[i] = ashmem_create_region(name, CMMB_SHARED_BUFFER_SIZE);
        if (mSharedFds[i] < 0) {
            TLOG(ERROR, "ashmem_create_region_%d", i);
            mSharedFds[i] = -1;
            failed = true;
            break;
        }
        TLOG(ENGINE, "ashmem_create_region is ok , mSharedFds[%d]=%d", i, mSharedFds[i]);

        void* mapping = mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED,
                             mSharedFds[i], 0);
        if (mapping == MAP_FAILED) {
            TLOG(ERROR, "mmap failed size=%d", static_cast<int>(CMMB_SHARED_BUFFER_SIZE));
            failed = true;
            break;
        }
        mSharedBuffers[i] = static_cast<CmmbSharedBuffer*>(mapping);
        TLOG(ENGINE, "mmap is ok, size=%d", static_cast<int>(CMMB_SHARED_BUFFER_SIZE));

        if (ashmem_set_prot_region(mSharedFds[i], PROT_READ | PROT_WRITE) != 0) {
            TLOG(ERROR, "ashmem_set_prot_region failed");
            failed = true;
            break;
        }

        CmmbSharedBuffer* buffer = mSharedBuffers[i];
        if (cmmb_sem_init(&buffer->mutexDataAvailable, 0) == -1) {
            TLOG(ERROR, "sem_init mutexDataAvailable(session=%d)", i);
            failed = true;
            break;
        }
        TLOG(SEMAPHORE, "sem_init mutexDataAvailable(session=%d) OK", i);
        if (cmmb_sem_init(&buffer->mutexDataAccessable, 1) == -1) {
            TLOG(ERROR, "sem_init mutexDataAccessable(session=%d) Failed", i);
            cmmb_sem_destroy(&buffer->mutexDataAvailable);
            failed = true;
            break;
        }
        TLOG(SEMAPHORE, "sem_init mutexDataAccessable(session=%d) OK", i);

        // Records and payload stay as the fresh region holds them (zeros); each frame start
        // marks the NAL records free.
        buffer->nalCount = 0;
        buffer->aacCount = 0;
        buffer->dataLength = 0;
        ready = i + 1;
    }
    if (!failed)
        return 0;

    // Leave nothing half-made behind: deinitSharedBuffers() must only ever see complete
    // buffers or none.
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++i) {
        releaseBuffer(mSharedBuffers[i], mSharedFds[i], i < ready);
    }
    return -1;
}

int TavoMBBMSEngineImpl::deinitSharedBuffers() {
    TLOG(ENGINE, "%s()", __func__);
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++i) {
        CmmbSharedBuffer* buffer = mSharedBuffers[i];
        if (buffer != nullptr) {
            cmmb_sem_destroy(&buffer->mutexDataAvailable);
            TLOG(SEMAPHORE, "sem_destroy mutexDataAvailable(session=%d)", i);
            cmmb_sem_destroy(&buffer->mutexDataAccessable);
            TLOG(SEMAPHORE, "sem_destroy mutexDataAccessable(session=%d)", i);
        }
        releaseBuffer(mSharedBuffers[i], mSharedFds[i], false);
    }
    return 0;
}

void TavoMBBMSEngineImpl::resetSharedBuffer(int session) {
    TLOG(ENGINE, "session=%d", session);
    if (session < 0 || session >= static_cast<int>(CMMB_SHARED_BUFFER_COUNT)) {
        TLOG(ERROR, "no shared buffer for session=%d, reset skipped", session);
        return;
    }
    CmmbSharedBuffer* buffer = mSharedBuffers[session];
    if (buffer == nullptr) {
        TLOG(ERROR, "shared buffer of session=%d does not exist, reset skipped", session);
        return;
    }

    TLOG(SEMAPHORE, "sem_wait mutexDataAccessable(session=%d)...", session);
    // Waits out a multiplex frame being written: the frame hand-off holds this lock from the
    // frame's start to its end.
    cmmb_sem_wait(&buffer->mutexDataAccessable);
    TLOG(SEMAPHORE, "mutexDataAccessable(session=%d)--", session);
    if (buffer->nalCount != 0 || buffer->aacCount != 0) {
        TLOG(DATA_MFS, "One MFS frame is reset(nalCount=%d, aacCount=%d)",
             static_cast<int>(buffer->nalCount), static_cast<int>(buffer->aacCount));
    }
    buffer->nalCount = 0;
    buffer->aacCount = 0;
    buffer->dataLength = 0;
    cmmb_sem_post(&buffer->mutexDataAccessable);
    TLOG(SEMAPHORE, "mutexDataAccessable(session=%d)++", session);
}
