// Mode, module information, network preferences, scan, tuning and the TS0 / ESG table
// updates: thin guarded forwardings to the agent, callable from any application thread.
//
// None of these operations takes an engine lock; they may run while an MBBMS request holds
// mLock. Apart from getFrequency, the agent's result is not returned: failures inside the
// agent surface later through the relayed callbacks and events.
#include "EngineGuard.h"
#include "EngineLog.h"
#include "TavoMBBMSEngineImpl.h"

int TavoMBBMSEngineImpl::setMode(Mode newMode) {
    TLOG(ENGINE, "newMode=%d", static_cast<int>(newMode));
    // Stored unchecked; it takes effect in the request checks and in the event filter, and
    // it survives deinit and init. The agent is not told.
    mMode.store(newMode);
    return 0;
}

int TavoMBBMSEngineImpl::getModuleInfo(ModuleInfo* info) {
    TLOG(MAIN, "%s()", __func__);
    RETURN_IF_NOT_INITIALIZED(-1);
    if (info == nullptr) {
        TLOG(ERROR, "failed due to info==NULL");
        return -1;
    }
    mAgent->getModuleInfo(info);
    return 0;
}

int TavoMBBMSEngineImpl::setPreference(const Preference* pref) {
    TLOG(ENGINE, "%s()", __func__);
    RETURN_IF_NOT_INITIALIZED(-1);
    if (pref == nullptr) {
        TLOG(ERROR, "failed due to pref==NULL");
        return -1;
    }
    // The precision bounds each string by its field, so an unterminated field cannot make
    // the log read past it.
    TLOG(MAIN, "pref->userAgent=%.*s", static_cast<int>(sizeof(pref->userAgent)), pref->userAgent);
    TLOG(MAIN, "pref->apn=%.*s", static_cast<int>(sizeof(pref->apn)), pref->apn);
    TLOG(MAIN, "pref->wapGateway=%.*s", static_cast<int>(sizeof(pref->wapGateway)),
         pref->wapGateway);
    TLOG(MAIN, "pref->wapPort=%d", static_cast<int>(pref->wapPort));
    TLOG(MAIN, "pref->sgDomain=%.*s", static_cast<int>(sizeof(pref->sgDomain)), pref->sgDomain);
    TLOG(MAIN, "pref->sgPort=%d", static_cast<int>(pref->sgPort));
    mAgent->setPreference(pref);
    return 0;
}

int TavoMBBMSEngineImpl::startScan(int* freqDots, int count) {
    TLOG(ENGINE, "count=%d", count);
    RETURN_IF_NOT_INITIALIZED(-1);
    if (freqDots == nullptr) {
        TLOG(ERROR, "failed due to freqDots==NULL");
        return -1;
    }
    mAgent->startScan(freqDots, count);
    return 0;
}

int TavoMBBMSEngineImpl::stopScan() {
    TLOG(ENGINE, "%s()", __func__);
    RETURN_IF_NOT_INITIALIZED(-1);
    mAgent->stopScan();
    return 0;
}

int TavoMBBMSEngineImpl::setFrequency(int freqDot) {
    TLOG(ENGINE, "freqDot=%d", freqDot);
    RETURN_IF_NOT_INITIALIZED(-1);
    mAgent->setFrequency(freqDot);
    return 0;
}

int TavoMBBMSEngineImpl::getFrequency() {
    TLOG(ENGINE, "%s()", __func__);
    // -1 before init is also the agent's own value for "no frequency".
    RETURN_IF_NOT_INITIALIZED(-1);
    return mAgent->getFrequency();
}

int TavoMBBMSEngineImpl::getMaxSupportedSessions() {
    TLOG(ENGINE, "%s()", __func__);
    // Answered at any time, initialised or not. Without an agent no session can be served.
    if (mAgent == nullptr) {
        TLOG(ERROR, "no agent, no session supported");
        return 0;
    }
    return mAgent->getMaxSupportedSessions();
}

int TavoMBBMSEngineImpl::startUpdateTS0(int freqDot) {
    TLOG(ENGINE, "freqDot=%d", freqDot);
    RETURN_IF_NOT_INITIALIZED(-1);
    mAgent->startUpdateTS0(freqDot);
    return 0;
}

int TavoMBBMSEngineImpl::stopUpdateTS0() {
    TLOG(ENGINE, "%s()", __func__);
    RETURN_IF_NOT_INITIALIZED(-1);
    mAgent->stopUpdateTS0();
    return 0;
}

int TavoMBBMSEngineImpl::startUpdateESG(int freqDot, int start, int count, int mod) {
    TLOG(ENGINE, "freqDot=%d, start=%d, count=%d, mod=%d", freqDot, start, count, mod);
    RETURN_IF_NOT_INITIALIZED(-1);
    mAgent->startUpdateESG(freqDot, start, count, mod);
    return 0;
}

int TavoMBBMSEngineImpl::stopUpdateESG() {
    TLOG(ENGINE, "%s()", __func__);
    RETURN_IF_NOT_INITIALIZED(-1);
    mAgent->stopUpdateESG();
    return 0;
}
