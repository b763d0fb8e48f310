// TEMPORARY development aid while the subsystems land in parallel: weak placeholder
// definitions that the real (strong) definitions replace at link time. Deleted before the
// work is complete; nothing may rely on it.
#include <cstdlib>

#include "EngineLog.h"
#include "SessionManager.h"
#include "TavoMBBMSEngineImpl.h"

#define PENDING(ret)                                        \
    do {                                                    \
        TLOG(ERROR, "%s is not implemented yet", __func__); \
        ret;                                                \
    } while (0)
#define WEAK __attribute__((weak))

WEAK int TavoMBBMSEngineImpl::setMode(Mode) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::getModuleInfo(ModuleInfo*) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::setPreference(const Preference*) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::startScan(int*, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::stopScan() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::setFrequency(int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::getFrequency() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::getMaxSupportedSessions() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::startTVService(int, int, int, int, int, IsmaPara*) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::stopTVService(int) {
    PENDING(return -1);
}
WEAK void TavoMBBMSEngineImpl::getTVServiceUrl(int, char*) {
    PENDING(return );
}
WEAK int TavoMBBMSEngineImpl::startUpdateTS0(int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::stopUpdateTS0() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::startUpdateESG(int, int, int, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::stopUpdateESG() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestUpdateSG(const char*) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestInitGBA(int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestUpdateST() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestSubscribeService(const char* const*, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestUnsubscribeService(const char* const*, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestAuthorizeService(int*, int*, const char**, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::requestInquiryAccount() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::cancelMBBMSRequest() {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::startRecording(int, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::stopRecording(int) {
    PENDING(return -1);
}
WEAK bool TavoMBBMSEngineImpl::isRecording(int) {
    PENDING(return false);
}
WEAK int TavoMBBMSEngineImpl::captureImage(int, int) {
    PENDING(return -1);
}
WEAK bool TavoMBBMSEngineImpl::isCapturing(int) {
    PENDING(return false);
}
WEAK void TavoMBBMSEngineImpl::onServiceParam(ServiceParam&) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onESGXml(ESGType, const char*) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onESGUpdated(bool) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onScanFinished(bool) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onEvent(EventType, int) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onCaInfo(CaInfo*, int) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onEmergencyMessage(EmergencyMessage&) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onTS0Parsed(int) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onSignalUpdated(SignalStatus&) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestUpdateSG(bool, const char*, const char*) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestInitGBA(bool) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestUpdateST(bool, const char*) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestSubscribeService(bool) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestUnsubscribeService(bool) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestInquiryAccount(bool, const char*) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::onRequestAuthorizeService(bool) {
    PENDING(return );
}
WEAK int TavoMBBMSEngineImpl::initSharedBuffers() {
    PENDING(return 0);
}
WEAK int TavoMBBMSEngineImpl::deinitSharedBuffers() {
    PENDING(return 0);
}
WEAK void TavoMBBMSEngineImpl::resetSharedBuffer(int) {
    PENDING(return );
}
WEAK int TavoMBBMSEngineImpl::startCommandThread() {
    PENDING(return 0);
}
WEAK int TavoMBBMSEngineImpl::stopCommandThread() {
    PENDING(return 0);
}
WEAK void* TavoMBBMSEngineImpl::runCommandThread(void*) {
    PENDING(return nullptr);
}
WEAK int TavoMBBMSEngineImpl::method_onAccepted(int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::sendCmd(const char*, int, int) {
    PENDING(return -1);
}
WEAK int TavoMBBMSEngineImpl::sendPlayEngineCommand(PlayEngineCommand, int, int) {
    PENDING(return -1);
}
WEAK void TavoMBBMSEngineImpl::onPlayEngineIndication(int, int) {
    PENDING(return );
}
WEAK void TavoMBBMSEngineImpl::dataRecording(int) {
    PENDING(return );
}

