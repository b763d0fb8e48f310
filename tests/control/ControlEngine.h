// The engine of the current (child) process, created with the fake agent and every log
// category switched on, plus an application callback that records what reaches it.
#ifndef TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
#define TAVO_TESTS_CONTROL_CONTROL_ENGINE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "FakeAgentAccess.h"
#include "FakeAgentControl.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

class ControlEngine {
public:
    // The first getInstance of the process; TAVO_LOGMASK is read by the engine's constructor.
    ControlEngine() {
        setenv("TAVO_LOGMASK", "all", 1);
        mEngine = TavoMBBMSEngine::getInstance();
    }

    int init() { return mEngine->init(&mApp, nullptr); }
    int initWithoutCallback() { return mEngine->init(nullptr, nullptr); }
    TavoMBBMSEngine& engine() { return *mEngine; }
    RecordingCallback& app() { return mApp; }
    const TestRoot& root() const { return mRoot; }

    // The fake agent the engine created (a missing one crashes the child, failing the test).
    FakeAgentControl& agent() { return *fakeAgentAt(mRoot.resolve("/system/lib/libsiano.so")); }

    // Plays agent callbacks on the fake agent's own thread and waits for them.
    void fromAgent(const std::function<void(MBBMSAgentCallback&)>& play) {
        agent().runOnAgentThread([&](MBBMSAgentCallback* callback) {
            ASSERT_NE(nullptr, callback) << "the agent has no engine callback yet";
            play(*callback);
        });
    }

    int countLogLine(const std::string& category, const std::string& function,
                     const std::string& message) const {
        return mRoot.countLogLine(category, function, message);
    }

private:
    TestRoot mRoot;
    RecordingCallback mApp;
    TavoMBBMSEngine* mEngine;
};

#endif  // TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
