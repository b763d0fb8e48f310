// The file size limit: a recording is fed until the writer refuses samples at 95 % of the
// 2,147,483,647-byte limit. About 31,000 multiplex frames of nearly 64 KiB each go through
// the engine; the part of the file already written is punched out as the test goes so that
// it takes little disk space.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

const uint32_t kTicksPerSecond = 22500;
const size_t kSliceBytes = 2300;
const size_t kAudioBytes = 300;

// One second of the clip (for its parameter sets and first IDR), then seconds of large
// synthetic slices and audio frames with the same timing.
class BulkFeed {
public:
    BulkFeed() {
        mFirst = mClip.nextSecond();
        MediaBytes slice = {0, 0, 0, 1, 0x41};
        slice.resize(4 + kSliceBytes, 0xA5);
        for (uint32_t picture = 0; picture < 25; ++picture)
            mBulk.video.push_back({0, picture * ClipFeed::kPictureTicks, slice});
        for (uint32_t at = 0; at < kTicksPerSecond; at += ClipFeed::kAudioFrameTicks)
            mBulk.audio.push_back({0, at, MediaBytes(kAudioBytes, 0x3C)});
    }

    const MultiplexFrame& next() {
        if (mSecond++ == 0)
            return mFirst;
        // Audio frame times restart each second here; they only need to keep rising.
        const uint32_t tsBase = ClipFeed::kFirstTick + kTicksPerSecond * (mSecond - 1);
        for (MultiplexFrame::Video& video : mBulk.video)
            video.tsBase = tsBase;
        for (MultiplexFrame::Audio& audio : mBulk.audio)
            audio.tsBase = tsBase;
        return mBulk;
    }

private:
    ClipFeed mClip;
    MultiplexFrame mFirst;
    MultiplexFrame mBulk;
    uint32_t mSecond = 0;
};

// Frees the disk blocks of everything written so far except the first page, which the
// writer rewrites when it completes the file.
void punchWrittenPart(int fd) {
    struct stat status;
    if (fstat(fd, &status) != 0 || status.st_size < (8 << 20))
        return;
    const off_t end = (status.st_size - (4 << 20)) & ~static_cast<off_t>(4095);
    fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 4096, end - 4096);
}

// Records through the engine until it stops recording; returns the seconds played.
int recordUntilStopped(RecordingRig& rig, int fd, bool withAudio) {
    BulkFeed feed;
    int seconds = 0;
    while (rig.engine().isRecording(0) && seconds < 40000) {
        if (withAudio) {
            rig.play(feed.next());
        } else {
            MultiplexFrame frame = feed.next();
            frame.audio.clear();
            rig.play(frame);
        }
        if (++seconds % 500 == 0)
            punchWrittenPart(fd);
    }
    return seconds;
}

TEST(RecordingLimits, TheFileSizeLimitEndsTheRecordingWithMaxFileSize) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        rig.startService();
        int fd = rig.createOutput("big.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));

        const int seconds = recordUntilStopped(rig, fd, true);
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(153, 0)"));
        EXPECT_EQ(1, rig.app().count("onEvent("));
        EXPECT_EQ(1, rig.root().countLog("exceed the max file size"));
        // About 2,040,109,464 bytes of samples are accepted, at most ~64 KiB a second.
        EXPECT_GT(seconds, 31000);

        // The recording was completed when it stopped: the index follows the samples.
        struct stat status;
        ASSERT_EQ(0, fstat(fd, &status));
        EXPECT_LT(status.st_size, 2147483647LL);
        EXPECT_GT(status.st_size, 2040000000LL);
        // The sample data was punched out, so only the box structure can be checked: the
        // mdat size was patched and the index ends the file.
        std::vector<std::string> boxes = topLevelBoxes(rig.outputPath("big.3gp"));
        ASSERT_EQ(3u, boxes.size());
        EXPECT_EQ(0u, boxes[0].find("ftyp@0+"));
        EXPECT_EQ(0u, boxes[1].find("mdat@"));
        EXPECT_EQ(0u, boxes[2].find("moov@"));
        EXPECT_EQ(0, rig.engine().stopRecording(0));  // nothing left to stop
        close(fd);
    });
}

TEST(RecordingLimits, ARecordingThatCannotBeCompletedAtTheLimitEndsWithRecordError) {
    EXPECT_IN_CHILD({
        RecordingRig rig("ERROR,WARNING");
        rig.startService();
        int fd = rig.createOutput("video-only.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));

        recordUntilStopped(rig, fd, false);
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(154, 0)"));
        EXPECT_EQ(1, rig.app().count("onEvent("));
        EXPECT_EQ(1, rig.root().countLog("stop failed"));
        EXPECT_EQ(0, rig.root().countLog("exceed the max file size"));
        EXPECT_FALSE(topLevelBoxes(rig.outputPath("video-only.3gp")).empty());
        EXPECT_EQ(std::string::npos,
                  topLevelBoxes(rig.outputPath("video-only.3gp")).back().find("moov"));
        close(fd);
    });
}

}  // namespace
