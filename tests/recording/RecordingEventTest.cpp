// Applications that act from inside events: recording events come on the completion thread,
// after the frame that ended the recording, so that a handler may stop TV services and
// recordings; an agent event delivered inside a frame may stop and start recordings while the
// completion thread waits for that frame. A call that deadlocks ends the child with a message
// instead of hanging the suite.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FaultInjectingEnv.h"
#include "RecordingRig.h"

namespace {

const auto kBound = std::chrono::seconds(10);

// Runs `work` on a thread of its own. One that has not returned within the bound is a
// deadlock: the test fails and the child ends, since that thread can never be joined.
void expectReturns(const char* what, const std::function<void()>& work) {
    std::promise<void> done;
    std::thread worker([&] {
        work();
        done.set_value();
    });
    if (done.get_future().wait_for(kBound) != std::future_status::ready) {
        fprintf(stderr, "%s did not return: deadlock\n", what);
        fflush(stderr);
        _exit(3);
    }
    worker.join();
}

TEST(RecordingEvents, NoSdcardComesAfterTheFrameAndItsHandlerMayStopServiceAndRecording) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        int serviceStopped = 1, recordingStopped = 1;
        ActOnEvent app([&](EventType type, int session, const std::function<void()>& record) {
            if (type == EVENT_RECORD_NO_SDCARD) {
                serviceStopped = rig.engine().stopTVService(session);
                recordingStopped = rig.engine().stopRecording(session);
            }
            record();
        });
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService();
        ClipFeed feed;
        ASSERT_EQ(0, rig.startRecording("out.3gp"));
        rig.playSeconds(feed, 2);
        ASSERT_EQ(0, rmdir(rig.root().resolve("/sdcard").c_str()));
        expectReturns("the frame without a card", [&] { rig.play(feed.nextSecond()); });
        EXPECT_FALSE(rig.engine().isRecording(0));
        ASSERT_TRUE(app.waitFor("onEvent(151, 0)"));
        EXPECT_EQ(0, serviceStopped);
        // The recorder stayed with the session until this stop, which completed the file.
        EXPECT_EQ(0, recordingStopped);
        EXPECT_EQ(std::vector<std::string>{"tavo-complete"}, app.threadNames());
        expectPlayableRecording(rig.outputPath("out.3gp"));
        // Waits until the completion thread is done with the application's callback.
        EXPECT_EQ(0, rig.engine().stopRecording(0));
    });
}

// While the completion thread's handler waits for a frame (it stops the other session), the
// agent delivers an event inside that frame whose handler stops and restarts the session
// being completed: it must not wait for the completion thread, which waits for its frame.
TEST(RecordingEvents, AnAgentEventInsideAFrameMayStopAndStartWhileACompletionWaitsForIt) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        std::mutex lock;
        std::condition_variable changed;
        bool frameOpen = false;
        int endedSession = -1, otherStopped = 1, insideStopped = 1, insideStarted = 1;
        int restartFd = -1;
        ActOnEvent app([&](EventType type, int session, const std::function<void()>& record) {
            if (isRecordingEvent(type)) {
                {
                    std::unique_lock<std::mutex> hold(lock);
                    endedSession = session;
                    changed.notify_all();
                    changed.wait_for(hold, kBound, [&] { return frameOpen; });
                }
                otherStopped = rig.engine().stopRecording(1 - session);  // waits for the frame
            } else {
                // On the agent's thread, inside the frame.
                insideStopped = rig.engine().stopRecording(endedSession);
                insideStarted = rig.engine().startRecording(endedSession, restartFd);
            }
            record();
        });
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService(/*bothSessions=*/true);
        ClipFeed feed;
        ASSERT_EQ(0, rig.startRecording("ended0.3gp", 0));
        ASSERT_EQ(0, rig.startRecording("ended1.3gp", 1));
        rig.playSeconds(feed, 2);
        env.failNth(FaultInjectingEnv::WRITE, 1, EIO);
        for (int second = 0;
             second < 4 && rig.engine().isRecording(0) && rig.engine().isRecording(1); ++second)
            rig.play(feed.nextSecond());
        {
            std::unique_lock<std::mutex> hold(lock);
            ASSERT_TRUE(changed.wait_for(hold, kBound, [&] { return endedSession >= 0; }))
                << "no recording event";
        }
        UniqueFd restartOutput = rig.createOutput("restarted.3gp");
        restartFd = restartOutput.get();

        expectReturns("the frame with the agent's event", [&] {
            rig.agent().runOnAgentThread([&](MBBMSAgentCallback* agent) {
                const unsigned char raw[4] = {0};
                agent->onOutputAVStart(RecordingRig::kChannel, raw, sizeof(raw));
                {
                    std::lock_guard<std::mutex> hold(lock);
                    frameOpen = true;
                    changed.notify_all();
                }
                usleep(100 * 1000);  // the completion thread's stop now waits for this frame
                agent->onEvent(static_cast<EventType>(100), 0);
                agent->onOutputAVEnd(RecordingRig::kChannel, false);
            });
        });
        restartOutput.reset();
        ASSERT_TRUE(app.waitFor("onEvent(154"));
        EXPECT_EQ(0, insideStopped);
        EXPECT_EQ(0, insideStarted);
        EXPECT_EQ(0, otherStopped);
        EXPECT_TRUE(rig.engine().isRecording(endedSession));
        rig.playSeconds(feed, 2);
        EXPECT_EQ(0, rig.engine().stopRecording(endedSession));
        expectPlayableRecording(rig.outputPath("restarted.3gp"));
        expectPlayableRecording(rig.outputPath(endedSession == 0 ? "ended1.3gp" : "ended0.3gp"));
    });
}

}  // namespace
