// Applications that act from inside events: recording events come on the completion thread,
// after the frame that ended the recording, so that a handler may stop TV services and
// recordings; an agent event delivered inside a frame may stop and start recordings while the
// completion thread waits for that frame; finishPending delivers what is queued and ends the
// thread. A call that deadlocks ends the child with a message instead of hanging the suite.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
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
#include "LogMask.h"
#include "OpenDescriptors.h"
#include "RecordingControl.h"
#include "RecordingRig.h"

namespace {

const long long kMiB = 1 << 20;
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

// Plays seconds (at most four) until one of the two sessions stops recording.
void playUntilOneStops(RecordingRig& rig, ClipFeed& feed) {
    for (int second = 0; second < 4; ++second) {
        rig.play(feed.nextSecond());
        if (!rig.engine().isRecording(0) || !rig.engine().isRecording(1))
            return;
    }
    ADD_FAILURE() << "both sessions still record";
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

        // Frames flow again once the service is back.
        ASSERT_EQ(0, mkdir(rig.root().resolve("/sdcard").c_str(), 0755));
        IsmaPara isma = {};
        isma.serviceID = 601;
        ASSERT_EQ(0, rig.engine().startTVService(0, 20, 0, 1, 0, &isma));
        ASSERT_EQ(0, rig.startRecording("again.3gp"));
        expectReturns("the frames after it", [&] { rig.playSeconds(feed, 2); });
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_EQ(0, rig.root().countLog("leftover of pRecorder"));
        expectPlayableRecording(rig.outputPath("again.3gp"));
    });
}

// A handler that stops every recording: both sessions end in one frame (storage full), then
// one session alone with a recording error while the other still records.
TEST(RecordingEvents, AHandlerMayStopEveryRecordingFromAStorageOrErrorEvent) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        std::mutex lock;
        std::vector<int> stopResults;
        ActOnEvent app([&](EventType type, int, const std::function<void()>& record) {
            if (isRecordingEvent(type)) {
                const int first = rig.engine().stopRecording(0);
                const int second = rig.engine().stopRecording(1);
                std::lock_guard<std::mutex> guard(lock);
                stopResults.push_back(first);
                stopResults.push_back(second);
            }
            record();
        });
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService(/*bothSessions=*/true);
        ClipFeed feed;
        ASSERT_EQ(0, rig.startRecording("full0.3gp", 0));
        ASSERT_EQ(0, rig.startRecording("full1.3gp", 1));
        rig.playSeconds(feed, 2);
        env.setFreeBytes(kMiB - 1);
        expectReturns("the frame that fills the storage", [&] { rig.play(feed.nextSecond()); });
        env.setFreeBytes(-1);
        ASSERT_TRUE(app.waitFor("onEvent(152, 0)"));
        ASSERT_TRUE(app.waitFor("onEvent(152, 1)"));
        expectReturns("the frames after it", [&] { rig.playSeconds(feed, 1); });
        expectPlayableRecording(rig.outputPath("full0.3gp"));
        expectPlayableRecording(rig.outputPath("full1.3gp"));

        // The next write fails: one session ends with a recording error, the handler stops
        // the other one, which is still running.
        ASSERT_EQ(0, rig.startRecording("error0.3gp", 0));
        ASSERT_EQ(0, rig.startRecording("error1.3gp", 1));
        rig.playSeconds(feed, 2);
        env.failNth(FaultInjectingEnv::WRITE, 1, EIO);
        expectReturns("the frames until the error", [&] { playUntilOneStops(rig, feed); });
        ASSERT_TRUE(app.waitFor("onEvent(154"));
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(1));
        expectReturns("the frames after it", [&] { rig.playSeconds(feed, 1); });
        {
            std::lock_guard<std::mutex> guard(lock);
            EXPECT_EQ(std::vector<int>(6, 0), stopResults);
        }
        // These wait until the completion thread is done with the application's callback.
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_EQ(0, rig.engine().stopRecording(1));
        const bool firstFailed = app.count("onEvent(154, 0)") == 1;
        expectPlayableRecording(rig.outputPath(firstFailed ? "error1.3gp" : "error0.3gp"));
        EXPECT_EQ(3u, app.threadNames().size());
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
        playUntilOneStops(rig, feed);
        {
            std::unique_lock<std::mutex> hold(lock);
            ASSERT_TRUE(changed.wait_for(hold, kBound, [&] { return endedSession >= 0; }))
                << "no recording event";
        }
        restartFd = rig.createOutput("restarted.3gp");

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
        close(restartFd);
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

