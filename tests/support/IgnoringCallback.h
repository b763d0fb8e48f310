// The application's callbacks, every one ignored: the base of a test's callback that watches
// only a few of them. `Interface` is the application's callback or the agent's, which adds
// the data calls (left to the derived class).
#ifndef TAVO_TESTS_SUPPORT_IGNORING_CALLBACK_H
#define TAVO_TESTS_SUPPORT_IGNORING_CALLBACK_H

#include "TavoMBBMSEngine.h"

template <class Interface = TavoMBBMSEngineCallback>
class IgnoringCallback : public Interface {
public:
    void onServiceParam(ServiceParam&) override {}
    void onCaInfo(CaInfo*, int) override {}
    void onEmergencyMessage(EmergencyMessage&) override {}
    void onTS0Parsed(int) override {}
    void onESGXml(ESGType, const char*) override {}
    void onESGUpdated(bool) override {}
    void onScanFinished(bool) override {}
    void onSignalUpdated(SignalStatus&) override {}
    void onRequestUpdateSG(bool, const char*, const char*) override {}
    void onRequestInitGBA(bool) override {}
    void onRequestUpdateST(bool, const char*) override {}
    void onRequestSubscribeService(bool) override {}
    void onRequestUnsubscribeService(bool) override {}
    void onRequestInquiryAccount(bool, const char*) override {}
    void onRequestAuthorizeService(bool) override {}
    void onEvent(EventType, int) override {}
};

#endif  // TAVO_TESTS_SUPPORT_IGNORING_CALLBACK_H
