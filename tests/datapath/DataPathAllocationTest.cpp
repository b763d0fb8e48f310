// The data path allocates nothing per item or frame: every heap allocation of the process
// (through the C library, which new uses too) is counted while a burst of frames goes through.
#include <gtest/gtest.h>

#include <atomic>

#include "ChildProcess.h"
#include "EngineDataPath.h"

static std::atomic<long> gAllocations{0};

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* pointer, size_t size);
extern "C" void* malloc(size_t size) {
    return ++gAllocations, __libc_malloc(size);
}
extern "C" void* calloc(size_t count, size_t size) {
    return ++gAllocations, __libc_calloc(count, size);
}
extern "C" void* realloc(void* pointer, size_t size) {
    return ++gAllocations, __libc_realloc(pointer, size);
}

TEST(DataPathAllocation, BurstOfFramesAllocatesNothing) {
    EXPECT_IN_CHILD({
        // The default switches (ERROR, WARNING, MAIN): one log line per frame and session.
        AGENT_BENCH(bench, agentSide, "ERROR,WARNING,MAIN");
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        ASSERT_EQ(0, bench.startService(1, 7, 40));
        Bytes unit = nalUnit(4, 0x65, 900), first = nalUnit(3, 0x41, 400), middle = pattern(300),
              audio = pattern(180);
        auto frame = [&](int index) {
            agentSide->onOutputAVStart(40, nullptr, 0);
            for (int i = 0; i < 20; ++i)
                sendNal(agentSide, 40, unit, MBBMSAgent::NAL_FRAGMENT_COMPLETE, index);
            sendNal(agentSide, 40, first, MBBMSAgent::NAL_FRAGMENT_START, index);
            sendNal(agentSide, 40, middle, MBBMSAgent::NAL_FRAGMENT_MIDDLE, index);
            sendNal(agentSide, 40, middle, MBBMSAgent::NAL_FRAGMENT_END, index);
            for (int i = 0; i < 10; ++i)
                sendAac(agentSide, 40, audio, index, i);
            agentSide->onOutputAVEnd(40, false);
        };
        frame(0);  // anything done once, lazily, happens here
        // The counter sees allocations made through the C library and through new.
        void* (*volatile allocate)(size_t) = malloc;
        void* (*volatile allocateObject)(size_t) = static_cast<void* (*)(size_t)>(::operator new);
        const long probe = gAllocations.load();
        free(allocate(64));
        ::operator delete(allocateObject(64));
        ASSERT_EQ(probe + 2, gAllocations.load());

        const long before = gAllocations.load();
        for (int index = 1; index <= 200; ++index)
            frame(index);
        EXPECT_EQ(0, gAllocations.load() - before);
        EXPECT_EQ(21u, bench.buffer(0)->nalCount);
        EXPECT_EQ(10u, bench.buffer(1)->aacCount);
        // Nobody reads: every frame after the first replaces an unfetched one, per session.
        EXPECT_EQ(400, bench.root().countLog("A/V DATA LOST(nalCount=21, aacCount=10)"));
    });
}
