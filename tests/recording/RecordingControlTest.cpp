// Recording control through the engine's public interface with real files: session checks,
// the free-space rules at start and on every frame, failing storage, full file systems and a
// broadcast clock that wraps. Faults are injected through each child's own Env.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ChildProcess.h"
#include "FaultInjectingEnv.h"
#include "RecordingRig.h"

namespace {

const long long kMiB = 1 << 20;

// Runs `test` in a child with a fault-injecting Env, the TV service on session 0 and the clips.
void inServiceChild(const std::function<void(FaultInjectingEnv&, RecordingRig&, ClipFeed&)>& test) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;
        test(env, rig, feed);
    });
}

TEST(RecordingControl, SessionsFreeSpaceTheFirstWriteAndTheCompletionThreadDecideStartAndEnd) {
    inServiceChild([](FaultInjectingEnv& env, RecordingRig& rig, ClipFeed& feed) {
        UniqueFd output = rig.createOutput("out.3gp");
        const int fd = output.get();
        for (int session : {-1, 2, 10}) {
            EXPECT_EQ(-1, rig.engine().startRecording(session, fd)) << session;
            EXPECT_EQ(-1, rig.engine().stopRecording(session)) << session;
            EXPECT_FALSE(rig.engine().isRecording(session)) << session;
        }
        EXPECT_EQ(0, rig.engine().stopRecording(1));           // nothing to stop
        EXPECT_EQ(-1, rig.engine().startRecording(0, 12345));  // not a descriptor

        // The thread that completes recordings ended in the frame path is started by the
        // first start, so that fault comes first. Each refusal leaves the file untouched.
        const std::pair<const char*, std::function<void()>> refusals[] = {
            {"no completion thread",
             [&] { env.failNth(FaultInjectingEnv::START_THREAD, 1, EAGAIN); }},
            {"below 1 MiB free", [&] { env.setFreeBytes(kMiB - 1); }},
            {"first write fails", [&] { env.failNth(FaultInjectingEnv::WRITE, 1, ENOSPC); }}};
        for (const auto& refusal : refusals) {
            refusal.second();
            EXPECT_EQ(-1, rig.engine().startRecording(0, fd)) << refusal.first;
            EXPECT_FALSE(rig.engine().isRecording(0)) << refusal.first;
            EXPECT_EQ(0, fileSize(rig.outputPath("out.3gp"))) << refusal.first;
            env.clearFaults();
            env.setFreeBytes(-1);
        }

        // Exactly 1 MiB is enough; this start also starts the completion thread.
        env.setFreeBytes(kMiB);
        EXPECT_EQ(0, rig.engine().startRecording(0, fd));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(1));
        output.reset();  // the recorder works on its own duplicate

        // On every frame: from 14 MiB free on the index estimate is not consulted.
        const char* estimateWarning = "required minimal space=";
        env.setFreeBytes(14 * kMiB);
        rig.playSeconds(feed, 2);
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
        expectPlayableRecording(rig.outputPath("out.3gp"));
    });
}

