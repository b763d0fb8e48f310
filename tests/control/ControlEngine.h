// The engine of the current (child) process, created with the fake agent and every log
// category switched on, plus an application callback that records what reaches it.
#ifndef TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
#define TAVO_TESTS_CONTROL_CONTROL_ENGINE_H

#include <functional>
#include <string>

#include "FakeAgentControl.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

class ControlEngine {
public:
    // Creates the engine (the first getInstance of the process); does not init it.
    explicit ControlEngine(const std::string& agentLibrary = TestRoot::fakeAgentPath());

    // init with the recording callback, or with none.
    int init() { return mEngine->init(&mApp, nullptr); }
    int initWithoutCallback() { return mEngine->init(nullptr, nullptr); }

    TavoMBBMSEngine& engine() { return *mEngine; }
    RecordingCallback& app() { return mApp; }
    const TestRoot& root() const { return mRoot; }
    // The fake agent the engine created; fails the test when there is none.
    FakeAgentControl& agent();

    // Plays agent callbacks on the fake agent's own thread and waits for them.
    void fromAgent(const std::function<void(MBBMSAgentCallback&)>& play);

    // Number of log lines "[LogMask::<category>][<function>():<line>]<message>".
    int countLogLine(const std::string& category, const std::string& function,
                     const std::string& message) const;

private:
    TestRoot mRoot;
    RecordingCallback mApp;
    TavoMBBMSEngine* mEngine;
};

#endif  // TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
