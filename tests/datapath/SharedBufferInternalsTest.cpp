// White box: the shared buffers' reset, called directly on the engine (it has no public entry
// of its own), which waits out a frame being written; and init when the buffers cannot be made
// (the failures come through the Env seam).
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "FaultInjectingEnv.h"
#include "OpenDescriptors.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

TEST(SharedBufferReset, WaitsForTheFrameInProgress) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        TavoMBBMSEngineImpl* engine = TavoMBBMSEngineImpl::getInstance();
        bench.frameStart(40);
        bench.nal(40, nalUnit(4, 0x65, 30), MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        auto reset = std::async(std::launch::async, [&] { engine->resetSharedBuffer(0); });
        EXPECT_EQ(std::future_status::timeout, reset.wait_for(std::chrono::milliseconds(200)));
        EXPECT_EQ(1u, bench.buffer(0)->nalCount) << "the frame was reset while being written";
        bench.frameEnd(40);
        ASSERT_EQ(std::future_status::ready, reset.wait_for(std::chrono::seconds(20)));
        EXPECT_EQ(0u, bench.buffer(0)->nalCount + bench.buffer(0)->dataLength);
        // The frame was signalled before the reset; the reader finds it emptied.
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        EXPECT_TRUE(frame.nals.empty());
    });
}

// Buffers that cannot be made make init fail cleanly, and the next init succeeds. Which call
// of the buffers' set-up fails makes no difference to init (each is failed in turn by the
// shared-buffer set's own tests); here it is session 1's region, after session 0's is made.
TEST(SharedBufferSetUp, AFailureMakesInitFailWithNothingLeftOpenAndTheNextInitWorks) {
    EXPECT_IN_CHILD({
        TestRoot root;
        TavoMBBMSEngine* engine = TavoMBBMSEngineImpl::getInstance();
        FaultInjectingEnv env;
        const int descriptorsBefore = openDescriptors();
        env.failNth(FaultInjectingEnv::CREATE_REGION, 2, ENOMEM);
        EXPECT_EQ(-1, engine->init(nullptr, nullptr));
        EXPECT_EQ(descriptorsBefore, openDescriptors());
        env.clearFaults();
        ASSERT_EQ(0, engine->init(nullptr, nullptr));
        EXPECT_EQ(0, engine->deinit());
    });
}

}  // namespace