// The application records again from the first recording event and stays in it until the
// test lets it go; the second recording ends in the frame path meanwhile: the frame goes on at
// once, and the second completion and its event wait their turn behind the first event, from
// which the application stops the session.
TEST(RecordingControl, ARecordingRestartedFromItsEventThatEndsAtOnceIsCompletedInTurn) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        UniqueFd secondOutput = rig.createOutput("second.3gp");
        const int second = secondOutput.get();
        std::mutex lock;
        std::condition_variable changed;
        int events = 0, restartResult = 1, stopResult = 1;
        bool restarted = false, released = false;
        ActOnEvent app([&](EventType type, int session, const std::function<void()>& record) {
            if (!isRecordingEvent(type))
                return record();
            std::unique_lock<std::mutex> hold(lock);
            if (++events > 1) {
                stopResult = rig.engine().stopRecording(session);
                return record();  // after the stop, so that a waiting test may read stopResult
            }
            record();
            env.setFreeBytes(-1);
            restartResult = rig.engine().startRecording(session, second);
            restarted = true;
            changed.notify_all();
            changed.wait_for(hold, std::chrono::seconds(20), [&] { return released; });
        });
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService();
        ClipFeed feed;
        ASSERT_EQ(0, rig.startRecording("first.3gp"));
        rig.playSeconds(feed, 1);
        env.setFreeBytes(kMiB - 1);
        rig.play(feed.nextSecond());  // storage full
        {
            std::unique_lock<std::mutex> hold(lock);
            ASSERT_TRUE(
                changed.wait_for(hold, std::chrono::seconds(20), [&] { return restarted; }));
            EXPECT_EQ(0, restartResult);
        }
        secondOutput.reset();
        rig.play(feed.nextSecond());
        env.setFreeBytes(kMiB - 1);
        rig.play(feed.nextSecond());  // the second ends here, its predecessor's event still open
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, app.count("onEvent(152, 0)"));
        env.setFreeBytes(-1);
        rig.play(feed.nextSecond());
        {
            std::lock_guard<std::mutex> hold(lock);
            released = true;
            changed.notify_all();
        }
        ASSERT_TRUE(app.waitFor("onEvent(152, 0)", 2));
        EXPECT_EQ(0, stopResult);
        EXPECT_EQ(std::vector<std::string>(2, "tavo-complete"), app.threadNames());
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectPlayableRecording(rig.outputPath("first.3gp"));
        expectPlayableRecording(rig.outputPath("second.3gp"));
    });
}

TEST(RecordingFaults, AWriteThatFailsMidChunkEndsTheRecordingAndTheFileIsCompleted) {
    inServiceChild([](FaultInjectingEnv& env, RecordingRig& rig, ClipFeed& feed) {
        ASSERT_EQ(0, rig.startRecording("full.3gp"));
        rig.playSeconds(feed, 3);

        // The next chunk reaches the file only in part, the rest finds no space; then the
        // storage takes the index again.
        env.shortWriteNth(1, 1000, ENOSPC);
        ASSERT_LE(rig.playUntilRecordingEnds(feed, 5), 2);
        EXPECT_FALSE(rig.engine().isRecording(0));  // from the frame of the failure on
        ASSERT_TRUE(rig.app().waitFor("onEvent(152, 0)"));
        EXPECT_EQ(0, rig.engine().stopRecording(0));  // waits for the completion's report
        EXPECT_EQ(1, rig.app().count("onEvent("));
        expectPlayableRecording(rig.outputPath("full.3gp"));
        // Only whole chunks that reached the file are described: about three seconds.
        const double duration = probeStreamDuration(rig.outputPath("full.3gp"), 0);
        EXPECT_GT(duration, 1.5);
        EXPECT_LT(duration, 4.5);
    });
}

TEST(RecordingFaults, AFailingCardIsARecordingErrorAndCompletionFailureIsLoggedFirst) {
    inServiceChild([](FaultInjectingEnv& env, RecordingRig& rig, ClipFeed& feed) {
        ASSERT_EQ(0, rig.startRecording("bad.3gp"));
        rig.playSeconds(feed, 2);

        env.failNth(FaultInjectingEnv::WRITE, 1, EIO, /*sticky=*/true);
        ASSERT_LE(rig.playUntilRecordingEnds(feed, 5), 2);
        ASSERT_TRUE(rig.app().waitFor("onEvent(154, 0)"));
        // The manager's stop was logged, and failed: the recorder stays with the session.
        EXPECT_EQ(1, rig.root().countLogLine("RECORD", "stopRecording", "stopRecording()"));
        EXPECT_EQ(0, rig.root().countLogLine("RECORD", "stopRecording", "exit successfully"));
        // The application's stop waits for the completion's report and stops the kept
        // recorder, whose file is already closed.
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_EQ(2, rig.root().countLogLine("RECORD", "stopRecording", "stopRecording()"));
        EXPECT_EQ(1, rig.root().countLogLine("RECORD", "stopRecording", "exit successfully"));
        EXPECT_EQ(0, rig.app().count("onEvent(152"));
        // The index could not be written either: "stop failed" comes before the event,
        // "write file error!" after it.
        EXPECT_EQ(1, rig.root().countLog("stop failed"));
        EXPECT_EQ(1, rig.root().countLog("write file error!"));
        EXPECT_FALSE(fileHasMoov(rig.outputPath("bad.3gp")));
        env.clearFaults();

        // The session records again afterwards.
        ASSERT_EQ(0, rig.startRecording("after.3gp"));
        EXPECT_EQ(0, rig.root().countLog("leftover of pRecorder"));
        rig.playSeconds(feed, 2);
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectPlayableRecording(rig.outputPath("after.3gp"));
    });
}

