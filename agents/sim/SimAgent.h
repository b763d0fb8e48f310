// The broadcast simulator: a tuner agent that behaves like a CMMB receiver with an MBBMS
// stack, on threads of its own. Three frequency points carry two services each (see
// SimLineup); scans report signal, table and guide updates report what the network
// carries, MBBMS requests complete after a network-like delay, an emergency broadcast
// arrives now and then (each sent twice, as the broadcast repeats it), and every running
// service outputs one multiplex frame per second of content (SimOutputThread).
//
// Threading: the MBBMSAgent operations may be called from any thread. Results and
// events come from the control thread (SimTaskThread), media from the output thread.
// No callback is ever made with mLock held: the engine calls back into the agent
// (getFrequency) from inside its callbacks.
#ifndef TAVO_SIM_AGENT_H
#define TAVO_SIM_AGENT_H

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "MBBMSAgent.h"
#include "ServiceContent.h"
#include "SimOutputThread.h"
#include "SimSettings.h"
#include "SimTaskThread.h"

class SimAgent : public MBBMSAgent {
public:
    SimAgent();
    ~SimAgent() override;
    SimAgent(const SimAgent&) = delete;
    SimAgent& operator=(const SimAgent&) = delete;

    int init(MBBMSAgentCallback* callback, const char* dir, const char* dir2) override;
    int deinit() override;
    int getModuleInfo(ModuleInfo* info) override;
    int preInitStep1() override;
    int preInitStep2() override;
    int setPreference(const Preference* pref) override;
    int startScan(int* freqDots, int count) override;
    int stopScan() override;
    int setFrequency(int freqDot) override;
    int getFrequency() override;
    int getMaxSupportedSessions() override;
    int startService(int* channelID, int freqDot, int start, int count, int mod,
                     IsmaPara* isma) override;
    int stopService(int channelID) override;
    int startUpdateTS0(int freqDot) override;
    int stopUpdateTS0() override;
    int startUpdateESG(int freqDot, int start, int count, int mod) override;
    int stopUpdateESG() override;
    int requestInitGBA(int force) override;
    int requestUpdateSG(const char* areaName) override;
    int requestSubscribeService(const char* const* ids, int count) override;
    int requestUnsubscribeService(const char* const* ids, int count) override;
    int requestAuthorizeService(int* list1, int* list2, const char** names, int count) override;
    int requestInquiryAccount() override;
    int requestUpdateST() override;
    int cancelMBBMSRequest(int request) override;

private:
    // Ends a request: called on the control thread with the callback and the outcome.
    using RequestCompletion = std::function<void(MBBMSAgentCallback*, bool done)>;

    bool loadContentOnce();
    const ServiceContent* contentFor(int serviceID) const;

    // REQUIRES: mLock held. Tunes to freqDot unless a running service needs another one.
    bool tuneForLocked(int freqDot);
    int startRequest(MBBMSRequest request, const char* name, RequestCompletion completion);

    // Control-thread tasks. Each checks that the activity it belongs to is still the one
    // it was posted for (its generation) before it calls back.
    void scanStep(uint64_t generation, std::vector<int> freqDots, size_t next);
    void reportSignal(int freqDot);
    void reportTs0(uint64_t generation, int freqDot);
    void deliverGuide(uint64_t generation);
    void finishRequest(uint64_t generation, bool done);
    void broadcastEmergency(uint64_t generation, EmergencyMessage message, bool repeat);

    // REQUIRES: mLock held. The callback while initialised, else nullptr.
    MBBMSAgentCallback* callbackLocked() const { return mInitialized ? mCallback : nullptr; }

    const SimSettings mSettings;
    // Indexed like SimLineup's services; null where the content could not be loaded.
    // Written once, by the first init, before the output thread starts; read-only after.
    std::vector<std::unique_ptr<ServiceContent>> mContent;
    bool mContentLoaded = false;

    SimTaskThread mControl;
    SimOutputThread mOutput;

    // Guarded by mLock. Lock order: mLock before the output thread's and the control
    // thread's own locks.
    std::mutex mLock;
    MBBMSAgentCallback* mCallback = nullptr;
    bool mInitialized = false;
    uint64_t mSessionGeneration = 0;  // changes with every init and deinit
    int mFreqDot = -1;
    uint64_t mScanGeneration = 0;
    bool mScanning = false;
    uint64_t mTs0Generation = 0;
    uint64_t mEsgGeneration = 0;
    bool mUpdatingEsg = false;
    MBBMSRequest mPendingRequest = REQUEST_NONE;
    uint64_t mRequestGeneration = 0;
    RequestCompletion mRequestCompletion;
    int mNextChannelID = 0;
    std::set<std::string> mSubscriptions;
};

#endif  // TAVO_SIM_AGENT_H
