// Sample bookkeeping as the finished file shows it (tables, chunks, paused time, broadcast
// clock jumps and arbitrary times), then the size limit, the moov prediction and stop.
#include <gtest/gtest.h>

#include <random>

#include "WriterHarness.h"

namespace {

Bytes lengthPrefixed(const Bytes& nal) {
    Bytes out = {0, 0, static_cast<uint8_t>(nal.size() >> 8), static_cast<uint8_t>(nal.size())};
    out.insert(out.end(), nal.begin(), nal.end());
    return out;
}

TEST(TrackTablesTest, SttsRunsMergeEqualMediaDurationsAndConvertCumulatively) {
    const struct {
        int timeScale;
        std::vector<long long> timestamps;
        Table expected;
    } cases[] = {
        {24000, {1000, 1960}, {2, 1024}},                       // two samples: their gap
        {24000, {7}, {1, 0}},                                   // one sample: no duration
        {22500, {0, 900, 1800, 2700}, {4, 900}},                // equal durations: one run
        {24000, {0, 900, 1800, 2700, 3601}, {3, 960, 2, 961}},  // rounding per running time
        {1000, {0, 22, 45, 67}, {4, 1}},              // 22 and 23 ticks are both 1 ms: one run
        {1000, {0, 30, 60, 90}, {1, 1, 1, 2, 2, 1}},  // 0, 1.33, 2.67, 4 ms: 0, 1, 3, 4
    };
    for (const auto& c : cases) {
        WriterHarness harness;
        harness.addSource(kAudioMime, 0, 0, 24000, c.timeScale);
        ASSERT_EQ(0, harness.start());
        for (long long timestamp : c.timestamps) {
            // Mimes match without case; samples of a type without a track are ignored.
            ASSERT_EQ(0, harness.feed("AUDIO/MP4A-LATM", timestamp, patternBytes(10, 0)));
            ASSERT_EQ(0, harness.feed(kVideoMime, timestamp, patternBytes(50, 0), true));
        }
        ASSERT_EQ(0, harness.stop());
        Mp4File file = harness.readFile();
        ASSERT_NE(nullptr, file.find("moov/trak"));
        EXPECT_EQ(c.expected, file.table(*file.find("moov/trak"), "stts")) << c.timeScale;
        EXPECT_EQ(Table(c.timestamps.size(), 10), file.table(*file.find("moov/trak"), "stsz"));
    }
}

TEST(TrackTablesTest, TwoTracksInterleaveChunksOfOneSecondClosedByTheFirstLaterSample) {
    WriterHarness harness;
    ASSERT_EQ(0, harness.startTracks(true, true));
    std::vector<Bytes> video, audio;
    for (long long t = 0, v = 0, a = 0; t <= 45000; t += 60) {  // in timestamp order
        if (v < 50 && t == v * 900) {
            video.push_back(patternBytes(200 + v, static_cast<uint8_t>(v)));
            ASSERT_EQ(0, harness.feed(kVideoMime, t, video.back(), v++ % 25 == 0));
        }
        if (a < 47 && t == a * 960) {
            audio.push_back(patternBytes(80 + a, static_cast<uint8_t>(a + 100)));
            ASSERT_EQ(0, harness.feed(kAudioMime, t, audio.back()));
            ++a;
        }
    }
    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    const Mp4Box* videoTrak = file.find("moov/trak", 0);
    const Mp4Box* audioTrak = file.find("moov/trak", 1);
    ASSERT_TRUE(videoTrak != nullptr && audioTrak != nullptr);

    // Chunk timing starts at each track's second sample (900 / 960 ticks); a chunk closes
    // with the first sample more than 22500 ticks later, which it includes.
    EXPECT_EQ((Table{1, 28, 1, 2, 22, 1}), file.table(*videoTrak, "stsc"));
    EXPECT_EQ((Table{1, 26, 1, 2, 21, 1}), file.table(*audioTrak, "stsc"));
    // Chunks reach the file in the order they close: audio's first chunk closes at 24000.
    Table videoChunks = file.table(*videoTrak, "stco"),
          audioChunks = file.table(*audioTrak, "stco");
    ASSERT_EQ(2u, videoChunks.size());
    ASSERT_EQ(2u, audioChunks.size());
    EXPECT_EQ(32u, audioChunks[0]);
    EXPECT_LT(audioChunks[0], videoChunks[0]);
    EXPECT_EQ((Table{1, 26}), file.table(*videoTrak, "stss"));
    EXPECT_EQ(nullptr, audioTrak->find("mdia/minf/stbl/stss")) << "audio has no sync table";

    // Video samples are length-prefixed slices; the parameter sets are not samples.
    std::vector<Bytes> videoSamples = file.samples(*videoTrak);
    ASSERT_EQ(video.size(), videoSamples.size());
    for (size_t n = 0; n < video.size(); ++n)
        EXPECT_EQ(lengthPrefixed(video[n]), videoSamples[n]) << "video sample " << n;
    EXPECT_EQ(audio, file.samples(*audioTrak));
}

// Audio samples one second apart up to 10 s, a pause during which input time goes on (or
// jumps backwards), then two more samples: the timeline has no gap.
TEST(TrackTablesTest, PauseAndResumeRemoveThePausedTimeWhateverTheInputTimeDid) {
    for (long long resumeTimestamp : {40 * 22500LL, 2 * 22500LL}) {
        WriterHarness harness;
        ASSERT_EQ(0, harness.startTracks(false, true));
        harness.feedRun(kAudioMime, 0, 22500, 11, 20);
        ASSERT_EQ(0, harness.writer().pause());
        harness.feedRun(kAudioMime, 11 * 22500, 22500, 3, 20);  // dropped while paused
        ASSERT_EQ(0, harness.start());
        harness.feedRun(kAudioMime, resumeTimestamp, 22500, 2, 20);
        ASSERT_EQ(0, harness.stop());

        Mp4File file = harness.readFile();
        const Mp4Box* trak = file.find("moov/trak");
        ASSERT_NE(nullptr, trak);
        EXPECT_EQ((Table{13, 24000}), file.table(*trak, "stts")) << resumeTimestamp;
        FieldReader mdhd = file.fields(*trak->find("mdia/mdhd"), 12);
        EXPECT_EQ(24000u, mdhd.u32());
        EXPECT_EQ(13u * 24000, mdhd.u32());
    }
}

TEST(TickTimeTest, JumpsBackwardsOrFarForwardsContinueByTheLastDuration) {
    WriterHarness harness;
    ASSERT_EQ(0, harness.startTracks(false, true));
    long long t = 1000;
    auto feedAt = [&](long long at) {
        ASSERT_EQ(0, harness.feed(kAudioMime, at, patternBytes(4, 0)));
    };
    for (int n = 0; n < 5; ++n)
        feedAt(t + n * 900);           // 0 .. 3600
    feedAt(t + 4 * 900 + 10 * 22500);  // far forwards: continues at 4500
    feedAt(t + 4 * 900 + 10 * 22500 + 900);
    feedAt(500);  // backwards: continues again
    feedAt(1400);
    feedAt(1400 + 2 * 22500);  // a gap of two seconds is kept
    ASSERT_EQ(0, harness.stop());

    Mp4File file = harness.readFile();
    const Mp4Box* trak = file.find("moov/trak");
    ASSERT_NE(nullptr, trak);
    // In media units of 1/24000 s: 900 ticks are 960; the last sample lasts as its predecessor.
    EXPECT_EQ((Table{8, 960, 2, 2 * 24000}), file.table(*trak, "stts"));
}

TEST(TickTimeTest, ArbitraryTimesNeverOverflow) {
    std::mt19937_64 random(20240611);
    WriterHarness harness;
    ASSERT_EQ(0, harness.startTracks(true, true));
    for (int n = 0; n < 20000; ++n) {
        const long long timestamp = n % 3 == 0 ? static_cast<long long>(random())
                                               : static_cast<long long>(random() & 0xFFFFFFFFu);
        const bool video = (random() & 1) != 0;
        ASSERT_EQ(0, harness.feed(video ? kVideoMime : kAudioMime, timestamp,
                                  patternBytes(16, static_cast<uint8_t>(n)), video))
            << n;
    }
    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    ASSERT_NE(nullptr, file.find("moov/mvhd"));
}

TEST(WriterLifecycleTest, SampleBringingTheEstimateTo95PercentOfTheLimitIsRefused) {
    WriterHarness harness;
    harness.writer().setMaxFileSize(1000000);
    ASSERT_EQ(0, harness.startTracks(false, true));
    // With 996-byte samples the estimate after sample k is 1000 * k bytes: 996 bytes of data
    // and 4 of table entries per sample.
    Bytes sample = patternBytes(996, 0);
    for (int k = 1; k <= 949; ++k)
        ASSERT_EQ(0, harness.feed(kAudioMime, k * 960LL, sample)) << "sample " << k;
    EXPECT_EQ(ERROR_LIMIT_REACHED, harness.feed(kAudioMime, 950 * 960LL, sample));
    EXPECT_EQ(ERROR_LIMIT_REACHED, harness.feed(kAudioMime, 951 * 960LL, sample));
    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    EXPECT_EQ(949u, file.table(*file.find("moov/trak"), "stsz").size());
    EXPECT_EQ(8u + 949 * 996, file.find("mdat")->size);
}

TEST(WriterLifecycleTest, MoovPredictionIsASmallShareOfTheData) {
    // 500 samples: table estimate H = 4 bytes per sample = 2000; data S = H + 500 * 1896.
    WriterHarness harness;
    ASSERT_EQ(0, harness.startTracks(false, true));
    harness.feedRun(kAudioMime, 0, 960, 500, 1896);
    EXPECT_EQ(6000, harness.writer().queryMoovLength());
}

TEST(WriterLifecycleTest, TrackWithoutSamplesLeavesTheFileWithoutMoovAndItsMdatSizeUnknown) {
    WriterHarness harness;
    ASSERT_EQ(0, harness.startTracks(true, true));
    harness.feedRun(kVideoMime, 0, 900, 30, 100, true);  // audio never arrives
    EXPECT_EQ(ERROR_NO_SAMPLES, harness.stop());
    EXPECT_TRUE(harness.writer().reachedEOS());
    Bytes bytes = harness.readFile().bytes();
    EXPECT_EQ(32u + 30 * 104, bytes.size()) << "the file ends with the last chunk";
    EXPECT_EQ("????mdat", FieldReader(bytes, 24).text(8));
}

TEST(WriterLifecycleTest, LargeSizeMdatHeaderGetsA64BitSize) {
    WriterHarness harness;
    harness.addAudio();
    ASSERT_EQ(0, harness.start(true, false));
    harness.feedRun(kAudioMime, 0, 960, 3, 10);
    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    FieldReader header(file.bytes(), 24);
    EXPECT_EQ(1u, header.u32());
    EXPECT_EQ("mdat", header.text(4));
    EXPECT_EQ(16u + 30, header.u64());
    EXPECT_EQ((Table{40}), file.table(*file.find("moov/trak"), "stco"));
}

TEST(WriterLifecycleTest, StopFinishesTheFileOnceAndDestroyingAStartedWriterStopsIt) {
    for (bool destroy : {false, true}) {
        WriterHarness harness;
        ASSERT_EQ(0, harness.startTracks(false, true));
        EXPECT_FALSE(harness.writer().reachedEOS());
        harness.feedRun(kAudioMime, 0, 960, 4, 10);
        if (destroy) {
            harness.destroyWriter();
        } else {
            ASSERT_EQ(0, harness.stop());
            EXPECT_TRUE(harness.writer().reachedEOS());
            EXPECT_EQ(ERROR_INVALID, harness.stop());
            EXPECT_EQ(ERROR_INVALID, harness.feed(kAudioMime, 3840, patternBytes(10, 0)));
        }
        Mp4File file = harness.readFile();
        ASSERT_NE(nullptr, file.find("moov/trak")) << destroy;
        EXPECT_EQ(Table(4, 10), file.table(*file.find("moov/trak"), "stsz")) << destroy;
    }
    CmmbMPEG4Writer unopened(-1, Env::current());
    _CmmbMetaData meta = {24000, true, true};
    EXPECT_EQ(ERROR_INVALID, unopened.start(&meta));
    EXPECT_EQ(ERROR_INVALID, unopened.stop());
}

}  // namespace
