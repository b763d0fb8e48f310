// Starting and stopping TV sessions: attachment of sessions to the agent's channels, shared
// services, the frequency rule, channel slot reuse, refusals, and the buffer reset that
// every stop performs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "FakeAgentAccess.h"

namespace {

TEST(TVServiceControl, StartAndStopNeedAnInitialisedEngineButTheUrlDoesNot) {
    EXPECT_IN_CHILD({
        TestRoot root;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        IsmaPara isma;
        memset(&isma, 0, sizeof(isma));
        EXPECT_EQ(-1, engine->startTVService(0, 20, 0, 0, 0, &isma));
        EXPECT_EQ(-1, engine->stopTVService(0));
        EXPECT_EQ(2, root.countLog("skipped due to mIsInitialized==false"));
        char url[64];
        memset(url, 'x', sizeof(url));
        engine->getTVServiceUrl(1, url);
        EXPECT_STREQ("cmmb://127.0.0.1/session=1", url);
        EXPECT_EQ(0,
                  fakeAgentAt(root.resolve("/system/lib/libsiano.so"))->countCalls("startService"));
    });
}

TEST(TVServiceControl, SessionsOnOneServiceShareOneAgentChannel) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 41));
        EXPECT_EQ(1, bench.agent->countCalls("startService(20, 1, 2, 3, serviceID=7)"));
        EXPECT_EQ(
            1,
            bench.root.countLog(
                "mChannel[0]: started=1, serviceID=7, refCount=2, channelID=40, refSession{0 1 }"));

        EXPECT_EQ(0, bench.engine->stopTVService(0));
        EXPECT_EQ(0, bench.agent->countCalls("stopService"));
        EXPECT_EQ(1, bench.root.countLog("refCount=1, channelID=40, refSession{1 }"));
        EXPECT_EQ(0, bench.engine->stopTVService(1));
        EXPECT_EQ(1, bench.agent->countCalls("stopService(40)"));
        EXPECT_EQ(
            1, bench.root.countLog(
                   "mChannel[0]: started=0, serviceID=-1, refCount=0, channelID=-1, refSession{}"));
        // The channel is gone: its data is no longer taken.
        bench.frameStart(40);
        bench.frameEnd(40);
        EXPECT_EQ(1, bench.root.countLog("ChannelIDToIndex(40)=-1"));
    });
}

TEST(TVServiceControl, DifferentServicesUseTwoChannelsAndFreedSlotsAreReused) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 8, 41));
        EXPECT_EQ(2, bench.agent->countCalls("startService"));
        EXPECT_EQ(1, bench.root.countLog("attachSessionToChannel(sessionIndex=1, channelIndex=1)"));

        ASSERT_EQ(0, bench.engine->stopTVService(0));
        bench.root.clearLog();
        ASSERT_EQ(0, bench.startService(0, 9, 42));
        EXPECT_EQ(1, bench.root.countLog("attachSessionToChannel(sessionIndex=0, channelIndex=0)"));
        EXPECT_EQ(1, bench.root.countLog(
                         "mChannel[0]: started=1, serviceID=9, refCount=1, channelID=42"));
        // The table keeps both slots.
        EXPECT_EQ(1, bench.root.countLog(
                         "mChannel[1]: started=1, serviceID=8, refCount=1, channelID=41"));
        EXPECT_EQ(0, bench.root.countLog("mChannel[2]"));
    });
}

