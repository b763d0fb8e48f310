// Which monotonic timed wait the C library offers decides how the time-out is measured:
//   - sem_clockwait (bionic from API level 30, glibc from 2.30) waits on CLOCK_MONOTONIC;
//   - sem_timedwait_monotonic_np (bionic API levels 28 and 29) does the same;
//   - older bionic has only sem_timedwait against the wall clock, which a clock change can
//     stretch without limit, so the wait polls sem_trywait with short monotonic sleeps.
#include "SemaphoreWaits.h"

#include <errno.h>
#include <time.h>

#include <algorithm>
#include <cstdint>

namespace {

const int64_t kNanosPerSecond = 1000000000;

int64_t monotonicNowNs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * kNanosPerSecond + now.tv_nsec;
}

struct timespec toTimespec(int64_t ns) {
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / kNanosPerSecond);
    ts.tv_nsec = static_cast<long>(ns % kNanosPerSecond);
    return ts;
}

#if defined(__BIONIC__) && __ANDROID_API__ < 28
// Longest sleep between two tries; bounds the delay added after the semaphore is posted.
const int64_t kPollStepNs = 1000000;

int waitUntil(sem_t* sem, int64_t deadlineNs) {
    for (;;) {
        if (sem_trywait(sem) == 0)
            return 0;
        if (errno != EAGAIN && errno != EINTR)
            return -1;
        int64_t remaining = deadlineNs - monotonicNowNs();
        if (remaining <= 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        struct timespec step = toTimespec(std::min(remaining, kPollStepNs));
        nanosleep(&step, nullptr);
    }
}
#else
int waitUntil(sem_t* sem, int64_t deadlineNs) {
    const struct timespec deadline = toTimespec(deadlineNs);
    int result;
    do {
#if defined(__BIONIC__) && __ANDROID_API__ < 30
        result = sem_timedwait_monotonic_np(sem, &deadline);
#else
        result = sem_clockwait(sem, CLOCK_MONOTONIC, &deadline);
#endif
    } while (result != 0 && errno == EINTR);
    return result;
}
#endif

}  // namespace

int semaphoreWaitRestarting(sem_t* sem) {
    int result;
    do {
        result = sem_wait(sem);
    } while (result != 0 && errno == EINTR);
    return result;
}

int semaphoreWaitMonotonic(sem_t* sem, int timeoutMs) {
    const int64_t timeoutNs = static_cast<int64_t>(std::max(timeoutMs, 0)) * 1000000;
    return waitUntil(sem, monotonicNowNs() + timeoutNs);
}
