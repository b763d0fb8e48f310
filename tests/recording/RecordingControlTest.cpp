// Recording control through the engine's public interface: session checks, the free-space
// rules at start and on every frame, and how failures of the recording chain end a
// recording. The engine is one object per process, so every test runs in a child.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

const long long kMiB = 1 << 20;

void setFreeBytes(long long bytes) {
    setenv("TAVO_FAKE_FREE_BYTES", std::to_string(bytes).c_str(), 1);
}

long long fileSize(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

#ifdef TAVO_FAULT_INJECTION
#define REQUIRE_FAULT_INJECTION()
#else
#define REQUIRE_FAULT_INJECTION() GTEST_SKIP() << "needs a build with TAVO_FAULT_INJECTION"
#endif

TEST(RecordingControl, OnlySessionsZeroAndOneOfAnInitialisedEngineCanRecord) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        int fd = rig.createOutput("out.3gp");
        EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_EQ(2, rig.root().countLog("skipped due to mIsInitialized==false"));
        EXPECT_FALSE(rig.engine().isRecording(0));

        rig.startService();
        for (int session : {-1, 2, 10}) {
            EXPECT_EQ(-1, rig.engine().startRecording(session, fd)) << session;
            EXPECT_EQ(-1, rig.engine().stopRecording(session)) << session;
            EXPECT_FALSE(rig.engine().isRecording(session)) << session;
        }
        // Nothing to stop: success, and the session stays idle.
        EXPECT_EQ(0, rig.engine().stopRecording(1));
        EXPECT_FALSE(rig.engine().isRecording(1));
        EXPECT_EQ(0, fileSize(rig.outputPath("out.3gp")));
        close(fd);
    });
}

TEST(RecordingControl, StartNeedsOneMiBFreeWhereTheFileIs) {
    REQUIRE_FAULT_INJECTION();
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = rig.createOutput("out.3gp");

        EXPECT_EQ(-1, rig.engine().startRecording(0, 12345));  // not a descriptor
        EXPECT_EQ(1, rig.root().countLog(
                         "fstatfs failed, error number is 9,reason: Bad file descriptor"));

        setFreeBytes(kMiB - 1);
        EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(0, fileSize(rig.outputPath("out.3gp")));  // no recorder was created

        setFreeBytes(kMiB);
        EXPECT_EQ(0, rig.engine().startRecording(0, fd));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(1));
        close(fd);  // the recorder works on its own duplicate
        unsetenv("TAVO_FAKE_FREE_BYTES");

        ClipFeed feed;
        for (int second = 0; second < 2; ++second)
            rig.play(feed.nextSecond());
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(0));
        int status = 0;
        EXPECT_EQ("", probeMessages(rig.outputPath("out.3gp"), &status));
        EXPECT_EQ(0, status);
    });
}

TEST(RecordingStorage, BelowFourteenMiBTheIndexEstimateDecidesWhenToStop) {
    REQUIRE_FAULT_INJECTION();
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = rig.createOutput("out.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        ClipFeed feed;
        const char* estimateWarning = "required minimal space=";

        // At 14 MiB the estimate is not consulted.
        setFreeBytes(14 * kMiB);
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        EXPECT_EQ(0, rig.root().countLog(estimateWarning));

        // Below it the estimate (a few KiB here, 0 MiB) is compared in whole MiB.
        setFreeBytes(14 * kMiB - 1);
        rig.play(feed.nextSecond());
        EXPECT_EQ(1, rig.root().countLog(estimateWarning));
        setFreeBytes(kMiB);
        rig.play(feed.nextSecond());
        EXPECT_EQ(2, rig.root().countLog(estimateWarning));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_EQ(0, rig.app().count("onEvent("));

        setFreeBytes(kMiB - 1);
        rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(152, 0)"));
        EXPECT_EQ(1, rig.root().countLog("storage is full"));
        unsetenv("TAVO_FAKE_FREE_BYTES");

        // The recording was completed when it stopped; later frames do not reach it.
        const long long completed = fileSize(rig.outputPath("out.3gp"));
        rig.play(feed.nextSecond());
        EXPECT_EQ(completed, fileSize(rig.outputPath("out.3gp")));
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        int status = 0;
        EXPECT_EQ("", probeMessages(rig.outputPath("out.3gp"), &status));
        EXPECT_EQ(0, status);
        EXPECT_TRUE(fileHasMoov(rig.outputPath("out.3gp")));
    });
}

TEST(RecordingStorage, ACardThatFillsUpStopsTheRecordingWithStorageFull) {
    std::string reason;
    if (!canMountTmpfs(&reason))
        GTEST_SKIP() << "cannot mount a tmpfs here: " << reason;
    EXPECT_IN_CHILD({
        unsetenv("TAVO_FAKE_FREE_BYTES");
        RecordingRig rig("ERROR,WARNING,ENGINE,RECORD", 3 * kMiB);
        rig.startService();
        const std::string path = rig.root().resolve("/sdcard/out.3gp");
        int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);

        ClipFeed feed;
        for (int second = 0; second < 400 && rig.engine().isRecording(0); ++second)
            rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(152, 0)"));
        EXPECT_EQ(1, rig.app().count("onEvent("));
        // It stopped with room left for the index: the file is complete and readable.
        EXPECT_GT(fileSize(path), 2 * kMiB - 1);
        int status = 0;
        EXPECT_EQ("", probeMessages(path, &status));
        EXPECT_EQ(0, status);
    });
}

TEST(RecordingStorage, AMissingCardEndsFrameDeliveryButKeepsTheRecorderForStop) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = rig.createOutput("out.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        ClipFeed feed;
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());

        ASSERT_EQ(0, rmdir(rig.root().resolve("/sdcard").c_str()));
        rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(151, 0)"));
        EXPECT_EQ(1, rig.root().countLog("sdcard not found"));
        rig.play(feed.nextSecond());
        EXPECT_EQ(1, rig.root().countLog("sdcard not found"));  // no longer handed frames

        // The application ends the recording; what was recorded before is a complete file.
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        int status = 0;
        EXPECT_EQ("", probeMessages(rig.outputPath("out.3gp"), &status));
        EXPECT_EQ(0, status);
    });
}

TEST(RecordingFailures, ARecordingWithoutAudioCannotBeCompletedAndIsReplacedByTheNextStart) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = rig.createOutput("video-only.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        ClipFeed feed;
        for (int second = 0; second < 2; ++second) {
            MultiplexFrame frame = feed.nextSecond();
            frame.audio.clear();
            rig.play(frame);
        }
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.root().countLog("cannot stop the pRecorder!"));
        EXPECT_FALSE(fileHasMoov(rig.outputPath("video-only.3gp")));

        // The failed recorder is a leftover that the next start clears away.
        fd = rig.createOutput("second.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        EXPECT_EQ(1, rig.root().countLog("leftover of pRecorder"));
        ClipFeed again;
        rig.play(again.nextSecond());
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_TRUE(fileHasMoov(rig.outputPath("second.3gp")));
    });
}

TEST(RecordingFailures, AFullDeviceIsReportedWhenTheRecordingIsStopped) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = open("/dev/full", O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        ClipFeed feed;
        for (int second = 0; second < 3; ++second)
            rig.play(feed.nextSecond());
        // Samples are accepted as they are buffered; the failed writes show when the file
        // is completed.
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(0));
    });
}

}  // namespace
