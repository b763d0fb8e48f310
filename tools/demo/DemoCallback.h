// The demo's application callback: keeps what the engine reports (signal, service
// parameters, service guide, request results, events) and lets the main thread wait for
// a report. Emergency messages and events are printed as they arrive.
//
// Threading: called on the engine's and the agent's threads; every member is guarded by
// mLock, and the waits are bounded so that a broken engine ends the demo with an error
// instead of hanging it.
#ifndef TAVO_DEMO_CALLBACK_H
#define TAVO_DEMO_CALLBACK_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "TavoMBBMSEngine.h"

struct ServiceSummary {
    int serviceID = 0;
    int freqDot = -1;
    std::string name;  // from the service guide; empty when only the control table knows it
    int timeSlotStart = 0;
    int timeSlotCount = 0;
    int modulation = 0;
    bool scrambled = false;
};

struct RequestResult {
    std::string name;  // e.g. "onRequestUpdateSG"
    bool done = false;
    std::string info;
};

class DemoCallback : public TavoMBBMSEngineCallback {
public:
    // Waits until predicate (called with mLock held) holds; false after `timeout`.
    bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

    // Snapshots, taken under the lock.
    std::vector<SignalStatus> signals();
    std::vector<ServiceSummary> tableServices();  // from onServiceParam
    std::vector<ServiceSummary> guideServices();  // from the ESG's service fragments
    std::vector<RequestResult> requests();
    int guideFragments();
    int emergencyMessages();
    int eventCount(EventType type);

    // Read with mLock held, inside a waitUntil predicate.
    bool scanFinishedLocked() const { return mScanFinished; }
    bool ts0ParsedLocked(int freqDot) const;
    bool esgUpdatedLocked() const { return mEsgUpdated; }
    size_t requestCountLocked() const { return mRequests.size(); }
    int eventCountLocked(EventType type) const;

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
    void addRequest(const char* name, bool done, const std::string& info);

    std::mutex mLock;
    std::condition_variable mChanged;
    // Guarded by mLock.
    std::vector<SignalStatus> mSignals;
    std::vector<ServiceSummary> mTableServices;
    std::vector<ServiceSummary> mGuideServices;
    std::vector<int> mTs0Parsed;
    std::vector<RequestResult> mRequests;
    std::vector<std::pair<EventType, int>> mEvents;
    int mGuideFragments = 0;
    int mEmergencyMessages = 0;
    bool mScanFinished = false;
    bool mEsgUpdated = false;
};

#endif  // TAVO_DEMO_CALLBACK_H
