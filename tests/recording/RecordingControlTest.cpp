// Recording control through the engine's public interface: session checks, the free-space
// rules at start and on every frame, and failures of the recording chain. The engine is one
// object per process, so every test runs in a child.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "ChildProcess.h"
#include "FaultInjectingEnv.h"
#include "RecordingRig.h"

namespace {

const long long kMiB = 1 << 20;

long long fileSize(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

// Records session 0 into `name` for a second, then plays one with less than 1 MiB free,
// which ends the recording (storage full).
void recordUntilStorageFull(RecordingRig& rig, FaultInjectingEnv& env, ClipFeed& feed,
                            const char* name) {
    ASSERT_EQ(0, rig.startRecording(name));
    rig.play(feed.nextSecond());
    env.setFreeBytes(kMiB - 1);
    rig.play(feed.nextSecond());
}

TEST(RecordingControl, SessionsFreeSpaceAtStartAndFailuresThatEndARecording) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        const int fd = rig.createOutput("out.3gp");
        for (int session : {-1, 2, 10}) {
            EXPECT_EQ(-1, rig.engine().startRecording(session, fd)) << session;
            EXPECT_EQ(-1, rig.engine().stopRecording(session)) << session;
            EXPECT_FALSE(rig.engine().isRecording(session)) << session;
        }
        EXPECT_EQ(0, rig.engine().stopRecording(1));           // nothing to stop
        EXPECT_EQ(-1, rig.engine().startRecording(0, 12345));  // not a descriptor
        EXPECT_EQ(1, rig.root().countLog("fstatfs failed, error number is 9"));

        env.setFreeBytes(kMiB - 1);
        EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(0, fileSize(rig.outputPath("out.3gp")));  // no recorder was created
        env.setFreeBytes(kMiB);
        EXPECT_EQ(0, rig.engine().startRecording(0, fd));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(1));
        close(fd);  // the recorder works on its own duplicate
        env.setFreeBytes(-1);

        ClipFeed feed;
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(0));
        expectCleanFile(rig.outputPath("out.3gp"));

        // A file that takes no byte is refused at once.
        const int full = open("/dev/full", O_WRONLY);
        EXPECT_EQ(-1, rig.engine().startRecording(0, full));
        close(full);
        EXPECT_EQ(1, rig.root().countLog("pRecorder->start() failed!"));
        EXPECT_FALSE(rig.engine().isRecording(0));

        // A missing card ends frame delivery; the recorder stays for the application's stop.
        ASSERT_EQ(0, rig.startRecording("last.3gp"));
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        ASSERT_EQ(0, rmdir(rig.root().resolve("/sdcard").c_str()));
        rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(151, 0)"));  // EVENT_RECORD_NO_SDCARD
        rig.play(feed.nextSecond());
        EXPECT_EQ(1, rig.root().countLog("sdcard not found"));  // no longer handed frames
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectCleanFile(rig.outputPath("last.3gp"));
    });
}

TEST(RecordingControl, BelowFourteenMiBTheIndexEstimateDecidesWhenStorageIsFull) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        ASSERT_EQ(0, rig.startRecording("out.3gp"));
        ClipFeed feed;
        const char* estimateWarning = "required minimal space=";

        env.setFreeBytes(14 * kMiB);  // not consulted
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        EXPECT_EQ(0, rig.root().countLog(estimateWarning));
        // Below it the estimate (a few KiB, so 0 MiB) is compared in whole MiB.
        env.setFreeBytes(14 * kMiB - 1);
        rig.play(feed.nextSecond());
        EXPECT_EQ(1, rig.root().countLog(estimateWarning));
        env.setFreeBytes(kMiB);
        rig.play(feed.nextSecond());
        EXPECT_EQ(2, rig.root().countLog(estimateWarning));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_EQ(0, rig.app().count("onEvent("));

        env.setFreeBytes(kMiB - 1);
        rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        // The file is completed off the frame path; the event follows its completion.
        ASSERT_TRUE(rig.app().waitFor("onEvent(152, 0)"));  // EVENT_RECORD_STORAGE_FULL
        EXPECT_EQ(1, rig.app().count("onEvent("));
        env.setFreeBytes(-1);
        // The recording was completed when it stopped; later frames do not reach it.
        const long long completed = fileSize(rig.outputPath("out.3gp"));
        rig.play(feed.nextSecond());
        EXPECT_EQ(completed, fileSize(rig.outputPath("out.3gp")));
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectCleanFile(rig.outputPath("out.3gp"));
    });
}

}  // namespace

namespace {

// An application that ends its recording from the recording event itself. The event follows
// the completion of a recording that ended inside a multiplex frame.
class StopOnRecordingEvent : public RecordingCallback {
public:
    explicit StopOnRecordingEvent(TavoMBBMSEngine& engine) : mEngine(engine) {}
    void onEvent(EventType type, int param) override {
        RecordingCallback::onEvent(type, param);
        if (type >= EVENT_RECORD_NO_SDCARD && type <= EVENT_RECORD_ERROR)
            stopResult = mEngine.stopRecording(param);
    }
    int stopResult = 1;

private:
    TavoMBBMSEngine& mEngine;
};

}  // namespace

