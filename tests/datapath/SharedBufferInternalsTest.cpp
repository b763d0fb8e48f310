// White box: the shared buffers' reset, called directly on the engine (it has no public entry
// of its own), which waits out a frame being written.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "ChildProcess.h"
#include "EngineDataPath.h"
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

}  // namespace
