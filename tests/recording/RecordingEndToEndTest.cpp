// Real H.264 and AAC played by the fake agent through the engine into recorded files, which
// ffprobe and ffmpeg must read without a message.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

const int kVideo = 0, kAudio = 1;

std::vector<ProbedPacket> packetsOf(const std::vector<ProbedPacket>& all, int stream) {
    std::vector<ProbedPacket> selected;
    for (const ProbedPacket& packet : all)
        if (packet.stream == stream)
            selected.push_back(packet);
    return selected;
}

void expectCleanFile(const std::string& path) {
    int status = -1;
    EXPECT_EQ("", probeMessages(path, &status)) << path;
    EXPECT_EQ(0, status) << path;
    status = -1;
    EXPECT_EQ("", decodeMessages(path, &status)) << path;
    EXPECT_EQ(0, status) << path;
}

TEST(RecordingEndToEnd, AStreamJoinedMidwayIsRecordedFromItsFirstSps) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = rig.createOutput("clip.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);

        // The feed starts in the middle of a group of pictures.
        ClipFeed feed(10);
        const int seconds = 4;
        for (int second = 0; second < seconds; ++second)
            rig.play(feed.nextSecond());
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        const std::string path = rig.outputPath("clip.3gp");
        expectCleanFile(path);

        size_t firstSps = 0;
        while (!feed.pictureHasSps(firstSps))
            ++firstSps;
        ASSERT_GT(firstSps, 0u);
        const size_t picturesRecorded = feed.picturesFed() - firstSps;

        std::vector<ProbedPacket> all = probePackets(path);
        std::vector<ProbedPacket> video = packetsOf(all, kVideo);
        ASSERT_EQ(picturesRecorded, video.size());
        EXPECT_TRUE(video[0].key);
        EXPECT_EQ(0, video[0].pts);
        for (size_t i = 0; i < video.size(); ++i)
            EXPECT_EQ(static_cast<long long>(i * ClipFeed::kPictureTicks), video[i].pts) << i;
        const double span = picturesRecorded / 25.0;
        EXPECT_NEAR(span, probeStreamDuration(path, kVideo), 0.04);

        // Audio from the first frame at or after the SPS, each frame without its header.
        const uint32_t spsTick = firstSps * ClipFeed::kPictureTicks;
        size_t firstAudio = (spsTick + ClipFeed::kAudioFrameTicks - 1) / ClipFeed::kAudioFrameTicks;
        size_t lastAudio = (seconds * 22500 - 1) / ClipFeed::kAudioFrameTicks;
        std::vector<ProbedPacket> audio = packetsOf(all, kAudio);
        ASSERT_EQ(lastAudio - firstAudio + 1, audio.size());
        for (size_t i = 0; i < audio.size(); ++i)
            EXPECT_EQ(static_cast<int>(feed.audioFrameSize(firstAudio + i)), audio[i].size) << i;
    });
}

TEST(RecordingEndToEnd, ParameterSetsAndSliceDeliveredAsOneUnitAreSplitApart) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        int fd = rig.createOutput("joined.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);

        ClipFeed feed(0, true);
        for (int second = 0; second < 2; ++second)
            rig.play(feed.nextSecond());
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        const std::string path = rig.outputPath("joined.3gp");
        expectCleanFile(path);

        std::vector<ProbedPacket> video = packetsOf(probePackets(path), kVideo);
        ASSERT_EQ(feed.picturesFed(), video.size());
        EXPECT_TRUE(video[0].key);
        EXPECT_EQ(0, video[0].pts);
        int keys = 0;
        for (const ProbedPacket& packet : video)
            keys += packet.key;
        EXPECT_EQ(2, keys);  // one IDR picture per second of the clip
    });
}

TEST(RecordingEndToEnd, TwoSessionsOnOneChannelRecordIntoTheirOwnFiles) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService(true);
        int first = rig.createOutput("session0.3gp");
        int second = rig.createOutput("session1.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, first));
        ClipFeed feed;
        rig.play(feed.nextSecond());
        ASSERT_EQ(0, rig.engine().startRecording(1, second));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_TRUE(rig.engine().isRecording(1));
        for (int s = 0; s < 3; ++s)
            rig.play(feed.nextSecond());
        close(first);
        close(second);
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        ASSERT_EQ(0, rig.engine().stopRecording(1));

        expectCleanFile(rig.outputPath("session0.3gp"));
        expectCleanFile(rig.outputPath("session1.3gp"));
        // Session 1 joined one second (one group of pictures) later.
        EXPECT_EQ(100u, packetsOf(probePackets(rig.outputPath("session0.3gp")), kVideo).size());
        EXPECT_EQ(75u, packetsOf(probePackets(rig.outputPath("session1.3gp")), kVideo).size());
    });
}

}  // namespace
