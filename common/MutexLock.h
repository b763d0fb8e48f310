// Holds a Mutex from construction to destruction. unlock() and lock() let a scope give the
// mutex up for a while (for example around a call that must not run under it) and take it
// back; the destructor releases it only when held.
#ifndef TAVO_COMMON_MUTEX_LOCK_H
#define TAVO_COMMON_MUTEX_LOCK_H

#include "Mutex.h"
#include "ThreadAnnotations.h"

class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mMutex(mutex), mHeld(true) { mMutex.lock(); }
    ~MutexLock() RELEASE() {
        if (mHeld)
            mMutex.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() RELEASE() {
        mHeld = false;
        mMutex.unlock();
    }
    void lock() ACQUIRE() {
        mMutex.lock();
        mHeld = true;
    }

private:
    Mutex& mMutex;
    bool mHeld;
};

#endif  // TAVO_COMMON_MUTEX_LOCK_H
