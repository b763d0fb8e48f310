// Starting and stopping TV sessions: sessions sharing an agent channel, channel slot reuse,
// the frequency rule, refusals, the buffer reset of every stop.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

TEST(TVServiceControl, SessionsShareAChannelPerServiceAndFreedSlotsAreReused) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        ASSERT_EQ(0, bench.startService(1, 7, 41));
        EXPECT_EQ(1, bench.agent().countCalls("startService(20, 1, 2, 3, serviceID=7)"));
        EXPECT_EQ(1, bench.root().countLog("mChannel[0]: started=1, serviceID=7, refCount=2, "
                                           "channelID=40, refSession{0 1 }"));
        EXPECT_EQ(0, bench.engine().stopTVService(0));
        EXPECT_EQ(0, bench.agent().countCalls("stopService"));
        EXPECT_EQ(0, bench.engine().stopTVService(1));
        EXPECT_EQ(1, bench.agent().countCalls("stopService(40)"));

        ASSERT_EQ(0, bench.startService(0, 8, 41));
        ASSERT_EQ(0, bench.startService(1, 9, 42));
        EXPECT_EQ(1,
                  bench.root().countLog("attachSessionToChannel(sessionIndex=1, channelIndex=1)"));
        ASSERT_EQ(0, bench.engine().stopTVService(0));
        bench.root().clearLog();
        ASSERT_EQ(0, bench.startService(0, 10, 43));
        EXPECT_EQ(1,
                  bench.root().countLog("attachSessionToChannel(sessionIndex=0, channelIndex=0)"));
        EXPECT_EQ(1, bench.root().countLog(
                         "mChannel[1]: started=1, serviceID=9, refCount=1, channelID=42"));
        EXPECT_EQ(0, bench.root().countLog("mChannel[2]"));
    });
}

// Refusals leave the tables as they were; every stop, refused or not, empties the session's
// buffer without signalling it. With no session running any frequency point is taken; with
// one running, only the one the tuner reports (or any, when it reports none).
TEST(TVServiceControl, RefusalsChangeNothingAndChannelsStayOnOneFrequencyPoint) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        CmmbSharedBuffer* b = bench.buffer(1);
        b->nalCount = 5;
        b->aacCount = 2;
        b->dataLength = 900;
        EXPECT_EQ(-1, bench.engine().stopTVService(1));
        EXPECT_EQ(0u, b->nalCount + b->aacCount + b->dataLength);
        EXPECT_EQ(0, valueOf(&b->mutexDataAvailable));
        EXPECT_EQ(1, valueOf(&b->mutexDataAccessable));
        EXPECT_EQ(-1, bench.startService(-1, 7, 40));
        EXPECT_EQ(-1, bench.startService(2, 7, 40));
        EXPECT_EQ(-1, bench.engine().stopTVService(2));
        EXPECT_EQ(-1, bench.startService(0, 7, 40, -1));
        bench.agent().setResult("startService", -1);
        EXPECT_EQ(-1, bench.startService(0, 7, 40));
        bench.agent().clearResult("startService");
        EXPECT_EQ(-1, bench.startService(0, 7, -3)) << "a negative channel identifier";
        EXPECT_EQ(0, bench.root().countLog("attachSessionToChannel"));
        EXPECT_EQ(-1, bench.engine().stopTVService(0));

        const int agentStarts = bench.agent().countCalls("startService");
        bench.agent().setResult("getFrequency", 20);
        ASSERT_EQ(0, bench.startService(0, 7, 40, 21));
        EXPECT_EQ(0, bench.root().countLog("mChannel[1]")) << "the refused slot is reused";
        EXPECT_EQ(-1, bench.startService(1, 8, 41, 22));
        EXPECT_EQ(0, bench.startService(1, 8, 41, 20));
        ASSERT_EQ(0, bench.engine().stopTVService(1));
        bench.agent().setResult("getFrequency", -1);
        EXPECT_EQ(0, bench.startService(1, 8, 41, 23));
        EXPECT_EQ(agentStarts + 3, bench.agent().countCalls("startService"));
    });
}

}  // namespace
