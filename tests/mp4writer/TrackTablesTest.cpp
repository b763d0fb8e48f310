// Sample bookkeeping as the finished file shows it: stts runs and their conversion, sync
// samples, sizes, chunks and their offsets, and time with paused intervals removed.
#include <gtest/gtest.h>

#include "WriterHarness.h"

namespace {

using Stts = std::vector<SttsEntry>;
using Stsc = std::vector<StscEntry>;

Bytes lengthPrefixed(const Bytes& nal, int prefixSize) {
    Bytes out;
    for (int shift = 8 * (prefixSize - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<uint8_t>(nal.size() >> shift));
    }
    out.insert(out.end(), nal.begin(), nal.end());
    return out;
}

// Finishes the recording and returns the file; fails the test when stop does not succeed.
Mp4File finish(WriterHarness& harness) {
    EXPECT_EQ(0, harness.stop());
    return harness.readFile();
}

TEST(TrackTablesTest, SingleVideoTrackIsOneChunkOfLengthPrefixedSlicesWithoutParameterSets) {
    WriterHarness harness;
    harness.addVideo();
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.feedParameterSets());
    std::vector<Bytes> slices;
    for (int n = 0; n < 4; ++n) {
        slices.push_back(patternBytes(100 + n, static_cast<uint8_t>(n)));
        ASSERT_EQ(0, harness.feed(kVideoMime, 5000 + n * 900, slices.back(), n == 0));
    }
    Mp4File file = finish(harness);
    const Mp4Box* trak = file.find("moov/trak");
    ASSERT_NE(nullptr, trak);

    TrackTables tables = file.tables(*trak);
    EXPECT_EQ((Stts{{4, 900}}), tables.stts);
    EXPECT_EQ(std::vector<uint32_t>({1}), tables.stss);
    EXPECT_EQ(std::vector<uint32_t>({104, 105, 106, 107}), tables.sizes);
    EXPECT_EQ((Stsc{{1, 4}}), tables.stsc);
    EXPECT_EQ(std::vector<uint32_t>({32}), tables.chunkOffsets);
    std::vector<Bytes> samples = file.samples(*trak);
    ASSERT_EQ(4u, samples.size());
    for (int n = 0; n < 4; ++n) {
        EXPECT_EQ(lengthPrefixed(slices[n], 4), samples[n]);
    }
    EXPECT_EQ(8u + 104 + 105 + 106 + 107, file.find("mdat")->size);
}

TEST(TrackTablesTest, SttsRunsMergeEqualMediaDurationsAndConvertCumulatively) {
    struct Case {
        int timeScale;
        std::vector<long long> timestamps;
        Stts expected;
    };
    const Case cases[] = {
        {24000, {1000, 1960}, {{2, 1024}}},                         // two samples: their gap
        {24000, {7}, {{1, 0}}},                                     // one sample: no duration
        {22500, {0, 900, 1800, 2700}, {{4, 900}}},                  // equal durations: one run
        {24000, {0, 900, 1800, 2700, 3601}, {{3, 960}, {2, 961}}},  // rounding per running time
        {1000, {0, 22, 45, 67}, {{4, 1}}},  // 22 and 23 ticks are both 1 ms: one run
    };
    for (const Case& c : cases) {
        WriterHarness harness;
        harness.addSource(kAudioMime, 0, 0, 24000, c.timeScale);
        ASSERT_EQ(0, harness.start());
        for (long long timestamp : c.timestamps) {
            ASSERT_EQ(0, harness.feed(kAudioMime, timestamp, patternBytes(10, 0)));
        }
        Mp4File file = finish(harness);
        const Mp4Box* trak = file.find("moov/trak");
        ASSERT_NE(nullptr, trak);
        EXPECT_EQ(c.expected, file.tables(*trak).stts) << "time scale " << c.timeScale;
    }
}

