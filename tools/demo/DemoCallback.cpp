#include "DemoCallback.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The value of attribute `name` in an XML element, or "".
std::string attribute(const char* xml, const char* name) {
    std::string key = std::string(" ") + name + "=\"";
    const char* at = strstr(xml, key.c_str());
    if (at == nullptr)
        return "";
    at += key.size();
    const char* end = strchr(at, '"');
    return end == nullptr ? "" : std::string(at, end);
}

}  // namespace

bool DemoCallback::waitUntil(const std::function<bool()>& predicate,
                             std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, timeout, predicate);
}

std::vector<SignalStatus> DemoCallback::signals() {
    std::lock_guard<std::mutex> guard(mLock);
    return mSignals;
}

std::vector<ServiceSummary> DemoCallback::tableServices() {
    std::lock_guard<std::mutex> guard(mLock);
    return mTableServices;
}

std::vector<ServiceSummary> DemoCallback::guideServices() {
    std::lock_guard<std::mutex> guard(mLock);
    return mGuideServices;
}

std::vector<RequestResult> DemoCallback::requests() {
    std::lock_guard<std::mutex> guard(mLock);
    return mRequests;
}

int DemoCallback::guideFragments() {
    std::lock_guard<std::mutex> guard(mLock);
    return mGuideFragments;
}

int DemoCallback::emergencyMessages() {
    std::lock_guard<std::mutex> guard(mLock);
    return mEmergencyMessages;
}

int DemoCallback::eventCount(EventType type) {
    std::lock_guard<std::mutex> guard(mLock);
    return eventCountLocked(type);
}

int DemoCallback::eventCountLocked(EventType type) const {
    int count = 0;
    for (const auto& event : mEvents)
        count += event.first == type ? 1 : 0;
    return count;
}

bool DemoCallback::ts0ParsedLocked(int freqDot) const {
    for (int parsed : mTs0Parsed) {
        if (parsed == freqDot)
            return true;
    }
    return false;
}

void DemoCallback::onServiceParam(ServiceParam& param) {
    std::lock_guard<std::mutex> guard(mLock);
    for (const ServiceSummary& known : mTableServices) {
        if (known.serviceID == param.serviceID && known.freqDot == param.freqDot)
            return;
    }
    ServiceSummary service;
    service.serviceID = param.serviceID;
    service.freqDot = param.freqDot;
    service.timeSlotStart = param.timeSlotStart;
    service.timeSlotCount = param.timeSlotCount;
    service.modulation = param.modulation;
    service.scrambled = param.scrambled != 0;
    mTableServices.push_back(service);
    mChanged.notify_all();
}

void DemoCallback::onCaInfo(CaInfo* /*info*/, int /*size*/) {}

void DemoCallback::onEmergencyMessage(EmergencyMessage& msg) {
    printf("  ! emergency message %u (level %u): %.*s\n", static_cast<unsigned>(msg.msgID),
           static_cast<unsigned>(msg.msgLevel), static_cast<int>(sizeof(msg.text)), msg.text);
    fflush(stdout);
    std::lock_guard<std::mutex> guard(mLock);
    ++mEmergencyMessages;
    mChanged.notify_all();
}

void DemoCallback::onTS0Parsed(int freqDot) {
    std::lock_guard<std::mutex> guard(mLock);
    mTs0Parsed.push_back(freqDot);
    mChanged.notify_all();
}

void DemoCallback::onESGXml(ESGType datatype, const char* esgXml) {
    std::lock_guard<std::mutex> guard(mLock);
    ++mGuideFragments;
    if (datatype == ESG_SERVICE && esgXml != nullptr) {
        ServiceSummary service;
        service.serviceID = atoi(attribute(esgXml, "serviceID").c_str());
        service.freqDot = atoi(attribute(esgXml, "freqDot").c_str());
        service.name = attribute(esgXml, "name");
        service.timeSlotStart = atoi(attribute(esgXml, "timeSlotStart").c_str());
        service.timeSlotCount = atoi(attribute(esgXml, "timeSlotCount").c_str());
        service.modulation = atoi(attribute(esgXml, "modulation").c_str());
        service.scrambled = attribute(esgXml, "scrambled") == "true";
        mGuideServices.push_back(service);
    }
    mChanged.notify_all();
}

void DemoCallback::onESGUpdated(bool /*done*/) {
    std::lock_guard<std::mutex> guard(mLock);
    mEsgUpdated = true;
    mChanged.notify_all();
}

void DemoCallback::onScanFinished(bool /*done*/) {
    std::lock_guard<std::mutex> guard(mLock);
    mScanFinished = true;
    mChanged.notify_all();
}

void DemoCallback::onSignalUpdated(SignalStatus& status) {
    std::lock_guard<std::mutex> guard(mLock);
    mSignals.push_back(status);
    mChanged.notify_all();
}

void DemoCallback::addRequest(const char* name, bool done, const std::string& info) {
    std::lock_guard<std::mutex> guard(mLock);
    mRequests.push_back({name, done, info});
    mChanged.notify_all();
}

void DemoCallback::onRequestUpdateSG(bool done, const char* info, const char* info2) {
    addRequest("onRequestUpdateSG", done,
               std::string(info != nullptr ? info : "") + " | " + (info2 != nullptr ? info2 : ""));
}

void DemoCallback::onRequestInitGBA(bool done) {
    addRequest("onRequestInitGBA", done, "");
}

void DemoCallback::onRequestUpdateST(bool done, const char* info) {
    addRequest("onRequestUpdateST", done, info != nullptr ? info : "");
}

void DemoCallback::onRequestSubscribeService(bool done) {
    addRequest("onRequestSubscribeService", done, "");
}

void DemoCallback::onRequestUnsubscribeService(bool done) {
    addRequest("onRequestUnsubscribeService", done, "");
}

void DemoCallback::onRequestInquiryAccount(bool done, const char* info) {
    addRequest("onRequestInquiryAccount", done, info != nullptr ? info : "");
}

void DemoCallback::onRequestAuthorizeService(bool done) {
    addRequest("onRequestAuthorizeService", done, "");
}

void DemoCallback::onEvent(EventType type, int param) {
    printf("  ! event %d (param %d)\n", static_cast<int>(type), param);
    fflush(stdout);
    std::lock_guard<std::mutex> guard(mLock);
    mEvents.emplace_back(type, param);
    mChanged.notify_all();
}
