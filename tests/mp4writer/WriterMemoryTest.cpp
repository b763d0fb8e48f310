// Memory of a long recording: the sample tables stay compact and grow in a few steps, never
// by one allocation per sample. Every allocation is counted while counting is on.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>

#include "WriterHarness.h"

namespace {
bool gCounting = false;
size_t gAllocations = 0;
long long gLiveBytes = 0, gPeakLiveBytes = 0;  // as the allocator reports the blocks' sizes
}  // namespace

// The replacements are not inlined: GCC would otherwise see malloc() and free() inside
// them at the callers and warn (-Wmismatched-new-delete) about a pair that is matched.
__attribute__((noinline)) void* operator new(size_t size) {
    void* block = malloc(size > 0 ? size : 1);
    if (block == nullptr)
        throw std::bad_alloc();
    if (gCounting) {
        ++gAllocations;
        gLiveBytes += static_cast<long long>(malloc_usable_size(block));
        gPeakLiveBytes = std::max(gPeakLiveBytes, gLiveBytes);
    }
    return block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
    gLiveBytes -= gCounting ? static_cast<long long>(malloc_usable_size(block)) : 0;
    free(block);
}
void operator delete(void* block, size_t) noexcept {
    operator delete(block);
}

namespace {

TEST(WriterMemoryTest, TwoHourRecordingKeepsItsTablesInAFewMegabytesWithoutPerSampleAllocation) {
    const long long kTwoHoursTicks = 2LL * 3600 * 22500;
    WriterHarness harness;
    ASSERT_EQ(0, harness.startTracks(true, true));
    const Bytes videoSample = patternBytes(24, 1), audioSample = patternBytes(12, 2);

    gCounting = true;
    long long videoTime = 0, audioTime = 0;
    for (int videoSamples = 0; videoTime < kTwoHoursTicks || audioTime < kTwoHoursTicks;) {
        if (videoTime <= audioTime) {
            ASSERT_EQ(0,
                      harness.feed(kVideoMime, videoTime, videoSample, videoSamples++ % 25 == 0));
            videoTime += 900;
        } else {
            ASSERT_EQ(0, harness.feed(kAudioMime, audioTime, audioSample));
            audioTime += 960;
        }
    }
    gCounting = false;
    RecordProperty("peakLiveBytes", std::to_string(gPeakLiveBytes));
    RecordProperty("allocations", std::to_string(gAllocations));
    EXPECT_LT(gPeakLiveBytes, 4LL * 1024 * 1024) << "tables of two hours";
    EXPECT_LT(gAllocations, 200u) << "for 348,750 samples";

    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    EXPECT_EQ(180000u, file.table(*file.find("moov/trak", 0), "stsz").size());
    EXPECT_EQ(168750u, file.table(*file.find("moov/trak", 1), "stsz").size());
}

}  // namespace
