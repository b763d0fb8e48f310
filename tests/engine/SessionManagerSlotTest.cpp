// The slot holding the engine's session manager, in process: retire() waits for the Accesses
// taken before it and ends a frame the agent left open, so threads blocked behind it go on.
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

// Long enough for a thread that should block to have blocked (too short only misses a fault).
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

// retire() returns once every Access (and acquire()) taken before it has ended, polling
// through the Env it is given; Accesses taken during its wait see no manager.
class SlotRetireWait : public SessionManagerSlotTest, public testing::WithParamInterface<bool> {};

TEST_P(SlotRetireWait, ReturnsOnceTheAccessesTakenBeforeHaveEnded) {
    const bool dataPath = GetParam();
    EXPECT_TRUE(mSlot.installed());
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
    EXPECT_EQ(nullptr, mSlot.acquire());
    mSlot.release();
}

INSTANTIATE_TEST_SUITE_P(Users, SlotRetireWait, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& user) {
                             return user.param ? "DataPath" : "Application";
                         });

// The agent opened a frame and will never end it; an application thread waits behind it.
// retire() waits for the data callback in progress, then ends the frame.
TEST_F(SessionManagerSlotTest, RetireEndsAFrameLeftOpenOnceNoDataCallbackRuns) {
    // The agent's thread stays alive: a new thread could take over its id, the frame's holder.
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
