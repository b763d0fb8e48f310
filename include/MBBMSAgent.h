// Contract between the engine and the tuner vendor's agent library.
//
// The agent library is loaded at run time and exports two unmangled functions,
// "createAgent" and "destroyAgent". The engine gives the agent an MBBMSAgentCallback
// through which results, events and descrambled audio and video come back. The slot order
// of MBBMSAgent differs from the engine interface and is binding.
//
// What the engine assumes of an agent (docs/writing-a-tuner-agent.md has the whole of it):
//   - Locks: init, deinit, the preparation steps and the MBBMS requests are called with the
//     engine's mLock held; startService and stopService with its session lock held, the lock
//     that the frame bracket also holds from onOutputAVStart to onOutputAVEnd. So
//     startService and stopService must not wait for the output thread to end a frame (a
//     stopService that joins its output thread waits for ever); join it in deinit instead.
//     Everything else is called without an engine lock.
//   - Re-entrance: the engine calls getFrequency from inside onServiceParam and onCaInfo, and
//     the application may call the engine, and so the agent, from inside any callback.
//   - Frame bracket: onOutputAVStart, the frame's data callbacks, then onOutputAVEnd, on one
//     thread; brackets never nest or overlap, even for different channels. Only data
//     callbacks belong inside a bracket: a result or event raised on the bracket's thread is
//     copied and passed on only when the bracket has ended.
//   - Media: time is tsBase + tsRelative in ticks of 1/22,500 s, each unsigned 32-bit, the
//     sum wrapping modulo 2^32. Video is H.264 Annex B with SPS and PPS in-band. Audio is raw
//     AAC (no ADTS header), each frame under 2,041 bytes. Per multiplex frame and session at
//     most 65,534 payload bytes, 256 NAL units and 256 AAC frames; the rest is dropped.
//   - Requests: every request the agent accepts ends with its completion callback; until
//     then the engine refuses other requests.
#ifndef TAVO_MBBMS_AGENT_H
#define TAVO_MBBMS_AGENT_H

#include "TavoMBBMSEngine.h"

class MBBMSAgentCallback;

// Identifiers of the MBBMS interactive requests: the number of the request in progress,
// which the engine hands to cancelMBBMSRequest.
enum MBBMSRequest {
    REQUEST_NONE = 0,
    REQUEST_UPDATE_SG = 1,
    REQUEST_INIT_GBA = 2,
    REQUEST_AUTHORIZE_SERVICE = 3,
    REQUEST_SUBSCRIBE_SERVICE = 4,
    REQUEST_UNSUBSCRIBE_SERVICE = 5,
    REQUEST_INQUIRY_ACCOUNT = 6,
    REQUEST_UPDATE_ST = 7,
    REQUEST_NOT_READY = 10,  // the engine is not initialised
};

class TAVO_EXPORT MBBMSAgent {
public:
    // Position of a video fragment within a NAL unit: bit 1 = begins one (and starts with
    // an Annex B start code), bit 0 = ends one. An agent may pass any int: the fixed
    // underlying type makes every value a valid one (the engine reads only the two flags).
    enum NAL_FRAGMENT_POS_IND : int {
        NAL_FRAGMENT_MIDDLE = 0,
        NAL_FRAGMENT_END = 1,
        NAL_FRAGMENT_START = 2,
        NAL_FRAGMENT_COMPLETE = 3,
    };

    virtual ~MBBMSAgent() {}
    virtual int init(MBBMSAgentCallback* callback, const char* dir, const char* dir2) = 0;  // 2
    virtual int deinit() = 0;                                                               // 3
    virtual int getModuleInfo(ModuleInfo* info) = 0;                                        // 4
    virtual int preInitStep1() = 0;                                                         // 5
    virtual int preInitStep2() = 0;                                                         // 6
    virtual int setPreference(const Preference* pref) = 0;                                  // 7
    virtual int startScan(int* freqDots, int count) = 0;                                    // 8
    virtual int stopScan() = 0;                                                             // 9
    virtual int setFrequency(int freqDot) = 0;                                              // 10
    virtual int getFrequency() = 0;                                                         // 11
    virtual int getMaxSupportedSessions() = 0;                                              // 12
    // Called with the session lock held, which an output thread waiting in onOutputAVStart
    // needs: must not wait for that thread. 0 and a channelID of 0 or more = started.
    virtual int startService(int* channelID, int freqDot, int start, int count, int mod,
                             IsmaPara* isma) = 0;  // 13
    // Called with the session lock held, as startService. 0 = stopped.
    virtual int stopService(int channelID) = 0;                                    // 14
    virtual int startUpdateTS0(int freqDot) = 0;                                   // 15
    virtual int stopUpdateTS0() = 0;                                               // 16
    virtual int startUpdateESG(int freqDot, int start, int count, int mod) = 0;    // 17
    virtual int stopUpdateESG() = 0;                                               // 18
    virtual int requestInitGBA(int force) = 0;                                     // 19
    virtual int requestUpdateSG(const char* areaName) = 0;                         // 20
    virtual int requestSubscribeService(const char* const* ids, int count) = 0;    // 21
    virtual int requestUnsubscribeService(const char* const* ids, int count) = 0;  // 22
    virtual int requestAuthorizeService(int* list1, int* list2, const char** names,
                                        int count) = 0;  // 23
    virtual int requestInquiryAccount() = 0;             // 24
    virtual int requestUpdateST() = 0;                   // 25
    virtual int cancelMBBMSRequest(int request) = 0;     // 26
};

// Interface the agent calls. The first sixteen operations are those of
// TavoMBBMSEngineCallback; the four data operations ignore their data by default.
class TAVO_EXPORT MBBMSAgentCallback : public TavoMBBMSEngineCallback {
public:
    // Start of one multiplex frame of a channel: the raw frame bytes. Until the matching
    // onOutputAVEnd, on the same thread, only the data callbacks below belong here.
    virtual void onOutputAVStart(int /*channelID*/, const unsigned char* /*data*/, int /*length*/) {
    }  // 18
    // End of the frame started by onOutputAVStart; withError when demultiplexing failed.
    virtual void onOutputAVEnd(int /*channelID*/, bool /*withError*/) {}  // 19
    // One raw AAC frame (no ADTS header), under 2,041 bytes. tsBase + tsRelative: ticks of
    // 1/22,500 s, wrapping modulo 2^32.
    virtual void onClearAudioAacFrame(int /*channelID*/, unsigned long /*tsBase*/,
                                      unsigned long /*tsRelative*/, unsigned char* /*data*/,
                                      unsigned short /*length*/) {}  // 20
    // One H.264 NAL unit or a fragment of one; see MBBMSAgent::NAL_FRAGMENT_POS_IND. SPS and
    // PPS come in-band, as NAL units. Time as for audio.
    virtual void onClearVideoNalData(int /*channelID*/, unsigned long /*tsBase*/,
                                     unsigned long /*tsRelative*/, unsigned char* /*data*/,
                                     unsigned short /*length*/,
                                     MBBMSAgent::NAL_FRAGMENT_POS_IND /*pos*/) {}  // 21
};

// Signatures of the two functions every agent library exports unmangled.
extern "C" {
typedef MBBMSAgent* (*CreateAgentFunc)();
typedef void (*DestroyAgentFunc)(MBBMSAgent* agent);
}

#endif  // TAVO_MBBMS_AGENT_H