TEST(RecordingControl, AnApplicationMayStopTheRecordingFromItsRecordingEvent) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        StopOnRecordingEvent app(rig.engine());
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService();  // the engine keeps the first callback
        ClipFeed feed;
        recordUntilStorageFull(rig, env, feed, "out.3gp");
        env.setFreeBytes(-1);
        ASSERT_TRUE(app.waitFor("onEvent(152, 0)"));
        EXPECT_EQ(0, rig.engine().stopRecording(0));  // returns once the event is handled
        EXPECT_EQ(0, app.stopResult);
        EXPECT_FALSE(rig.engine().isRecording(0));
        rig.play(feed.nextSecond());  // frames keep flowing afterwards
        expectCleanFile(rig.outputPath("out.3gp"));
    });
}

namespace {

// An application that records again as soon as a recording ends: from the first recording
// event it starts a second recording, and stays in the event until the test lets it go; from
// the second it stops the session.
class RecordAgainOnRecordingEvent : public RecordingCallback {
public:
    RecordAgainOnRecordingEvent(TavoMBBMSEngine& engine, FaultInjectingEnv& env, int secondFd)
        : mEngine(engine), mEnv(env), mSecondFd(secondFd) {}
    // The first event is seen at once; the second once the stop is done, so that a test that
    // has waited for it may read stopResult.
    void onEvent(EventType type, int param) override {
        const bool recordingEvent = type >= EVENT_RECORD_NO_SDCARD && type <= EVENT_RECORD_ERROR;
        std::unique_lock<std::mutex> lock(mLock);
        if (recordingEvent && ++mRecordingEvents == 1) {
            RecordingCallback::onEvent(type, param);
            mEnv.setFreeBytes(-1);
            restartResult = mEngine.startRecording(param, mSecondFd);
            mRestarted = true;
            mChanged.notify_all();
            mChanged.wait_for(lock, std::chrono::seconds(20), [&] { return mReleased; });
            return;
        }
        if (recordingEvent)
            stopResult = mEngine.stopRecording(param);
        RecordingCallback::onEvent(type, param);
    }
    bool waitUntilRestarted() {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, std::chrono::seconds(20), [&] { return mRestarted; });
    }
    void release() {
        std::lock_guard<std::mutex> hold(mLock);
        mReleased = true;
        mChanged.notify_all();
    }
    int restartResult = 1;
    int stopResult = 1;

private:
    TavoMBBMSEngine& mEngine;
    FaultInjectingEnv& mEnv;
    const int mSecondFd;
    std::mutex mLock;
    std::condition_variable mChanged;
    int mRecordingEvents = 0;
    bool mRestarted = false;
    bool mReleased = false;
};

}  // namespace

// The second recording ends in the frame path while the application is still inside the
// first one's event: the frame goes on at once, and the second completion and its event
// wait their turn behind the first event.
TEST(RecordingControl, ARecordingRestartedFromItsEventThatEndsAtOnceIsCompletedInTurn) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        const int second = rig.createOutput("second.3gp");
        RecordAgainOnRecordingEvent app(rig.engine(), env, second);
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService();
        ClipFeed feed;
        recordUntilStorageFull(rig, env, feed, "first.3gp");

        ASSERT_TRUE(app.waitUntilRestarted());
        EXPECT_EQ(0, app.restartResult);
        close(second);
        rig.play(feed.nextSecond());
        env.setFreeBytes(kMiB - 1);
        rig.play(feed.nextSecond());  // the second ends here, its predecessor's event still open
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, app.count("onEvent(152, 0)"));
        env.setFreeBytes(-1);
        rig.play(feed.nextSecond());

        app.release();
        ASSERT_TRUE(app.waitFor("onEvent(152, 0)", 2));
        EXPECT_EQ(0, app.stopResult);
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectCleanFile(rig.outputPath("first.3gp"));
        expectCleanFile(rig.outputPath("second.3gp"));
    });
}

// The thread that completes recordings ended in the frame path is started by the first
// startRecording: when it cannot be started, no recording starts.
TEST(RecordingControl, NoRecordingStartsWithoutItsCompletionThread) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        env.failNth(FaultInjectingEnv::START_THREAD, 1, EAGAIN);
        EXPECT_EQ(-1, rig.startRecording("out.3gp"));
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.root().countLog(
                         "cannot start the recording completion thread: Resource temporarily "
                         "unavailable"));
        EXPECT_EQ(0, fileSize(rig.outputPath("out.3gp")));

        ClipFeed feed;
        recordUntilStorageFull(rig, env, feed, "out.3gp");  // the next start tries again
        ASSERT_TRUE(rig.app().waitFor("onEvent(152, 0)"));
        env.setFreeBytes(-1);
        expectCleanFile(rig.outputPath("out.3gp"));
    });
}
