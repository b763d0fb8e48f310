// The writer's face towards the recorder: start parameters and the size cap, the 95 % size
// limit, the moov prediction, stop with and without a complete moov, and use after stop.
#include <gtest/gtest.h>

#include "WriterHarness.h"

namespace {

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

TEST(WriterLifecycleTest, MoovPredictionIsASmallShareOfTheDataButNeverBelowTheTables) {
    // 500 samples: table estimate H = 4 bytes per sample = 2000; data S = H + 500 * size,
    // so 950,000 and 95,000 bytes.
    const struct {
        size_t sampleSize;
        long long expected;
    } cases[] = {{1896, 6000}, {186, 2600}};
    for (const auto& c : cases) {
        WriterHarness harness;
        ASSERT_EQ(0, harness.startTracks(false, true));
        harness.feedRun(kAudioMime, 0, 960, 500, c.sampleSize);
        EXPECT_EQ(c.expected, harness.writer().queryMoovLength()) << c.sampleSize;
    }
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

    WriterHarness noSyncSample;
    ASSERT_EQ(0, noSyncSample.startTracks(true, false));
    noSyncSample.feedRun(kVideoMime, 0, 900, 3, 100, false);
    EXPECT_EQ(ERROR_NO_SAMPLES, noSyncSample.stop());
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
