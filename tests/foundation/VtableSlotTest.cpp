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

}  // namespace

TEST(VtableSlots, EngineInterfaceKeepsItsSlotOrder) {
    using E = TavoMBBMSEngine;
    EXPECT_EQ(2, slotOf(&E::init));
    EXPECT_EQ(3, slotOf(&E::deinit));
    EXPECT_EQ(4, slotOf(&E::setMode));
    EXPECT_EQ(5, slotOf(&E::getModuleInfo));
    EXPECT_EQ(6, slotOf(&E::setPreference));
    EXPECT_EQ(7, slotOf(&E::startScan));
    EXPECT_EQ(8, slotOf(&E::stopScan));
    EXPECT_EQ(9, slotOf(&E::setFrequency));
    EXPECT_EQ(10, slotOf(&E::getFrequency));
    EXPECT_EQ(11, slotOf(&E::getMaxSupportedSessions));
    EXPECT_EQ(12, slotOf(&E::startTVService));
    EXPECT_EQ(13, slotOf(&E::stopTVService));
    EXPECT_EQ(14, slotOf(&E::getTVServiceUrl));
    EXPECT_EQ(15, slotOf(&E::startUpdateTS0));
    EXPECT_EQ(16, slotOf(&E::stopUpdateTS0));
    EXPECT_EQ(17, slotOf(&E::startUpdateESG));
    EXPECT_EQ(18, slotOf(&E::stopUpdateESG));
    EXPECT_EQ(19, slotOf(&E::requestUpdateSG));
    EXPECT_EQ(20, slotOf(&E::requestInitGBA));
    EXPECT_EQ(21, slotOf(&E::requestUpdateST));
    EXPECT_EQ(22, slotOf(&E::requestSubscribeService));
    EXPECT_EQ(23, slotOf(&E::requestUnsubscribeService));
    EXPECT_EQ(24, slotOf(&E::requestAuthorizeService));
    EXPECT_EQ(25, slotOf(&E::requestInquiryAccount));
    EXPECT_EQ(26, slotOf(&E::cancelMBBMSRequest));
    EXPECT_EQ(27, slotOf(&E::startRecording));
    EXPECT_EQ(28, slotOf(&E::stopRecording));
    EXPECT_EQ(29, slotOf(&E::isRecording));
    EXPECT_EQ(30, slotOf(&E::captureImage));
    EXPECT_EQ(31, slotOf(&E::isCapturing));
}

// The agent callback inherits the application callback's slots unchanged, so both are
// checked through the derived class as an agent library sees it.
TEST(VtableSlots, CallbackInterfacesKeepTheirSlotOrder) {
    using C = TavoMBBMSEngineCallback;
    using A = MBBMSAgentCallback;
    EXPECT_EQ(2, slotOf(&C::onServiceParam));
    EXPECT_EQ(3, slotOf(&C::onCaInfo));
    EXPECT_EQ(4, slotOf(&C::onEmergencyMessage));
    EXPECT_EQ(5, slotOf(&C::onTS0Parsed));
    EXPECT_EQ(6, slotOf(&C::onESGXml));
    EXPECT_EQ(7, slotOf(&C::onESGUpdated));
    EXPECT_EQ(8, slotOf(&C::onScanFinished));
    EXPECT_EQ(9, slotOf(&C::onSignalUpdated));
    EXPECT_EQ(10, slotOf(&C::onRequestUpdateSG));
    EXPECT_EQ(11, slotOf(&C::onRequestInitGBA));
    EXPECT_EQ(12, slotOf(&C::onRequestUpdateST));
    EXPECT_EQ(13, slotOf(&C::onRequestSubscribeService));
    EXPECT_EQ(14, slotOf(&C::onRequestUnsubscribeService));
    EXPECT_EQ(15, slotOf(&C::onRequestInquiryAccount));
    EXPECT_EQ(16, slotOf(&C::onRequestAuthorizeService));
    EXPECT_EQ(17, slotOf(&C::onEvent));
    EXPECT_EQ(2, slotOf(static_cast<void (A::*)(ServiceParam&)>(&A::onServiceParam)));
    EXPECT_EQ(17, slotOf(static_cast<void (A::*)(EventType, int)>(&A::onEvent)));
    EXPECT_EQ(18, slotOf(&A::onOutputAVStart));
    EXPECT_EQ(19, slotOf(&A::onOutputAVEnd));
    EXPECT_EQ(20, slotOf(&A::onClearAudioAacFrame));
    EXPECT_EQ(21, slotOf(&A::onClearVideoNalData));
}

TEST(VtableSlots, AgentInterfaceKeepsItsOwnSlotOrder) {
    using G = MBBMSAgent;
    EXPECT_EQ(2, slotOf(&G::init));
    EXPECT_EQ(3, slotOf(&G::deinit));
    EXPECT_EQ(4, slotOf(&G::getModuleInfo));
    EXPECT_EQ(5, slotOf(&G::preInitStep1));
    EXPECT_EQ(6, slotOf(&G::preInitStep2));
    EXPECT_EQ(7, slotOf(&G::setPreference));
    EXPECT_EQ(8, slotOf(&G::startScan));
    EXPECT_EQ(9, slotOf(&G::stopScan));
    EXPECT_EQ(10, slotOf(&G::setFrequency));
    EXPECT_EQ(11, slotOf(&G::getFrequency));
    EXPECT_EQ(12, slotOf(&G::getMaxSupportedSessions));
    EXPECT_EQ(13, slotOf(&G::startService));
    EXPECT_EQ(14, slotOf(&G::stopService));
    EXPECT_EQ(15, slotOf(&G::startUpdateTS0));
    EXPECT_EQ(16, slotOf(&G::stopUpdateTS0));
    EXPECT_EQ(17, slotOf(&G::startUpdateESG));
    EXPECT_EQ(18, slotOf(&G::stopUpdateESG));
    EXPECT_EQ(19, slotOf(&G::requestInitGBA));
    EXPECT_EQ(20, slotOf(&G::requestUpdateSG));
    EXPECT_EQ(21, slotOf(&G::requestSubscribeService));
    EXPECT_EQ(22, slotOf(&G::requestUnsubscribeService));
    EXPECT_EQ(23, slotOf(&G::requestAuthorizeService));
    EXPECT_EQ(24, slotOf(&G::requestInquiryAccount));
    EXPECT_EQ(25, slotOf(&G::requestUpdateST));
    EXPECT_EQ(26, slotOf(&G::cancelMBBMSRequest));
}

// An application may hold a TavoMBBMSEngine that is not the library's engine; the
// interface's own bodies then do nothing.
TEST(EngineInterface, DefaultBodiesReturnZeroAndTouchNothing) {
    TavoMBBMSEngine plain;
    EXPECT_EQ(0, plain.init(nullptr, "/nonexistent"));
    EXPECT_EQ(0, plain.startTVService(0, 20, 0, 0, 0, nullptr));
    EXPECT_EQ(0, plain.requestUpdateSG("area"));
    EXPECT_FALSE(plain.isRecording(0));
    char url[32];
    memset(url, 'x', sizeof(url));
    plain.getTVServiceUrl(0, url);
    for (char c : url)
        EXPECT_EQ('x', c);
}
