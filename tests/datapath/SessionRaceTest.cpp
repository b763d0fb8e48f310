// Sessions started and stopped while the agent delivers frames and a play engine reads them:
// every frame read is whole (all units or, after a reset, none), no lock is left taken.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"

// A race report fails the test, also inside the child.
extern "C" const char* __tsan_default_options() {
    return "halt_on_error=1:exitcode=66";
}

namespace {

const int kChannel = 40;
const int kUnits = 6;

TEST(SessionRace, StartAndStopRacingWithFrameDeliveryKeepFramesWhole) {
    EXPECT_IN_CHILD({
        AGENT_BENCH(bench, agentSide, "ERROR,WARNING");
        Bytes units[kUnits];
        for (int i = 0; i < kUnits; ++i)
            units[i] = nalUnit(4, 0x41, 64 + i, static_cast<unsigned char>(i));

        std::atomic<bool> running{true};
        std::atomic<long> broken{0}, framesRead{0}, framesDelivered{0};
        std::thread agentThread([&] {
            while (running.load()) {
                deliverFrame(agentSide, kChannel, units, kUnits);
                framesDelivered++;
                // Pacing, so that the reader gets the lock.
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        std::thread readerThread([&] {
            while (running.load()) {
                ReadFrame frame;
                for (int s = 0; s < 2; ++s) {
                    if (!bench.reader.readFrame(s, &frame, 5))
                        continue;
                    bool whole = frame.nals.empty() || frame.nals.size() == kUnits;
                    for (size_t i = 0; whole && i < frame.nals.size(); ++i)
                        whole = frame.nals[i] == Bytes(units[i].begin() + 4, units[i].end());
                    framesRead++;
                    broken += !whole;
                }
            }
        });
        auto letFramesThrough = [&](long count) {
            const long target = framesDelivered.load() + count;
            holdsWithin(std::chrono::seconds(20), [&] { return framesDelivered.load() >= target; });
        };
        int started = 0;
        for (int round = 0; round < 300; ++round) {
            started += bench.startService(round % 2, 7, kChannel) == 0;
            if (round % 3 == 0)
                letFramesThrough(1);
            started += bench.startService((round + 1) % 2, 7, kChannel) == 0;
            letFramesThrough(2);
            bench.engine().stopTVService(round % 2);
            bench.engine().stopTVService((round + 1) % 2);
        }
        running.store(false);
        agentThread.join();
        readerThread.join();

        EXPECT_EQ(600, started);
        EXPECT_EQ(0, broken.load());
        EXPECT_GT(framesRead.load(), 0);
        EXPECT_EQ(300, bench.agent().countCalls("stopService"));
        for (int s = 0; s < 2; ++s)
            EXPECT_EQ(1, valueOf(&bench.buffer(s)->mutexDataAccessable)) << "left locked: " << s;
        EXPECT_EQ(0, bench.startService(0, 7, kChannel));
        EXPECT_EQ(0, bench.engine().stopTVService(0));
    });
}

}  // namespace
