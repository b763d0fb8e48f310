// deinit ends everything that init and the engine's operations started, and no callback
// reaches the application after it. Faults come through the platform's Env, so this suite
// links the engine's objects; each test runs in a child.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "EngineRig.h"
#include "FaultInjectingEnv.h"
#include "OpenDescriptors.h"
#include "UniqueHandle.h"

namespace {

const int kChannel = 4;

int startService(EngineRig& rig, int session) {
    IsmaPara isma{};
    isma.serviceID = 9;
    rig.agent().setNextChannelID(kChannel);
    return rig.engine().startTVService(session, 20, 1, 2, 3, &isma);
}

// Results and events the agent keeps raising after deinit: none may reach the application.
void expectNoLateCallbacks(EngineRig& rig) {
    rig.app().clear();
    rig.fromAgent([](MBBMSAgentCallback& callback) {
        callback.onScanFinished(true);
        callback.onEvent(static_cast<EventType>(99), 1);
        callback.onRequestInitGBA(true);
    });
    EXPECT_EQ(std::vector<std::string>{}, rig.app().calls()) << "a callback after deinit";
}

}  // namespace

// Two rounds, as init and deinit may alternate: each time both sessions record, both
// recordings end inside one frame (storage full) and are still to be completed when deinit
// is called.
TEST(DeinitTeardown, ThreadsAndDescriptorsAreBackAndPendingRecordingsAreReportedBeforeItReturns) {
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        EngineRig rig("ERROR,WARNING,MAIN,ENGINE");
        TavoMBBMSEngine& engine = rig.engine();
        const int threadsBefore = threadCount();
        const int descriptorsBefore = openDescriptors();

        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            rig.app().clear();
            env.setFreeBytes(-1);
            ASSERT_EQ(0, rig.init());
            for (int session : {0, 1}) {
                // A recording takes a descriptor positioned at byte 0: fresh files each round.
                const std::string path = rig.root().path() + "/s" + std::to_string(session);
                UniqueFd output(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
                ASSERT_TRUE(output.valid());
                ASSERT_EQ(0, startService(rig, session));
                ASSERT_EQ(0, engine.startRecording(session, output.get()));
            }
            env.setFreeBytes((1 << 20) - 1);
            rig.fromAgent([](MBBMSAgentCallback& callback) {
                callback.onOutputAVStart(kChannel, nullptr, 0);
                callback.onOutputAVEnd(kChannel, false);
            });
            EXPECT_FALSE(engine.isRecording(0));
            EXPECT_FALSE(engine.isRecording(1));

            ASSERT_EQ(0, engine.deinit());
            // Both recordings were completed and reported (card gone or storage full) before
            // deinit returned.
            EXPECT_EQ(2, rig.app().count("onEvent(151, ") + rig.app().count("onEvent(152, "));
            EXPECT_EQ(threadsBefore, threadCountSettledAt(threadsBefore));
            EXPECT_EQ(descriptorsBefore, openDescriptors());
            expectNoLateCallbacks(rig);
        }
    });
}

// An application callback in flight on the agent's thread when another thread calls deinit:
// deinit returns only after it has returned. Then init and deinit race on two threads while
// the agent keeps raising events: whichever wins, nothing crashes or hangs, and once the last
// deinit has returned no callback follows.
TEST(DeinitTeardown, WaitsForACallbackInFlightAndRacingInitAndDeinitLeaveNoLateCallback) {
    EXPECT_IN_CHILD({
        struct SlowApp : RecordingCallback {
            std::atomic<bool> entered{false};
            std::atomic<bool> returned{false};
            void onScanFinished(bool done) override {
                entered = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                RecordingCallback::onScanFinished(done);
                returned = true;
            }
        };
        EngineRig rig;
        SlowApp app;
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.agent().postToAgentThread(
            [](MBBMSAgentCallback* callback) { callback->onScanFinished(true); });
        while (!app.entered)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(0, rig.engine().deinit());
        EXPECT_TRUE(app.returned.load()) << "deinit returned while a callback was in flight";
        rig.agent().drainAgentThread();

        FakeAgentControl& agent = rig.agent();
        std::atomic<bool> racing{true};
        std::thread events([&] {
            while (racing) {
                agent.runOnAgentThread([](MBBMSAgentCallback* callback) {
                    if (callback != nullptr)
                        callback->onEvent(static_cast<EventType>(99), 1);
                });
            }
        });
        std::atomic<int> initialised{0};
        auto cycle = [&] {
            for (int i = 0; i < 30; ++i) {
                initialised += rig.init() == 0;
                rig.engine().deinit();
            }
        };
        std::thread first(cycle), second(cycle);
        first.join();
        second.join();
        racing = false;
        events.join();
        EXPECT_EQ(60, initialised.load());
        EXPECT_GT(rig.app().count("onEvent(99, 1)"), 0) << "the events never met an open engine";
        ASSERT_EQ(0, rig.engine().deinit());
        expectNoLateCallbacks(rig);
    });
}
