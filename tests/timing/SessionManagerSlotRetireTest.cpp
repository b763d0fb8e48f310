// Retiring the session manager against a fake clock: retire() takes the manager out of the
// slot at once, then polls, sleeping through the Env it is given, until every user that took
// the manager before has let go, data-path users first. The test holds users on other threads
// and checks what retire() has done while it polls and once they let go.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>

#include "FakeClockEnv.h"
#include "LogMask.h"
#include "SessionManager.h"
#include "SessionManagerSlot.h"
#include "TestRoot.h"

namespace {

using std::chrono::milliseconds;

// Holds an Access on a thread of its own until released.
class HeldAccess {
public:
    HeldAccess(SessionManagerSlot& slot, bool dataPath) {
        std::future<void> taken = mTaken.get_future();
        std::future<void> released = mRelease.get_future();
        mThread = std::thread([this, &slot, dataPath, released = std::move(released)] {
            SessionManagerSlot::Access access(slot, dataPath);
            mSawManager = access.get() != nullptr;
            mTaken.set_value();
            released.wait();
        });
        taken.wait();
    }
    ~HeldAccess() { release(); }
    HeldAccess(const HeldAccess&) = delete;
    HeldAccess& operator=(const HeldAccess&) = delete;

    bool sawManager() const { return mSawManager; }
    void release() {
        if (!mThread.joinable())
            return;
        mRelease.set_value();
        mThread.join();
    }

private:
    std::promise<void> mTaken;
    std::promise<void> mRelease;
    bool mSawManager = false;  // written before mTaken is set
    std::thread mThread;
};

// Waits (really, within a generous bound) until the fake clock has moved past `mark`: retire()
// is then polling.
bool clockPasses(const FakeClockEnv& clock, std::chrono::nanoseconds mark) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (clock.now() <= mark) {
        if (std::chrono::steady_clock::now() > giveUp)
            return false;
        std::this_thread::yield();
    }
    return true;
}

class SlotRetire : public testing::Test {
protected:
    void SetUp() override {
        memset(LogMask::masks, 0, sizeof(LogMask::masks));
        LogMask::masks[LogMask::ERROR] = LogMask::masks[LogMask::WARNING] = 1;
        manager = new SessionManager(nullptr, nullptr, nullptr, root.path().c_str());
        slot.install(manager);
    }

    TestRoot root{""};
    FakeClockEnv clock;
    SessionManagerSlot slot;
    SessionManager* manager = nullptr;
};

TEST_F(SlotRetire, WaitsForADataPathUserAndHandsTheManagerBack) {
    HeldAccess callback(slot, /*dataPath=*/true);
    ASSERT_TRUE(callback.sawManager());

    const auto start = clock.now();
    auto retired = std::async(std::launch::async, [&] { return slot.retire(&clock); });
    ASSERT_TRUE(clockPasses(clock, start + milliseconds(10))) << "retire does not poll the Env";
    EXPECT_EQ(std::future_status::timeout, retired.wait_for(milliseconds(0)))
        << "retired under a data callback";
    EXPECT_FALSE(slot.installed());
    {
        SessionManagerSlot::Access late(slot, true);
        EXPECT_EQ(nullptr, late.get()) << "a user after the removal reached the manager";
    }

    callback.release();
    ASSERT_EQ(std::future_status::ready, retired.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(manager, retired.get());
    delete manager;
}

TEST_F(SlotRetire, WaitsForAnApplicationUserToo) {
    HeldAccess application(slot, /*dataPath=*/false);
    ASSERT_TRUE(application.sawManager());

    const auto start = clock.now();
    auto retired = std::async(std::launch::async, [&] { return slot.retire(&clock); });
    ASSERT_TRUE(clockPasses(clock, start + milliseconds(10)));
    EXPECT_EQ(std::future_status::timeout, retired.wait_for(milliseconds(0)));

    application.release();
    ASSERT_EQ(std::future_status::ready, retired.wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(manager, retired.get());
    EXPECT_EQ(nullptr, slot.retire(&clock)) << "a second retire found a manager";
    delete manager;
}

TEST_F(SlotRetire, WithoutUsersReturnsAtOnce) {
    const auto start = clock.now();
    EXPECT_EQ(manager, slot.retire(&clock));
    EXPECT_EQ(start, clock.now());
    delete manager;
}

}  // namespace
