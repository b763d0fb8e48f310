// The engine's operations on its two per-session shared A/V buffers: creation at init,
// destruction at deinit, and the reset of one session's buffer when its TV service stops.
//
// The buffers themselves (regions, mappings, semaphores, the engine's side of their locks
// and their replacement) belong to the engine's SharedBufferSet. initSharedBuffers() and
// deinitSharedBuffers() run under mLock; resetSharedBuffer() runs on application threads
// while the buffers exist.
#include "BufferWriteState.h"
#include "EngineLog.h"
#include "EngineSessions.h"
#include "TavoMBBMSEngineImpl.h"

int TavoMBBMSEngineImpl::initSharedBuffers() {
    TLOG(ENGINE, "%s()", __func__);
    return mSharedBuffers.create(__func__, mEnv.load());
}

int TavoMBBMSEngineImpl::deinitSharedBuffers() {
    TLOG(ENGINE, "%s()", __func__);
    mSharedBuffers.destroy(__func__);
    return 0;
}

void TavoMBBMSEngineImpl::resetSharedBuffer(int session) {
    TLOG(ENGINE, "session=%d", session);
    if (!isEngineSession(session)) {
        TLOG(ERROR, "no shared buffer for session=%d, reset skipped", session);
        return;
    }
    if (mSharedBuffers.buffer(session) == nullptr) {
        TLOG(ERROR, "shared buffer of session=%d does not exist, reset skipped", session);
        return;
    }

    TLOG(SEMAPHORE, "sem_wait mutexDataAccessable(session=%d)...", session);
    // Waits out a multiplex frame being written (the frame hand-off holds this lock from the
    // frame's start to its end), but a play engine that keeps the lock only for the bound. A
    // buffer left locked by a play engine that has gone is not reset: it is replaced by a
    // fresh, empty one.
    if (!mSharedBuffers.lock(session)) {
        TLOG(WARNING, "playengine holds the buffer of session=%d longer than %d ms, reset skipped",
             session, mSharedBuffers.lockTimeoutMs());
        return;
    }
    TLOG(SEMAPHORE, "mutexDataAccessable(session=%d)--", session);
    // The current region is looked up only now: it cannot be replaced while this thread
    // holds its lock.
    CmmbSharedBuffer* buffer = mSharedBuffers.buffer(session);
    // Read once each: the play engine may rewrite them at any moment.
    const uint32_t nalCount = readFromRegion(buffer->nalCount);
    const uint32_t aacCount = readFromRegion(buffer->aacCount);
    if (nalCount != 0 || aacCount != 0) {
        TLOG(DATA_MFS, "One MFS frame is reset(nalCount=%d, aacCount=%d)",
             static_cast<int>(nalCount), static_cast<int>(aacCount));
    }
    publishEmpty(buffer);
    mSharedBuffers.unlock(session);
    TLOG(SEMAPHORE, "mutexDataAccessable(session=%d)++", session);
}
