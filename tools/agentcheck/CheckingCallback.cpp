#include "CheckingCallback.h"

#include <cstdint>

namespace {

uint32_t mediaTime(unsigned long tsBase, unsigned long tsRelative) {
    return static_cast<uint32_t>(tsBase) + static_cast<uint32_t>(tsRelative);
}

}  // namespace

void CheckingCallback::endExpiredFrame(std::chrono::milliseconds maxAge) {
    int channelID = -1;
    if (!mChecker->expireOpenFrame(maxAge, &channelID))
        return;
    std::lock_guard<std::mutex> guard(mForwardLock);
    mEngine->onOutputAVEnd(channelID, true);
}

void CheckingCallback::completion(MBBMSRequest request, const char* name) {
    mChecker->resultOrEvent(name);
    mChecker->requestCompleted(request, name);
}

void CheckingCallback::onServiceParam(ServiceParam& param) {
    mChecker->resultOrEvent("onServiceParam");
    mEngine->onServiceParam(param);
}

void CheckingCallback::onCaInfo(CaInfo* info, int size) {
    mChecker->resultOrEvent("onCaInfo");
    mEngine->onCaInfo(info, size);
}

void CheckingCallback::onEmergencyMessage(EmergencyMessage& msg) {
    mChecker->resultOrEvent("onEmergencyMessage");
    mEngine->onEmergencyMessage(msg);
}

void CheckingCallback::onTS0Parsed(int freqDot) {
    mChecker->resultOrEvent("onTS0Parsed");
    mEngine->onTS0Parsed(freqDot);
}

void CheckingCallback::onESGXml(ESGType datatype, const char* esgXml) {
    mChecker->resultOrEvent("onESGXml");
    mEngine->onESGXml(datatype, esgXml);
}

void CheckingCallback::onESGUpdated(bool done) {
    mChecker->resultOrEvent("onESGUpdated");
    mEngine->onESGUpdated(done);
}

void CheckingCallback::onScanFinished(bool done) {
    mChecker->resultOrEvent("onScanFinished");
    mEngine->onScanFinished(done);
}

void CheckingCallback::onSignalUpdated(SignalStatus& status) {
    mChecker->resultOrEvent("onSignalUpdated");
    mEngine->onSignalUpdated(status);
}

void CheckingCallback::onRequestUpdateSG(bool done, const char* info, const char* info2) {
    completion(REQUEST_UPDATE_SG, "onRequestUpdateSG");
    mEngine->onRequestUpdateSG(done, info, info2);
}

void CheckingCallback::onRequestInitGBA(bool done) {
    completion(REQUEST_INIT_GBA, "onRequestInitGBA");
    mEngine->onRequestInitGBA(done);
}

void CheckingCallback::onRequestUpdateST(bool done, const char* info) {
    completion(REQUEST_UPDATE_ST, "onRequestUpdateST");
    mEngine->onRequestUpdateST(done, info);
}

void CheckingCallback::onRequestSubscribeService(bool done) {
    completion(REQUEST_SUBSCRIBE_SERVICE, "onRequestSubscribeService");
    mEngine->onRequestSubscribeService(done);
}

void CheckingCallback::onRequestUnsubscribeService(bool done) {
    completion(REQUEST_UNSUBSCRIBE_SERVICE, "onRequestUnsubscribeService");
    mEngine->onRequestUnsubscribeService(done);
}

void CheckingCallback::onRequestInquiryAccount(bool done, const char* info) {
    completion(REQUEST_INQUIRY_ACCOUNT, "onRequestInquiryAccount");
    mEngine->onRequestInquiryAccount(done, info);
}

void CheckingCallback::onRequestAuthorizeService(bool done) {
    completion(REQUEST_AUTHORIZE_SERVICE, "onRequestAuthorizeService");
    mEngine->onRequestAuthorizeService(done);
}

void CheckingCallback::onEvent(EventType type, int param) {
    mChecker->resultOrEvent("onEvent");
    mChecker->event(static_cast<int>(type));
    mEngine->onEvent(type, param);
}

void CheckingCallback::onOutputAVStart(int channelID, const unsigned char* data, int length) {
    if (mChecker->frameStart(channelID))
        mEngine->onOutputAVStart(channelID, data, length);
}

void CheckingCallback::onOutputAVEnd(int channelID, bool withError) {
    std::lock_guard<std::mutex> guard(mForwardLock);
    if (mChecker->frameEnd(&channelID, withError))
        mEngine->onOutputAVEnd(channelID, withError);
}

void CheckingCallback::onClearAudioAacFrame(int channelID, unsigned long tsBase,
                                            unsigned long tsRelative, unsigned char* data,
                                            unsigned short length) {
    std::lock_guard<std::mutex> guard(mForwardLock);
    // A null range is checked as an empty one.
    if (mChecker->audioData(channelID, mediaTime(tsBase, tsRelative), data,
                            data != nullptr ? length : 0))
        mEngine->onClearAudioAacFrame(channelID, tsBase, tsRelative, data, length);
}

void CheckingCallback::onClearVideoNalData(int channelID, unsigned long tsBase,
                                           unsigned long tsRelative, unsigned char* data,
                                           unsigned short length,
                                           MBBMSAgent::NAL_FRAGMENT_POS_IND pos) {
    std::lock_guard<std::mutex> guard(mForwardLock);
    if (mChecker->videoData(channelID, mediaTime(tsBase, tsRelative), data,
                            data != nullptr ? length : 0, static_cast<int>(pos)))
        mEngine->onClearVideoNalData(channelID, tsBase, tsRelative, data, length, pos);
}
