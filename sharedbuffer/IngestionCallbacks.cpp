// The session manager's ingestion callbacks: each NAL fragment and AAC frame of a channel
// goes into the shared buffer of every session attached to it whose buffer the current frame
// holds (NalIngestion.h, AacIngestion.h do the writing). A call for the frame's own channel
// goes straight to the targets the frame start resolved; any other call (another or unknown
// channel, or no frame) looks its channel up as the tables say.
#define LOG_TAG "TavoMBBMSEngine"
#include "AacIngestion.h"
#include "NalIngestion.h"
#include "SessionManager.h"

void SessionManager::onClearVideoNalData(int channelID, unsigned long tsBase,
                                         unsigned long tsRelative, unsigned char* data,
                                         unsigned short length,
                                         MBBMSAgent::NAL_FRAGMENT_POS_IND pos) {
    // Inside the frame bracket: the tables cannot change under this call.
    const char* const caller = __func__;
    if (forFrameTargets(channelID)) {
        appendNalFragmentToTargets(mFrameTargets, mFrameTargetCount, tsBase, tsRelative, data,
                                   length, pos, caller);
        return;
    }
    const int c = dataSlot(caller, channelID);
    if (c < 0)
        return;
    forEachFrameBuffer(c, [&](CmmbSharedBuffer* buffer, BufferWriteState& state, int s) {
        return appendNalFragment(buffer, state, s, tsBase, tsRelative, data, length, pos, caller);
    });
}

void SessionManager::onClearAudioAacFrame(int channelID, unsigned long tsBase,
                                          unsigned long tsRelative, unsigned char* data,
                                          unsigned short length) {
    // Inside the frame bracket: the tables cannot change under this call.
    const char* const caller = __func__;
    if (forFrameTargets(channelID)) {
        appendAacFrameToTargets(mFrameTargets, mFrameTargetCount, tsBase, tsRelative, data, length,
                                caller);
        return;
    }
    const int c = dataSlot(caller, channelID);
    if (c < 0)
        return;
    forEachFrameBuffer(c, [&](CmmbSharedBuffer* buffer, BufferWriteState& state, int s) {
        return appendAacFrame(buffer, state, s, tsBase, tsRelative, data, length, caller);
    });
}
