// The demo's own parts that decide what its summary says: the frame accounting read from
// the engine's log, the MP4 reader behind the track list, and the command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "DemoFiles.h"
#include "DemoOptions.h"
#include "EngineLog.h"
#include "Mp4Summary.h"
#include "TestRoot.h"

namespace {

std::string frameEnd(int session, int channel) {
    return "D/TavoMBBMSEngine(7): [LogMask::MAIN][onOutputAVEnd():88]session=" +
           std::to_string(session) + ", channelID=" + std::to_string(channel) +
           ", nalCount=27, aacCount=24, baseTime=900\n";
}

std::string lostFrame() {
    return "W/TavoMBBMSEngine(7): [LogMask::WARNING][onOutputAVStart():61]A/V DATA "
           "LOST(nalCount=27, "
           "aacCount=24) due to playengine doesn't fetch them in time\n";
}

std::string recordedFrame(int session) {
    return "D/TavoMBBMSEngine(7): [LogMask::MAIN][dataRecording():40]session=" +
           std::to_string(session) + ", free space=52428800\n";
}

TEST(DemoEngineLog, CountsFramesPerSessionAndAttributesLossesToTheFrameThatFollows) {
    TestRoot root("");
    std::string path = root.path() + "/engine.log";
    std::string early = frameEnd(0, 0) + frameEnd(1, 1);
    std::string later = lostFrame() + frameEnd(1, 1) + recordedFrame(0) + frameEnd(0, 0) +
                        recordedFrame(0) + lostFrame() + frameEnd(0, 0) +
                        "D/TavoMBBMSEngine(7): [LogMask::SESSION][dumpChannels():9]mChannel[0]: "
                        "started=1, serviceID=101, refCount=1, channelID=0, refSession{0 }\n";
    ASSERT_TRUE(demofiles::writeTextFile(path, early + later));
    EngineLog log(path);
    long long mark = static_cast<long long>(early.size());
    EXPECT_EQ(static_cast<long long>((early + later).size()), log.mark());

    EngineLog::SessionFrames all0 = log.sessionFrames(0);
    EXPECT_EQ(3, all0.delivered);
    EXPECT_EQ(1, all0.lost);
    EXPECT_EQ(2, all0.recorded);
    EngineLog::SessionFrames all1 = log.sessionFrames(1);
    EXPECT_EQ(2, all1.delivered);
    EXPECT_EQ(1, all1.lost);
    EXPECT_EQ(0, all1.recorded);

    // Limited to what came after the mark, and to a window.
    EXPECT_EQ(2, log.sessionFrames(0, mark).delivered);
    EXPECT_EQ(1, log.sessionFrames(1, mark).delivered);
    EXPECT_EQ(0, log.sessionFrames(1, 0, mark).lost);
    EXPECT_EQ(2, log.count("A/V DATA LOST", mark));
    EXPECT_EQ(0, log.count("A/V DATA LOST", 0, mark));
    EXPECT_TRUE(log.waitForCount("free space", 2, 0, std::chrono::milliseconds(100)));
    EXPECT_FALSE(log.waitForCount("free space", 3, 0, std::chrono::milliseconds(100)));
}

TEST(DemoMp4Summary, ListsTheTracksOfAFileAndRefusesATruncatedOne) {
    if (system("command -v ffmpeg >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "ffmpeg is not installed";
    TestRoot root("");
    std::string content = std::string(TAVO_SIM_CONTENT_DIR);
    std::string file = root.path() + "/clip.3gp";
    std::string make = "ffmpeg -nostdin -v error -y -f h264 -r 25 -i " + content + "/101.h264 -i " +
                       content + "/101.aac -t 2 -c copy -brand 3gp4 -f 3gp " + file;
    ASSERT_EQ(0, system(make.c_str()));

    Mp4Summary summary = Mp4Summary::read(file);
    ASSERT_TRUE(summary.valid) << summary.error;
    EXPECT_EQ("3gp4", summary.majorBrand);
    EXPECT_NEAR(2.0, summary.seconds(), 0.05);
    ASSERT_EQ(2u, summary.tracks.size());
    const Mp4Track& video = summary.tracks[0];
    EXPECT_EQ("vide", video.handler);
    EXPECT_EQ("avc1", video.codec);
    EXPECT_EQ(320, video.width);
    EXPECT_EQ(240, video.height);
    EXPECT_EQ(50u, video.samples);
    EXPECT_NEAR(2.0, video.seconds(), 0.05);
    const Mp4Track& audio = summary.tracks[1];
    EXPECT_EQ("soun", audio.handler);
    EXPECT_EQ("mp4a", audio.codec);
    EXPECT_EQ(24000u, audio.sampleRate);
    EXPECT_EQ(2, audio.channels);

    long long size = demofiles::fileSize(file);
    ASSERT_EQ(0, truncate(file.c_str(), size - 200));  // into the moov box at the end
    EXPECT_FALSE(Mp4Summary::read(file).valid);
    EXPECT_FALSE(Mp4Summary::read(root.path() + "/missing.3gp").valid);
}

TEST(DemoOptions, AcceptsTheDocumentedRangesAndRefusesTheRest) {
    auto parse = [](std::vector<std::string> args, DemoOptions* options) {
        std::vector<char*> argv;
        static char program[] = "tavo_demo";
        argv.push_back(program);
        for (std::string& arg : args)
            argv.push_back(&arg[0]);
        std::string error;
        return options->parse(static_cast<int>(argv.size()), argv.data(), &error);
    };
    DemoOptions options;
    ASSERT_TRUE(parse({"--seconds", "7", "--speed", "2.5", "--out", "/tmp/x", "--sessions", "1"},
                      &options));
    EXPECT_EQ(7, options.seconds);
    EXPECT_DOUBLE_EQ(2.5, options.speed);
    EXPECT_EQ("/tmp/x", options.outDir);
    EXPECT_EQ(1, options.sessions);

    for (std::vector<std::string> bad : std::vector<std::vector<std::string>>{{"--seconds", "0"},
                                                                              {"--seconds", "5x"},
                                                                              {"--speed", "0"},
                                                                              {"--speed", "nan"},
                                                                              {"--sessions", "3"},
                                                                              {"--frames", "2"},
                                                                              {"--seconds"}}) {
        DemoOptions rejected;
        EXPECT_FALSE(parse(bad, &rejected)) << bad[0];
    }
    DemoOptions help;
    ASSERT_TRUE(parse({"--help"}, &help));
    EXPECT_TRUE(help.help);
}

}  // namespace
