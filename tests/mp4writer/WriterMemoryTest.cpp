// Memory of a long recording: the sample tables stay compact and grow in a few steps, never
// by one allocation per sample. Every allocation of this test program is counted while a
// counter is active (the writer runs on the test's thread only).
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>

#include "WriterHarness.h"

namespace {

struct AllocationStats {
    bool counting = false;
    size_t allocations = 0;
    long long liveBytes = 0;
    long long peakLiveBytes = 0;
};
AllocationStats gStats;

// Each block carries its size in front so that frees can be accounted.
const size_t kHeader = alignof(std::max_align_t);

void* countedAllocate(size_t size) {
    auto* block = static_cast<unsigned char*>(malloc(size + kHeader));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    *reinterpret_cast<size_t*>(block) = size;
    if (gStats.counting) {
        ++gStats.allocations;
        gStats.liveBytes += static_cast<long long>(size);
        if (gStats.liveBytes > gStats.peakLiveBytes) {
            gStats.peakLiveBytes = gStats.liveBytes;
        }
    }
    return block + kHeader;
}

void countedFree(void* pointer) {
    if (pointer == nullptr) {
        return;
    }
    unsigned char* block = static_cast<unsigned char*>(pointer) - kHeader;
    if (gStats.counting) {
        gStats.liveBytes -= static_cast<long long>(*reinterpret_cast<size_t*>(block));
    }
    free(block);
}

}  // namespace

void* operator new(size_t size) {
    return countedAllocate(size);
}
void* operator new[](size_t size) {
    return countedAllocate(size);
}
void operator delete(void* pointer) noexcept {
    countedFree(pointer);
}
void operator delete[](void* pointer) noexcept {
    countedFree(pointer);
}
void operator delete(void* pointer, size_t) noexcept {
    countedFree(pointer);
}
void operator delete[](void* pointer, size_t) noexcept {
    countedFree(pointer);
}

namespace {

TEST(WriterMemoryTest, TwoHourRecordingKeepsItsTablesInAFewMegabytesWithoutPerSampleAllocation) {
    const long long kTwoHoursTicks = 2LL * 3600 * 22500;
    WriterHarness harness;
    harness.addVideo();
    harness.addAudio();
    ASSERT_EQ(0, harness.start());
    ASSERT_EQ(0, harness.feedParameterSets());
    const Bytes videoSample = patternBytes(24, 1);
    const Bytes audioSample = patternBytes(12, 2);

    gStats = AllocationStats();
    gStats.counting = true;
    long long videoTime = 0, audioTime = 0;
    int videoSamples = 0, audioSamples = 0;
    while (videoTime < kTwoHoursTicks || audioTime < kTwoHoursTicks) {
        if (videoTime <= audioTime) {
            ASSERT_EQ(0, harness.feed(kVideoMime, videoTime, videoSample, videoSamples % 25 == 0));
            ++videoSamples;
            videoTime += 900;
        } else {
            ASSERT_EQ(0, harness.feed(kAudioMime, audioTime, audioSample));
            ++audioSamples;
            audioTime += 960;
        }
    }
    gStats.counting = false;
    RecordProperty("peakLiveBytes", std::to_string(gStats.peakLiveBytes));
    RecordProperty("allocations", std::to_string(gStats.allocations));

    EXPECT_LT(gStats.peakLiveBytes, 4LL * 1024 * 1024) << "tables of two hours";
    EXPECT_LT(gStats.allocations, 200u) << (videoSamples + audioSamples) << " samples";

    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    EXPECT_EQ(180000u, file.tables(*file.find("moov/trak", 0)).sizes.size());
    EXPECT_EQ(168750u, file.tables(*file.find("moov/trak", 1)).sizes.size());
}

}  // namespace
