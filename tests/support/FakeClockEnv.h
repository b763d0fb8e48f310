// A test's clock: an Env whose time moves only when something waits on it, so that timed
// behaviour (bounded waits, polling, give-up bounds) runs in an instant and the test can check
// exactly how much time the code under test let pass. Every other call goes to the wrapped
// Env (the platform's by default).
//
//   monotonicNow()         the counter (starts at one hour, so that nothing is at 0);
//   sleepFor(d)            advances the counter by d and yields the processor;
//   waitSharedSemaphore()  takes the semaphore when it is free (0, the clock unchanged);
//                          otherwise advances the counter by the time-out, yields, and returns
//                          -1 with errno ETIMEDOUT.
//
// It records every wait's time-out and every sleep, for tests that check the slices a wait was
// made of. Pass it to the unit under test (or install it with Env::install before an engine's
// init); it must outlive every call that may still use it.
//
// Thread-safe: the counter is atomic, the records are guarded by mLock.
#ifndef TAVO_TESTS_SUPPORT_FAKE_CLOCK_ENV_H
#define TAVO_TESTS_SUPPORT_FAKE_CLOCK_ENV_H

#include <errno.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "CmmbSharedSemaphore.h"
#include "Env.h"

class FakeClockEnv : public EnvWrapper {
public:
    explicit FakeClockEnv(Env* target = Env::platform()) : EnvWrapper(target) {}

    std::chrono::nanoseconds monotonicNow() override { return now(); }

    void sleepFor(std::chrono::nanoseconds duration) override {
        {
            std::lock_guard<std::mutex> guard(mLock);
            mSleeps.push_back(duration);
        }
        advance(duration);
        std::this_thread::yield();
    }

    int waitSharedSemaphore(CmmbSharedSemaphore* semaphore, int timeoutMs) override {
        {
            std::lock_guard<std::mutex> guard(mLock);
            mWaitTimeoutsMs.push_back(timeoutMs);
        }
        if (cmmb_sem_trywait(semaphore) == 0)
            return 0;
        advance(std::chrono::milliseconds(timeoutMs));
        std::this_thread::yield();
        errno = ETIMEDOUT;
        return -1;
    }

    std::chrono::nanoseconds now() const { return std::chrono::nanoseconds(mNow.load()); }
    void advance(std::chrono::nanoseconds duration) { mNow.fetch_add(duration.count()); }

    // Time-outs of the semaphore waits so far, in call order.
    std::vector<int> waitTimeoutsMs() const {
        std::lock_guard<std::mutex> guard(mLock);
        return mWaitTimeoutsMs;
    }
    std::vector<std::chrono::nanoseconds> sleeps() const {
        std::lock_guard<std::mutex> guard(mLock);
        return mSleeps;
    }
    void clearRecords() {
        std::lock_guard<std::mutex> guard(mLock);
        mWaitTimeoutsMs.clear();
        mSleeps.clear();
    }

private:
    std::atomic<long long> mNow{std::chrono::nanoseconds(std::chrono::hours(1)).count()};
    mutable std::mutex mLock;
    std::vector<int> mWaitTimeoutsMs;               // guarded by mLock
    std::vector<std::chrono::nanoseconds> mSleeps;  // guarded by mLock
};

#endif  // TAVO_TESTS_SUPPORT_FAKE_CLOCK_ENV_H
