// Stopping and restarting recordings on an application thread while another thread keeps
// delivering frames as the agent does. Meant for the ThreadSanitizer build as well: a
// recorder destroyed under a frame being written shows up there, or as a crash here.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

TEST(RecordingRace, StopAndRestartWhileFramesArriveNeverLosesARecorderUnderAFrame) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        rig.startService(true);
        std::atomic<bool> running{true};
        std::atomic<int> delivered{0};
        std::thread agentThread([&] {
            ClipFeed feed;
            while (running.load()) {
                rig.playHere(feed.nextSecond());
                delivered.fetch_add(1);
            }
        });

        const int rounds = 60;
        int completed = 0;
        for (int round = 0; round < rounds; ++round) {
            const int session = round % 2;
            int fd = rig.createOutput("race" + std::to_string(round) + ".3gp");
            ASSERT_EQ(0, rig.engine().startRecording(session, fd)) << round;
            close(fd);
            // Let a varying number of frames through, from none to a few.
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
    });
}

}  // namespace
