// A process-private POSIX semaphore of initial value 1 used as a lock. Unlike a mutex it may
// be released by a call other than the one that took it (even on another thread), which is
// why it is a semaphore; the analysis still knows it as a lock, so members it guards and
// functions that need it say so.
#ifndef TAVO_COMMON_SEMAPHORE_LOCK_H
#define TAVO_COMMON_SEMAPHORE_LOCK_H

#include <semaphore.h>

#include <cerrno>

#include "ThreadAnnotations.h"

class CAPABILITY("semaphore") SemaphoreLock {
public:
    // Initialises the semaphore; initialised() tells whether sem_init succeeded (the lock is
    // used either way).
    SemaphoreLock() : mInitialised(sem_init(&mSemaphore, 0, 1) == 0) {}
    ~SemaphoreLock() { destroy(); }
    SemaphoreLock(const SemaphoreLock&) = delete;
    SemaphoreLock& operator=(const SemaphoreLock&) = delete;

    bool initialised() const { return mInitialised; }
    // Destroys the semaphore ahead of the destructor, so that its owner can report the
    // result. True on success; false when sem_destroy failed or it was already destroyed.
    bool destroy() {
        if (!mInitialised)
            return false;
        mInitialised = false;
        return sem_destroy(&mSemaphore) == 0;
    }

    // sem_wait, again when interrupted by a signal.
    void lock() ACQUIRE() {
        while (sem_wait(&mSemaphore) != 0 && errno == EINTR) {
        }
    }
    // sem_post.
    void unlock() RELEASE() { sem_post(&mSemaphore); }

private:
    sem_t mSemaphore;
    bool mInitialised;
};

#endif  // TAVO_COMMON_SEMAPHORE_LOCK_H
