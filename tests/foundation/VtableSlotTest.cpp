// Pins the virtual slot of every operation of the four exported interfaces, which
// applications and agent libraries are compiled against: a reordered declaration fails here.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "MBBMSAgent.h"
#include "TavoMBBMSEngine.h"

namespace {

struct MemberPointerRep {
    uintptr_t ptr;
    ptrdiff_t adj;
};

template <typename MemberPointer>
long slotOf(MemberPointer member) {
    static_assert(sizeof(MemberPointer) == sizeof(MemberPointerRep), "two-word member pointer");
    MemberPointerRep rep;
    memcpy(&rep, &member, sizeof(rep));
#if defined(__arm__) || defined(__aarch64__)
    // ARM C++ ABI: ptr holds the vtable byte offset, the virtual flag is bit 0 of adj.
    if ((rep.adj & 1) == 0)
        return -1;
    return static_cast<long>(rep.ptr / sizeof(void*));
#else
    // Itanium C++ ABI: ptr holds 1 + the vtable byte offset for a virtual member.
    if ((rep.ptr & 1) == 0)
        return -1;
    return static_cast<long>((rep.ptr - 1) / sizeof(void*));
#endif
}

// Checks that the members, in the order given, take consecutive slots from `first` on.
template <typename... Members>
void expectSlots(long first, Members... members) {
    const long slots[] = {slotOf(members)...};
    for (size_t i = 0; i < sizeof...(members); ++i)
        EXPECT_EQ(first + static_cast<long>(i), slots[i]) << "member " << i << " of the list";
}

}  // namespace

TEST(VtableSlots, EngineInterfaceKeepsItsSlotOrder) {
    using E = TavoMBBMSEngine;
    expectSlots(2, &E::init, &E::deinit, &E::setMode, &E::getModuleInfo, &E::setPreference,
                &E::startScan, &E::stopScan, &E::setFrequency, &E::getFrequency,
                &E::getMaxSupportedSessions, &E::startTVService, &E::stopTVService,
                &E::getTVServiceUrl, &E::startUpdateTS0, &E::stopUpdateTS0, &E::startUpdateESG,
                &E::stopUpdateESG, &E::requestUpdateSG, &E::requestInitGBA, &E::requestUpdateST,
                &E::requestSubscribeService, &E::requestUnsubscribeService,
                &E::requestAuthorizeService, &E::requestInquiryAccount, &E::cancelMBBMSRequest,
                &E::startRecording, &E::stopRecording, &E::isRecording, &E::captureImage,
                &E::isCapturing);
}

// The agent callback inherits the application callback's slots unchanged, so both are
// checked through the derived class as an agent library sees it.
TEST(VtableSlots, CallbackInterfacesKeepTheirSlotOrder) {
    using C = TavoMBBMSEngineCallback;
    using A = MBBMSAgentCallback;
    expectSlots(2, &C::onServiceParam, &C::onCaInfo, &C::onEmergencyMessage, &C::onTS0Parsed,
                &C::onESGXml, &C::onESGUpdated, &C::onScanFinished, &C::onSignalUpdated,
                &C::onRequestUpdateSG, &C::onRequestInitGBA, &C::onRequestUpdateST,
                &C::onRequestSubscribeService, &C::onRequestUnsubscribeService,
                &C::onRequestInquiryAccount, &C::onRequestAuthorizeService, &C::onEvent);
    expectSlots(2, static_cast<void (A::*)(ServiceParam&)>(&A::onServiceParam));
    expectSlots(17, static_cast<void (A::*)(EventType, int)>(&A::onEvent), &A::onOutputAVStart,
                &A::onOutputAVEnd, &A::onClearAudioAacFrame, &A::onClearVideoNalData);
}

TEST(VtableSlots, AgentInterfaceKeepsItsOwnSlotOrder) {
    using G = MBBMSAgent;
    expectSlots(2, &G::init, &G::deinit, &G::getModuleInfo, &G::preInitStep1, &G::preInitStep2,
                &G::setPreference, &G::startScan, &G::stopScan, &G::setFrequency, &G::getFrequency,
                &G::getMaxSupportedSessions, &G::startService, &G::stopService, &G::startUpdateTS0,
                &G::stopUpdateTS0, &G::startUpdateESG, &G::stopUpdateESG, &G::requestInitGBA,
                &G::requestUpdateSG, &G::requestSubscribeService, &G::requestUnsubscribeService,
                &G::requestAuthorizeService, &G::requestInquiryAccount, &G::requestUpdateST,
                &G::cancelMBBMSRequest);
}
