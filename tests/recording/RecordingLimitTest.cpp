// The file size limit: a recording is fed until the writer refuses samples near the
// 2,147,483,647-byte limit. About 31,000 multiplex frames of nearly 64 KiB go through the
// engine; the part of the file already written is punched out as the test goes so that it
// takes little disk space.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

// Records until the engine stops recording: one second of the clip (parameter sets and the
// first IDR), then seconds of large synthetic slices (and audio frames) with the same timing.
// The disk blocks written so far are freed, except the first page, which the writer rewrites
// when it completes the file. Returns the seconds played.
int recordUntilStopped(RecordingRig& rig, int fd, bool withAudio) {
    MultiplexFrame frame = ClipFeed().nextSecond();
    MediaBytes slice = {0, 0, 0, 1, 0x41};
    slice.resize(4 + 2300, 0xA5);
    int seconds = 0;
    while (rig.engine().isRecording(0) && seconds < 40000) {
        if (!withAudio)
            frame.audio.clear();
        rig.play(frame);
        struct stat status;
        if (++seconds % 500 == 0 && fstat(fd, &status) == 0 && status.st_size >= (8 << 20)) {
            const off_t end = (status.st_size - (4 << 20)) & ~static_cast<off_t>(4095);
            fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096, end - 4096);
        }
        const uint32_t tsBase = ClipFeed::kFirstTick + ClipFeed::kTicksPerSecond * seconds;
        if (seconds == 1) {
            frame = MultiplexFrame();
            for (uint32_t at = 0; at < ClipFeed::kTicksPerSecond; at += ClipFeed::kPictureTicks)
                frame.video.push_back({tsBase, at, slice});
            for (uint32_t at = 0; at < ClipFeed::kTicksPerSecond; at += ClipFeed::kAudioFrameTicks)
                frame.audio.push_back({tsBase, at, MediaBytes(300, 0x3C)});
        }
        for (auto* units : {&frame.video, &frame.audio})
            for (MultiplexFrame::Unit& unit : *units)
                unit.tsBase = tsBase;
    }
    return seconds;
}

TEST(RecordingLimits, TheFileSizeLimitEndsTheRecordingWithMaxFileSize) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        rig.startService();
        const int fd = rig.createOutput("big.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        // About 2,040,109,464 bytes of samples are accepted, at most ~64 KiB a second.
        EXPECT_GT(recordUntilStopped(rig, fd, true), 31000);
        EXPECT_FALSE(rig.engine().isRecording(0));
        // The file is completed off the frame path; stopRecording waits for that and its event.
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(153, 0)"));  // EVENT_RECORD_MAX_FILE_SIZE
        EXPECT_EQ(1, rig.app().count("onEvent("));
        // Completed when it stopped: the mdat size was patched and the index ends the file.
        struct stat status;
        ASSERT_EQ(0, fstat(fd, &status));
        EXPECT_LT(status.st_size, 2147483647LL);
        EXPECT_GT(status.st_size, 2040000000LL);
        EXPECT_EQ((std::vector<std::string>{"ftyp", "mdat", "moov"}),
                  topLevelBoxes(rig.outputPath("big.3gp")));
        close(fd);
    });
}

TEST(RecordingLimits, ARecordingThatCannotBeCompletedAtTheLimitEndsWithRecordError) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        rig.startService();
        const int fd = rig.createOutput("video-only.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        recordUntilStopped(rig, fd, false);
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(0, rig.engine().stopRecording(0));       // waits for the completion and its event
        EXPECT_EQ(1, rig.app().count("onEvent(154, 0)"));  // EVENT_RECORD_ERROR
        EXPECT_EQ(1, rig.app().count("onEvent("));
        const std::vector<std::string> boxes = topLevelBoxes(rig.outputPath("video-only.3gp"));
        ASSERT_FALSE(boxes.empty());
        EXPECT_NE("moov", boxes.back());
        close(fd);
    });
}

}  // namespace