TEST(TrackTablesTest, TwoTracksInterleaveChunksOfOneSecondClosedByTheFirstLaterSample) {
    WriterHarness harness;
    harness.addVideo();
    harness.addAudio();
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.feedParameterSets());
    std::vector<Bytes> video, audio;
    for (long long t = 0, v = 0, a = 0; t <= 45000; t += 60) {  // in timestamp order
        if (v < 50 && t == v * 900) {
            video.push_back(patternBytes(200 + v, static_cast<uint8_t>(v)));
            ASSERT_EQ(0, harness.feed(kVideoMime, t, video.back(), v % 25 == 0));
            ++v;
        }
        if (a < 47 && t == a * 960) {
            audio.push_back(patternBytes(80 + a, static_cast<uint8_t>(a + 100)));
            ASSERT_EQ(0, harness.feed(kAudioMime, t, audio.back()));
            ++a;
        }
    }
    Mp4File file = finish(harness);
    const Mp4Box* videoTrak = file.find("moov/trak", 0);
    const Mp4Box* audioTrak = file.find("moov/trak", 1);
    ASSERT_TRUE(videoTrak != nullptr && audioTrak != nullptr);
    TrackTables videoTables = file.tables(*videoTrak);
    TrackTables audioTables = file.tables(*audioTrak);

    // Chunk timing starts at each track's second sample (900 / 960 ticks); a chunk closes
    // with the first sample more than 22500 ticks later, which it includes.
    EXPECT_EQ((Stsc{{1, 28}, {2, 22}}), videoTables.stsc);
    EXPECT_EQ((Stsc{{1, 26}, {2, 21}}), audioTables.stsc);
    // Chunks reach the file in the order they close: audio's first chunk closes at 24000.
    ASSERT_EQ(2u, audioTables.chunkOffsets.size());
    ASSERT_EQ(2u, videoTables.chunkOffsets.size());
    EXPECT_EQ(32u, audioTables.chunkOffsets[0]);
    EXPECT_LT(audioTables.chunkOffsets[0], videoTables.chunkOffsets[0]);
    EXPECT_EQ(std::vector<uint32_t>({1, 26}), videoTables.stss);
    EXPECT_FALSE(audioTables.hasStss);

    std::vector<Bytes> videoSamples = file.samples(*videoTrak);
    ASSERT_EQ(video.size(), videoSamples.size());
    for (size_t n = 0; n < video.size(); ++n) {
        EXPECT_EQ(lengthPrefixed(video[n], 4), videoSamples[n]) << "video sample " << n;
    }
    EXPECT_EQ(audio, file.samples(*audioTrak));
}

TEST(TrackTablesTest, InterleaveDurationZeroMakesEverySampleItsOwnChunk) {
    WriterHarness harness;
    harness.addVideo();
    harness.addAudio();
    harness.writer().setInterleaveDuration(0);
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.feedParameterSets());
    std::vector<Bytes> audio;
    for (int n = 0; n < 3; ++n) {
        ASSERT_EQ(0, harness.feed(kVideoMime, n * 900, patternBytes(60, 0), n == 0));
        audio.push_back(patternBytes(30, static_cast<uint8_t>(n)));
        ASSERT_EQ(0, harness.feed(kAudioMime, n * 960, audio.back()));
    }
    Mp4File file = finish(harness);
    TrackTables video = file.tables(*file.find("moov/trak", 0));
    TrackTables sound = file.tables(*file.find("moov/trak", 1));
    EXPECT_EQ((Stsc{{1, 1}, {2, 1}, {3, 1}}), video.stsc);
    EXPECT_EQ((Stsc{{1, 1}, {2, 1}, {3, 1}}), sound.stsc);
    // Samples alternate in arrival order: 64 bytes of video, then 30 of audio.
    EXPECT_EQ(std::vector<uint32_t>({32, 126, 220}), video.chunkOffsets);
    EXPECT_EQ(std::vector<uint32_t>({96, 190, 284}), sound.chunkOffsets);
    EXPECT_EQ(audio, file.samples(*file.find("moov/trak", 1)));
}

