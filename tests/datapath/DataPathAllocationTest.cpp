// The data path allocates nothing per item or per frame. Every heap allocation of the
// process (operator new and malloc) is counted while a burst of frames goes through the
// engine's agent callbacks.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "ChildProcess.h"
#include "EngineDataPath.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TAVO_COUNT_ALLOCATIONS 0  // the sanitizers own the allocator
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TAVO_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef TAVO_COUNT_ALLOCATIONS
#define TAVO_COUNT_ALLOCATIONS 1
#endif

namespace {
std::atomic<long> gAllocations{0};
}  // namespace

#if TAVO_COUNT_ALLOCATIONS
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* pointer, size_t size);
extern "C" void* malloc(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_realloc(pointer, size);
}
void* operator new(size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    void* pointer = __libc_malloc(size != 0 ? size : 1);
    if (pointer == nullptr)
        throw std::bad_alloc();
    return pointer;
}
void operator delete(void* pointer) noexcept {
    free(pointer);
}
void operator delete(void* pointer, size_t) noexcept {
    free(pointer);
}
#endif

namespace {

TEST(DataPathAllocation, BurstOfFramesAllocatesNothing) {
#if !TAVO_COUNT_ALLOCATIONS
    GTEST_SKIP() << "allocation counting is not possible under a sanitizer's allocator";
#else
    EXPECT_IN_CHILD({
        // The default switches (ERROR, WARNING, MAIN): one line per frame and session.
        EngineDataPath::Options options;
        options.logMask = "ERROR,WARNING,MAIN";
        EngineDataPath bench(options);
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 40));
        MBBMSAgentCallback* agentSide = bench.agent->callback();
        ASSERT_NE(nullptr, agentSide);

        Bytes unit = nalUnit(4, 0x65, 900);
        Bytes first = nalUnit(3, 0x41, 400), middle = pattern(300), audio = pattern(180);
        auto frame = [&](int index) {
            agentSide->onOutputAVStart(40, nullptr, 0);
            for (int i = 0; i < 20; ++i)
                agentSide->onClearVideoNalData(40, index, i, unit.data(), unit.size(),
                                               MBBMSAgent::NAL_FRAGMENT_COMPLETE);
            agentSide->onClearVideoNalData(40, index, 0, first.data(), first.size(),
                                           MBBMSAgent::NAL_FRAGMENT_START);
            agentSide->onClearVideoNalData(40, index, 0, middle.data(), middle.size(),
                                           MBBMSAgent::NAL_FRAGMENT_MIDDLE);
            agentSide->onClearVideoNalData(40, index, 0, middle.data(), middle.size(),
                                           MBBMSAgent::NAL_FRAGMENT_END);
            for (int i = 0; i < 10; ++i)
                agentSide->onClearAudioAacFrame(40, index, i, audio.data(), audio.size());
            agentSide->onOutputAVEnd(40, false);
        };
        frame(0);  // anything done once, lazily, happens here
        // The counter sees allocations made through the C library.
        void* (*volatile allocate)(size_t) = malloc;
        const long probe = gAllocations.load();
        free(allocate(64));
        ASSERT_EQ(probe + 1, gAllocations.load());

        const long before = gAllocations.load();
        for (int index = 1; index <= 200; ++index)
            frame(index);
        const long allocations = gAllocations.load() - before;
        EXPECT_EQ(0, allocations);
        EXPECT_EQ(21u, bench.buffer(0)->nalCount);
        EXPECT_EQ(10u, bench.buffer(1)->aacCount);
        // Nobody reads: every frame after the first replaces an unfetched one, per session.
        EXPECT_EQ(400, bench.root.countLog("A/V DATA LOST(nalCount=21, aacCount=10)"));
    });
#endif
}

}  // namespace
