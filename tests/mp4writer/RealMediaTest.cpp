// Files recorded from real H.264 (320x240, 25 fps, baseline) and AAC-LC (24 kHz stereo),
// checked with outside tools: ffprobe reads them silently, ffmpeg decodes them completely,
// frame counts and durations are those fed, mediainfo names the formats, and GStreamer plays
// them without a warning.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "MediaFiles.h"
#include "WriterHarness.h"

namespace {

// Standard output and error of a command, trailing white space removed.
std::string runTool(const std::string& command) {
    std::string output;
    runCommand(command, &output);
    return output.erase(output.find_last_not_of(" \t\r\n") + 1);
}

// The parameter names the tracks recorded: "VideoAudio", "Video" or "Audio".
class RealMediaTest : public ::testing::TestWithParam<std::string> {
protected:
    bool video() const { return GetParam().find("Video") != std::string::npos; }
    bool audio() const { return GetParam().find("Audio") != std::string::npos; }

    void SetUp() override {
#if TAVO_EMULATED
        GTEST_SKIP() << "outside media tools do not run under emulation";
#endif
        for (const char* tool : {"/usr/bin/ffprobe", "/usr/bin/ffmpeg", "/usr/bin/mediainfo"}) {
            if (access(tool, X_OK) != 0) {
                GTEST_SKIP() << tool << " is not installed; install ffmpeg and mediainfo";
            }
        }
    }

    // Feeds the clips the way the recording manager does: SPS and PPS once, then one sample
    // per picture holding its slices, and raw AAC frames, in timestamp order (1/22500 s).
    void record() {
        auto pictures = readAnnexBPictures(testMediaPath("clip_320x240_25fps.h264"));
        auto aacFrames = readAdtsFrames(testMediaPath("clip_24k_stereo.aac"));
        ASSERT_EQ(50u, pictures.size());
        ASSERT_EQ(48u, aacFrames.size());
        video() ? harness.addVideo() : pictures.clear();
        audio() ? harness.addAudio() : aacFrames.clear();
        ASSERT_EQ(0, harness.start());
        bool sentParameterSet[2] = {false, false};
        for (size_t picture = 0, frame = 0;
             picture < pictures.size() || frame < aacFrames.size();) {
            long long videoTime = picture * 900LL, audioTime = frame * 960LL;
            if (frame < aacFrames.size() && (picture == pictures.size() || audioTime < videoTime)) {
                ASSERT_EQ(0, harness.feed(kAudioMime, audioTime, aacFrames[frame++]));
                continue;
            }
            Bytes slices;
            for (const Bytes& nal : pictures[picture].nalUnits) {
                int type = nalUnitType(nal);
                if ((type == 7 || type == 8) && !sentParameterSet[type - 7]) {
                    ASSERT_EQ(0, harness.feed(kVideoMime, videoTime, nal));
                    sentParameterSet[type - 7] = true;
                } else if (type == 1 || type == 5) {
                    slices.insert(slices.end(), nal.begin(), nal.end());
                }
            }
            ASSERT_EQ(0, harness.feed(kVideoMime, videoTime, slices, pictures[picture++].isIdr));
        }
        ASSERT_EQ(0, harness.stop());
    }

    std::string tool(const std::string& command, const std::string& arguments) {
        return runTool("/usr/bin/" + command + " " + arguments + " '" + harness.path() + "'");
    }

    WriterHarness harness;
};

TEST_P(RealMediaTest, RecordingReadsCleanlyDecodesCompletelyAndPlaysAsFed) {
    ASSERT_NO_FATAL_FAILURE(record());
    std::string output;
    EXPECT_EQ(0, runCommand("/usr/bin/ffprobe -v error '" + harness.path() + "'", &output));
    EXPECT_EQ("", output) << "ffprobe";
    const std::string decode = "/usr/bin/ffmpeg -nostdin -v error -xerror -i '" + harness.path();
    EXPECT_EQ(0, runCommand(decode + "' -f null -", &output)) << "ffmpeg could not decode all";
    EXPECT_EQ("", output) << "ffmpeg";
    const std::string probe =
        "-v error -count_frames -show_entries "
        "stream=codec_name,nb_read_frames,duration -of csv=p=0 "
        "-select_streams ";
    if (video()) {
        EXPECT_EQ("h264,2.000000,50", tool("ffprobe", probe + "v:0"));  // 50 pictures at 25 fps
        EXPECT_EQ("AVC", tool("mediainfo", "--Inform='Video;%Format%'"));
    }
    if (audio()) {
        EXPECT_EQ("aac,2.048000,48", tool("ffprobe", probe + "a:0"));  // 48 x 1024 at 24 kHz
        EXPECT_EQ("AAC", tool("mediainfo", "--Inform='Audio;%Format%'").substr(0, 3));
    }
    expectPlaysInGStreamer(harness.path(), !audio()   ? RecordedTracks::VIDEO
                                           : !video() ? RecordedTracks::AUDIO
                                                      : RecordedTracks::VIDEO_AND_AUDIO);
}

INSTANTIATE_TEST_SUITE_P(Tracks, RealMediaTest, ::testing::Values("VideoAudio", "Video", "Audio"),
                         [](const auto& tracks) { return tracks.param; });

}  // namespace
