// Stopping and restarting recordings on an application thread while frames arrive as the
// agent delivers them, and while a frame is held open. Meant for the ThreadSanitizer build as
// well: a recorder destroyed under a frame being written shows up there, or as a crash here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

// Session 0 and 1 in turn, then session 0 with a frame held open.
TEST(RecordingRace, StopsAndStartsRaceFramesAndWaitForTheFrameInProgress) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        rig.startService(true);
        {
            SCOPED_TRACE("stop and restart while frames arrive");
            std::atomic<bool> running{true};
            std::atomic<int> delivered{0};
            std::thread agentThread([&] {
                ClipFeed feed;
                while (running.load()) {
                    rig.playHere(feed.nextSecond());
                    delivered.fetch_add(1);
                }
            });
            int completed = 0;
            for (int round = 0; round < 60; ++round) {
                const int session = round % 2;
                ASSERT_EQ(0, rig.startRecording("race" + std::to_string(round) + ".3gp", session))
                    << round;
                // Let from none to a few frames through.
                const int until = delivered.load() + round % 4;
                while (delivered.load() < until)
                    usleep(100);
                // A recording stopped before any audio arrived cannot be completed (-1).
                const int stopped = rig.engine().stopRecording(session);
                EXPECT_TRUE(stopped == 0 || stopped == -1) << stopped;
                completed += stopped == 0;
                EXPECT_FALSE(rig.engine().isRecording(session));
            }
            running.store(false);
            agentThread.join();
            EXPECT_GT(completed, 0);
            // Every recording ended because it was asked to, never for a failure of its own.
            EXPECT_EQ(0, rig.app().count("onEvent("));
            EXPECT_EQ(0, rig.root().countLog("no recorder!!"));
        }
        SCOPED_TRACE("a stop or a replacing start waits for the frame in progress");
        ClipFeed feed;
        ASSERT_EQ(0, rig.startRecording("first.3gp"));
        const int leftovers = rig.root().countLog("leftover of pRecorder");
        rig.play(feed.nextSecond());
        for (bool replace : {true, false}) {
            MBBMSAgentCallback* agent = rig.agent().callback();
            const unsigned char raw[4] = {0};
            agent->onOutputAVStart(RecordingRig::kChannel, raw, sizeof(raw));
            std::atomic<bool> returned{false};
            int result = -2;
            std::thread application([&] {
                if (replace) {
                    UniqueFd next = rig.createOutput("second.3gp");
                    result = rig.engine().startRecording(0, next.get());
                } else {
                    result = rig.engine().stopRecording(0);
                }
                returned.store(true);
            });
            usleep(200 * 1000);
            EXPECT_FALSE(returned.load()) << (replace ? "start" : "stop") << " did not wait";
            agent->onOutputAVEnd(RecordingRig::kChannel, false);
            application.join();
            EXPECT_EQ(0, result);
            rig.play(feed.nextSecond());
        }
        // The replaced recording was completed as a leftover; the second one by the stop.
        EXPECT_EQ(leftovers + 1, rig.root().countLog("leftover of pRecorder"));
        expectPlayableRecording(rig.outputPath("first.3gp"));
        expectPlayableRecording(rig.outputPath("second.3gp"));
    });
}

}  // namespace
