// The shared A/V buffers: creation and destruction, the engine's side of their lock, and the
// replacement of buffers abandoned by a play engine that has gone.
#define LOG_TAG "TavoMBBMSEngine"
#include "SharedBufferSet.h"
#include "EngineSessions.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "Env.h"
#include "Log.h"
#include "MutexLock.h"
#include "Properties.h"
#include "SharedSemaphorePair.h"

namespace {

// A waiting engine thread looks this often whether the buffer it waits for was abandoned.
const int kWaitSliceMs = 50;
// How often a replacement looks whether the waiters of an abandoned buffer have left, and
// for how long at most (they leave within one wait slice).
const std::chrono::milliseconds kWaiterLeavePoll(2);
const std::chrono::milliseconds kWaiterLeaveBound(2000);

int readLockTimeoutMs() {
    char value[PROPERTY_VALUE_MAX];
    property_get(TAVO_LOCK_TIMEOUT_PROPERTY, value, "");
    char* end = nullptr;
    const long parsed = strtol(value, &end, 10);
    if (value[0] == '\0' || end == value || *end != '\0' || parsed < 0 || parsed > 600000)
        return SharedBufferSet::DEFAULT_LOCK_TIMEOUT_MS;
    return static_cast<int>(parsed);
}

int lockWordValue(CmmbSharedBuffer* shared) {
    int value = 1;
    cmmb_sem_getvalue(&shared->mutexDataAccessable, &value);
    return value;
}

}  // namespace

int SharedBufferSet::create(const char* caller, Env* env) {
    mEnv = env;
    mLockTimeoutMs = readLockTimeoutMs();
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++i) {
        int result;
        {
            MutexLock guard(mOwnership[i].mutex);
            result = mRegions[i].create(i, caller, mEnv);
            publish(i);
        }
        if (result != 0) {
            destroy(nullptr);
            return -1;
        }
    }
    return 0;
}

void SharedBufferSet::destroy(const char* caller) {
    for (int i = 0; i < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++i) {
        Ownership& ownership = mOwnership[i];
        MutexLock guard(ownership.mutex);
        mRegions[i].destroy(i, caller);
        publish(i);
        ownership.engineHolds = false;
        ownership.stalled = false;
        ownership.readerConnected = false;
    }
    mCheckPending.store(false);
}

void SharedBufferSet::publish(int session) {
    mAddresses[session].store(mRegions[session].address(), std::memory_order_release);
    mFds[session].store(mRegions[session].fd(), std::memory_order_release);
}

CmmbSharedBuffer* SharedBufferSet::buffer(int session) const {
    if (!isEngineSession(session))
        return nullptr;
    return mAddresses[session].load(std::memory_order_acquire);
}

int SharedBufferSet::fd(int session) const {
    if (!isEngineSession(session))
        return -1;
    return mFds[session].load(std::memory_order_acquire);
}

bool SharedBufferSet::lock(int session) {
    Ownership& ownership = mOwnership[session];
    CmmbSharedSemaphore* lockWord = nullptr;
    {
        MutexLock guard(ownership.mutex);
        lockWord = &mRegions[session].address()->mutexDataAccessable;
        if (cmmb_sem_trywait(lockWord) == 0) {
            ownership.engineHolds = true;
            ownership.stalled = false;
            mOwnership[session].mutexDataAccessable.taken();
            return true;
        }
        if (ownership.stalled || mLockTimeoutMs == 0)
            return false;
        // While this thread is counted as a waiter the region is not replaced, so lockWord
        // stays valid for the whole wait.
        ownership.engineWaiters += 1;
    }

    const std::chrono::nanoseconds deadline =
        mEnv->monotonicNow() + std::chrono::milliseconds(mLockTimeoutMs);
    for (;;) {
        const auto remaining =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - mEnv->monotonicNow())
                .count();
        bool taken = false;
        if (remaining > 0) {
            const int slice = static_cast<int>(std::min<long long>(remaining, kWaitSliceMs));
            taken = mEnv->waitSharedSemaphore(lockWord, slice) == 0;
        }
        MutexLock guard(ownership.mutex);
        if (taken || cmmb_sem_trywait(lockWord) == 0) {
            ownership.engineWaiters -= 1;
            ownership.engineHolds = true;
            ownership.stalled = false;
            mOwnership[session].mutexDataAccessable.taken();
            return true;
        }
        if (!ownership.readerConnected && !ownership.engineHolds &&
            lockWordValue(mRegions[session].address()) == 0) {
            // The lock belongs to a process whose play engine has gone: waiting on is
            // pointless, and the buffer is replaced once no engine thread waits for it.
            ownership.engineWaiters -= 1;
            TLOG(WARNING, "the play engine that left holds the buffer of session=%d, wait ended",
                 session);
            return false;
        }
        if (remaining <= 0) {
            ownership.engineWaiters -= 1;
            ownership.stalled = true;
            return false;
        }
    }
}

