// deinit ends everything that init and the engine's operations started: threads and
// descriptors are back to what they were before init, recordings that had ended inside a
// frame are completed and reported before deinit returns, and no callback reaches the
// application after that, also one that was in flight on another thread. Faults come through
// the platform's Env, so this suite links the engine's objects; each test runs in a child.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "FakeAgentAccess.h"
#include "FaultInjectingEnv.h"
#include "OpenDescriptors.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"
#include "UniqueHandle.h"

namespace {

const int kChannel = 4;
const long long kMiB = 1 << 20;

int startService(TavoMBBMSEngine* engine, FakeAgentControl* agent, int session) {
    IsmaPara isma;
    memset(&isma, 0, sizeof(isma));
    isma.serviceID = 9;
    agent->setNextChannelID(kChannel);
    return engine->startTVService(session, 20, 1, 2, 3, &isma);
}

void playEmptyFrame(FakeAgentControl* agent) {
    agent->runOnAgentThread([](MBBMSAgentCallback* callback) {
        callback->onOutputAVStart(kChannel, nullptr, 0);
        callback->onOutputAVEnd(kChannel, false);
    });
}

// Results and events the agent keeps raising after deinit.
void playLateCallbacks(FakeAgentControl* agent) {
    agent->runOnAgentThread([](MBBMSAgentCallback* callback) {
        callback->onScanFinished(true);
        callback->onEvent(static_cast<EventType>(99), 1);
        callback->onRequestInitGBA(true);
    });
}

}  // namespace

// Two rounds, as init and deinit may alternate: each time both sessions record, both
// recordings end inside one frame (storage full) and are still to be completed when deinit
// is called.
TEST(DeinitTeardown, ThreadsAndDescriptorsAreBackAndPendingRecordingsAreReportedBeforeItReturns) {
    EXPECT_IN_CHILD({
        setenv("TAVO_LOGMASK", "ERROR,WARNING,MAIN,ENGINE", 1);
        FaultInjectingEnv env;
        TestRoot root;
        RecordingCallback app;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        FakeAgentControl* agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
        ASSERT_NE(nullptr, agent);
        const int threadsBefore = threadCount();
        const int descriptorsBefore = openDescriptors();

        for (int round = 0; round < 2; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            // A recording takes a descriptor positioned at byte 0: fresh files each round.
            UniqueFd outputs[2] = {
                UniqueFd(open((root.path() + "/s0.3gp").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644)),
                UniqueFd(
                    open((root.path() + "/s1.3gp").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644))};
            ASSERT_TRUE(outputs[0].valid());
            ASSERT_TRUE(outputs[1].valid());
            app.clear();
            env.setFreeBytes(-1);
            ASSERT_EQ(0, engine->init(&app, nullptr));
            ASSERT_EQ(0, startService(engine, agent, 0));
            ASSERT_EQ(0, startService(engine, agent, 1));
            ASSERT_EQ(0, engine->startRecording(0, outputs[0].get()));
            ASSERT_EQ(0, engine->startRecording(1, outputs[1].get()));
            env.setFreeBytes(kMiB - 1);
            playEmptyFrame(agent);
            EXPECT_FALSE(engine->isRecording(0));
            EXPECT_FALSE(engine->isRecording(1));

            ASSERT_EQ(0, engine->deinit());
            // Both recordings were completed and reported (card gone or storage full) before
            // deinit returned.
            EXPECT_EQ(2, app.count("onEvent(151, ") + app.count("onEvent(152, "));
            outputs[0].reset();
            outputs[1].reset();
            EXPECT_EQ(threadsBefore, threadCountSettledAt(threadsBefore));
            EXPECT_EQ(descriptorsBefore, openDescriptors());

            app.clear();
            playLateCallbacks(agent);
            EXPECT_EQ(std::vector<std::string>{}, app.calls()) << "a callback after deinit";
        }
    });
}

// An application callback in flight on the agent's thread when another thread calls deinit:
// deinit returns only after it has returned.
TEST(DeinitTeardown, WaitsForACallbackInFlightOnAnotherThread) {
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
        TestRoot root;
        SlowApp app;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        FakeAgentControl* agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
        ASSERT_NE(nullptr, agent);
        ASSERT_EQ(0, engine->init(&app, nullptr));
        agent->postToAgentThread(
            [](MBBMSAgentCallback* callback) { callback->onScanFinished(true); });
        while (!app.entered)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(0, engine->deinit());
        EXPECT_TRUE(app.returned.load()) << "deinit returned while a callback was in flight";
        agent->drainAgentThread();

        // A later init opens the callbacks again.
        app.clear();
        ASSERT_EQ(0, engine->init(&app, nullptr));
        playLateCallbacks(agent);
        EXPECT_EQ(1, app.count("onScanFinished(1)"));
        EXPECT_EQ(0, engine->deinit());
    });
}

// init and deinit racing on two threads while the agent keeps raising events: whichever wins,
// nothing crashes or hangs, and once the last deinit has returned no callback follows.
TEST(DeinitTeardown, RacingInitAndDeinitLeaveNoCallbackAfterTheLastDeinit) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback app;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        FakeAgentControl* agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
        ASSERT_NE(nullptr, agent);
        std::atomic<bool> racing{true};
        std::thread events([&] {
            while (racing) {
                agent->runOnAgentThread([](MBBMSAgentCallback* callback) {
                    if (callback != nullptr)
                        callback->onEvent(static_cast<EventType>(99), 1);
                });
            }
        });
        std::atomic<int> initialised{0};
        auto cycle = [&] {
            for (int i = 0; i < 30; ++i) {
                if (engine->init(&app, nullptr) == 0)
                    ++initialised;
                engine->deinit();
            }
        };
        std::thread first(cycle), second(cycle);
        first.join();
        second.join();
        racing = false;
        events.join();
        EXPECT_EQ(60, initialised.load());
        EXPECT_GT(app.count("onEvent(99, 1)"), 0) << "the events never met an open engine";
        ASSERT_EQ(0, engine->deinit());
        app.clear();
        playLateCallbacks(agent);
        EXPECT_EQ(std::vector<std::string>{}, app.calls());
    });
}
