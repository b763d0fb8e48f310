// An application callback that records every call as a line, e.g. "onEvent(161, 0)",
// "onTS0Parsed(20)", "onRequestInitGBA(1)". Safe to call from any thread.
#ifndef TAVO_TESTS_SUPPORT_RECORDING_CALLBACK_H
#define TAVO_TESTS_SUPPORT_RECORDING_CALLBACK_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "TavoMBBMSEngine.h"

class RecordingCallback : public TavoMBBMSEngineCallback {
public:
    std::vector<std::string> calls();
    int count(const std::string& prefix);
    void clear();
    // Waits (up to a generous bound, so a broken engine fails instead of hanging) until at
    // least `n` recorded lines start with `prefix`; returns whether they did.
    bool waitFor(const std::string& prefix, int n = 1);

    void onServiceParam(ServiceParam& param) override;
    void onCaInfo(CaInfo* info, int size) override;
    void onEmergencyMessage(EmergencyMessage& msg) override;
    void onTS0Parsed(int freqDot) override;
    void onESGXml(ESGType datatype, const char* esgXml) override;
    void onESGUpdated(bool done) override;
    void onScanFinished(bool done) override;
    void onSignalUpdated(SignalStatus& status) override;
    void onRequestUpdateSG(bool done, const char* info, const char* info2) override;
    void onRequestInitGBA(bool done) override;
    void onRequestUpdateST(bool done, const char* info) override;
    void onRequestSubscribeService(bool done) override;
    void onRequestUnsubscribeService(bool done) override;
    void onRequestInquiryAccount(bool done, const char* info) override;
    void onRequestAuthorizeService(bool done) override;
    void onEvent(EventType type, int param) override;

private:
    void add(const std::string& line);
    int countLocked(const std::string& prefix);

    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<std::string> mCalls;  // guarded by mLock
};

#endif  // TAVO_TESTS_SUPPORT_RECORDING_CALLBACK_H
