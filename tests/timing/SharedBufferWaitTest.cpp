// The shared buffers' timed behaviour: the bounded wait for a lock a reader keeps, the stall
// after a time-out, the wait on an abandoned buffer and the bound on a replacement. Real
// regions and semaphores, fake time; the "reader" is this process mapping a region.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CmmbSharedBuffer.h"
#include "FakeClockEnv.h"
#include "LogMask.h"
#include "ReaderMapping.h"
#include "SharedBufferSet.h"
#include "TestRoot.h"
#include "ThreadAnnotations.h"

namespace {

// Gives back a lock taken inside an expectation, where the analysis cannot see it.
void release(SharedBufferSet& buffers, int session) NO_THREAD_SAFETY_ANALYSIS {
    buffers.unlock(session);
}

using std::chrono::milliseconds;

const char kWaitEnded[] = "the play engine that left holds the buffer of session=0, wait ended";
const char kReplaced[] = "the play engine that left holds the buffer of session=0, buffer replaced";

// The fake clock with a hook run before each semaphore wait, given the wait's number (from 1).
class HookedClock : public FakeClockEnv {
public:
    int waitSharedSemaphore(CmmbSharedSemaphore* semaphore, int timeoutMs) override {
        if (beforeWait)
            beforeWait(++mWaits);
        return FakeClockEnv::waitSharedSemaphore(semaphore, timeoutMs);
    }

    std::function<void(int)> beforeWait;  // set before any thread waits

private:
    std::atomic<int> mWaits{0};
};

class SharedBufferWait : public testing::Test {
protected:
    void SetUp() override {
        memset(LogMask::masks, 0, sizeof(LogMask::masks));
        LogMask::masks[LogMask::ERROR] = LogMask::masks[LogMask::WARNING] = 1;
    }
    void TearDown() override { buffers.destroy(nullptr); }

    void createWithTimeout(const std::string& timeoutMs) {
        if (!timeoutMs.empty())
            root.setProperty(TAVO_LOCK_TIMEOUT_PROPERTY, timeoutMs);
        ASSERT_EQ(0, buffers.create("test", &clock));
    }
    void connectHoldingReader(int session) {
        reader = std::make_unique<ReaderMapping>(buffers.fd(session));
        ASSERT_TRUE(reader->mapped());
        ASSERT_TRUE(reader->take());
        buffers.readerConnected();
    }
    milliseconds elapsedSince(std::chrono::nanoseconds start) const {
        return std::chrono::duration_cast<milliseconds>(clock.now() - start);
    }

