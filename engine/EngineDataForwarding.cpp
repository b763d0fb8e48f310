// The four A/V data callbacks of the agent, forwarded unchanged to the session manager.
//
// The agent may deliver data while no session manager exists (after its init and before
// the engine has created the manager, and while deinit deletes it); such data is dropped.
// The frame start takes a data-path Access and leases the manager it found to the frame
// bracket's thread; that thread's NAL and AAC calls and its frame end reach the manager
// through the lease, which costs no atomic read-modify-write where the kernel offers
// process-wide barriers, and which deinit revokes only between two calls
// (SessionManagerSlot.h). A call that gets no lease (outside a bracket, on another thread,
// or after a revocation) falls back to an Access of its own, as every call did before.
//
// The frame bracket's thread is marked from the end of onOutputAVStart to onOutputAVEnd:
// results and events the agent raises on it meanwhile are deferred, and onOutputAVEnd passes
// them on once the session manager has ended the frame and released its locks.
#include "EngineLog.h"
#include "SessionManager.h"
#include "TavoMBBMSEngineImpl.h"

void TavoMBBMSEngineImpl::onOutputAVStart(int channelID, const unsigned char* data, int length) {
    {
        SessionManagerSlot::Access manager(mSessionManager, true);
        if (manager) {
            manager->onOutputAVStart(channelID, data, length);
            mSessionManager.openBracket(manager.get());
        }
    }
    DeferredCalls::beginBracket();
}

void TavoMBBMSEngineImpl::onOutputAVEnd(int channelID, bool withError) {
    {
        SessionManagerSlot::BracketCall leased(mSessionManager);
        if (leased) {
            leased->onOutputAVEnd(channelID, withError);
            leased.closeBracket();
        } else {
            SessionManagerSlot::Access manager(mSessionManager, true);
            if (manager)
                manager->onOutputAVEnd(channelID, withError);
        }
    }
    mDeferredCalls.endBracket([this](const DeferredCalls::Call& call) { replayDeferred(call); });
}

void TavoMBBMSEngineImpl::onClearAudioAacFrame(int channelID, unsigned long tsBase,
                                               unsigned long tsRelative, unsigned char* data,
                                               unsigned short length) {
    SessionManagerSlot::BracketCall leased(mSessionManager);
    if (leased) {
        leased->onClearAudioAacFrame(channelID, tsBase, tsRelative, data, length);
        return;
    }
    SessionManagerSlot::Access manager(mSessionManager, true);
    if (manager)
        manager->onClearAudioAacFrame(channelID, tsBase, tsRelative, data, length);
}

void TavoMBBMSEngineImpl::onClearVideoNalData(int channelID, unsigned long tsBase,
                                              unsigned long tsRelative, unsigned char* data,
                                              unsigned short length,
                                              MBBMSAgent::NAL_FRAGMENT_POS_IND pos) {
    SessionManagerSlot::BracketCall leased(mSessionManager);
    if (leased) {
        leased->onClearVideoNalData(channelID, tsBase, tsRelative, data, length, pos);
        return;
    }
    SessionManagerSlot::Access manager(mSessionManager, true);
    if (manager)
        manager->onClearVideoNalData(channelID, tsBase, tsRelative, data, length, pos);
}
