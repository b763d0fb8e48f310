// The engine of the current (child) process, created with the fake agent and every log
// category switched on, plus an application callback that records what reaches it; and the
// table of MBBMS requests the control tests issue.
#ifndef TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
#define TAVO_TESTS_CONTROL_CONTROL_ENGINE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

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

// Arguments of the requests.
inline const char* kIds[] = {"service-1", "service-2"};
inline int kList[] = {1, 2};

struct Request {
    int number;  // the engine's pending-request number, as printed in its refusal
    const char* name;
    bool mbbmsOnly;
    std::function<int(TavoMBBMSEngine&)> issue;
    std::function<void(MBBMSAgentCallback&)> complete;  // the agent's completion
    const char* appCompletion;                          // as the application receives it
};

// Every MBBMS request, with the completion that ends it.
inline std::vector<Request> allRequests() {
    return {
        {1, "requestUpdateSG", true, [](TavoMBBMSEngine& e) { return e.requestUpdateSG("bj"); },
         [](MBBMSAgentCallback& c) { c.onRequestUpdateSG(true, "info", "info2"); },
         "onRequestUpdateSG(1, info, info2)"},
        {2, "requestInitGBA", true, [](TavoMBBMSEngine& e) { return e.requestInitGBA(1); },
         [](MBBMSAgentCallback& c) { c.onRequestInitGBA(false); }, "onRequestInitGBA(0)"},
        {3, "requestAuthorizeService", true,
         [](TavoMBBMSEngine& e) { return e.requestAuthorizeService(kList, kList, kIds, 2); },
         [](MBBMSAgentCallback& c) { c.onRequestAuthorizeService(true); },
         "onRequestAuthorizeService(1)"},
        {4, "requestSubscribeService", false,
         [](TavoMBBMSEngine& e) { return e.requestSubscribeService(kIds, 2); },
         [](MBBMSAgentCallback& c) { c.onRequestSubscribeService(true); },
         "onRequestSubscribeService(1)"},
        {5, "requestUnsubscribeService", false,
         [](TavoMBBMSEngine& e) { return e.requestUnsubscribeService(kIds, 1); },
         [](MBBMSAgentCallback& c) { c.onRequestUnsubscribeService(false); },
         "onRequestUnsubscribeService(0)"},
        {6, "requestInquiryAccount", false,
         [](TavoMBBMSEngine& e) { return e.requestInquiryAccount(); },
         [](MBBMSAgentCallback& c) { c.onRequestInquiryAccount(true, "balance"); },
         "onRequestInquiryAccount(1, balance)"},
        {7, "requestUpdateST", true, [](TavoMBBMSEngine& e) { return e.requestUpdateST(); },
         [](MBBMSAgentCallback& c) { c.onRequestUpdateST(true, "st"); },
         "onRequestUpdateST(1, st)"},
    };
}

#endif  // TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
