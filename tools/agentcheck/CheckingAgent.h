// The agent the engine sees: forwards every MBBMSAgent call to the vendor's agent, hands the
// vendor a CheckingCallback instead of the engine, and tells the checker about requests.
#ifndef TAVO_TOOLS_AGENTCHECK_CHECKING_AGENT_H
#define TAVO_TOOLS_AGENTCHECK_CHECKING_AGENT_H

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "CheckingCallback.h"
#include "ContractChecker.h"
#include "MBBMSAgent.h"

class CheckingAgent : public MBBMSAgent {
public:
    CheckingAgent(MBBMSAgent* vendor, ContractChecker* checker)
        : mVendor(vendor), mChecker(checker) {}
    MBBMSAgent* vendor() const { return mVendor; }
    void endExpiredFrame(std::chrono::milliseconds maxAge);

    int init(MBBMSAgentCallback* callback, const char* dir, const char* dir2) override;
    int deinit() override { return mVendor->deinit(); }
    int getModuleInfo(ModuleInfo* info) override { return mVendor->getModuleInfo(info); }
    int preInitStep1() override { return mVendor->preInitStep1(); }
    int preInitStep2() override { return mVendor->preInitStep2(); }
    int setPreference(const Preference* pref) override { return mVendor->setPreference(pref); }
    int startScan(int* freqDots, int count) override { return mVendor->startScan(freqDots, count); }
    int stopScan() override { return mVendor->stopScan(); }
    int setFrequency(int freqDot) override { return mVendor->setFrequency(freqDot); }
    int getFrequency() override { return mVendor->getFrequency(); }
    int getMaxSupportedSessions() override { return mVendor->getMaxSupportedSessions(); }
    int startService(int* channelID, int freqDot, int start, int count, int mod,
                     IsmaPara* isma) override {
        return mVendor->startService(channelID, freqDot, start, count, mod, isma);
    }
    int stopService(int channelID) override { return mVendor->stopService(channelID); }
    int startUpdateTS0(int freqDot) override { return mVendor->startUpdateTS0(freqDot); }
    int stopUpdateTS0() override { return mVendor->stopUpdateTS0(); }
    int startUpdateESG(int freqDot, int start, int count, int mod) override {
        return mVendor->startUpdateESG(freqDot, start, count, mod);
    }
    int stopUpdateESG() override { return mVendor->stopUpdateESG(); }
    int requestInitGBA(int force) override;
    int requestUpdateSG(const char* areaName) override;
    int requestSubscribeService(const char* const* ids, int count) override;
    int requestUnsubscribeService(const char* const* ids, int count) override;
    int requestAuthorizeService(int* list1, int* list2, const char** names, int count) override;
    int requestInquiryAccount() override;
    int requestUpdateST() override;
    int cancelMBBMSRequest(int request) override { return mVendor->cancelMBBMSRequest(request); }

private:
    // Marks the request in progress before the vendor can complete it, and forgets it when
    // the vendor refuses it.
    template <typename Call>
    int request(MBBMSRequest request, Call call) {
        mChecker->requestIssued(request);
        int result = call();
        if (result != 0)
            mChecker->requestRefused(request);
        return result;
    }

    MBBMSAgent* const mVendor;
    ContractChecker* const mChecker;
    std::mutex mLock;
    std::unique_ptr<CheckingCallback> mCallback;  // guarded by mLock
    // Callbacks of an earlier init with another engine callback; guarded by mLock.
    std::vector<std::unique_ptr<CheckingCallback>> mRetired;
};

#endif  // TAVO_TOOLS_AGENTCHECK_CHECKING_AGENT_H
