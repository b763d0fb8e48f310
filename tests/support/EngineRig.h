// The engine of the current (child) process over a private android root with the fake agent
// installed, and an application callback that records what reaches it. Header only: each test
// links the engine its own way (the public library or the engine's objects).
#ifndef TAVO_TESTS_SUPPORT_ENGINE_RIG_H
#define TAVO_TESTS_SUPPORT_ENGINE_RIG_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "FakeAgentAccess.h"
#include "FakeAgentControl.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

class EngineRig {
public:
    using Properties = std::vector<std::pair<std::string, std::string>>;

    // Creates the engine (the first getInstance of the process) with the log switches of
    // `logMask`, which the engine's constructor reads; `properties` (name, value) are set first.
    explicit EngineRig(const char* logMask = "all", const Properties& properties = {}) {
        setenv("TAVO_LOGMASK", logMask, 1);
        for (const auto& property : properties)
            mRoot.setProperty(property.first, property.second);
        mEngine = TavoMBBMSEngine::getInstance();
    }
    EngineRig(const EngineRig&) = delete;
    EngineRig& operator=(const EngineRig&) = delete;

    int init() { return mEngine->init(&mApp, nullptr); }
    int initWithoutCallback() { return mEngine->init(nullptr, nullptr); }

    TavoMBBMSEngine& engine() { return *mEngine; }
    RecordingCallback& app() { return mApp; }
    const TestRoot& root() const { return mRoot; }
    // The socket the engine's command server listens on.
    std::string serverPath() const { return mRoot.resolve("/data/app/cmmb.socket"); }

    // The fake agent the engine created; a missing one fails the test and ends the child.
    FakeAgentControl& agent() const {
        FakeAgentControl* agent = fakeAgentAt(mRoot.resolve("/system/lib/libsiano.so"));
        if (agent == nullptr) {
            ADD_FAILURE() << "the engine has no fake agent";
            abort();
        }
        return *agent;
    }

    // Plays agent callbacks on the fake agent's own thread and waits for them.
    void fromAgent(const std::function<void(MBBMSAgentCallback&)>& play) const {
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

#endif  // TAVO_TESTS_SUPPORT_ENGINE_RIG_H
