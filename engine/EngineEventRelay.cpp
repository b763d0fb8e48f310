// Relay of the agent's results and events to the application (agent threads, no engine
// lock). Each callback logs its line first, then passes its arguments on unchanged when an
// application callback is registered, through three filters:
//   - service parameters, CA information and TS0 reports of a frequency point pass until TS0
//     of that point has been reported once since init (mTS0Reported);
//   - an emergency message whose key equals the last one passed on is dropped;
//   - EVENT_MBBMS_ONLY is dropped while the mode is CMMB_MODE.
// The request completions, which also end the pending request, are with the requests.
//
// A result or event raised on the thread inside a frame bracket is deferred (with copies of
// its records and strings) and replayed here, through the same callback, once the bracket
// has ended: its log line, filters and relay all happen at the replay.
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
    if (deferInsideBracket(DeferredCalls::SERVICE_PARAM, 0, 0, {&param, sizeof(param)}))
        return;
    TLOG(ENGINE, "%s()", __func__);
    // Without an application callback the agent is not even asked for its frequency.
    if (!mCallback.registered())
        return;
    if (ts0AlreadyReported(mAgent.get(), mTS0Reported))
        return;
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onServiceParam(param); });
}

void TavoMBBMSEngineImpl::onCaInfo(CaInfo* info, int size) {
    // `size` entries travel with the pointer.
    const size_t bytes = size > 0 ? static_cast<size_t>(size) * sizeof(CaInfo) : 0;
    if (deferInsideBracket(DeferredCalls::CA_INFO, size, 0, {info, bytes}))
        return;
    TLOG(ENGINE, "size=%d", size);
    if (!mCallback.registered())
        return;
    if (ts0AlreadyReported(mAgent.get(), mTS0Reported))
        return;
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onCaInfo(info, size); });
}

void TavoMBBMSEngineImpl::onTS0Parsed(int freqDot) {
    static_assert(sizeof(mTS0Reported) / sizeof(mTS0Reported[0]) == kTrackedFreqDots,
                  "one TS0 flag per tracked frequency point");
    if (deferInsideBracket(DeferredCalls::TS0_PARSED, freqDot))
        return;
    TLOG(ENGINE, "freqDot=%d", freqDot);
    // The application hears of TS0 first; only then is the point marked reported, so that
    // service parameters and CA information the agent reports while the application handles
    // this call still reach it. The flag is set whether or not anything is passed on.
    const bool tracked = hasTS0Flag(freqDot);
    if (!(tracked && mTS0Reported[freqDot].load()))
        mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onTS0Parsed(freqDot); });
    if (tracked)
        mTS0Reported[freqDot].store(true);
}

void TavoMBBMSEngineImpl::onEmergencyMessage(EmergencyMessage& msg) {
    if (deferInsideBracket(DeferredCalls::EMERGENCY_MESSAGE, 0, 0, {&msg, sizeof(msg)}))
        return;
    TLOG(ENGINE, "%s()", __func__);
    // A repeat only if all five key values are equal; the rest of the message is not read.
    const uint64_t key = emergencyKeyOf(msg);
    if (key == mLastEmergencyKey.load()) {
        TLOG(WARNING, "Same emergency message received, drop it!");
        return;
    }
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onEmergencyMessage(msg); });
    mLastEmergencyKey.store(key);  // remembered also when nothing was passed on
}

uint64_t TavoMBBMSEngineImpl::emergencyKeyOf(const EmergencyMessage& msg) {
    return static_cast<uint64_t>(msg.msgType) | static_cast<uint64_t>(msg.msgLevel) << 8 |
           static_cast<uint64_t>(msg.networkLevel) << 16 |
           static_cast<uint64_t>(msg.networkNumber) << 24 | static_cast<uint64_t>(msg.msgID) << 32;
}

void TavoMBBMSEngineImpl::onEvent(EventType type, int param) {
    if (deferInsideBracket(DeferredCalls::AGENT_EVENT, type, param))
        return;
    TLOG(ENGINE, "type=%d, param=%d", static_cast<int>(type), param);
    // Only CMMB_MODE itself filters; any other mode value lets the event through.
    if (type == EVENT_MBBMS_ONLY && mMode.load() == CMMB_MODE) {
        TLOG(WARNING, "No need to call back this type event in CMMB mode");
        return;
    }
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onEvent(type, param); });
}

