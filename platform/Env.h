// The operating-system calls whose failures the engine must survive, behind one interface so
// that a test can make any of them fail: file writes and syncs of recordings, free-space
// queries, the set-up of the shared A/V buffers (shared-memory regions, their mapping and
// their semaphores), the threads the engine starts for its own work, and time: the monotonic
// clock, sleeping, and the bounded waits on shared semaphores.
//
// Env::current() is the object the engine reads once, when init starts; the engine and every
// object it creates keep that pointer and call through it. It is the platform's own
// (Env::platform()) unless a test installed another with Env::install(); the shipped library never
// installs one. A test wraps the platform's object in an EnvWrapper subclass that overrides only
// the calls it breaks, installs it for its own duration, and puts the previous one back; or it
// hands its Env straight to a unit it builds, without installing anything.
//
// Threads: every operation may be called from any thread. install() may race with callers:
// a caller uses either the old or the new object, so an installed object must outlive every
// call that may still be using it (tests install before the engine starts and restore after
// it has stopped).
//
// Results follow the system calls: -1 (MAP_FAILED for mapSharedRegion) with errno set;
// startThread returns what pthread_create does (0, or the error number).
#ifndef TAVO_PLATFORM_ENV_H
#define TAVO_PLATFORM_ENV_H

#include <pthread.h>
#include <sys/types.h>
#include <sys/vfs.h>

#include <chrono>
#include <cstddef>

struct CmmbSharedSemaphore;

class Env {
public:
    virtual ~Env();

    // The platform's own calls. Never destroyed.
    static Env* platform();
    // What the engine uses now.
    static Env* current();
    // Makes `env` current (null restores the platform's) and returns the one it replaces.
    static Env* install(Env* env);

    // Files. write and pwrite may write fewer bytes than asked, like the system calls.
    virtual ssize_t write(int fd, const void* data, size_t size) = 0;
    virtual ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) = 0;
    virtual int fsync(int fd) = 0;
    virtual int statfs(const char* path, struct statfs* out) = 0;
    virtual int fstatfs(int fd, struct statfs* out) = 0;

    // Shared A/V buffers: ashmem_create_region, ashmem_set_prot_region, a MAP_SHARED
    // read-write mapping of the whole region, and cmmb_sem_init of a semaphore inside it.
    virtual int createSharedRegion(const char* name, size_t size) = 0;
    virtual int protectSharedRegion(int fd, int prot) = 0;
    virtual void* mapSharedRegion(int fd, size_t size) = 0;
    virtual int initSharedSemaphore(CmmbSharedSemaphore* semaphore, unsigned int value) = 0;
    // Threads: pthread_create with default attributes.
    virtual int startThread(pthread_t* thread, void* (*run)(void*), void* argument) = 0;

    // Time. monotonicNow reads CLOCK_MONOTONIC; sleepFor sleeps at least `duration` on that
    // clock (resuming after signals); waitSharedSemaphore is cmmb_sem_timedwait: it takes the
    // semaphore or gives up after `timeoutMs` on the monotonic clock (0 taken, -1 with errno
    // ETIMEDOUT or EINTR). Every timed step of the engine is built from these three, so that a
    // test can run the engine against a clock of its own.
    virtual std::chrono::nanoseconds monotonicNow() = 0;
    virtual void sleepFor(std::chrono::nanoseconds duration) = 0;
    virtual int waitSharedSemaphore(CmmbSharedSemaphore* semaphore, int timeoutMs) = 0;
};

// Forwards every call to another Env. Subclasses override what they change.
class EnvWrapper : public Env {
public:
    explicit EnvWrapper(Env* target) : mTarget(target) {}
    Env* target() const { return mTarget; }

    ssize_t write(int fd, const void* data, size_t size) override {
        return mTarget->write(fd, data, size);
    }
    ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) override {
        return mTarget->pwrite(fd, data, size, offset);
    }
    int fsync(int fd) override { return mTarget->fsync(fd); }
    int statfs(const char* path, struct statfs* out) override { return mTarget->statfs(path, out); }
    int fstatfs(int fd, struct statfs* out) override { return mTarget->fstatfs(fd, out); }
    int createSharedRegion(const char* name, size_t size) override {
        return mTarget->createSharedRegion(name, size);
    }
    int protectSharedRegion(int fd, int prot) override {
        return mTarget->protectSharedRegion(fd, prot);
    }
    void* mapSharedRegion(int fd, size_t size) override {
        return mTarget->mapSharedRegion(fd, size);
    }
    int initSharedSemaphore(CmmbSharedSemaphore* semaphore, unsigned int value) override {
        return mTarget->initSharedSemaphore(semaphore, value);
    }
    int startThread(pthread_t* thread, void* (*run)(void*), void* argument) override {
        return mTarget->startThread(thread, run, argument);
    }
    std::chrono::nanoseconds monotonicNow() override { return mTarget->monotonicNow(); }
    void sleepFor(std::chrono::nanoseconds duration) override { mTarget->sleepFor(duration); }
    int waitSharedSemaphore(CmmbSharedSemaphore* semaphore, int timeoutMs) override {
        return mTarget->waitSharedSemaphore(semaphore, timeoutMs);
    }

private:
    Env* const mTarget;
};

#endif  // TAVO_PLATFORM_ENV_H
