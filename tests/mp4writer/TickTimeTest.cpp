// Sample times from a 32-bit broadcast clock: discontinuities in both directions and arbitrary
// values (run under UBSan: nothing may overflow). The clock's wrap is checked end to end by
// the recording fault tests.
#include <gtest/gtest.h>

#include <random>

#include "WriterHarness.h"

namespace {

const long long kSecond = 22500;

// The stts table's deltas in order, one per sample.
std::vector<uint32_t> sampleDeltas(const Mp4File& file, const Mp4Box& trak) {
    std::vector<uint32_t> deltas;
    Table stts = file.table(trak, "stts");
    for (size_t i = 0; i + 1 < stts.size(); i += 2)
        deltas.insert(deltas.end(), stts[i], stts[i + 1]);
    return deltas;
}

TEST(TickTimeTest, JumpsBackwardsOrFarForwardsContinueByTheLastDuration) {
    WriterHarness harness;
    harness.addAudio();
    ASSERT_EQ(0, harness.start());
    LogCapture log;
    long long t = 1000;
    auto feedAt = [&](long long at) {
        ASSERT_EQ(0, harness.feed(kAudioMime, at, patternBytes(4, 0)));
    };
    for (int n = 0; n < 5; ++n)
        feedAt(t + n * 900);             // 0 .. 3600
    feedAt(t + 4 * 900 + 10 * kSecond);  // far forwards: continues at 4500
    feedAt(t + 4 * 900 + 10 * kSecond + 900);
    feedAt(500);  // backwards: continues again
    feedAt(1400);
    feedAt(1400 + 2 * kSecond);  // a gap of two seconds is kept
    ASSERT_EQ(0, harness.stop());
    EXPECT_EQ(2, log.count("time jumps"));

    Mp4File file = harness.readFile();
    const Mp4Box* trak = file.find("moov/trak");
    ASSERT_NE(nullptr, trak);
    // In media units of 1/24000 s: 900 ticks are 960.
    std::vector<uint32_t> expected = {
        960, 960, 960, 960, 960, 960, 960, 960, static_cast<uint32_t>(2 * 24000), 2 * 24000};
    EXPECT_EQ(expected, sampleDeltas(file, *trak));
}

TEST(TickTimeTest, ArbitraryTimesNeverOverflow) {
    std::mt19937_64 random(20240611);
    WriterHarness harness;
    harness.addVideo();
    harness.addAudio();
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.feedParameterSets());
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

}  // namespace
