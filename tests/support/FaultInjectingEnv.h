// A test's own Env: forwards to the platform's calls, and makes chosen calls fail. It installs
// itself for its lifetime (Env::install) and puts the previous Env back when destroyed.
// Tests that use it link the engine's objects (tavo_engine_objs), so that the Env they
// install is the one their engine calls.
//
//   FaultInjectingEnv env;
//   env.failNth(FaultInjectingEnv::WRITE, 3, ENOSPC);  // the 3rd write from now fails
//   env.setFreeBytes(5 << 20);                          // statfs and fstatfs report 5 MiB
//
// Thread-safe: the engine calls it from its agent and application threads.
#ifndef TAVO_TESTS_SUPPORT_FAULT_INJECTING_ENV_H
#define TAVO_TESTS_SUPPORT_FAULT_INJECTING_ENV_H

#include <errno.h>

#include <mutex>

#include "Env.h"

class FaultInjectingEnv : public EnvWrapper {
public:
    enum Call {
        WRITE,  // write and pwrite
        FSYNC,
        STATFS,  // statfs and fstatfs
        CREATE_REGION,
        PROTECT_REGION,
        MAP_REGION,
        INIT_SEMAPHORE,
        START_THREAD,
        CALL_KINDS
    };

    FaultInjectingEnv() : EnvWrapper(Env::platform()), mPrevious(Env::install(this)) {}
    ~FaultInjectingEnv() override { Env::install(mPrevious); }
    FaultInjectingEnv(const FaultInjectingEnv&) = delete;
    FaultInjectingEnv& operator=(const FaultInjectingEnv&) = delete;

    // The nth call of the kind, counted from now (1 = the next one), fails with `error`; with
    // `sticky` every later call fails too.
    void failNth(Call call, int n, int error, bool sticky = false) {
        std::lock_guard<std::mutex> guard(mLock);
        Fault& fault = mFaults[call];
        fault.failAt = mCalls[call] + n;
        fault.error = error;
        fault.sticky = sticky;
        fault.shortBytes = -1;
    }
    // The nth write from now writes only `bytes` of what it is given (a short write) and
    // the write that follows fails with `error`; with `sticky` every later one fails too.
    void shortWriteNth(int n, size_t bytes, int error, bool sticky = false) {
        std::lock_guard<std::mutex> guard(mLock);
        Fault& fault = mFaults[WRITE];
        fault.failAt = mCalls[WRITE] + n;
        fault.error = error;
        fault.sticky = sticky;
        fault.shortBytes = static_cast<long long>(bytes);
    }
    void clearFaults() {
        std::lock_guard<std::mutex> guard(mLock);
        for (Fault& fault : mFaults)
            fault = Fault();
    }
    // statfs and fstatfs report this many free bytes (block size 1) once the real call
    // succeeded; a negative value reports the real figures.
    void setFreeBytes(long long bytes) {
        std::lock_guard<std::mutex> guard(mLock);
        mFreeBytes = bytes;
    }
    long long calls(Call call) const {
        std::lock_guard<std::mutex> guard(mLock);
        return mCalls[call];
    }

    ssize_t write(int fd, const void* data, size_t size) override {
        size_t allowed = size;
        if (int error = enter(WRITE, &allowed)) {
            errno = error;
            return -1;
        }
        return target()->write(fd, data, allowed);
    }
    ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) override {
        size_t allowed = size;
        if (int error = enter(WRITE, &allowed)) {
            errno = error;
            return -1;
        }
        return target()->pwrite(fd, data, allowed, offset);
    }
    int fsync(int fd) override {
        return failOr(FSYNC, [&] { return target()->fsync(fd); });
    }
    int statfs(const char* path, struct statfs* out) override {
        return failOr(STATFS, [&] { return fakeSpace(target()->statfs(path, out), out); });
    }
    int fstatfs(int fd, struct statfs* out) override {
        return failOr(STATFS, [&] { return fakeSpace(target()->fstatfs(fd, out), out); });
    }
    int createSharedRegion(const char* name, size_t size) override {
        return failOr(CREATE_REGION, [&] { return target()->createSharedRegion(name, size); });
    }
    int protectSharedRegion(int fd, int prot) override {
        return failOr(PROTECT_REGION, [&] { return target()->protectSharedRegion(fd, prot); });
    }
    void* mapSharedRegion(int fd, size_t size) override {
        size_t unused = 0;
        if (int error = enter(MAP_REGION, &unused)) {
            errno = error;
            return reinterpret_cast<void*>(-1);  // MAP_FAILED
        }
        return target()->mapSharedRegion(fd, size);
    }
    int initSharedSemaphore(CmmbSharedSemaphore* semaphore, unsigned int value) override {
        return failOr(INIT_SEMAPHORE,
                      [&] { return target()->initSharedSemaphore(semaphore, value); });
    }
    int startThread(pthread_t* thread, void* (*run)(void*), void* argument) override {
        size_t unused = 0;
        if (int error = enter(START_THREAD, &unused))
            return error;  // pthread_create's way: the error number, errno untouched
        return target()->startThread(thread, run, argument);
    }

private:
    struct Fault {
        long long failAt = 0;  // 0 = none
        int error = 0;
        bool sticky = false;
        long long shortBytes = -1;  // >= 0: the call at failAt writes this many bytes
    };

    // Counts the call; returns the errno it must fail with, or 0. For a short write, narrows
    // `size` instead and arms the failure of the calls that follow.
    int enter(Call call, size_t* size) {
        std::lock_guard<std::mutex> guard(mLock);
        const long long number = ++mCalls[call];
        Fault& fault = mFaults[call];
        if (fault.failAt == 0 || number < fault.failAt)
            return 0;
        if (fault.shortBytes >= 0) {
            if (number == fault.failAt) {
                if (static_cast<size_t>(fault.shortBytes) < *size)
                    *size = static_cast<size_t>(fault.shortBytes);
                return 0;
            }
            return number == fault.failAt + 1 || fault.sticky ? fault.error : 0;
        }
        if (number == fault.failAt || fault.sticky)
            return fault.error;
        return 0;
    }
    template <typename RealCall>
    int failOr(Call call, RealCall real) {
        size_t unused = 0;
        if (int error = enter(call, &unused)) {
            errno = error;
            return -1;
        }
        return real();
    }
    int fakeSpace(int result, struct statfs* out) {
        std::lock_guard<std::mutex> guard(mLock);
        if (result == 0 && mFreeBytes >= 0) {
            out->f_bsize = 1;
            out->f_frsize = 1;
            out->f_bfree = static_cast<decltype(out->f_bfree)>(mFreeBytes);
            out->f_bavail = static_cast<decltype(out->f_bavail)>(mFreeBytes);
        }
        return result;
    }

    Env* const mPrevious;
    mutable std::mutex mLock;
    long long mCalls[CALL_KINDS] = {};
    Fault mFaults[CALL_KINDS];
    long long mFreeBytes = -1;
};

#endif  // TAVO_TESTS_SUPPORT_FAULT_INJECTING_ENV_H
