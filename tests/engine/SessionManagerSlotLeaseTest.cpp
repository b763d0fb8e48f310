// SessionManagerSlot's frame lease in both barrier modes: retire() waits while a call of the
// bracket is inside and revokes the lease between calls; only the bracket's thread gets it. A
// call reaching the manager after retire() is caught by the sanitizers (label "tsan").
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <random>
#include <thread>

#include "Env.h"
#include "FakeClockEnv.h"
#include "FrameSink.h"
#include "SessionManager.h"
#include "SessionManagerSlot.h"
#include "SharedBufferSet.h"
#include "ThreadAnnotations.h"

extern "C" const char* __tsan_default_options() {
    return "halt_on_error=1:exitcode=66";
}

namespace {

using Barrier = SessionManagerSlot::CallBarrier;
const auto kBound = std::chrono::seconds(10);

class NoFrameSink : public FrameSink {
public:
    void onSessionFrameEnd(int) override {}
};

class LeaseSlot : public ::testing::TestWithParam<Barrier> {
protected:
    SessionManager* newManager() { return new SessionManager(&mBuffers, &mSink, nullptr, ""); }
    // On the calling thread, as the frame start does.
    void openBracket(SessionManagerSlot& slot) {
        SessionManagerSlot::Access access(slot, true);
        ASSERT_TRUE(access);
        slot.openBracket(access.get());
    }

    SharedBufferSet mBuffers;  // never created: the manager only needs its address
    NoFrameSink mSink;
};

TEST_P(LeaseSlot, OnlyTheBracketsThreadGetsTheLeaseRetireWaitsForItsCallThenRevokesIt) {
    SessionManagerSlot slot(GetParam());
    SessionManager* manager = newManager();
    slot.install(std::unique_ptr<SessionManager>(manager));
    std::promise<void> inside, leave;
    std::shared_future<void> leaveSignal = leave.get_future().share();
    std::atomic<int> laterCallGotLease{-1};
    std::thread bracket([&] {
        openBracket(slot);
        {
            SessionManagerSlot::BracketCall call(slot);
            EXPECT_TRUE(call);
            inside.set_value();
            leaveSignal.wait();
        }
        SessionManagerSlot::BracketCall later(slot);
        laterCallGotLease = static_cast<bool>(later) ? 1 : 0;
    });
    inside.get_future().wait();
    std::thread([&] { EXPECT_FALSE(SessionManagerSlot::BracketCall(slot)); }).join();
    std::future<std::unique_ptr<SessionManager>> retired =
        std::async(std::launch::async, [&] { return slot.retire(Env::platform()); });
    EXPECT_EQ(std::future_status::timeout, retired.wait_for(std::chrono::milliseconds(200)))
        << "retire() returned while a call was inside the manager";
    leave.set_value();
    ASSERT_EQ(std::future_status::ready, retired.wait_for(kBound));
    EXPECT_EQ(manager, retired.get().get());
    bracket.join();
    EXPECT_EQ(0, laterCallGotLease.load()) << "a call after retire() still got the manager";
}

TEST_P(LeaseSlot, TheFrameEndClosesTheLeaseAndRetireThenDoesNotWait) {
    SessionManagerSlot slot(GetParam());
    SessionManager* manager = newManager();
    slot.install(std::unique_ptr<SessionManager>(manager));
    openBracket(slot);
    {
        SessionManagerSlot::BracketCall end(slot);
        ASSERT_TRUE(end);
        end.closeBracket();
    }
    SessionManagerSlot::BracketCall afterEnd(slot);
    EXPECT_FALSE(afterEnd);
    FakeClockEnv clock;
    const auto start = clock.now();
    EXPECT_EQ(manager, slot.retire(&clock).get());
    EXPECT_EQ(start, clock.now()) << "retire without users waited";
}

// Reads the manager without the frame's locks: the race is only about its lifetime.
int touch(SessionManager* manager, int channelID) NO_THREAD_SAFETY_ANALYSIS {
    return manager->channelIDToIndex(channelID);
}

// retire() at a random moment while the bracket's thread calls in: once a call finds no
// lease, none finds it again, and the manager is deleted right after retire() returns.
TEST_P(LeaseSlot, RetireRacingCallsNeverLeavesAManagerInUse) {
    std::mt19937 random(7);
    for (int round = 0; round < 100; ++round) {
        SessionManagerSlot slot(GetParam());
        SessionManager* manager = newManager();
        slot.install(std::unique_ptr<SessionManager>(manager));
        std::atomic<bool> started{false};
        std::atomic<long> callsAfterRevocation{0};
        std::thread bracket([&] {
            openBracket(slot);
            bool revoked = false;
            for (long call = 0; call < 100000; ++call) {
                SessionManagerSlot::BracketCall leased(slot);
                started = true;
                if (leased) {
                    callsAfterRevocation += revoked;
                    touch(leased.operator->(), static_cast<int>(call));
                } else {
                    revoked = true;
                }
            }
        });
        while (!started.load())
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
        EXPECT_EQ(manager, slot.retire(Env::platform()).get());
        bracket.join();
        ASSERT_EQ(0, callsAfterRevocation.load()) << "round " << round;
    }
}

INSTANTIATE_TEST_SUITE_P(BothBarrierModes, LeaseSlot,
                         ::testing::Values(Barrier::PROCESS_WIDE_WHERE_AVAILABLE,
                                           Barrier::PER_CALL),
                         [](const ::testing::TestParamInfo<Barrier>& mode) {
                             return mode.param == Barrier::PER_CALL ? "PerCall" : "ProcessWide";
                         });

}  // namespace