TEST(TrackTablesTest, SamplesOfOtherMimesAreIgnoredAndMimesMatchWithoutCase) {
    WriterHarness harness;
    harness.addAudio();
    ASSERT_EQ(0, harness.start());
    EXPECT_EQ(0, harness.feed("video/avc", 0, patternBytes(50, 0), true));
    EXPECT_EQ(0, harness.feed("text/plain", 0, patternBytes(50, 0)));
    EXPECT_EQ(0, harness.feed("AUDIO/MP4A-LATM", 0, patternBytes(40, 0)));
    Mp4File file = finish(harness);
    EXPECT_EQ(std::vector<uint32_t>({40}), file.tables(*file.find("moov/trak")).sizes);
}

TEST(TrackTablesTest, MalformedSpsIsRefusedWithTheErrorLogged) {
    LogCapture log;
    WriterHarness harness;
    harness.addVideo();
    ASSERT_EQ(0, harness.start());
    EXPECT_EQ(ERROR_INVALID, harness.feed(kVideoMime, 0, Bytes{0x67, 0x42, 0xC0}));
    EXPECT_EQ(1, log.count("E/CmmbMPEG4Recorder: Seq parameter set malformed"));
    EXPECT_EQ(1, log.count("E/CmmbMPEG4Recorder: AVC SPS parse error!Give up recording!"));

    WriterHarness empty;
    empty.addVideo();
    ASSERT_EQ(0, empty.start());
    EXPECT_EQ(ERROR_INVALID, empty.feed(kVideoMime, 0, Bytes()));
    EXPECT_EQ(1, log.count("Param set is malformed, since its length is 0"));
}

// Audio samples one second apart up to 10 s, then a pause of `pausedSeconds` in input time,
// then two more samples: the timeline has no gap whatever the input time did meanwhile.
void expectPauseRemovedFromTimeline(long long resumeTimestamp) {
    WriterHarness harness;
    harness.addAudio();
    ASSERT_EQ(0, harness.start());
    harness.feedRun(kAudioMime, 0, 22500, 11, 20);
    ASSERT_EQ(0, harness.writer().pause());
    harness.feedRun(kAudioMime, 11 * 22500, 22500, 3, 20);  // dropped while paused
    ASSERT_EQ(0, harness.start());
    harness.feedRun(kAudioMime, resumeTimestamp, 22500, 2, 20);

    Mp4File file = finish(harness);
    const Mp4Box* trak = file.find("moov/trak");
    ASSERT_NE(nullptr, trak);
    EXPECT_EQ((Stts{{13, 24000}}), file.tables(*trak).stts);
    FieldReader mdhd = file.fields(*trak->find("mdia/mdhd"), 12);
    EXPECT_EQ(24000u, mdhd.u32());
    EXPECT_EQ(13u * 24000, mdhd.u32());
}

TEST(TrackTablesTest, PauseAndResumeRemoveThePausedTime) {
    expectPauseRemovedFromTimeline(10 * 22500 + 30 * 22500);
}

TEST(TrackTablesTest, TimestampJumpingBackwardsAcrossAPauseContinuesFromTheLastSample) {
    expectPauseRemovedFromTimeline(2 * 22500);
}

TEST(TrackTablesTest, ParameterSetsAreTakenWhilePausedAndSlicesAreNot) {
    WriterHarness harness;
    harness.addVideo();
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.writer().pause());
    ASSERT_EQ(0, harness.feedParameterSets());
    ASSERT_EQ(0, harness.feed(kVideoMime, 0, patternBytes(30, 0), true));  // dropped
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.feed(kVideoMime, 900, patternBytes(40, 0), true));
    Mp4File file = finish(harness);
    const Mp4Box* trak = file.find("moov/trak");
    ASSERT_NE(nullptr, trak);
    EXPECT_EQ(std::vector<uint32_t>({44}), file.tables(*trak).sizes);
    EXPECT_NE(nullptr, trak->find("mdia/minf/stbl/stsd/avc1/avcC"));
}

}  // namespace
