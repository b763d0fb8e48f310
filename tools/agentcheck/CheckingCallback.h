// The callback the checking proxy hands to the vendor agent: checks each call with a
// ContractChecker, then forwards it to the engine's callback.
//
// Threads: called on the vendor's threads. mForwardLock serialises forwarding of the frame's
// data and end with an end that the tool forces on an expired frame (endExpiredFrame).
#ifndef TAVO_TOOLS_AGENTCHECK_CHECKING_CALLBACK_H
#define TAVO_TOOLS_AGENTCHECK_CHECKING_CALLBACK_H

#include <chrono>
#include <mutex>

#include "ContractChecker.h"
#include "MBBMSAgent.h"

class CheckingCallback : public MBBMSAgentCallback {
public:
    CheckingCallback(MBBMSAgentCallback* engine, ContractChecker* checker)
        : mEngine(engine), mChecker(checker) {}

    MBBMSAgentCallback* engine() const { return mEngine; }
    void endExpiredFrame(std::chrono::milliseconds maxAge);

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
    void onOutputAVStart(int channelID, const unsigned char* data, int length) override;
    void onOutputAVEnd(int channelID, bool withError) override;
    void onClearAudioAacFrame(int channelID, unsigned long tsBase, unsigned long tsRelative,
                              unsigned char* data, unsigned short length) override;
    void onClearVideoNalData(int channelID, unsigned long tsBase, unsigned long tsRelative,
                             unsigned char* data, unsigned short length,
                             MBBMSAgent::NAL_FRAGMENT_POS_IND pos) override;

private:
    void completion(MBBMSRequest request, const char* name);

    MBBMSAgentCallback* const mEngine;
    ContractChecker* const mChecker;
    std::mutex mForwardLock;
};

#endif  // TAVO_TOOLS_AGENTCHECK_CHECKING_CALLBACK_H