// A host whose frames are a mutex the test holds around dataRecording, and whose events are
// counted; the first event waits (within the bound) until the test lets it go.
class FrameGateHost final : public RecordingControl::Host {
public:
    bool holdFrames() override {
        mFrame.lock();
        return true;
    }
    void releaseFrames(bool held) override {
        if (held)
            mFrame.unlock();
    }
    void notifyRecordingEvent(EventType type, int session) override {
        std::unique_lock<std::mutex> hold(mLock);
        mChanged.wait_for(hold, kBound, [&] { return mReleased || !mEvents.empty(); });
        mEvents.push_back(std::to_string(type) + "," + std::to_string(session));
        mChanged.notify_all();
    }
    void releaseEvents() {
        std::lock_guard<std::mutex> hold(mLock);
        mReleased = true;
        mChanged.notify_all();
    }
    std::vector<std::string> events() {
        std::lock_guard<std::mutex> hold(mLock);
        return mEvents;
    }
    std::mutex& frame() { return mFrame; }
    Env* env() override { return Env::current(); }

private:
    std::mutex mFrame;
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mReleased = false;
    std::vector<std::string> mEvents;  // guarded by mLock
};

TEST(RecordingEvents, FinishPendingDeliversQueuedEventsAndEndsTheCompletionThread) {
    EXPECT_IN_CHILD({
        TestRoot root;
        LogMask::masks[LogMask::ERROR] = LogMask::masks[LogMask::WARNING] = 1;
        FaultInjectingEnv env;
        FrameGateHost host;
        std::atomic<bool> flags[kEngineSessions] = {};
        {
            RecordingControl control(host, flags);
            EXPECT_EQ(0, threadCount("tavo-complete"));
            for (int session : {0, 1}) {
                const int fd = createFile(root.path() + "/out" + std::to_string(session));
                ASSERT_EQ(0, control.startRecording(session, fd));
                close(fd);
            }
            EXPECT_EQ(1, threadCountSettledAt(1, "tavo-complete"));
            // Both recordings end in one frame: storage full.
            env.setFreeBytes(kMiB - 1);
            {
                std::lock_guard<std::mutex> frame(host.frame());
                control.dataRecording(0, nullptr);
                control.dataRecording(1, nullptr);
            }
            env.setFreeBytes(-1);
            EXPECT_FALSE(control.isRecording(0));
            EXPECT_FALSE(control.isRecording(1));
            std::thread releaser([&] {
                usleep(100 * 1000);
                host.releaseEvents();
            });
            control.finishPending();
            // Files without samples cannot be completed: "sdcard not found" and 151 each.
            EXPECT_EQ((std::vector<std::string>{"151,0", "151,1"}), host.events());
            // Joined; the system may list an exiting thread a moment longer.
            EXPECT_EQ(0, threadCountSettledAt(0, "tavo-complete"));
            releaser.join();
            control.finishPending();  // nothing left: returns at once

            // The next start brings the thread back; destruction ends it again.
            const int fd = createFile(root.path() + "/again");
            ASSERT_EQ(0, control.startRecording(0, fd));
            close(fd);
            EXPECT_EQ(1, threadCountSettledAt(1, "tavo-complete"));
            EXPECT_EQ(1, root.countLog("leftover of pRecorder"));  // the one whose stop failed
            EXPECT_EQ(-1, control.stopRecording(0));  // nothing recorded: cannot be completed
        }
        EXPECT_EQ(0, threadCountSettledAt(0, "tavo-complete"));
    });
}

}  // namespace
