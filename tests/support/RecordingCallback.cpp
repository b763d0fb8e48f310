#include "RecordingCallback.h"

#include <chrono>

namespace {
std::string str(const char* s) {
    return s != nullptr ? s : "null";
}
}  // namespace

std::vector<std::string> RecordingCallback::calls() {
    std::lock_guard<std::mutex> guard(mLock);
    return mCalls;
}

int RecordingCallback::countLocked(const std::string& prefix) {
    int n = 0;
    for (const std::string& call : mCalls)
        n += call.compare(0, prefix.size(), prefix) == 0;
    return n;
}

int RecordingCallback::count(const std::string& prefix) {
    std::lock_guard<std::mutex> guard(mLock);
    return countLocked(prefix);
}

void RecordingCallback::clear() {
    std::lock_guard<std::mutex> guard(mLock);
    mCalls.clear();
}

bool RecordingCallback::waitFor(const std::string& prefix, int n) {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, std::chrono::seconds(20),
                             [&] { return countLocked(prefix) >= n; });
}

void RecordingCallback::add(const std::string& line) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mCalls.push_back(line);
    }
    mChanged.notify_all();
}

void RecordingCallback::onServiceParam(ServiceParam& param) {
    add("onServiceParam(" + std::to_string(param.serviceID) + ")");
}
void RecordingCallback::onCaInfo(CaInfo* /*info*/, int size) {
    add("onCaInfo(" + std::to_string(size) + ")");
}
void RecordingCallback::onEmergencyMessage(EmergencyMessage& msg) {
    add("onEmergencyMessage(" + std::to_string(msg.msgID) + ")");
}
void RecordingCallback::onTS0Parsed(int freqDot) {
    add("onTS0Parsed(" + std::to_string(freqDot) + ")");
}
void RecordingCallback::onESGXml(ESGType datatype, const char* esgXml) {
    add("onESGXml(" + std::to_string(datatype) + ", " + str(esgXml) + ")");
}
void RecordingCallback::onESGUpdated(bool done) {
    add("onESGUpdated(" + std::to_string(done) + ")");
}
void RecordingCallback::onScanFinished(bool done) {
    add("onScanFinished(" + std::to_string(done) + ")");
}
void RecordingCallback::onSignalUpdated(SignalStatus& status) {
    add("onSignalUpdated(" + std::to_string(status.strength) + ")");
}
void RecordingCallback::onRequestUpdateSG(bool done, const char* info, const char* info2) {
    add("onRequestUpdateSG(" + std::to_string(done) + ", " + str(info) + ", " + str(info2) + ")");
}
void RecordingCallback::onRequestInitGBA(bool done) {
    add("onRequestInitGBA(" + std::to_string(done) + ")");
}
void RecordingCallback::onRequestUpdateST(bool done, const char* info) {
    add("onRequestUpdateST(" + std::to_string(done) + ", " + str(info) + ")");
}
void RecordingCallback::onRequestSubscribeService(bool done) {
    add("onRequestSubscribeService(" + std::to_string(done) + ")");
}
void RecordingCallback::onRequestUnsubscribeService(bool done) {
    add("onRequestUnsubscribeService(" + std::to_string(done) + ")");
}
void RecordingCallback::onRequestInquiryAccount(bool done, const char* info) {
    add("onRequestInquiryAccount(" + std::to_string(done) + ", " + str(info) + ")");
}
void RecordingCallback::onRequestAuthorizeService(bool done) {
    add("onRequestAuthorizeService(" + std::to_string(done) + ")");
}
void RecordingCallback::onEvent(EventType type, int param) {
    add("onEvent(" + std::to_string(static_cast<int>(type)) + ", " + std::to_string(param) + ")");
}