void TavoMBBMSEngineImpl::onESGXml(ESGType datatype, const char* esgXml) {
    if (deferInsideBracket(DeferredCalls::ESG_XML, datatype, 0, DeferredCalls::text(esgXml)))
        return;
    TLOG(ENGINE, "datatype=%d, esgXml=%s", static_cast<int>(datatype), printable(esgXml));
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onESGXml(datatype, esgXml); });
}

void TavoMBBMSEngineImpl::onESGUpdated(bool done) {
    if (deferInsideBracket(DeferredCalls::ESG_UPDATED, done))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onESGUpdated(done); });
}

void TavoMBBMSEngineImpl::onScanFinished(bool done) {
    if (deferInsideBracket(DeferredCalls::SCAN_FINISHED, done))
        return;
    TLOG(ENGINE, "done=%d", done);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onScanFinished(done); });
}

void TavoMBBMSEngineImpl::onSignalUpdated(SignalStatus& status) {
    if (deferInsideBracket(DeferredCalls::SIGNAL_UPDATED, 0, 0, {&status, sizeof(status)}))
        return;
    TLOG(ENGINE, "%s()", __func__);
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onSignalUpdated(status); });
}

// ---- Results and events raised inside a frame bracket ----

bool TavoMBBMSEngineImpl::deferInsideBracket(DeferredCalls::Kind kind, int value, int param,
                                             DeferredCalls::Bytes first,
                                             DeferredCalls::Bytes second) {
    if (!DeferredCalls::insideBracket())
        return false;
    mDeferredCalls.defer(kind, value, param, first, second);
    return true;
}

void TavoMBBMSEngineImpl::replayDeferred(const DeferredCalls::Call& call) {
    const bool done = call.value != 0;
    const char* first = static_cast<const char*>(call.first);
    const char* second = static_cast<const char*>(call.second);
    switch (call.kind) {
        case DeferredCalls::SERVICE_PARAM:
            return onServiceParam(*static_cast<ServiceParam*>(call.first));
        case DeferredCalls::CA_INFO:
            return onCaInfo(static_cast<CaInfo*>(call.first), call.value);
        case DeferredCalls::EMERGENCY_MESSAGE:
            return onEmergencyMessage(*static_cast<EmergencyMessage*>(call.first));
        case DeferredCalls::TS0_PARSED:
            return onTS0Parsed(call.value);
        case DeferredCalls::ESG_XML:
            return onESGXml(static_cast<ESGType>(call.value), first);
        case DeferredCalls::ESG_UPDATED:
            return onESGUpdated(done);
        case DeferredCalls::SCAN_FINISHED:
            return onScanFinished(done);
        case DeferredCalls::SIGNAL_UPDATED:
            return onSignalUpdated(*static_cast<SignalStatus*>(call.first));
        case DeferredCalls::REQUEST_UPDATE_SG:
            return onRequestUpdateSG(done, first, second);
        case DeferredCalls::REQUEST_INIT_GBA:
            return onRequestInitGBA(done);
        case DeferredCalls::REQUEST_UPDATE_ST:
            return onRequestUpdateST(done, first);
        case DeferredCalls::REQUEST_SUBSCRIBE_SERVICE:
            return onRequestSubscribeService(done);
        case DeferredCalls::REQUEST_UNSUBSCRIBE_SERVICE:
            return onRequestUnsubscribeService(done);
        case DeferredCalls::REQUEST_INQUIRY_ACCOUNT:
            return onRequestInquiryAccount(done, first);
        case DeferredCalls::REQUEST_AUTHORIZE_SERVICE:
            return onRequestAuthorizeService(done);
        case DeferredCalls::AGENT_EVENT:
            return onEvent(static_cast<EventType>(call.value), call.param);
        case DeferredCalls::ENGINE_EVENT:
            return notifyEvent(static_cast<EventType>(call.value), call.param);
    }
}
