// The four A/V data callbacks of the agent, forwarded unchanged to the session manager.
//
// The agent may deliver data while no session manager exists (after its init and before
// the engine has created the manager, and while deinit deletes it); such data is dropped.
// The slot access keeps deinit from deleting the manager under a running callback.
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
        if (manager)
            manager->onOutputAVStart(channelID, data, length);
    }
    DeferredCalls::beginBracket();
}

void TavoMBBMSEngineImpl::onOutputAVEnd(int channelID, bool withError) {
    {
        SessionManagerSlot::Access manager(mSessionManager, true);
        if (manager)
            manager->onOutputAVEnd(channelID, withError);
    }
    mDeferredCalls.endBracket([this](const DeferredCalls::Call& call) { replayDeferred(call); });
}

void TavoMBBMSEngineImpl::onClearAudioAacFrame(int channelID, unsigned long tsBase,
                                               unsigned long tsRelative, unsigned char* data,
                                               unsigned short length) {
    SessionManagerSlot::Access manager(mSessionManager, true);
    if (manager)
        manager->onClearAudioAacFrame(channelID, tsBase, tsRelative, data, length);
}

void TavoMBBMSEngineImpl::onClearVideoNalData(int channelID, unsigned long tsBase,
                                              unsigned long tsRelative, unsigned char* data,
                                              unsigned short length,
                                              MBBMSAgent::NAL_FRAGMENT_POS_IND pos) {
    SessionManagerSlot::Access manager(mSessionManager, true);
    if (manager)
        manager->onClearVideoNalData(channelID, tsBase, tsRelative, data, length, pos);
}
