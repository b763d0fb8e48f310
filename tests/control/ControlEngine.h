// The engine the control tests drive, and the table of MBBMS requests they issue.
#ifndef TAVO_TESTS_CONTROL_CONTROL_ENGINE_H
#define TAVO_TESTS_CONTROL_CONTROL_ENGINE_H

#include <functional>
#include <vector>

#include "EngineRig.h"

// The control tests' engine: every log category on, nothing else set.
using ControlEngine = EngineRig;

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
