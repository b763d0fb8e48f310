// Relay of the agent's results and events to the application (agent threads, no engine
// lock). Each callback logs its line first, then passes its arguments on unchanged when an
// application callback is registered, through three filters:
//   - service parameters, CA information and TS0 reports of a frequency point pass until TS0
//     of that point has been reported once since init (mTS0Reported);
//   - an emergency message whose key equals the last one passed on is dropped;
//   - EVENT_MBBMS_ONLY is dropped while the mode is CMMB_MODE.
// The request completions, which also end the pending request, are with the requests.
#include <cstddef>

#include "EngineLog.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

// Frequency points 0 to 47 have a TS0 flag; any other point (including -1, no frequency)
// has none: its records are passed on and nothing is recorded for it.
const int kTrackedFreqDots = 48;

bool hasTS0Flag(int freqDot) {
    return freqDot >= 0 && freqDot < kTrackedFreqDots;
}

// True when TS0 of the agent's current frequency point has already been reported, so that
// its service parameters and CA information are no longer passed on. `reported` holds the
// engine's kTrackedFreqDots flags.
bool ts0AlreadyReported(MBBMSAgent* agent, const std::atomic<bool>* reported) {
    int freqDot = agent != nullptr ? agent->getFrequency() : -1;
    return hasTS0Flag(freqDot) && reported[freqDot].load();
}

// The deduplication key is read through these fields; the agent's layout fixes them here.
static_assert(offsetof(EmergencyMessage, msgType) == 0, "emergency key byte 0");
static_assert(offsetof(EmergencyMessage, msgLevel) == 1, "emergency key byte 1");
static_assert(offsetof(EmergencyMessage, networkLevel) == 2, "emergency key byte 2");
static_assert(offsetof(EmergencyMessage, networkNumber) == 4, "emergency key byte 4");
static_assert(offsetof(EmergencyMessage, msgID) == 28, "emergency key 16-bit value at 28");

const char* printable(const char* text) {
    return text != nullptr ? text : "(null)";
}

}  // namespace

void TavoMBBMSEngineImpl::onServiceParam(ServiceParam& param) {
    TLOG(ENGINE, "%s()", __func__);
    // Without an application callback the agent is not even asked for its frequency.
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback == nullptr)
        return;
    if (ts0AlreadyReported(mAgent, mTS0Reported))
        return;
    callback->onServiceParam(param);
}

void TavoMBBMSEngineImpl::onCaInfo(CaInfo* info, int size) {
    TLOG(ENGINE, "size=%d", size);
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback == nullptr)
        return;
    if (ts0AlreadyReported(mAgent, mTS0Reported))
        return;
    callback->onCaInfo(info, size);
}

void TavoMBBMSEngineImpl::onTS0Parsed(int freqDot) {
    static_assert(sizeof(mTS0Reported) / sizeof(mTS0Reported[0]) == kTrackedFreqDots,
                  "one TS0 flag per tracked frequency point");
    TLOG(ENGINE, "freqDot=%d", freqDot);
    // The application hears of TS0 first; only then is the point marked reported, so that
    // service parameters and CA information the agent reports while the application handles
    // this call still reach it. The flag is set whether or not anything is passed on.
    const bool tracked = hasTS0Flag(freqDot);
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr && !(tracked && mTS0Reported[freqDot].load()))
        callback->onTS0Parsed(freqDot);
    if (tracked)
        mTS0Reported[freqDot].store(true);
}

void TavoMBBMSEngineImpl::onEmergencyMessage(EmergencyMessage& msg) {
    TLOG(ENGINE, "%s()", __func__);
    // A repeat only if all five key values are equal; the rest of the message is not read.
    const uint64_t key = emergencyKeyOf(msg);
    if (key == mLastEmergencyKey.load()) {
        TLOG(WARNING, "Same emergency message received, drop it!");
        return;
    }
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onEmergencyMessage(msg);
    mLastEmergencyKey.store(key);  // remembered also when nothing was passed on
}

uint64_t TavoMBBMSEngineImpl::emergencyKeyOf(const EmergencyMessage& msg) {
    return static_cast<uint64_t>(msg.msgType) | static_cast<uint64_t>(msg.msgLevel) << 8 |
           static_cast<uint64_t>(msg.networkLevel) << 16 |
           static_cast<uint64_t>(msg.networkNumber) << 24 | static_cast<uint64_t>(msg.msgID) << 32;
}

void TavoMBBMSEngineImpl::onEvent(EventType type, int param) {
    TLOG(ENGINE, "type=%d, param=%d", static_cast<int>(type), param);
    // Only CMMB_MODE itself filters; any other mode value lets the event through.
    if (type == EVENT_MBBMS_ONLY && mMode.load() == CMMB_MODE) {
        TLOG(WARNING, "No need to call back this type event in CMMB mode");
        return;
    }
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onEvent(type, param);
}

void TavoMBBMSEngineImpl::onESGXml(ESGType datatype, const char* esgXml) {
    TLOG(ENGINE, "datatype=%d, esgXml=%s", static_cast<int>(datatype), printable(esgXml));
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onESGXml(datatype, esgXml);
}

void TavoMBBMSEngineImpl::onESGUpdated(bool done) {
    TLOG(ENGINE, "done=%d", done);
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onESGUpdated(done);
}

void TavoMBBMSEngineImpl::onScanFinished(bool done) {
    TLOG(ENGINE, "done=%d", done);
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onScanFinished(done);
}

void TavoMBBMSEngineImpl::onSignalUpdated(SignalStatus& status) {
    TLOG(ENGINE, "%s()", __func__);
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onSignalUpdated(status);
}
