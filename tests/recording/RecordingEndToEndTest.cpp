// Real H.264 and AAC played by the fake agent through the engine into recorded files, which
// ffprobe and ffmpeg must read without a message.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

const int kVideo = 0, kAudio = 1;

// The first fed picture at or after `from` that holds an SPS.
size_t firstSpsFrom(const ClipFeed& feed, size_t from) {
    while (!feed.pictureHasSps(from))
        ++from;
    return from;
}

TEST(RecordingEndToEnd, StreamsJoinedMidwayAreRecordedFromTheirFirstSpsIntoTheirOwnFiles) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService(true);
        const int first = rig.createOutput("session0.3gp");
        const int second = rig.createOutput("session1.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, first));
        // The feed starts in the middle of a group of pictures; session 1 joins a second later.
        ClipFeed feed(10);
        const int seconds = 4;
        rig.play(feed.nextSecond());
        const size_t picturesBeforeSecondStart = feed.picturesFed();
        ASSERT_EQ(0, rig.engine().startRecording(1, second));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_TRUE(rig.engine().isRecording(1));
        for (int s = 1; s < seconds; ++s)
            rig.play(feed.nextSecond());
        close(first);
        close(second);
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        ASSERT_EQ(0, rig.engine().stopRecording(1));

        const std::string path = rig.outputPath("session0.3gp");
        expectCleanFile(path);
        const size_t firstSps = firstSpsFrom(feed, 0);
        ASSERT_GT(firstSps, 0u);
        const size_t picturesRecorded = feed.picturesFed() - firstSps;
        std::vector<ProbedPacket> video = probePackets(path, kVideo);
        ASSERT_EQ(picturesRecorded, video.size());
        EXPECT_TRUE(video[0].key);
        for (size_t i = 0; i < video.size(); ++i)
            EXPECT_EQ(static_cast<long long>(i * ClipFeed::kPictureTicks), video[i].pts) << i;
        // Within one frame of the span of the recorded pictures.
        EXPECT_NEAR(picturesRecorded / 25.0, probeStreamDuration(path, kVideo), 0.04);

        // Audio from the first frame at or after the SPS, each frame without its header.
        const size_t firstAudio =
            (firstSps * ClipFeed::kPictureTicks + ClipFeed::kAudioFrameTicks - 1) /
            ClipFeed::kAudioFrameTicks;
        const size_t lastAudio =
            (seconds * ClipFeed::kTicksPerSecond - 1) / ClipFeed::kAudioFrameTicks;
        std::vector<ProbedPacket> audio = probePackets(path, kAudio);
        ASSERT_EQ(lastAudio - firstAudio + 1, audio.size());
        for (size_t i = 0; i < audio.size(); ++i)
            EXPECT_EQ(static_cast<int>(feed.audioFrameSize(firstAudio + i)), audio[i].size) << i;

        const std::string joined = rig.outputPath("session1.3gp");
        expectCleanFile(joined);
        const size_t joinedSps = firstSpsFrom(feed, picturesBeforeSecondStart);
        std::vector<ProbedPacket> joinedVideo = probePackets(joined, kVideo);
        ASSERT_EQ(feed.picturesFed() - joinedSps, joinedVideo.size());
        EXPECT_TRUE(joinedVideo[0].key);
        EXPECT_EQ(0, joinedVideo[0].pts);
    });
}

}  // namespace
