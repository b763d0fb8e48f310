// Recordings that meet failing storage, full file systems and a broadcast clock that wraps
// and jumps, all through the engine's public interface with real files. Faults are injected
// through the platform's Env (each test installs its own), so this suite links the engine's
// objects; every test runs in a child because the engine is one object per process.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <string>

#include "ChildProcess.h"
#include "FaultInjectingEnv.h"
#include "RecordingRig.h"

namespace {

// Plays seconds of the clip until the session's recording ends; returns how many it took
// (or `limit` + 1 when it never ended).
int playUntilRecordingEnds(RecordingRig& rig, ClipFeed& feed, int limit) {
    for (int second = 1; second <= limit; ++second) {
        rig.play(feed.nextSecond());
        if (!rig.engine().isRecording(0))
            return second;
    }
    return limit + 1;
}

// Starts recording session 0 into `name` and records `seconds` of the clip.
void startRecordingInto(RecordingRig& rig, const std::string& name, ClipFeed& feed, int seconds) {
    ASSERT_EQ(0, rig.startRecording(name));
    for (int second = 0; second < seconds; ++second)
        rig.play(feed.nextSecond());
}

TEST(RecordingFaults, AWriteThatFailsMidChunkEndsTheRecordingAndTheFileIsCompleted) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;
        startRecordingInto(rig, "full.3gp", feed, 3);

        // The next chunk reaches the file only in part, the rest finds no space; then the
        // storage takes the index again.
        env.shortWriteNth(1, 1000, ENOSPC);
        const int seconds = playUntilRecordingEnds(rig, feed, 5);
        ASSERT_LE(seconds, 2);
        EXPECT_FALSE(rig.engine().isRecording(0));  // from the frame of the failure on
        ASSERT_TRUE(rig.app().waitFor("onEvent(152, 0)"));
        EXPECT_EQ(0, rig.engine().stopRecording(0));  // waits for the completion's report
        EXPECT_EQ(1, rig.app().count("onEvent("));
        EXPECT_EQ(1, rig.root().countLog("write file error!"));
        EXPECT_EQ(0, rig.root().countLog("stop failed"));
        // Lines printed by helpers name the public operation they belong to.
        const std::pair<const char*, const char*> owners[] = {
            {"write file error!", "[dataRecording():"},
            {"recording NAL: length=", "[dataRecording():"},
            {"recording AAC: frame length=", "[dataRecording():"},
            {"pRecorder->start() Done!", "[startRecording():"},
            {"exit successfully", "[stopRecording():"}};
        for (const auto& owner : owners) {
            int seen = 0;
            for (const std::string& line : rig.root().logLines()) {
                if (line.find(owner.first) == std::string::npos)
                    continue;
                ++seen;
                EXPECT_NE(std::string::npos, line.find(owner.second)) << line;
            }
            EXPECT_GT(seen, 0) << owner.first;
        }
        expectPlayableRecording(rig.outputPath("full.3gp"));
        // Only whole chunks that reached the file are described: about three seconds.
        const double duration = probeStreamDuration(rig.outputPath("full.3gp"), 0);
        EXPECT_GT(duration, 1.5);
        EXPECT_LT(duration, 4.5);
    });
}

TEST(RecordingFaults, AFailingCardIsARecordingErrorAndCompletionFailureIsLoggedFirst) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;
        startRecordingInto(rig, "bad.3gp", feed, 2);

        env.failNth(FaultInjectingEnv::WRITE, 1, EIO, /*sticky=*/true);
        ASSERT_LE(playUntilRecordingEnds(rig, feed, 5), 2);
        ASSERT_TRUE(rig.app().waitFor("onEvent(154, 0)"));
        EXPECT_EQ(0, rig.engine().stopRecording(0));  // waits for the completion's report
        EXPECT_EQ(0, rig.app().count("onEvent(152"));
        // The index could not be written either: "stop failed" comes before the event,
        // "write file error!" after it.
        EXPECT_EQ(1, rig.root().countLog("stop failed"));
        EXPECT_EQ(1, rig.root().countLog("write file error!"));
        EXPECT_FALSE(fileHasMoov(rig.outputPath("bad.3gp")));
        env.clearFaults();

        // The session records again afterwards.
        startRecordingInto(rig, "after.3gp", feed, 2);
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectPlayableRecording(rig.outputPath("after.3gp"));
    });
}

