// The annotated lock types of common/: what each promises at run time, across threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "ConditionVariable.h"
#include "Mutex.h"
#include "MutexLock.h"
#include "SemaphoreLock.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Generous: only catches a hang.
const auto kHangBound = std::chrono::seconds(5);

// Whether another thread could take the mutex right now (it gives it back at once).
bool freeForAnotherThread(Mutex& mutex) {
    bool taken = false;
    std::thread other([&]() NO_THREAD_SAFETY_ANALYSIS {
        taken = mutex.try_lock();
        if (taken)
            mutex.unlock();
    });
    other.join();
    return taken;
}

TEST(SemaphoreLock, AnotherThreadMayReleaseWhatOneTookAndDestroyReportsOnce) {
    SemaphoreLock semaphore;
    ASSERT_TRUE(semaphore.initialised());
    // Like the frame bracket: one call takes it and returns still holding it.
    std::thread([&]() NO_THREAD_SAFETY_ANALYSIS { semaphore.lock(); }).join();

    std::atomic<bool> waiterIn{false};
    std::thread waiter([&]() NO_THREAD_SAFETY_ANALYSIS {
        semaphore.lock();
        waiterIn = true;
        semaphore.unlock();
    });
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_FALSE(waiterIn.load()) << "the semaphore let a second holder in";
    // Released by a thread that never took it; the waiter goes on (a hang fails the test).
    [&]() NO_THREAD_SAFETY_ANALYSIS { semaphore.unlock(); }();
    waiter.join();
    EXPECT_TRUE(waiterIn.load());

    // Destroy reports once, and the destructor does not destroy again.
    EXPECT_TRUE(semaphore.destroy());
    EXPECT_FALSE(semaphore.initialised());
    EXPECT_FALSE(semaphore.destroy());
}

TEST(MutexLock, UnlockGivesTheMutexUpUntilLockAndTheScopeEndReleasesOnlyWhatItHolds) {
    Mutex mutex;
    {
        MutexLock lock(mutex);
        EXPECT_FALSE(freeForAnotherThread(mutex));
        lock.unlock();
        EXPECT_TRUE(freeForAnotherThread(mutex));
        lock.lock();
        EXPECT_FALSE(freeForAnotherThread(mutex));
    }
    EXPECT_TRUE(freeForAnotherThread(mutex));
    {
        MutexLock lock(mutex);
        lock.unlock();
    }  // already given up: no second unlock
    EXPECT_TRUE(freeForAnotherThread(mutex));

    // The mutex works with the standard locks.
    std::unique_lock<Mutex> held(mutex, std::try_to_lock);
    ASSERT_TRUE(held.owns_lock());
    EXPECT_FALSE(freeForAnotherThread(mutex));
    held.unlock();
    EXPECT_TRUE(freeForAnotherThread(mutex));
}

class Flag {
public:
    void raise() {
        {
            MutexLock lock(mMutex);
            mRaised = true;
        }
        mChanged.notifyAll();
    }
    // Waits until the flag is raised or `deadline` passes (the mutex is free for raise()
    // meanwhile); whether it was raised. *heldAfterWait: whether the waiter held the mutex
    // again once its wait returned.
    bool await(steady_clock::time_point deadline, bool* heldAfterWait) {
        MutexLock lock(mMutex);
        while (!mRaised && mChanged.waitUntil(mMutex, deadline)) {
        }
        *heldAfterWait = !freeForAnotherThread(mMutex);
        return mRaised;
    }

private:
    Mutex mMutex;
    ConditionVariable mChanged;
    bool mRaised GUARDED_BY(mMutex) = false;
};

TEST(ConditionVariable, AWaiterReleasesTheMutexAndHoldsItAgainWhenWokenOrAtItsDeadline) {
    Flag flag;
    bool woken = false;
    bool held = false;
    std::thread waiter([&] { woken = flag.await(steady_clock::now() + kHangBound, &held); });
    std::this_thread::sleep_for(milliseconds(20));
    flag.raise();  // takes the mutex: the waiter must have let it go
    waiter.join();
    EXPECT_TRUE(woken);
    EXPECT_TRUE(held);

    // Raised no more: the wait ends false at its deadline, the mutex held again.
    Flag unraised;
    held = false;
    const auto started = steady_clock::now();
    EXPECT_FALSE(unraised.await(started + milliseconds(30), &held));
    EXPECT_GE(steady_clock::now() - started, milliseconds(30));
    EXPECT_TRUE(held);
}

}  // namespace
