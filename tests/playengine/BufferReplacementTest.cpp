// The engine's own threads waiting for a buffer lock that a departed play engine keeps: a
// buffer reset on an application thread and a frame start on the agent's thread. White box
// only for the reset, which no public operation reaches while the session runs.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

using std::chrono::milliseconds;

const int kChannel = 40;
const uint32_t kMark = 0x5A5A5A5Au;
const char kReplaced[] = "buffer of session=0, buffer replaced";

// The fields every frame start writes, marked by a reader that holds the lock.
void mark(CmmbSharedBuffer* b) {
    b->dataLength = kMark;
    b->nal[CMMB_NAL_RECORD_SLOTS - 1].pos = kMark;
}
bool markIntact(const CmmbSharedBuffer* b) {
    return b->dataLength == kMark && b->nal[CMMB_NAL_RECORD_SLOTS - 1].pos == kMark;
}

}  // namespace

// A buffer reset and a frame start wait for the lock of a play engine that leaves, and
// gives its lock back before it leaves, just after, or only once a frame has passed. Both
// waits end; nothing is written into the region while the reader holds it; each round ends
// with every lock free (1) in both the region the engine uses and the one the reader kept,
// never above 1; and the buffer is replaced only when the lock was still kept at a check.
TEST(BufferReplacement, LeavingAndReleasingInAnyOrderLeavesEveryLockFree) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true,
                      {{"persist.mbbms.playengine.lock_timeout_ms", "60000"}});
        TavoMBBMSEngineImpl* engine = TavoMBBMSEngineImpl::getInstance();
        std::mt19937 random(1234);
        enum Order { RELEASE_THEN_LEAVE, LEAVE_THEN_RELEASE, LEAVE_AND_KEEP, ORDERS };
        int rounds[ORDERS] = {};
        for (int round = 0; round < 45; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            const Order order = static_cast<Order>(round % ORDERS);
            rounds[order] += 1;
            PlayEngineReader reader;
            ASSERT_EQ("", reader.connect(bench.serverPath(), bench.root().path() + "/r.socket"));
            CmmbSharedBuffer* held = reader.buffer(0);
            ASSERT_EQ(0, cmmb_sem_timedwait(&held->mutexDataAccessable, 5000));
            mark(held);
            AsyncCall reset([&] { engine->resetSharedBuffer(0); });
            AsyncCall frame([&] { bench.playFrame(kChannel, 2, 1); });
            std::this_thread::sleep_for(milliseconds(random() % 20));
            ASSERT_TRUE(markIntact(held));
            if (order == RELEASE_THEN_LEAVE)
                cmmb_sem_post(&held->mutexDataAccessable);
            reader.hangUp();
            if (order == LEAVE_THEN_RELEASE) {
                std::this_thread::sleep_for(milliseconds(random() % 60));
                ASSERT_TRUE(markIntact(held));
                cmmb_sem_post(&held->mutexDataAccessable);
            }
            ASSERT_TRUE(reset.endsWithin(milliseconds(2000)));
            ASSERT_TRUE(frame.endsWithin(milliseconds(2000)));
            // A frame start replaces a buffer still left locked before it writes.
            ASSERT_TRUE(
                AsyncCall([&] { bench.playFrame(kChannel, 1, 0); }).endsWithin(milliseconds(2000)));
            if (order == LEAVE_AND_KEEP) {
                ASSERT_TRUE(markIntact(held)) << "written while the departed reader held it";
                cmmb_sem_post(&held->mutexDataAccessable);
            }
            EXPECT_EQ(1, valueOf(&held->mutexDataAccessable));
            EXPECT_EQ(1, valueOf(&engine->sharedBuffer(0)->mutexDataAccessable));
        }
        const int replaced = bench.root().countLog(kReplaced);
        EXPECT_GE(replaced, rounds[LEAVE_AND_KEEP]);
        EXPECT_LE(replaced, rounds[LEAVE_AND_KEEP] + rounds[LEAVE_THEN_RELEASE]);
    });
}
