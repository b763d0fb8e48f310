// Fragment position values outside 0-3, as an agent may pass them (found by fuzzing the
// tuner data): only bit 1 (begins a unit) and bit 0 (ends one) count, and the record being
// filled only ever shows 2, 0 or 3 to the play engine.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

const int kChannel = 40;

Pos position(int value) {
    return static_cast<Pos>(value);
}

TEST(FragmentPositionFlags, ExtraBitsAreIgnored) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, kChannel));
        bench.frameStart(kChannel);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.nal(kChannel, nalUnit(4, 0x65, 20), position(6));  // begins: 16 bytes kept
        EXPECT_EQ(2u, b->nal[0].pos);
        bench.nal(kChannel, pattern(10), position(-64));  // middle (no flag bits)
        EXPECT_EQ(0u, b->nal[0].pos);
        EXPECT_EQ(0u, b->nalCount);
        bench.nal(kChannel, pattern(5), position(-63));  // ends
        EXPECT_EQ(1u, b->nalCount);
        EXPECT_EQ(31u, b->nal[0].length);
        EXPECT_EQ(3u, b->nal[1].pos);
        bench.nal(kChannel, nalUnit(3, 0x41, 9), position(0x7F));  // begins and ends
        EXPECT_EQ(2u, b->nalCount);
        EXPECT_EQ(6u, b->nal[1].length);
        bench.frameEnd(kChannel);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        ASSERT_EQ(2u, frame.nals.size());
        EXPECT_EQ(0x65, frame.nals[0][0]);
        EXPECT_EQ(0x41, frame.nals[1][0]);
    });
}

}  // namespace
