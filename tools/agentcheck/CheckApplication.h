// The application side of a check: the callback the tool gives to the engine's init. Keeps
// what the agent reported through the engine, and lets the tool wait for it.
//
// Locking: everything is guarded by mLock; waitUntil's predicate runs with it held.
#ifndef TAVO_TOOLS_AGENTCHECK_CHECK_APPLICATION_H
#define TAVO_TOOLS_AGENTCHECK_CHECK_APPLICATION_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <vector>

#include "TavoMBBMSEngine.h"

class CheckApplication : public TavoMBBMSEngineCallback {
public:
    // Waits until pred() (called with the lock held) is true, or the time-out; pred's result.
    bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

    // REQUIRES: mLock held (inside a waitUntil predicate).
    bool scanFinishedLocked() const { return mScanFinished; }
    bool ts0ParsedLocked(int freqDot) const { return mTs0Parsed.count(freqDot) != 0; }
    int esgUpdatesLocked() const { return mEsgUpdates; }
    int completionsLocked() const { return mCompletions; }
    int captureEventsLocked() const { return mCaptureEvents; }

    int esgUpdates();
    int completions();
    std::vector<int> lockedFrequencies();
    std::vector<ServiceParam> services();
    bool lastCompletionDone();

    void onServiceParam(ServiceParam& param) override;
    void onCaInfo(CaInfo*, int) override {}
    void onEmergencyMessage(EmergencyMessage&) override {}
    void onTS0Parsed(int freqDot) override;
    void onESGXml(ESGType, const char*) override {}
    void onESGUpdated(bool done) override;
    void onScanFinished(bool done) override;
    void onSignalUpdated(SignalStatus& status) override;
    void onRequestUpdateSG(bool done, const char*, const char*) override { completed(done); }
    void onRequestInitGBA(bool done) override { completed(done); }
    void onRequestUpdateST(bool done, const char*) override { completed(done); }
    void onRequestSubscribeService(bool done) override { completed(done); }
    void onRequestUnsubscribeService(bool done) override { completed(done); }
    void onRequestInquiryAccount(bool done, const char*) override { completed(done); }
    void onRequestAuthorizeService(bool done) override { completed(done); }
    void onEvent(EventType type, int param) override;

private:
    void completed(bool done);
    template <typename Change>
    void update(Change change) {
        {
            std::lock_guard<std::mutex> guard(mLock);
            change();
        }
        mChanged.notify_all();
    }

    std::mutex mLock;
    std::condition_variable mChanged;
    bool mScanFinished = false;
    std::vector<int> mLocked;
    std::set<int> mTs0Parsed;
    std::vector<ServiceParam> mServices;
    int mEsgUpdates = 0;
    int mCompletions = 0;
    bool mLastDone = false;
    int mCaptureEvents = 0;
};

#endif  // TAVO_TOOLS_AGENTCHECK_CHECK_APPLICATION_H
