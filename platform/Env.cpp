// The platform's Env: the system calls themselves, through the backend's ashmem and shared
// semaphore. The same code serves the host and the Android backends.
#include "Env.h"

#include <errno.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "Ashmem.h"
#include "CmmbSharedSemaphore.h"

namespace {

std::chrono::nanoseconds readMonotonicClock() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

class PlatformEnv : public Env {
public:
    ssize_t write(int fd, const void* data, size_t size) override {
        ssize_t written;
        do {
            written = ::write(fd, data, size);
        } while (written < 0 && errno == EINTR);
        return written;
    }
    ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) override {
        ssize_t written;
        do {
            written = ::pwrite(fd, data, size, offset);
        } while (written < 0 && errno == EINTR);
        return written;
    }
    int fsync(int fd) override {
        int result;
        do {
            result = ::fsync(fd);
        } while (result != 0 && errno == EINTR);
        return result;
    }
    int statfs(const char* path, struct statfs* out) override { return ::statfs(path, out); }
    int fstatfs(int fd, struct statfs* out) override { return ::fstatfs(fd, out); }
    int createSharedRegion(const char* name, size_t size) override {
        return ashmem_create_region(name, size);
    }
    int protectSharedRegion(int fd, int prot) override { return ashmem_set_prot_region(fd, prot); }
    void* mapSharedRegion(int fd, size_t size) override {
        return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    int initSharedSemaphore(CmmbSharedSemaphore* semaphore, unsigned int value) override {
        return cmmb_sem_init(semaphore, value);
    }
    int startThread(pthread_t* thread, void* (*run)(void*), void* argument) override {
        return pthread_create(thread, nullptr, run, argument);
    }
    std::chrono::nanoseconds monotonicNow() override { return readMonotonicClock(); }
    void sleepFor(std::chrono::nanoseconds duration) override {
        if (duration.count() <= 0)
            return;
        // An absolute deadline, so that signals neither shorten nor lengthen the sleep.
        // The clock is read directly, not through the virtual call: sleepFor is the back-off
        // of threads that ran out of descriptors, where a sanitizer's check of a virtual call
        // may itself need one.
        const std::chrono::nanoseconds until = readMonotonicClock() + duration;
        struct timespec deadline;
        deadline.tv_sec = static_cast<time_t>(until.count() / 1000000000);
        deadline.tv_nsec = static_cast<long>(until.count() % 1000000000);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
        }
    }
    int waitSharedSemaphore(CmmbSharedSemaphore* semaphore, int timeoutMs) override {
        return cmmb_sem_timedwait(semaphore, timeoutMs);
    }
};

std::atomic<Env*> gInstalled{nullptr};

}  // namespace

Env::~Env() = default;

Env* Env::platform() {
    static Env* const env = new PlatformEnv();
    return env;
}

Env* Env::current() {
    Env* installed = gInstalled.load(std::memory_order_acquire);
    return installed != nullptr ? installed : platform();
}

Env* Env::install(Env* env) {
    Env* previous = gInstalled.exchange(env, std::memory_order_acq_rel);
    return previous != nullptr ? previous : platform();
}