void SharedBufferSet::unlock(int session) {
    giveLockBack(session, false);
}

void SharedBufferSet::unlockAnnouncingFrame(int session) {
    giveLockBack(session, true);
}

void SharedBufferSet::giveLockBack(int session, bool announceFrame) {
    Ownership& ownership = mOwnership[session];
    MutexLock guard(ownership.mutex);
    ownership.engineHolds = false;
    CmmbSharedBuffer* shared = mRegions[session].address();
    if (announceFrame)
        postSemaphorePair(&shared->mutexDataAccessable, &shared->mutexDataAvailable);
    else
        cmmb_sem_post(&shared->mutexDataAccessable);
    mOwnership[session].mutexDataAccessable.given();
}

int SharedBufferSet::readerHolds(int session) {
    if (!isEngineSession(session))
        return -1;
    Ownership& ownership = mOwnership[session];
    MutexLock guard(ownership.mutex);
    CmmbSharedBuffer* shared = mRegions[session].address();
    if (shared == nullptr)
        return -1;
    return !ownership.engineHolds && lockWordValue(shared) == 0 ? 1 : 0;
}

void SharedBufferSet::readerConnected() {
    for (Ownership& ownership : mOwnership) {
        MutexLock guard(ownership.mutex);
        ownership.readerConnected = true;
    }
}

void SharedBufferSet::readerDisconnected() {
    for (Ownership& ownership : mOwnership) {
        MutexLock guard(ownership.mutex);
        ownership.readerConnected = false;
        // The next reader gets a full wait again.
        ownership.stalled = false;
    }
    mCheckPending.store(true, std::memory_order_release);
}

SharedBufferSet::Verdict SharedBufferSet::verdictLocked(int session,
                                                        const Ownership& ownership) const {
    CmmbSharedBuffer* shared = mRegions[session].address();
    if (shared == nullptr || ownership.readerConnected || ownership.engineHolds ||
        lockWordValue(shared) != 0)
        return Verdict::IN_USE;
    return ownership.engineWaiters > 0 ? Verdict::UNDECIDED : Verdict::ABANDONED;
}

bool SharedBufferSet::replaceLocked(int session, Ownership& ownership, const char* caller) {
    SharedRegion fresh;
    if (fresh.create(session, caller, mEnv) != 0) {
        TLOG_FOR(caller, ERROR,
                 "the play engine that left holds the buffer of session=%d, and no new buffer "
                 "can be made",
                 session);
        return false;
    }
    // The old region's semaphores stay as they are: a process that still maps it keeps a
    // consistent region of its own, which the engine no longer writes.
    mRegions[session] = std::move(fresh);
    publish(session);
    ownership.stalled = false;
    TLOG_FOR(caller, WARNING,
             "the play engine that left holds the buffer of session=%d, buffer replaced "
             "(mSharedFds[%d]=%d)",
             session, session, mRegions[session].fd());
    return true;
}

bool SharedBufferSet::replaceAbandoned(const char* caller) {
    bool allReplaced = true;
    for (int s = 0; s < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++s) {
        Ownership& ownership = mOwnership[s];
        const std::chrono::nanoseconds giveUp = mEnv->monotonicNow() + kWaiterLeaveBound;
        for (;;) {
            {
                MutexLock guard(ownership.mutex);
                const Verdict verdict = verdictLocked(s, ownership);
                if (verdict == Verdict::IN_USE)
                    break;
                if (verdict == Verdict::ABANDONED) {
                    allReplaced = replaceLocked(s, ownership, caller) && allReplaced;
                    break;
                }
            }
            if (mEnv->monotonicNow() >= giveUp) {
                allReplaced = false;
                break;
            }
            // Waiters of an abandoned buffer end their wait within one slice.
            mEnv->sleepFor(kWaiterLeavePoll);
        }
    }
    return allReplaced;
}

bool SharedBufferSet::anyAbandoned() {
    for (int s = 0; s < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++s) {
        Ownership& ownership = mOwnership[s];
        MutexLock guard(ownership.mutex);
        if (verdictLocked(s, ownership) != Verdict::IN_USE)
            return true;
    }
    return false;
}

void SharedBufferSet::replacePending() {
    mCheckPending.store(false, std::memory_order_release);
    bool undecided = false;
    for (int s = 0; s < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++s) {
        Ownership& ownership = mOwnership[s];
        MutexLock guard(ownership.mutex);
        const Verdict verdict = verdictLocked(s, ownership);
        if (verdict == Verdict::UNDECIDED ||
            (verdict == Verdict::ABANDONED && !replaceLocked(s, ownership, "onOutputAVStart")))
            undecided = true;  // looked at again at the next frame start
    }
    if (undecided)
        mCheckPending.store(true, std::memory_order_release);
}