    TestRoot root{""};
    HookedClock clock;
    SharedBufferSet buffers;
    std::unique_ptr<ReaderMapping> reader;
};

struct LockBound {
    const char* property;  // empty: not set
    int ms;
    int session;
};

class SharedBufferWaitBound : public SharedBufferWait,
                              public testing::WithParamInterface<LockBound> {};

// A connected reader keeping the lock holds the engine up for exactly the bound, in 50 ms
// slices (default two seconds, 0: no wait), and its buffer is neither abandoned nor replaced.
TEST_P(SharedBufferWaitBound, GivesUpAfterTheBound) {
    const LockBound bound = GetParam();
    createWithTimeout(bound.property);
    EXPECT_EQ(bound.ms, buffers.lockTimeoutMs());
    connectHoldingReader(bound.session);

    const auto start = clock.now();
    EXPECT_FALSE(buffers.lock(bound.session));
    EXPECT_EQ(milliseconds(bound.ms), elapsedSince(start));
    EXPECT_EQ(std::vector<int>(bound.ms / 50, 50), clock.waitTimeoutsMs());
    EXPECT_EQ(1, buffers.readerHolds(bound.session));
    EXPECT_EQ(0, reader->lockValue()) << "a timed-out wait changed the lock";
    EXPECT_EQ(0, root.countLog(kWaitEnded)) << "a connected reader's buffer is not abandoned";
    EXPECT_FALSE(buffers.anyAbandoned());
    CmmbSharedBuffer* held = buffers.buffer(bound.session);
    EXPECT_TRUE(buffers.replaceAbandoned("test"));
    EXPECT_EQ(held, buffers.buffer(bound.session)) << "replaced while its reader was connected";
    reader->giveBack();
    EXPECT_TRUE(buffers.lock(bound.session));
    release(buffers, bound.session);
}

INSTANTIATE_TEST_SUITE_P(Bounds, SharedBufferWaitBound,
                         testing::Values(LockBound{"300", 300, 0}, LockBound{"", 2000, 1},
                                         LockBound{"0", 0, 0}),
                         [](const testing::TestParamInfo<LockBound>& bound) {
                             return "Of" + std::to_string(bound.param.ms) + "Ms";
                         });

// A lock given back while the engine waits is taken in the slice in which it became free.
TEST_F(SharedBufferWait, TheLockIsTakenInTheSliceItIsGivenBack) {
    createWithTimeout("2000");
    connectHoldingReader(0);
    clock.beforeWait = [this](int wait) {
        if (wait == 4)
            reader->giveBack();
    };

    const auto start = clock.now();
    EXPECT_TRUE(buffers.lock(0));
    EXPECT_EQ(milliseconds(150), elapsedSince(start));
    EXPECT_EQ(0, buffers.readerHolds(0)) << "the engine's hold counts as the reader's";
    release(buffers, 0);
    EXPECT_EQ(1, reader->lockValue());
}

// After one time-out the buffer is stalled: later waits only try, the other session is not
// affected. The lock given back, or the reader leaving, ends the stall.
TEST_F(SharedBufferWait, AReaderHoldingTheLockStallsTheBuffer) {
    createWithTimeout("300");
    connectHoldingReader(0);
    ASSERT_FALSE(buffers.lock(0));

    clock.clearRecords();
    auto start = clock.now();
    for (int frame = 0; frame < 3; ++frame)
        EXPECT_FALSE(buffers.lock(0));
    EXPECT_EQ(milliseconds(0), elapsedSince(start));
    EXPECT_TRUE(clock.waitTimeoutsMs().empty());

    EXPECT_TRUE(buffers.lock(1)) << "the other session waited for the stalled one";
    release(buffers, 1);

    reader->giveBack();
    EXPECT_TRUE(buffers.lock(0));
    release(buffers, 0);

    ASSERT_TRUE(reader->take());
    start = clock.now();
    EXPECT_FALSE(buffers.lock(0));
    EXPECT_EQ(milliseconds(300), elapsedSince(start)) << "the stall outlived a taken lock";

    buffers.readerDisconnected();
    reader->giveBack();
    buffers.readerConnected();
    ASSERT_TRUE(reader->take());
    start = clock.now();
    EXPECT_FALSE(buffers.lock(0));
    EXPECT_EQ(milliseconds(300), elapsedSince(start));
}

// The lock of a buffer whose reader's connection has ended is waited for one 50 ms slice
// only, however long the bound: then the wait ends and the buffer counts as abandoned.
TEST_F(SharedBufferWait, AnAbandonedBufferEndsTheWaitAfterOneSlice) {
    createWithTimeout("60000");
    connectHoldingReader(0);
    buffers.readerDisconnected();

    const auto start = clock.now();
    EXPECT_FALSE(buffers.lock(0));
    EXPECT_EQ(milliseconds(50), elapsedSince(start));
    EXPECT_EQ(std::vector<int>{50}, clock.waitTimeoutsMs());
    EXPECT_EQ(1, root.countLog(kWaitEnded));
    EXPECT_TRUE(buffers.anyAbandoned());
}

// A replacement waits up to two seconds for engine threads waiting on the lock to leave, then
// gives up; once the waiter has left, the buffer is replaced at once.
TEST_F(SharedBufferWait, ReplacementWaitsForWaitersTwoSecondsAtMost) {
    createWithTimeout("60000");
    connectHoldingReader(0);
    // The waiter stays inside its first wait until the gate opens.
    std::promise<void> entered, gate;
    std::shared_future<void> opened = gate.get_future().share();
    clock.beforeWait = [&](int wait) {
        if (wait == 1)
            entered.set_value();
        opened.wait_for(std::chrono::seconds(20));
    };

    bool waiterTook = true;
    std::thread waiter([&] { waiterTook = buffers.lock(0); });
    ASSERT_EQ(std::future_status::ready, entered.get_future().wait_for(std::chrono::seconds(20)));
    EXPECT_EQ(1, buffers.readerHolds(0)) << "the engine's wait counts as the reader's hold";
    buffers.readerDisconnected();

    CmmbSharedBuffer* old = buffers.buffer(0);
    const auto start = clock.now();
    EXPECT_FALSE(buffers.replaceAbandoned("test"));
    EXPECT_EQ(milliseconds(2000), elapsedSince(start));
    EXPECT_EQ(old, buffers.buffer(0)) << "replaced under a waiting engine thread";
    EXPECT_EQ(0, root.countLog(kReplaced));

    gate.set_value();
    waiter.join();
    EXPECT_FALSE(waiterTook);
    EXPECT_EQ(1, root.countLog(kWaitEnded));

    const auto again = clock.now();
    EXPECT_TRUE(buffers.replaceAbandoned("test"));
    EXPECT_EQ(clock.now(), again) << "no waiter left, yet the replacement waited";
    EXPECT_NE(old, buffers.buffer(0));
    EXPECT_EQ(1, root.countLog(kReplaced));
    EXPECT_EQ(0, reader->lockValue());
    EXPECT_EQ(0, buffers.readerHolds(0));
    EXPECT_TRUE(buffers.lock(0)) << "the new buffer's lock is not free";
    release(buffers, 0);
}

}  // namespace