TEST(TVServiceControl, FrequencyRuleKeepsRunningChannelsOnOneFrequencyPoint) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        // No frequency point at all.
        EXPECT_EQ(-1, bench.startService(0, 7, 40, -1));
        EXPECT_EQ(1, bench.root.countLog("working on freq=-1, can't switch to freq=-1"));
        // With no session running any frequency point is taken.
        bench.agent->setResult("getFrequency", 20);
        EXPECT_EQ(0, bench.startService(0, 7, 40, 21));
        // Now the tuner reports 20 and a session runs: 22 is refused, 20 accepted.
        EXPECT_EQ(-1, bench.startService(1, 8, 41, 22));
        EXPECT_EQ(1, bench.root.countLog("working on freq=20, can't switch to freq=22"));
        EXPECT_EQ(0, bench.startService(1, 8, 41, 20));
        ASSERT_EQ(0, bench.engine->stopTVService(1));
        // A tuner that reports no frequency point refuses nothing.
        bench.agent->setResult("getFrequency", -1);
        EXPECT_EQ(0, bench.startService(1, 8, 41, 23));
        EXPECT_EQ(2, bench.root.countLog("can't switch to freq="));
        EXPECT_EQ(3, bench.agent->countCalls("startService"));
    });
}

TEST(TVServiceControl, RefusedAgentStartLeavesTheSessionDetached) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        bench.agent->setResult("startService", -1);
        EXPECT_EQ(-1, bench.startService(0, 7, 40));
        bench.agent->clearResult("startService");
        EXPECT_EQ(-1, bench.startService(0, 7, -3)) << "a negative channel identifier is refused";
        EXPECT_EQ(0, bench.root.countLog("attachSessionToChannel"));
        EXPECT_EQ(-1, bench.engine->stopTVService(0));
        EXPECT_EQ(1, bench.root.countLog("session(0) not started yet"));
        // The appended slot stays counted and is reused.
        EXPECT_EQ(0, bench.startService(0, 7, 40));
        EXPECT_EQ(1, bench.root.countLog("attachSessionToChannel(sessionIndex=0, channelIndex=0)"));
        EXPECT_EQ(0, bench.root.countLog("mChannel[1]"));
    });
}

TEST(TVServiceControl, RefusedAgentStopKeepsTheSessionAndCanBeRetried) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        bench.agent->setResult("stopService", -1);
        EXPECT_EQ(-1, bench.engine->stopTVService(0));
        EXPECT_EQ(1, bench.root.countLog("stopService 0 failed"));
        EXPECT_EQ(-1, bench.startService(0, 7, 40));
        EXPECT_EQ(1, bench.root.countLog("session(0) already started"));
        bench.agent->clearResult("stopService");
        EXPECT_EQ(0, bench.engine->stopTVService(0));
        EXPECT_EQ(2, bench.agent->countCalls("stopService(40)"));
    });
}

TEST(TVServiceControl, SessionNumbersOutsideTheAgentsRangeAreRefused) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        EXPECT_EQ(-1, bench.startService(-1, 7, 40));
        EXPECT_EQ(-1, bench.startService(2, 7, 40));
        EXPECT_EQ(-1, bench.engine->stopTVService(-1));
        EXPECT_EQ(-1, bench.engine->stopTVService(2));
        EXPECT_EQ(2, bench.root.countLog("Wrong mSessionID=-1"));
        EXPECT_EQ(2, bench.root.countLog("Wrong mSessionID=2"));
        EXPECT_EQ(0, bench.agent->countCalls("startService"));
        EXPECT_EQ(0, bench.root.countLog("no shared buffer for session"))
            << "stop resets only the buffers of sessions 0 and 1";
    });
}

