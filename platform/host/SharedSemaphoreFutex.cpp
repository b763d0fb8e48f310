// 4-byte process-shared counting semaphore on Linux futexes. The word is the count: wait
// decrements it when above 0 and otherwise sleeps with FUTEX_WAIT (shared, not private)
// while it reads 0; post increments it and wakes one sleeper.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>

#include "CmmbSharedSemaphore.h"
#include "SharedSemaphorePair.h"

namespace {

std::atomic<uint32_t>& counter(CmmbSharedSemaphore* sem) {
    static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                      std::atomic<uint32_t>::is_always_lock_free,
                  "the count must be a plain lock-free 32-bit word");
    return *reinterpret_cast<std::atomic<uint32_t>*>(&sem->word);
}

long futexWait(uint32_t* word, uint32_t expected, const struct timespec* relative) {
    return syscall(SYS_futex, word, FUTEX_WAIT, expected, relative, nullptr, 0);
}

long futexWake(uint32_t* word, int count) {
    return syscall(SYS_futex, word, FUTEX_WAKE, count, nullptr, nullptr, 0);
}

// Adds 1 to *second in the kernel, then wakes one sleeper on `first` and, since the old
// value of *second is at least 0, one on `second`. The wake count for `second` travels in
// the timeout argument.
long futexWakeBothIncrementingSecond(uint32_t* first, uint32_t* second) {
    return syscall(SYS_futex, first, FUTEX_WAKE_OP, 1, reinterpret_cast<void*>(1), second,
                   FUTEX_OP(FUTEX_OP_ADD, 1, FUTEX_OP_CMP_GE, 0));
}

bool tryDecrement(CmmbSharedSemaphore* sem) {
    uint32_t value = counter(sem).load(std::memory_order_relaxed);
    while (value > 0) {
        if (counter(sem).compare_exchange_weak(value, value - 1, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

int64_t nowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

}  // namespace

int cmmb_sem_init(CmmbSharedSemaphore* sem, unsigned int value) {
    if (sem == nullptr || value > static_cast<unsigned int>(INT_MAX)) {
        errno = EINVAL;
        return -1;
    }
    counter(sem).store(value, std::memory_order_release);
    return 0;
}

int cmmb_sem_destroy(CmmbSharedSemaphore* sem) {
    if (sem == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

int cmmb_sem_trywait(CmmbSharedSemaphore* sem) {
    if (tryDecrement(sem))
        return 0;
    errno = EAGAIN;
    return -1;
}

int cmmb_sem_wait(CmmbSharedSemaphore* sem) {
    while (!tryDecrement(sem)) {
        // Sleeps only while the word still reads 0; EAGAIN (changed) and EINTR retry.
        futexWait(&sem->word, 0, nullptr);
    }
    return 0;
}

int cmmb_sem_timedwait(CmmbSharedSemaphore* sem, int timeoutMs) {
    const int64_t deadline = nowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    while (!tryDecrement(sem)) {
        int64_t remaining = deadline - nowNs();
        if (remaining <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        struct timespec relative;
        relative.tv_sec = static_cast<time_t>(remaining / 1000000000);
        relative.tv_nsec = static_cast<long>(remaining % 1000000000);
        futexWait(&sem->word, 0, &relative);
    }
    return 0;
}

int cmmb_sem_post(CmmbSharedSemaphore* sem) {
    uint32_t previous = counter(sem).fetch_add(1, std::memory_order_release);
    if (previous == static_cast<uint32_t>(INT_MAX)) {
        counter(sem).fetch_sub(1, std::memory_order_relaxed);
        errno = EOVERFLOW;
        return -1;
    }
    // Always wake one sleeper: a waiter may have seen 0 just before the increment.
    futexWake(&sem->word, 1);
    return 0;
}

int postSemaphorePair(CmmbSharedSemaphore* first, CmmbSharedSemaphore* second) {
    uint32_t previous = counter(first).fetch_add(1, std::memory_order_release);
    if (previous == static_cast<uint32_t>(INT_MAX)) {
        counter(first).fetch_sub(1, std::memory_order_relaxed);
        cmmb_sem_post(second);
        errno = EOVERFLOW;
        return -1;
    }
    // The kernel's add cannot stop at the maximum, so a count at it takes the two ordinary
    // posts. Readers only take from `second`; one that writes the word itself can push it
    // past the maximum between this check and the add, which harms only its own buffer.
    if (counter(second).load(std::memory_order_relaxed) < static_cast<uint32_t>(INT_MAX) &&
        futexWakeBothIncrementingSecond(&first->word, &second->word) >= 0) {
        return 0;
    }
    futexWake(&first->word, 1);
    return cmmb_sem_post(second);
}

int cmmb_sem_getvalue(CmmbSharedSemaphore* sem, int* value) {
    *value = static_cast<int>(counter(sem).load(std::memory_order_acquire));
    return 0;
}
