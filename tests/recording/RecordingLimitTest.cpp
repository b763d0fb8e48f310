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

// Records session 0 into `name` until the engine stops: one second of the clip, then seconds
// of large synthetic slices (and audio) with the same timing, freeing the disk blocks written
// so far but the first page (rewritten at completion). Then stops (which waits for the
// completion and its event) and checks that `event` was the only one; the seconds played.
int recordToTheLimit(RecordingRig& rig, const std::string& name, bool withAudio,
                     const char* event) {
    rig.startService();
    UniqueFd output = rig.createOutput(name);
    const int fd = output.get();
    EXPECT_EQ(0, rig.engine().startRecording(0, fd));
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
    output.reset();
    EXPECT_FALSE(rig.engine().isRecording(0));
    EXPECT_EQ(0, rig.engine().stopRecording(0));
    EXPECT_EQ(1, rig.app().count(event));
    EXPECT_EQ(1, rig.app().count("onEvent("));
    return seconds;
}

TEST(RecordingLimits, TheFileSizeLimitEndsTheRecordingWithMaxFileSize) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        // About 2,040,109,464 bytes of samples are accepted, at most ~64 KiB a second.
        EXPECT_GT(recordToTheLimit(rig, "big.3gp", true, "onEvent(153, 0)"), 31000);
        // Completed when it stopped: the mdat size was patched and the index ends the file.
        const std::string path = rig.outputPath("big.3gp");
        EXPECT_LT(fileSize(path), 2147483647LL);
        EXPECT_GT(fileSize(path), 2040000000LL);
        EXPECT_EQ((std::vector<std::string>{"ftyp", "mdat", "moov"}), topLevelBoxes(path));
    });
}

// Without audio samples the file cannot be completed at the limit: EVENT_RECORD_ERROR.
TEST(RecordingLimits, ARecordingThatCannotBeCompletedAtTheLimitEndsWithRecordError) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        recordToTheLimit(rig, "video-only.3gp", false, "onEvent(154, 0)");
        const std::vector<std::string> boxes = topLevelBoxes(rig.outputPath("video-only.3gp"));
        ASSERT_FALSE(boxes.empty());
        EXPECT_NE("moov", boxes.back());
    });
}

}  // namespace