TEST(TVServiceControl, AgentWithMoreSessionsThanTheTablesIsClampedAndExtraSessionsGetNoData) {
    EXPECT_IN_CHILD({
        TestRoot root;
        setenv("TAVO_LOGMASK", "all", 1);
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        FakeAgentControl* agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
        ASSERT_NE(nullptr, agent);
        agent->setResult("getMaxSupportedSessions", 12);
        ASSERT_EQ(0, engine->init(nullptr, nullptr));
        IsmaPara isma;
        memset(&isma, 0, sizeof(isma));
        isma.serviceID = 7;
        agent->setNextChannelID(40);
        EXPECT_EQ(-1, engine->startTVService(10, 20, 0, 0, 0, &isma));
        EXPECT_EQ(1, root.countLog("Wrong mSessionID=10"));
        ASSERT_EQ(0, engine->startTVService(9, 20, 0, 0, 0, &isma));
        ASSERT_EQ(0, engine->startTVService(0, 20, 0, 0, 0, &isma));
        // Session 9 has no shared buffer: frames reach session 0 only.
        unsigned char unit[] = {0, 0, 0, 1, 0x65, 1, 2, 3};
        unsigned char audio[] = {9, 8, 7};
        agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
            cb->onOutputAVStart(40, nullptr, 0);
            cb->onClearVideoNalData(40, 0, 0, unit, sizeof(unit),
                                    MBBMSAgent::NAL_FRAGMENT_COMPLETE);
            cb->onClearAudioAacFrame(40, 0, 0, audio, sizeof(audio));
            cb->onOutputAVEnd(40, false);
        });
        EXPECT_EQ(1, root.countLog("session=0, channelID=40, nalCount=1, aacCount=1"));
        EXPECT_EQ(0, root.countLog("session=9, channelID=40"));
        EXPECT_EQ(0, engine->stopTVService(9));
        EXPECT_EQ(0, engine->stopTVService(0));
        EXPECT_EQ(0, engine->deinit());
    });
}

TEST(TVServiceControl, ChannelStartsWithoutDebugFilesThatCannotBeOpened) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, rmdir(bench.root.resolve("/sdcard").c_str()));
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        EXPECT_EQ(1,
                  bench.root.countLog("fopen " + bench.root.resolve("/sdcard//7.mfs") + " failed"));
        bench.frameStart(40, pattern(16));
        bench.frameEnd(40);
        EXPECT_EQ(1, bench.root.countLog("session=0, channelID=40, nalCount=0, aacCount=0"));
        EXPECT_EQ(0, bench.engine->stopTVService(0));
    });
}

TEST(TVServiceControl, StopEmptiesTheSessionsBufferEvenWhenRefused) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        CmmbSharedBuffer* b = bench.buffer(1);
        b->nalCount = 5;
        b->aacCount = 2;
        b->dataLength = 900;
        EXPECT_EQ(-1, bench.engine->stopTVService(1));
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(0u, b->aacCount);
        EXPECT_EQ(0u, b->dataLength);
        EXPECT_EQ(1, bench.root.countLog("One MFS frame is reset(nalCount=5, aacCount=2)"));
        EXPECT_EQ(0, EngineDataPath::valueOf(&b->mutexDataAvailable)) << "a reset signals nothing";
        EXPECT_EQ(1, EngineDataPath::valueOf(&b->mutexDataAccessable));
        // Already empty: no reset message, the length is cleared all the same.
        b->dataLength = 10;
        EXPECT_EQ(-1, bench.engine->stopTVService(1));
        EXPECT_EQ(0u, b->dataLength);
        EXPECT_EQ(1, bench.root.countLog("One MFS frame is reset"));
    });
}

TEST(TVServiceControl, StopWaitsWhileThePlayEngineReads) {
    EXPECT_IN_CHILD({
        EngineDataPath bench;
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        CmmbSharedBuffer* b = bench.buffer(0);
        ASSERT_EQ(0, cmmb_sem_trywait(&b->mutexDataAccessable));  // the reader holds the lock
        b->nalCount = 1;
        auto stop = std::async(std::launch::async, [&] { return bench.engine->stopTVService(0); });
        EXPECT_EQ(std::future_status::timeout, stop.wait_for(std::chrono::milliseconds(200)));
        EXPECT_EQ(1u, b->nalCount) << "the buffer was reset under the reader";
        cmmb_sem_post(&b->mutexDataAccessable);
        ASSERT_EQ(std::future_status::ready, stop.wait_for(std::chrono::seconds(20)));
        EXPECT_EQ(0, stop.get());
        EXPECT_EQ(0u, b->nalCount);
    });
}

}  // namespace
