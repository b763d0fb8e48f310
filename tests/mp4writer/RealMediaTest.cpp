// Files recorded from real H.264 (320x240, 25 fps, baseline) and AAC-LC (24 kHz stereo),
// checked with outside tools: ffprobe reads them silently, ffmpeg decodes them completely,
// frame counts and durations are those fed, and mediainfo names the formats.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "MediaFiles.h"
#include "WriterHarness.h"

namespace {

const long long kVideoTicksPerFrame = 900;  // 25 fps in 1/22500 s
const long long kAudioTicksPerFrame = 960;  // 1024 samples at 24 kHz

struct ToolResult {
    int status;
    std::string output;  // standard output and error together
};

ToolResult runTool(const std::string& command) {
    ToolResult result{-1, ""};
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    char block[4096];
    size_t got;
    while ((got = fread(block, 1, sizeof(block), pipe)) > 0) {
        result.output.append(block, got);
    }
    result.status = pclose(pipe);
    return result;
}

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    return text;
}

class RealMediaTest : public ::testing::Test {
protected:
    void SetUp() override {
#if TAVO_EMULATED
        GTEST_SKIP() << "outside media tools do not run under emulation";
#endif
        for (const char* tool : {"/usr/bin/ffprobe", "/usr/bin/ffmpeg", "/usr/bin/mediainfo"}) {
            if (access(tool, X_OK) != 0) {
                GTEST_SKIP() << tool << " is not installed; install ffmpeg and mediainfo";
            }
        }
        pictures = readAnnexBPictures(testMediaPath("clip_320x240_25fps.h264"));
        aacFrames = readAdtsFrames(testMediaPath("clip_24k_stereo.aac"));
        ASSERT_EQ(50u, pictures.size());
        ASSERT_EQ(48u, aacFrames.size());
    }

    // Feeds the clips the way the recording manager does: SPS and PPS once, then one
    // sample per picture holding its slices, and raw AAC frames, in timestamp order.
    void record(WriterHarness& harness, bool withVideo, bool withAudio) {
        if (withVideo) {
            harness.addVideo();
        }
        if (withAudio) {
            harness.addAudio();
        }
        ASSERT_EQ(0, harness.start());
        size_t picture = 0, frame = 0;
        while ((withVideo && picture < pictures.size()) ||
               (withAudio && frame < aacFrames.size())) {
            long long videoTime = static_cast<long long>(picture) * kVideoTicksPerFrame;
            long long audioTime = static_cast<long long>(frame) * kAudioTicksPerFrame;
            bool videoNext = withVideo && picture < pictures.size() &&
                             (!withAudio || frame == aacFrames.size() || videoTime <= audioTime);
            if (videoNext) {
                feedPicture(harness, pictures[picture++], videoTime);
            } else {
                ASSERT_EQ(0, harness.feed(kAudioMime, audioTime, aacFrames[frame++]));
            }
        }
        ASSERT_EQ(0, harness.stop());
    }

    void feedPicture(WriterHarness& harness, const H264Picture& picture, long long timestamp) {
        Bytes slices;
        for (const Bytes& nal : picture.nalUnits) {
            int type = nalUnitType(nal);
            if (type == 7 || type == 8) {
                if (!sentParameterSets[type - 7]) {
                    ASSERT_EQ(0, harness.feed(kVideoMime, timestamp, nal));
                    sentParameterSets[type - 7] = true;
                }
            } else if (type == 1 || type == 5) {
                slices.insert(slices.end(), nal.begin(), nal.end());
            }
        }
        ASSERT_EQ(0, harness.feed(kVideoMime, timestamp, slices, picture.isIdr));
    }

    // ffprobe's view of one stream: "codec,frames,duration".
    std::string probeStream(const std::string& path, const char* selector) {
        ToolResult probe = runTool(
            std::string("/usr/bin/ffprobe -v error -count_frames -select_streams ") + selector +
            " -show_entries stream=codec_name,nb_read_frames,duration -of csv=p=0 '" + path + "'");
        EXPECT_EQ(0, probe.status) << probe.output;
        return trimmed(probe.output);
    }

    void expectCleanAndComplete(const std::string& path) {
        ToolResult probe = runTool("/usr/bin/ffprobe -v error '" + path + "'");
        EXPECT_EQ(0, probe.status);
        EXPECT_EQ("", probe.output) << "ffprobe complained";
        ToolResult decode =
            runTool("/usr/bin/ffmpeg -nostdin -v error -xerror -i '" + path + "' -f null -");
        EXPECT_EQ(0, decode.status);
        EXPECT_EQ("", decode.output) << "ffmpeg could not decode everything";
    }

    std::string mediainfo(const std::string& path, const char* inform) {
        return trimmed(
            runTool(std::string("/usr/bin/mediainfo --Inform='") + inform + "' '" + path + "'")
                .output);
    }

    std::vector<H264Picture> pictures;
    std::vector<MediaBytes> aacFrames;
    bool sentParameterSets[2] = {false, false};
};

TEST_F(RealMediaTest, VideoAndAudioInTwoTracksPlayAsFed) {
    WriterHarness harness;
    record(harness, true, true);
    expectCleanAndComplete(harness.path());
    EXPECT_EQ("h264,2.000000,50", probeStream(harness.path(), "v:0"));
    EXPECT_EQ("aac,2.048000,48", probeStream(harness.path(), "a:0"));
    EXPECT_EQ("AVC", mediainfo(harness.path(), "Video;%Format%"));
    EXPECT_EQ("AAC", mediainfo(harness.path(), "Audio;%Format%").substr(0, 3));
    EXPECT_EQ("320x240", mediainfo(harness.path(), "Video;%Width%x%Height%"));
}

TEST_F(RealMediaTest, VideoAloneInOneTrackPlaysAsFed) {
    WriterHarness harness;
    record(harness, true, false);
    expectCleanAndComplete(harness.path());
    EXPECT_EQ("h264,2.000000,50", probeStream(harness.path(), "v:0"));
    EXPECT_EQ("AVC", mediainfo(harness.path(), "Video;%Format%"));
}

TEST_F(RealMediaTest, AudioAloneInOneTrackPlaysAsFed) {
    WriterHarness harness;
    record(harness, false, true);
    expectCleanAndComplete(harness.path());
    EXPECT_EQ("aac,2.048000,48", probeStream(harness.path(), "a:0"));
    EXPECT_EQ("AAC", mediainfo(harness.path(), "Audio;%Format%").substr(0, 3));
}

}  // namespace
