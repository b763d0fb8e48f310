// Pins the virtual slot of every operation of the four exported interfaces. Applications
// and agent libraries are compiled against these slot numbers, so a reordered declaration
// must fail here. The slot is decoded from a pointer to the virtual member under the C++
// ABI in use.
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
template <typename... Slots>
void expectSlots(long first, Slots... slots) {
    const long list[] = {slots...};
    for (size_t i = 0; i < sizeof...(slots); ++i)
        EXPECT_EQ(first + static_cast<long>(i), list[i]) << "member " << i << " of the list";
}

}  // namespace

TEST(VtableSlots, EngineInterfaceKeepsItsSlotOrder) {
    using E = TavoMBBMSEngine;
    expectSlots(2, slotOf(&E::init), slotOf(&E::deinit), slotOf(&E::setMode),
                slotOf(&E::getModuleInfo), slotOf(&E::setPreference), slotOf(&E::startScan),
                slotOf(&E::stopScan), slotOf(&E::setFrequency), slotOf(&E::getFrequency),
                slotOf(&E::getMaxSupportedSessions), slotOf(&E::startTVService),
                slotOf(&E::stopTVService), slotOf(&E::getTVServiceUrl), slotOf(&E::startUpdateTS0),
                slotOf(&E::stopUpdateTS0), slotOf(&E::startUpdateESG), slotOf(&E::stopUpdateESG),
                slotOf(&E::requestUpdateSG), slotOf(&E::requestInitGBA),
                slotOf(&E::requestUpdateST), slotOf(&E::requestSubscribeService),
                slotOf(&E::requestUnsubscribeService), slotOf(&E::requestAuthorizeService),
                slotOf(&E::requestInquiryAccount), slotOf(&E::cancelMBBMSRequest),
                slotOf(&E::startRecording), slotOf(&E::stopRecording), slotOf(&E::isRecording),
                slotOf(&E::captureImage), slotOf(&E::isCapturing));
}

// The agent callback inherits the application callback's slots unchanged, so both are
// checked through the derived class as an agent library sees it.
TEST(VtableSlots, CallbackInterfacesKeepTheirSlotOrder) {
    using C = TavoMBBMSEngineCallback;
    using A = MBBMSAgentCallback;
    expectSlots(2, slotOf(&C::onServiceParam), slotOf(&C::onCaInfo), slotOf(&C::onEmergencyMessage),
                slotOf(&C::onTS0Parsed), slotOf(&C::onESGXml), slotOf(&C::onESGUpdated),
                slotOf(&C::onScanFinished), slotOf(&C::onSignalUpdated),
                slotOf(&C::onRequestUpdateSG), slotOf(&C::onRequestInitGBA),
                slotOf(&C::onRequestUpdateST), slotOf(&C::onRequestSubscribeService),
                slotOf(&C::onRequestUnsubscribeService), slotOf(&C::onRequestInquiryAccount),
                slotOf(&C::onRequestAuthorizeService), slotOf(&C::onEvent));
    expectSlots(2, slotOf(static_cast<void (A::*)(ServiceParam&)>(&A::onServiceParam)));
    expectSlots(17, slotOf(static_cast<void (A::*)(EventType, int)>(&A::onEvent)),
                slotOf(&A::onOutputAVStart), slotOf(&A::onOutputAVEnd),
                slotOf(&A::onClearAudioAacFrame), slotOf(&A::onClearVideoNalData));
}

TEST(VtableSlots, AgentInterfaceKeepsItsOwnSlotOrder) {
    using G = MBBMSAgent;
    expectSlots(2, slotOf(&G::init), slotOf(&G::deinit), slotOf(&G::getModuleInfo),
                slotOf(&G::preInitStep1), slotOf(&G::preInitStep2), slotOf(&G::setPreference),
                slotOf(&G::startScan), slotOf(&G::stopScan), slotOf(&G::setFrequency),
                slotOf(&G::getFrequency), slotOf(&G::getMaxSupportedSessions),
                slotOf(&G::startService), slotOf(&G::stopService), slotOf(&G::startUpdateTS0),
                slotOf(&G::stopUpdateTS0), slotOf(&G::startUpdateESG), slotOf(&G::stopUpdateESG),
                slotOf(&G::requestInitGBA), slotOf(&G::requestUpdateSG),
                slotOf(&G::requestSubscribeService), slotOf(&G::requestUnsubscribeService),
                slotOf(&G::requestAuthorizeService), slotOf(&G::requestInquiryAccount),
                slotOf(&G::requestUpdateST), slotOf(&G::cancelMBBMSRequest));
}
