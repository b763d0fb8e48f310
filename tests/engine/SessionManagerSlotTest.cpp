// The slot that holds the engine's session manager, in process with threads: Accesses see the
// manager or nothing, retire() waits for the Accesses taken before it, and it ends a frame the
// agent left open so that application threads blocked behind that frame go on.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <thread>

#include "Env.h"
#include "FakeClockEnv.h"
#include "SessionManager.h"
#include "SessionManagerSlot.h"
#include "SharedBufferSet.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Long enough for a thread that should block to have blocked; a wrong answer only shows as a
// missed failure, never as a false one.
const milliseconds kSettle(100);

class SessionManagerSlotTest : public testing::Test {
protected:
    SessionManagerSlotTest() : mManager(new SessionManager(&mBuffers, nullptr, nullptr, "")) {
        mSlot.install(std::unique_ptr<SessionManager>(mManager));
    }

    SharedBufferSet mBuffers;        // never created: the frames here are of an unknown channel
    SessionManager* const mManager;  // owned by the slot, then by what retire() returns
    SessionManagerSlot mSlot;
};

TEST_F(SessionManagerSlotTest, AccessesSeeTheInstalledManagerUntilItIsRetired) {
    EXPECT_TRUE(mSlot.installed());
    {
        SessionManagerSlot::Access access(mSlot);
        EXPECT_EQ(mManager, access.get());
        SessionManagerSlot::Access dataPath(mSlot, true);
        EXPECT_EQ(mManager, dataPath.get());
    }
    EXPECT_EQ(mManager, mSlot.acquire());
    mSlot.release();
    FakeClockEnv clock;
    const auto start = clock.now();
    EXPECT_EQ(mManager, mSlot.retire(&clock).get());
    EXPECT_EQ(start, clock.now()) << "retire without users waited";
    EXPECT_FALSE(mSlot.installed());
    EXPECT_EQ(nullptr, SessionManagerSlot::Access(mSlot).get());
    EXPECT_EQ(nullptr, mSlot.acquire());
    mSlot.release();
}

// retire() returns only once every Access (and acquire()) taken before it has ended, data-path
// and application users alike, polling through the Env it is given; Accesses taken during its
// wait already see no manager.
class SlotRetireWait : public SessionManagerSlotTest, public testing::WithParamInterface<bool> {};

TEST_P(SlotRetireWait, ReturnsOnceTheAccessesTakenBeforeHaveEnded) {
    const bool dataPath = GetParam();
    std::promise<void> done;
    std::promise<SessionManager*> seen;
    std::thread user([&] {
        SessionManagerSlot::Access access(mSlot, dataPath);
        seen.set_value(access.get());
        done.get_future().wait();
    });
    EXPECT_EQ(mManager, seen.get_future().get());
    SessionManager* acquired = mSlot.acquire();
    EXPECT_EQ(mManager, acquired);

    FakeClockEnv clock;
    const auto start = clock.now();
    auto retired = std::async(std::launch::async, [&] { return mSlot.retire(&clock); });
    EXPECT_EQ(std::future_status::timeout, retired.wait_for(kSettle));
    EXPECT_GT(clock.now(), start) << "retire does not poll the Env";
    EXPECT_FALSE(mSlot.installed());
    EXPECT_EQ(nullptr, SessionManagerSlot::Access(mSlot, dataPath).get());
    done.set_value();
    user.join();
    EXPECT_EQ(std::future_status::timeout, retired.wait_for(kSettle)) << "acquire() not waited for";
    mSlot.release();
    ASSERT_EQ(std::future_status::ready, retired.wait_for(seconds(20)));
    EXPECT_EQ(mManager, retired.get().get());
    EXPECT_EQ(nullptr, mSlot.retire(&clock)) << "a second retire found a manager";
}

INSTANTIATE_TEST_SUITE_P(Users, SlotRetireWait, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& user) {
                             return user.param ? "DataPath" : "Application";
                         });

// The agent opened a frame and will never end it. An application thread waits behind the
// frame with an Access of its own; retire() waits for the agent's data callback in progress,
// then ends the frame, which lets the application thread finish and retire() return.
TEST_F(SessionManagerSlotTest, RetireEndsAFrameLeftOpenOnceNoDataCallbackRuns) {
    // The agent's thread stays alive: a new thread could otherwise take over its id, which the
    // manager keeps as the frame's holder.
    std::promise<void> frameOpened, testDone;
    std::thread agentThread([&] {
        {
            SessionManagerSlot::Access agent(mSlot, true);
            agent->onOutputAVStart(99, nullptr, 0);
        }
        frameOpened.set_value();
        testDone.get_future().wait();
    });
    frameOpened.get_future().wait();

    std::promise<void> accessTaken;
    auto application = std::async(std::launch::async, [&] {
        SessionManagerSlot::Access access(mSlot);
        accessTaken.set_value();
        const bool taken = access->beginExclusive();
        access->endExclusive(taken);
        return taken;
    });
    accessTaken.get_future().wait();
    EXPECT_EQ(std::future_status::timeout, application.wait_for(kSettle));

    std::promise<void> callbackDone;
    std::promise<void> callbackEntered;
    std::thread callback([&] {
        SessionManagerSlot::Access agent(mSlot, true);
        callbackEntered.set_value();
        callbackDone.get_future().wait();
    });
    callbackEntered.get_future().wait();
    auto retired = std::async(std::launch::async, [&] { return mSlot.retire(Env::platform()); });
    EXPECT_EQ(std::future_status::timeout, application.wait_for(kSettle))
        << "the frame was ended while a data callback could still reach the manager";
    callbackDone.set_value();
    callback.join();

    ASSERT_EQ(std::future_status::ready, application.wait_for(seconds(20)));
    EXPECT_TRUE(application.get());
    ASSERT_EQ(std::future_status::ready, retired.wait_for(seconds(20)));
    EXPECT_EQ(mManager, retired.get().get());
    testDone.set_value();
    agentThread.join();
}

}  // namespace
