// Sessions started and stopped on an application thread while the agent delivers frames on
// its own thread and a play engine reads them: the bracket keeps every frame whole (a
// reader sees all of a frame's items or, after a reset, none) and no lock is left taken.
// Also built under ThreadSanitizer (label "tsan").
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"

#if defined(__SANITIZE_THREAD__)
#define TAVO_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TAVO_UNDER_TSAN 1
#endif
#endif

#ifdef TAVO_UNDER_TSAN
// A race report must fail the test, also inside the child process that runs its body.
extern "C" const char* __tsan_default_options() {
    return "halt_on_error=1:exitcode=66";
}
#endif

namespace {

const int kChannel = 40;
const int kUnitsPerFrame = 6;

TEST(SessionRace, StartAndStopRacingWithFrameDeliveryKeepFramesWhole) {
    EXPECT_IN_CHILD({
        EngineDataPath::Options options;
        options.logMask = "ERROR,WARNING";
        EngineDataPath bench(options);
        ASSERT_EQ("", bench.setUpError());
        bench.agent->setNextChannelID(kChannel);  // every start gets the same channel
        MBBMSAgentCallback* agentSide = bench.agent->callback();
        ASSERT_NE(nullptr, agentSide);

        std::atomic<bool> running{true};
        std::atomic<int> torn{0}, corrupted{0}, framesRead{0};
        std::atomic<long> framesDelivered{0};

        // The agent: frames of kUnitsPerFrame units, each unit's bytes derived from its index.
        std::thread agentThread([&] {
            Bytes units[kUnitsPerFrame];
            for (int i = 0; i < kUnitsPerFrame; ++i)
                units[i] = nalUnit(4, 0x41, 64 + i, static_cast<unsigned char>(i));
            while (running.load()) {
                agentSide->onOutputAVStart(kChannel, nullptr, 0);
                for (int i = 0; i < kUnitsPerFrame; ++i)
                    agentSide->onClearVideoNalData(kChannel, i, 0, units[i].data(),
                                                   static_cast<unsigned short>(units[i].size()),
                                                   MBBMSAgent::NAL_FRAGMENT_COMPLETE);
                agentSide->onOutputAVEnd(kChannel, false);
                framesDelivered.fetch_add(1);
                // Pacing, as between real multiplex frames, so that the reader gets the lock.
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        // The play engine: reads frames of both sessions as they are signalled.
        std::thread readerThread([&] {
            while (running.load()) {
                for (int s = 0; s < 2; ++s) {
                    ReadFrame frame;
                    if (!bench.reader.readFrame(s, &frame, 5))
                        continue;
                    framesRead.fetch_add(1);
                    if (!frame.nals.empty() && frame.nals.size() != kUnitsPerFrame)
                        torn.fetch_add(1);
                    for (size_t i = 0; i < frame.nals.size(); ++i) {
                        Bytes expected = nalUnit(4, 0x41, 64 + i, static_cast<unsigned char>(i));
                        if (frame.nals[i].bytes != Bytes(expected.begin() + 4, expected.end()))
                            corrupted.fetch_add(1);
                    }
                }
            }
        });

        // The application: attaches and detaches both sessions, sharing and not sharing.
        // Lets a few frames through while sessions are attached (bounded, so that a stuck
        // agent fails the test instead of hanging it).
        auto letFramesThrough = [&](long count) {
            const long target = framesDelivered.load() + count;
            const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (framesDelivered.load() < target && std::chrono::steady_clock::now() < giveUp)
                std::this_thread::yield();
        };
        int started = 0;
        for (int round = 0; round < 300; ++round) {
            started += bench.startService(round % 2, 7, kChannel) == 0;
            if (round % 3 == 0)
                letFramesThrough(1);
            started += bench.startService((round + 1) % 2, 7, kChannel) == 0;
            letFramesThrough(2);
            bench.engine->stopTVService(round % 2);
            bench.engine->stopTVService((round + 1) % 2);
        }
        running.store(false);
        agentThread.join();
        readerThread.join();

        EXPECT_EQ(600, started);
        EXPECT_EQ(0, torn.load());
        EXPECT_EQ(0, corrupted.load());
        EXPECT_GT(framesRead.load(), 0);
        EXPECT_EQ(300, bench.agent->countCalls("stopService"));
        for (int s = 0; s < 2; ++s)
            EXPECT_EQ(1, EngineDataPath::valueOf(&bench.buffer(s)->mutexDataAccessable))
                << "buffer " << s << " left locked";
        // The session lock is free: a last start and stop go through.
        EXPECT_EQ(0, bench.startService(0, 7, kChannel));
        EXPECT_EQ(0, bench.engine->stopTVService(0));
    });
}

}  // namespace
