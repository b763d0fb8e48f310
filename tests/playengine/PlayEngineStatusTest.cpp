// The exported play-engine status (TavoMBBMSEngineStatus.h), through the public library, with
// a play engine that connects to the engine's socket, maps the buffers it is sent and takes
// and gives their locks.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "TavoMBBMSEngineStatus.h"

namespace {

using std::chrono::milliseconds;

// Connects the bench's play engine; "" or what went wrong.
std::string connectPlayEngine(EngineDataPath& bench) {
    return bench.reader.connect(bench.serverPath(), bench.root().path() + "/playengine.socket");
}

CmmbSharedSemaphore* lockOf(EngineDataPath& bench, int session) {
    return &bench.buffer(session)->mutexDataAccessable;
}

}  // namespace

// Connected only from the accept to the client's departure; holding a buffer exactly while
// the client keeps its lock, per session; -1 without an engine, without buffers and for a
// session other than 0 or 1.
TEST(PlayEngineStatus, FollowsAPlayEngineFromConnectionToDeparture) {
    EXPECT_IN_CHILD({
        EXPECT_EQ(0, tavo_mbbms_playengine_connected());
        EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(0)) << "no engine yet";

        EngineDataPath bench("ERROR,WARNING", false);
        ASSERT_EQ("", bench.setUpError());
        EXPECT_EQ(0, tavo_mbbms_playengine_connected());
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(1));
        for (int bad : {-1, 2, 1 << 30})
            EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(bad)) << bad;

        ASSERT_EQ("", connectPlayEngine(bench));
        EXPECT_EQ(1, tavo_mbbms_playengine_connected());
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));

        ASSERT_EQ(0, cmmb_sem_timedwait(lockOf(bench, 0), 5000));
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(1));
        ASSERT_EQ(0, cmmb_sem_timedwait(lockOf(bench, 1), 5000));
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(1));
        ASSERT_EQ(0, cmmb_sem_post(lockOf(bench, 0)));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(1, tavo_mbbms_playengine_holds_buffer(1));
        ASSERT_EQ(0, cmmb_sem_post(lockOf(bench, 1)));
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(1));

        bench.reader.hangUp();
        for (int i = 0; i < 400 && tavo_mbbms_playengine_connected() != 0; ++i)
            std::this_thread::sleep_for(milliseconds(5));
        EXPECT_EQ(0, tavo_mbbms_playengine_connected()) << "still connected after 2 s";
        EXPECT_EQ(0, tavo_mbbms_playengine_holds_buffer(0));

        // A second play engine is connected again; deinit ends the connection and the buffers.
        ASSERT_EQ("", connectPlayEngine(bench));
        EXPECT_EQ(1, tavo_mbbms_playengine_connected());
        ASSERT_EQ(0, bench.engine().deinit());
        EXPECT_EQ(0, tavo_mbbms_playengine_connected());
        EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(0));
        EXPECT_EQ(-1, tavo_mbbms_playengine_holds_buffer(1));
    });
}
