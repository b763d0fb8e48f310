// The frame bracket's lease on the session manager: deinit revokes it between two calls, and
// a call that finds no lease (another thread, or after the revocation) takes the counted path.
// Also under the sanitizers (label "tsan"), which catch a call that uses a deleted manager.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "EngineDataPath.h"

// A race report fails the test, also inside the child.
extern "C" const char* __tsan_default_options() {
    return "halt_on_error=1:exitcode=66";
}

namespace {

const int kChannel = 40;
const auto kBound = std::chrono::seconds(10);

// deinit while the agent's thread delivers frames back to back and application threads wait
// behind the open frame: the abandoned frame is ended, every waiting call returns, the agent's
// later calls are dropped, and after a new init frames flow again, whole.
TEST(DataPathLease, DeinitWhileTheAgentThreadDeliversInsideFramesRevokesTheFrame) {
    EXPECT_IN_CHILD({
        AGENT_BENCH(bench, agentSide, "ERROR,WARNING", false);
        Bytes unit = nalUnit(4, 0x41, 200);
        Bytes audio = pattern(100);
        for (int iteration = 0; iteration < 40; ++iteration) {
            if (iteration > 0) {
                ASSERT_EQ(0, bench.init());
            }
            ASSERT_EQ(0, bench.startService(0, 7, kChannel));
            ASSERT_EQ(0, bench.startService(1, 7, kChannel));

            std::atomic<bool> running{true};
            std::atomic<long> frames{0};
            AsyncCall agentThread([&] {
                while (running.load()) {
                    agentSide->onOutputAVStart(kChannel, nullptr, 0);
                    for (int i = 0; i < 100; ++i) {
                        sendNal(agentSide, kChannel, unit);
                        sendAac(agentSide, kChannel, audio);
                    }
                    agentSide->onOutputAVEnd(kChannel, false);
                    frames++;
                }
            });
            ASSERT_TRUE(holdsWithin(kBound, [&] { return frames.load() > iteration % 3; }))
                << "no frame went through, iteration " << iteration;

            std::vector<AsyncCall> waiting;
            waiting.emplace_back([&] { bench.engine().stopTVService(0); });
            waiting.emplace_back([&] { bench.startService(1, 7, kChannel); });
            waiting.emplace_back([&] { bench.engine().stopRecording(1); });
            // Sometimes they are already blocked behind a frame, sometimes not yet.
            if (iteration % 2 == 0)
                std::this_thread::sleep_for(std::chrono::milliseconds(2));

            AsyncCall deinit([&] { bench.engine().deinit(); });
            ASSERT_TRUE(deinit.endsWithin(kBound)) << "deinit hangs, iteration " << iteration;
            for (AsyncCall& call : waiting)
                ASSERT_TRUE(call.endsWithin(kBound))
                    << "start or stop hangs, iteration " << iteration;
            // The agent goes on delivering into an engine without a session manager.
            const long afterDeinit = frames.load();
            EXPECT_TRUE(holdsWithin(kBound, [&] { return frames.load() >= afterDeinit + 2; }))
                << "the agent's thread is stuck";
            running.store(false);
            ASSERT_TRUE(agentThread.endsWithin(kBound));
        }
        // Most deinits met an open frame, whose end never reached the manager.
        EXPECT_GT(bench.root().countLog("is abandoned, its buffers are unlocked"), 10);

        // A frame open across deinit and a new init: the old frame's later calls and its end
        // reach no manager, not even the new one on the same channel.
        ASSERT_EQ(0, bench.init());
        ASSERT_EQ(0, bench.startService(0, 7, kChannel));

        agentSide->onOutputAVStart(kChannel, nullptr, 0);
        sendNal(agentSide, kChannel, unit);
        AsyncCall deinit([&] { bench.engine().deinit(); });
        ASSERT_TRUE(deinit.endsWithin(kBound));
        ASSERT_EQ(0, bench.init());
        ASSERT_EQ("",
                  bench.reader.connect(bench.serverPath(), bench.root().path() + "/lease.socket"));
        ASSERT_EQ(0, bench.startService(0, 7, kChannel));

        // Still the old frame, from the agent's point of view.
        sendNal(agentSide, kChannel, unit);
        agentSide->onOutputAVEnd(kChannel, false);
        EXPECT_EQ(0u, bench.buffer(0)->nalCount);
        EXPECT_EQ(0u, bench.buffer(0)->dataLength);
        EXPECT_EQ(1, valueOf(&bench.buffer(0)->mutexDataAccessable));

        Bytes units[3] = {nalUnit(4, 0x65, 80, 1), nalUnit(4, 0x41, 90, 2),
                          nalUnit(3, 0x41, 100, 3)};
        deliverFrame(agentSide, kChannel, units, 3);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame, 5000));
        ASSERT_EQ(3u, frame.nals.size());
        EXPECT_EQ(Bytes(units[2].begin() + 3, units[2].end()), frame.nals[2]);

        // Calls of a frame made on another thread than its start take the counted path and are
        // still written into the frame.
        agentSide->onOutputAVStart(kChannel, nullptr, 0);
        std::thread([&] {
            sendNal(agentSide, kChannel, units[1]);
            sendAac(agentSide, kChannel, audio);
        }).join();
        agentSide->onOutputAVEnd(kChannel, false);
        ASSERT_TRUE(bench.reader.readFrame(0, &frame, 5000));
        ASSERT_EQ(1u, frame.nals.size());
        EXPECT_EQ(Bytes(units[1].begin() + 4, units[1].end()), frame.nals[0]);
        ASSERT_EQ(1u, frame.aacs.size());
        EXPECT_EQ(audio.size() + 7, frame.aacs[0].size());
    });
}

}  // namespace