TEST(RecordingFaults, CompletionFailuresAreReportedByTheStop) {
    inServiceChild([](FaultInjectingEnv& env, RecordingRig& rig, ClipFeed& feed) {
        // The sync at the end fails: stopRecording says so, the index is in the file.
        ASSERT_EQ(0, rig.startRecording("unsynced.3gp"));
        rig.playSeconds(feed, 3);
        env.failNth(FaultInjectingEnv::FSYNC, 1, EIO);
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        expectPlayableRecording(rig.outputPath("unsynced.3gp"));

        // The recorder that would not stop stayed with the session: the next start stops it
        // again first. The index cannot be written at the application's stop.
        EXPECT_EQ(0, rig.root().countLog("leftover of pRecorder"));
        ASSERT_EQ(0, rig.startRecording("unindexed.3gp"));
        EXPECT_EQ(1, rig.root().countLog("leftover of pRecorder"));
        rig.playSeconds(feed, 3);
        env.failNth(FaultInjectingEnv::WRITE, 1, ENOSPC, /*sticky=*/true);
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_EQ(0, rig.app().count("onEvent("));  // the application's own stop: no event
        env.clearFaults();
        EXPECT_EQ(0, rig.engine().stopRecording(0));  // the kept recorder, stopped again
        EXPECT_EQ(0, rig.startRecording("after.3gp"));
        EXPECT_EQ(1, rig.root().countLog("leftover of pRecorder"));
    });
}

TEST(RecordingFaults, ARecordingOnASmallFileSystemEndsPlayableBeforeItIsFull) {
    inServiceChild([](FaultInjectingEnv&, RecordingRig& rig, ClipFeed& feed) {
        const std::string mountPoint = rig.root().path() + "/card";
        ASSERT_EQ(0, mkdir(mountPoint.c_str(), 0755));
        if (mount("tavo-test", mountPoint.c_str(), "tmpfs", 0, "size=3m") != 0)
            GTEST_SKIP() << "cannot mount a tmpfs (" << strerror(errno) << "); needs root";
        // "/sdcard" is on the large file system of the test root; the file is not.
        ASSERT_EQ(0, rig.startRecording("card/small.3gp"));
        EXPECT_LE(rig.playUntilRecordingEnds(feed, 200), 200);
        ASSERT_TRUE(rig.app().waitFor("onEvent(152, 0)"));
        EXPECT_EQ(0, rig.root().countLog("write file error!"));
        expectPlayableRecording(rig.outputPath("card/small.3gp"));
        EXPECT_EQ(0, umount(mountPoint.c_str()));
    });
}

// (Jumps of the clock are the writer's tick-time unit test.)
TEST(RecordingFaults, ARecordingAcrossTheClockWrapKeepsItsDurationAndSync) {
    inServiceChild([](FaultInjectingEnv&, RecordingRig& rig, ClipFeed& feed) {
        // The 32-bit clock wraps ten seconds in.
        const uint32_t beforeWrap = 0u - 10u * ClipFeed::kTicksPerSecond - ClipFeed::kFirstTick;
        ASSERT_EQ(0, rig.startRecording("wrap.3gp"));
        for (int s = 0; s < 20; ++s) {
            MultiplexFrame frame = feed.nextSecond();
            for (auto* units : {&frame.video, &frame.audio}) {
                for (MultiplexFrame::Unit& unit : *units)
                    unit.tsBase += beforeWrap;
            }
            rig.play(frame);
        }
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        const std::string path = rig.outputPath("wrap.3gp");
        expectPlayableRecording(path);
        const double video = probeStreamDuration(path, 0), audio = probeStreamDuration(path, 1);
        EXPECT_NEAR(20.0, video, 1.0);
        EXPECT_NEAR(20.0, audio, 1.0);
        EXPECT_NEAR(video, audio, 0.1);  // in sync: both streams end together
    });
}

}  // namespace