TEST(RecordingFaults, SetUpAndCompletionFailuresAreReportedByTheOperations) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;

        // The file's first bytes cannot be written: refused at once.
        env.failNth(FaultInjectingEnv::WRITE, 1, ENOSPC);
        const int refused = rig.createOutput("refused.3gp");
        EXPECT_EQ(-1, rig.engine().startRecording(0, refused));
        close(refused);
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.root().countLog("pRecorder->start() failed!"));

        // The file system of the descriptor cannot be queried.
        env.failNth(FaultInjectingEnv::STATFS, 1, EIO);
        const int unqueried = rig.createOutput("unqueried.3gp");
        EXPECT_EQ(-1, rig.engine().startRecording(0, unqueried));
        close(unqueried);
        EXPECT_EQ(1, rig.root().countLog("fstatfs failed, error number is 5"));

        // The sync at the end fails: stopRecording says so, the index is in the file.
        startRecordingInto(rig, "unsynced.3gp", feed, 3);
        env.failNth(FaultInjectingEnv::FSYNC, 1, EIO);
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_EQ(1, rig.root().countLog("error reason is"));
        EXPECT_EQ(1, rig.root().countLog("cannot stop the pRecorder!"));
        expectPlayableRecording(rig.outputPath("unsynced.3gp"));

        // The index cannot be written at the application's stop.
        startRecordingInto(rig, "unindexed.3gp", feed, 3);
        env.failNth(FaultInjectingEnv::WRITE, 1, ENOSPC, /*sticky=*/true);
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_EQ(2, rig.root().countLog("cannot stop the pRecorder!"));
        EXPECT_EQ(0, rig.app().count("onEvent("));  // the application's own stop: no event
    });
}

TEST(RecordingFaults, ARecordingOnASmallFileSystemEndsPlayableBeforeItIsFull) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        const std::string mountPoint = rig.root().path() + "/card";
        ASSERT_EQ(0, mkdir(mountPoint.c_str(), 0755));
        if (mount("tavo-test", mountPoint.c_str(), "tmpfs", 0, "size=3m") != 0)
            GTEST_SKIP() << "cannot mount a tmpfs (" << strerror(errno) << "); needs root";
        rig.startService();
        ClipFeed feed;
        // "/sdcard" is on the large file system of the test root; the file is not.
        startRecordingInto(rig, "card/small.3gp", feed, 0);
        const int seconds = playUntilRecordingEnds(rig, feed, 200);
        EXPECT_LE(seconds, 200);
        ASSERT_TRUE(rig.app().waitFor("onEvent(152, 0)"));
        EXPECT_EQ(1, rig.root().countLog("storage is full"));
        EXPECT_EQ(0, rig.root().countLog("write file error!"));
        expectPlayableRecording(rig.outputPath("card/small.3gp"));
        EXPECT_EQ(0, umount(mountPoint.c_str()));
    });
}

// Plays `seconds` seconds with every time of second s shifted by shift(s) ticks (modulo 2^32).
template <typename Shift>
void playShifted(RecordingRig& rig, ClipFeed& feed, int seconds, Shift shift) {
    for (int s = 0; s < seconds; ++s) {
        MultiplexFrame frame = feed.nextSecond();
        for (auto* units : {&frame.video, &frame.audio}) {
            for (MultiplexFrame::Unit& unit : *units)
                unit.tsBase += shift(s);
        }
        rig.play(frame);
    }
}

TEST(RecordingFaults, ARecordingAcrossTheClockWrapAndThroughJumpsKeepsItsDurationAndSync) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;
        ASSERT_EQ(0, rig.startRecording("wrap.3gp"));
        // The 32-bit clock wraps ten seconds in.
        const uint32_t beforeWrap = 0u - 10u * ClipFeed::kTicksPerSecond - ClipFeed::kFirstTick;
        playShifted(rig, feed, 20, [&](int) { return beforeWrap; });
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectPlayableRecording(rig.outputPath("wrap.3gp"));
        EXPECT_NEAR(20.0, probeStreamDuration(rig.outputPath("wrap.3gp"), 0), 1.0);
        EXPECT_NEAR(20.0, probeStreamDuration(rig.outputPath("wrap.3gp"), 1), 1.0);

        // A tuner that resynchronises: an hour forwards after 8 s, two hours back after 14 s.
        ASSERT_EQ(0, rig.startRecording("jumps.3gp"));
        const uint32_t hour = 3600u * ClipFeed::kTicksPerSecond;
        playShifted(rig, feed, 20, [&](int s) { return s < 8 ? 0u : s < 14 ? hour : 0u - hour; });
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        const std::string path = rig.outputPath("jumps.3gp");
        expectPlayableRecording(path);
        const double video = probeStreamDuration(path, 0);
        const double audio = probeStreamDuration(path, 1);
        EXPECT_NEAR(20.0, video, 1.0);
        EXPECT_NEAR(20.0, audio, 1.0);
        // In sync: both streams still end together.
        EXPECT_NEAR(video, audio, 0.1);
    });
}

}  // namespace
