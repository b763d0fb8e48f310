// The engine with the broadcast simulator as its agent, in real processes: the engine in
// the test's child process, the reference play engine as a grandchild.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "PlayEngineProcess.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TavoMBBMSEngineStatus.h"
#include "TestRoot.h"

namespace {

// Waits (up to a generous bound) until the engine reports a play engine connected or not.
bool waitForPlayEngine(bool connected) {
    for (int i = 0; i < 2000; ++i) {
        if ((tavo_mbbms_playengine_connected() == 1) == connected)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

std::string frameEnd(int session) {
    return "]session=" + std::to_string(session) + ", channelID=";
}

// Waits for `more` frames of each session beyond those logged so far.
bool waitForMoreFrames(const TestRoot& root, int more) {
    for (int session : {0, 1}) {
        if (!root.waitForLog(frameEnd(session), root.countLog(frameEnd(session)) + more))
            return false;
    }
    return true;
}

// Frames of a session as the play engine reported them on exit, or -1.
int reportedFrames(const std::string& report, int session) {
    std::string key = "session " + std::to_string(session) + ": frames=";
    size_t at = report.rfind(key);
    return at == std::string::npos ? -1 : atoi(report.c_str() + at + key.size());
}

int startService(TavoMBBMSEngine* engine, int session, int serviceID, int slot) {
    IsmaPara isma{};
    isma.serviceID = static_cast<uint16_t>(serviceID);
    return engine->startTVService(session, 13, slot, 4, 1, &isma);
}

TEST(SimulatedBroadcast, PlayEngineRestartEngineKeepsServingAndTheNewOneReadsBothSessions) {
#ifdef TAVO_E2E_EMULATED
    GTEST_SKIP() << "real-time play-engine processes are not run under emulation";
#endif
    EXPECT_IN_CHILD({
        TestRoot root(TAVO_SIM_AGENT_PATH);  // a copy, away from the content beside it
        root.setProperty("persist.tavo.sim.speed", "20");
        root.setProperty("persist.tavo.sim.content", TAVO_SIM_CONTENT_DIR);
        setenv("TAVO_LOGMASK", "ERROR,WARNING,MAIN", 1);
        ASSERT_EQ(0, mkdir((root.path() + "/first").c_str(), 0755));
        ASSERT_EQ(0, mkdir((root.path() + "/second").c_str(), 0755));
        RecordingCallback callback;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        ASSERT_EQ(0, engine->init(&callback, nullptr));

        PlayEngineProcess first(TAVO_PLAYENGINE_PATH, {"--out-dir", root.path() + "/first"},
                                root.path() + "/first.log");
        std::string error;
        ASSERT_TRUE(first.start(&error)) << error;
        ASSERT_TRUE(waitForPlayEngine(true));
        ASSERT_EQ(0, startService(engine, 0, 101, 1));
        ASSERT_EQ(0, startService(engine, 1, 102, 5));
        ASSERT_TRUE(waitForMoreFrames(root, 3));

        first.kill();
        ASSERT_TRUE(waitForPlayEngine(false));
        // Nobody reads now: frames keep coming and are dropped unread.
        int lostBefore = root.countLog("A/V DATA LOST");
        ASSERT_TRUE(waitForMoreFrames(root, 3));
        EXPECT_GT(root.countLog("A/V DATA LOST"), lostBefore);

        PlayEngineProcess second(TAVO_PLAYENGINE_PATH, {"--out-dir", root.path() + "/second"},
                                 root.path() + "/second.log");
        ASSERT_TRUE(second.start(&error)) << error;
        ASSERT_TRUE(waitForPlayEngine(true));
        ASSERT_TRUE(waitForMoreFrames(root, 4));
        EXPECT_EQ(0, second.stop());

        bool hasFfmpeg = system("command -v ffmpeg >/dev/null 2>&1") == 0;
        std::string report = readTextFile(root.path() + "/second.log");
        EXPECT_GE(reportedFrames(report, 0), 2) << report;
        EXPECT_GE(reportedFrames(report, 1), 2) << report;
        // What the new play engine wrote decodes: it got the frames whole.
        for (const char* file :
             {"session0.h264", "session1.h264", "session0.aac", "session1.aac"}) {
            std::string command = "ffmpeg -nostdin -v error -xerror -i '" + root.path() +
                                  "/second/" + file + "' -f null - >/dev/null 2>&1";
            EXPECT_TRUE(!hasFfmpeg || system(command.c_str()) == 0) << file;
        }
        EXPECT_EQ(0, engine->stopTVService(0));
        EXPECT_EQ(0, engine->stopTVService(1));
        EXPECT_EQ(0, engine->deinit());
    });
}

}  // namespace
