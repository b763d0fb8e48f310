// The multiplex-frame bracket as the play engine sees it: which buffers are locked, emptied,
// handed over and signalled, a reader that does not keep up, and the statistics and dump files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <regex>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

const MBBMSAgent::NAL_FRAGMENT_POS_IND COMPLETE = MBBMSAgent::NAL_FRAGMENT_COMPLETE;

// A frame of a channel no session shows writes nothing; the bracket holds
// mutexSessionChangable for the frame only, a session start waits during a frame. A frame the
// reader has not fetched is dropped at the next frame start, but every frame is signalled; a
// frame ended with an error is handed over empty.
TEST(FrameHandOff, SessionLockForTheFrameOnlyUnfetchedFramesLostErrorFramesEmpty) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.playFrame(55, 1, 1);
        EXPECT_EQ(0u, b->dataLength);
        EXPECT_EQ(0, valueOf(&b->mutexDataAvailable));
        for (bool frameOpen : {false, true}) {
            if (frameOpen)
                bench.frameStart(40);
            std::atomic<int> started{-2};
            AsyncCall start([&] { started = bench.startService(1, 8, 41); });
            EXPECT_EQ(!frameOpen, start.endsWithin(std::chrono::milliseconds(200)));
            if (frameOpen)
                bench.frameEnd(40);
            ASSERT_TRUE(start.endsWithin(std::chrono::seconds(20)))
                << "start did not return: the session lock is still taken";
            EXPECT_EQ(0, started.load());
            EXPECT_EQ(0, bench.engine().stopTVService(1));
        }
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));  // the open frame above
        bench.playFrame(40, 3, 2);
        bench.frameStart(40);
        EXPECT_EQ(0u, b->nalCount + b->aacCount + b->dataLength);
        bench.frameEnd(40);
        EXPECT_EQ(2, valueOf(&b->mutexDataAvailable));
        for (int i = 0; i < 2; ++i) {
            ASSERT_TRUE(bench.reader.readFrame(0, &frame));
            EXPECT_TRUE(frame.nals.empty() && frame.aacs.empty());
        }
        bench.playFrame(40, 2, 2, true);
        ASSERT_TRUE(bench.reader.readFrame(0, &frame)) << "the frame was not signalled";
        EXPECT_TRUE(frame.nals.empty() && frame.aacs.empty());
        bench.playFrame(40, 1, 1);
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        EXPECT_EQ(1u, frame.nals.size());
        EXPECT_EQ(1u, frame.aacs.size());
    });
}

// Both sessions on one channel have their buffers locked for the frame and signalled after
// it, a line each in the statistics file and a copy each of the raw frame in the dump file.
TEST(FrameHandOff, TwoSessionsOnOneChannelAreLockedForTheFrameAndCountedEach) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        ASSERT_EQ(0, bench.startService(1, 7, 99));
        const Bytes raw = pattern(64, 11);
        bench.frameStart(40, raw);
        for (int s = 0; s < 2; ++s)
            EXPECT_EQ(0, valueOf(&bench.buffer(s)->mutexDataAccessable)) << "not locked: " << s;
        bench.nal(40, nalUnit(4, 0x41, 40), MBBMSAgent::NAL_FRAGMENT_START, 5, 6);
        bench.nal(40, pattern(33), MBBMSAgent::NAL_FRAGMENT_END);
        bench.aac(40, pattern(21), 7);
        bench.nal(40, nalUnit(3, 0x65, 50, 1), COMPLETE, 9, 10);
        bench.frameEnd(40);
        for (int s = 0; s < 2; ++s) {
            EXPECT_EQ(1, valueOf(&bench.buffer(s)->mutexDataAccessable));
            EXPECT_EQ(1, valueOf(&bench.buffer(s)->mutexDataAvailable));
        }
        bench.playFrame(40, 1, 4, false, raw);
        ASSERT_EQ(0, bench.engine().stopTVService(0));
        ASSERT_EQ(0, bench.engine().stopTVService(1));  // closes the files

        // "frame, time, NAL units, AAC frames"; a line of another format fails the comparison.
        EXPECT_EQ("1:2/1 2:2/1 3:1/4 4:1/4 ",
                  std::regex_replace(readTextFile(bench.root().resolve("/data/app/cmmb/7.time")),
                                     std::regex("(\\d+), \\d+, (\\d+), (\\d+)\n"), "$1:$2/$3 "));
        const std::regex logFormat(
            ".*\\[LogMask::STATISTICS\\].*mFrameCount=\\d+, \\d+:\\d+, delta=\\d+ ms$");
        int matching = 0;
        for (const std::string& logLine : bench.root().logLines())
            matching += std::regex_match(logLine, logFormat);
        EXPECT_EQ(4, matching);
        const std::string once(raw.begin(), raw.end());
        EXPECT_EQ(once + once + once + once, readTextFile(bench.root().resolve("/sdcard//7.mfs")));
    });
}

}  // namespace
