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
        rig.playSeconds(feed, seconds - 1);
        close(first);
        close(second);
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        ASSERT_EQ(0, rig.engine().stopRecording(1));

        // The feed started mid-group: each file starts at the first SPS after its start.
        const size_t firstSps[2] = {firstSpsFrom(feed, 0),
                                    firstSpsFrom(feed, picturesBeforeSecondStart)};
        ASSERT_GT(firstSps[0], 0u);
        for (int session = 0; session < 2; ++session) {
            SCOPED_TRACE(session);
            const std::string path = rig.outputPath("session" + std::to_string(session) + ".3gp");
            expectPlayableRecording(path);
            const size_t picturesRecorded = feed.picturesFed() - firstSps[session];
            std::vector<ProbedPacket> video = probePackets(path, kVideo);
            ASSERT_EQ(picturesRecorded, video.size());
            EXPECT_TRUE(video[0].key);
            for (size_t i = 0; i < video.size(); ++i)
                EXPECT_EQ(static_cast<long long>(i * ClipFeed::kPictureTicks), video[i].pts) << i;
            // Within one frame of the span of the recorded pictures.
            EXPECT_NEAR(picturesRecorded / 25.0, probeStreamDuration(path, kVideo), 0.04);

            // Audio from the first frame at or after the SPS, each frame without its header.
            const size_t firstAudio =
                (firstSps[session] * ClipFeed::kPictureTicks + ClipFeed::kAudioFrameTicks - 1) /
                ClipFeed::kAudioFrameTicks;
            const size_t lastAudio =
                (seconds * ClipFeed::kTicksPerSecond - 1) / ClipFeed::kAudioFrameTicks;
            std::vector<ProbedPacket> audio = probePackets(path, kAudio);
            ASSERT_EQ(lastAudio - firstAudio + 1, audio.size());
            for (size_t i = 0; i < audio.size(); ++i)
                EXPECT_EQ(static_cast<int>(feed.audioFrameSize(firstAudio + i)), audio[i].size)
                    << i;
        }
    });
}

}  // namespace
