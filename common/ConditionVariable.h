// A condition variable that waits on a Mutex the caller holds. The caller re-checks its
// condition in a loop around wait(), under the mutex, so that the analysis sees every read
// of the guarded state:
//     MutexLock lock(mLock);
//     while (!ready)
//         mChanged.wait(mLock);
#ifndef TAVO_COMMON_CONDITION_VARIABLE_H
#define TAVO_COMMON_CONDITION_VARIABLE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Mutex.h"
#include "ThreadAnnotations.h"

class ConditionVariable {
public:
    ConditionVariable() = default;
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    // Releases `mutex`, waits for a notification (or a spurious wake-up), takes it back.
    void wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native(), std::adopt_lock);
        mCondition.wait(held);
        held.release();  // the caller keeps holding it
    }
    // As wait(), but returns by `deadline` at the latest. False when the deadline passed.
    template <typename Clock, typename Duration>
    bool waitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
        REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.native(), std::adopt_lock);
        const bool notified = mCondition.wait_until(held, deadline) == std::cv_status::no_timeout;
        held.release();
        return notified;
    }

    void notifyAll() { mCondition.notify_all(); }

private:
    std::condition_variable mCondition;
};

#endif  // TAVO_COMMON_CONDITION_VARIABLE_H
