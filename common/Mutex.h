// A std::mutex the thread-safety analysis knows as a lock. Members it guards say so with
// GUARDED_BY(theMutex); functions that need it with REQUIRES(theMutex). Take it with MutexLock
// wherever a scope fits.
#ifndef TAVO_COMMON_MUTEX_H
#define TAVO_COMMON_MUTEX_H

#include <mutex>

#include "ThreadAnnotations.h"

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // The standard library's names, so that std::unique_lock and friends accept a Mutex.
    void lock() ACQUIRE() { mMutex.lock(); }
    void unlock() RELEASE() { mMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return mMutex.try_lock(); }

    // The wrapped mutex, for ConditionVariable only.
    std::mutex& native() { return mMutex; }

private:
    std::mutex mMutex;
};

#endif  // TAVO_COMMON_MUTEX_H
