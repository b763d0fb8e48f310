// Exported interface of the mobile-TV engine library (libtavombbms.so).
//
// An application obtains the single engine object with TavoMBBMSEngine::getInstance(),
// initialises it with a callback object and a working directory, and drives it through
// the virtual operations below. The virtual slot order of TavoMBBMSEngine and of
// TavoMBBMSEngineCallback, and the byte layout of the records, are binary contracts with
// applications and with the tuner vendor's agent library: never reorder or resize them.
//
// Conventions of every operation:
//   - Results: 0 for success, -1 for failure. Nothing throws. Failures that happen later,
//     on the agent's or the engine's threads, arrive as onEvent codes or as completion
//     callbacks with a `done` flag.
//   - Operations that need an initialised engine return -1 before init (and after
//     deinit) without side effects. setMode, getMaxSupportedSessions, getTVServiceUrl,
//     isRecording and isCapturing work at any time.
//   - Sessions are numbered 0 and 1. A frequency point (freqDot) is the number of a
//     broadcast frequency; -1 means none.
//   - Records and strings the application passes are read during the call only: the engine
//     keeps no pointer to them afterwards, and never frees them. Those it forwards to the
//     agent are handed over by pointer, unchanged.
//   - Every operation may be called from any thread, also from inside a callback of the
//     engine; only deinit is refused there (see deinit).
//
// The play engine's connection and buffer state are available beside this interface, as
// plain C functions: see TavoMBBMSEngineStatus.h.
#ifndef TAVO_MBBMS_ENGINE_H
#define TAVO_MBBMS_ENGINE_H

#include <cstddef>
#include <cstdint>

#define TAVO_EXPORT __attribute__((visibility("default")))

// Network settings of the MBBMS interactive channel (setPreference). Strings are
// NUL-terminated within their fields.
struct TAVO_EXPORT Preference {
    char userAgent[128];
    char apn[32];
    char wapGateway[1024];
    int32_t wapPort;
    char sgDomain[1024];
    int32_t sgPort;
};

// Description of the tuner module, filled entirely by the agent. The engine only
// provides storage for it.
struct TAVO_EXPORT ModuleInfo {
    unsigned char bytes[776];
};

// Service start parameters handed unchanged to the agent. The engine reads serviceID only.
struct TAVO_EXPORT IsmaPara {
    uint16_t serviceID;
    uint16_t reserved;
    uint8_t keyIndicatorLength;
    uint8_t ivLength;
    uint8_t selectiveEncryption;
    uint8_t reserved2;
    uint8_t salt[8];
    uint8_t keyData[48];
};

// Signal report of the tuner; passed through unchanged.
struct TAVO_EXPORT SignalStatus {
    int32_t freqDot;
    int32_t locked;
    int32_t strength;  // dBm
    int32_t snr;       // dB
    int32_t ber;       // bit errors per million
};

// Service parameters from the broadcast control table; passed through unchanged.
struct TAVO_EXPORT ServiceParam {
    int32_t freqDot;
    int32_t serviceID;
    int32_t timeSlotStart;
    int32_t timeSlotCount;
    int32_t modulation;
    int32_t scrambled;
};

// Conditional-access information; comes as an array with an int size beside it.
struct TAVO_EXPORT CaInfo {
    uint16_t caSystemID;
    uint16_t serviceID;
    uint16_t emmDataType;
    uint16_t ecmDataType;
};

// Emergency broadcast message. The engine reads only its deduplication key: the bytes at
// offsets 0, 1, 2 and 4 and the unsigned 16-bit value at offset 28.
struct TAVO_EXPORT EmergencyMessage {
    uint8_t msgType;        // 0  (key)
    uint8_t msgLevel;       // 1  (key)
    uint8_t networkLevel;   // 2  (key)
    uint8_t reserved3;      // 3
    uint8_t networkNumber;  // 4  (key)
    uint8_t reserved5[3];   // 5
    uint32_t startTime;     // 8
    uint32_t duration;      // 12
    char language[4];       // 16
    uint32_t textLength;    // 20
    uint32_t reserved24;    // 24
    uint16_t msgID;         // 28 (key)
    uint16_t reserved30;    // 30
    char text[512];         // 32
};

// The record layouts are a binary contract with applications and agent libraries.
static_assert(offsetof(Preference, userAgent) == 0 && offsetof(Preference, apn) == 128 &&
                  offsetof(Preference, wapGateway) == 160 &&
                  offsetof(Preference, wapPort) == 1184 && offsetof(Preference, sgDomain) == 1188 &&
                  offsetof(Preference, sgPort) == 2212,
              "Preference field offsets");
static_assert(sizeof(ModuleInfo) == 776, "ModuleInfo is 776 bytes");
static_assert(offsetof(IsmaPara, serviceID) == 0 && sizeof(IsmaPara::serviceID) == 2,
              "IsmaPara starts with the 16-bit service identifier");
static_assert(offsetof(EmergencyMessage, msgType) == 0 &&
                  offsetof(EmergencyMessage, msgLevel) == 1 &&
                  offsetof(EmergencyMessage, networkLevel) == 2 &&
                  offsetof(EmergencyMessage, networkNumber) == 4 &&
                  offsetof(EmergencyMessage, msgID) == 28 && sizeof(EmergencyMessage::msgID) == 2,
              "EmergencyMessage key offsets");

// Labels of the ESG fragments passed to onESGXml; values are the agent's.
enum ESGType {
    ESG_SERVICE = 0,
    ESG_SERVICE_AUX = 1,
    ESG_SCHEDULE = 2,
    ESG_CONTENT = 3,
    ESG_ACCESS = 4,
};

// Event codes for onEvent. The engine raises 140, 151-154, 161 and 162 itself; every
// other code is the agent's and passes through unchanged, with the agent's param.
enum EventType {
    // From the agent: a service that needs MBBMS mode. Not passed on while the mode is
    // CMMB_MODE (0). param: the agent's.
    EVENT_MBBMS_ONLY = 130,
    // init: the working directory does not exist and cannot be created, or its path is too
    // long. param: 0. Sent on the thread that called init, after init's lock is released
    // and before init returns -1.
    EVENT_WORKDIR_ERROR = 140,
    // Recording of session `param` ended: the storage card ("/sdcard") cannot be queried.
    EVENT_RECORD_NO_SDCARD = 151,
    // Recording of session `param` ended: the storage is (nearly) full; the file was
    // completed while the index still fitted.
    EVENT_RECORD_STORAGE_FULL = 152,
    // Recording of session `param` ended: the file reached its size limit.
    EVENT_RECORD_MAX_FILE_SIZE = 153,
    // Recording of session `param` ended: a write failed, or the file could not be
    // completed.
    EVENT_RECORD_ERROR = 154,
    // The play engine wrote the snapshot of session `param` (captureImage).
    EVENT_CAPTURE_SUCCESS = 161,
    // The snapshot of session `param` failed: the play engine said so, it left without
    // answering, the request could not be sent to it, or the descriptor's file system had
    // too little space (then sent on the thread that called captureImage, before it returns).
    EVENT_CAPTURE_FAIL = 162,
};

// Callback interface implemented by the application.
//
// Threads. Calls arrive on:
//   - the agent's threads: slots 2 to 16, and onEvent with the agent's codes. A result the
//     agent raises while its thread is writing a multiplex frame into the shared buffers is
//     held back and delivered on that same thread once the frame has been released, with
//     the engine's copies of its records and strings;
//   - the engine's command thread (play-engine link): onEvent 161 and 162;
//   - the engine's recording completion thread ("tavo-complete"), or an application thread
//     inside startRecording, stopRecording or deinit that completes a recording the frame
//     path ended: onEvent 151 to 154;
//   - the caller's own thread: onEvent 140 during init, and 162 during captureImage.
// Calls may come from several of these threads at the same time.
//
// Rules for the application:
//   - Records and strings passed to a callback are valid only until it returns; copy what
//     is needed later.
//   - No callback runs while the engine holds one of its locks, so a callback may call any
//     operation of the engine (start or stop services and recordings, capture, requests,
//     even init), except deinit, which returns -1 there and changes nothing.
//   - A callback blocks the thread it runs on: on an agent thread that delays the agent,
//     on the command thread the play-engine link. Keep them short.
//   - The callback object registered by init must stay valid until deinit has returned.
//     No callback reaches the application after deinit has returned (calls still in flight
//     on other threads are waited for).
class TAVO_EXPORT TavoMBBMSEngineCallback {
public:
    virtual ~TavoMBBMSEngineCallback() {}
    // Slot 2. Service parameters of the current frequency point, until its TS0 has been
    // reported once since init.
    virtual void onServiceParam(ServiceParam& param) = 0;  // 2
    // Slot 3. Conditional-access information (`size` entries), same condition as slot 2.
    virtual void onCaInfo(CaInfo* info, int size) = 0;  // 3
    // Slot 4. An emergency message whose key differs from the last one passed on.
    virtual void onEmergencyMessage(EmergencyMessage& msg) = 0;  // 4
    // Slot 5. First TS0 report of a frequency point since init.
    virtual void onTS0Parsed(int freqDot) = 0;  // 5
    // Slot 6. Every ESG fragment the agent delivers (NUL-terminated XML).
    virtual void onESGXml(ESGType datatype, const char* esgXml) = 0;  // 6
    // Slot 7. End of an ESG update (startUpdateESG); done: it succeeded.
    virtual void onESGUpdated(bool done) = 0;  // 7
    // Slot 8. End of a scan (startScan); done: it succeeded.
    virtual void onScanFinished(bool done) = 0;  // 8
    // Slot 9. Every signal report of the tuner.
    virtual void onSignalUpdated(SignalStatus& status) = 0;  // 9
    // Slots 10 to 16. Completion of the MBBMS request of the same name; done: it
    // succeeded. The strings are the agent's, passed on unchanged (may be null). Another
    // request may be issued from here on, also from inside this callback.
    virtual void onRequestUpdateSG(bool done, const char* info, const char* info2) = 0;  // 10
    virtual void onRequestInitGBA(bool done) = 0;                                        // 11
    virtual void onRequestUpdateST(bool done, const char* info) = 0;                     // 12
    virtual void onRequestSubscribeService(bool done) = 0;                               // 13
    virtual void onRequestUnsubscribeService(bool done) = 0;                             // 14
    virtual void onRequestInquiryAccount(bool done, const char* info) = 0;               // 15
    virtual void onRequestAuthorizeService(bool done) = 0;                               // 16
    // Slot 17. An event: the agent's codes with its param, and the engine's own codes
    // (EventType) with the param given there.
    virtual void onEvent(EventType type, int param) = 0;  // 17
};

// The engine. Obtain it with getInstance(); every operation may be called from any thread.
// The default bodies do nothing and return 0; the library's implementation overrides all.
class TAVO_EXPORT TavoMBBMSEngine {
public:
    enum Mode {
        CMMB_MODE = 0,   // broadcast only (initial mode)
        MBBMS_MODE = 1,  // interactive MBBMS services allowed
    };

    // The single engine object, created (and the tuner agent library loaded) by the first
    // call; the same pointer for the life of the process. Never delete it.
    static TavoMBBMSEngine* getInstance();

    virtual ~TavoMBBMSEngine() {}

    // Slot 2. Brings the engine up: working directory, shared A/V buffers, the command
    // socket for the play engine, the agent.
    //   callback  receives every result and event from here on (may be null: then nothing is
    //             passed on); registered even when init fails later; must stay valid until
    //             deinit has returned.
    //   dir       the working directory (NUL-terminated, at most 127 characters; a longer
    //             path is refused, never cut), or null for "/data/app/cmmb". When the path
    //             does not exist, its last component is created with mkdir mode 0777 (less
    //             the process umask); parents are not created. An existing path of any kind
    //             passes. The same path is given to the agent's init as both of its
    //             directories.
    // Returns 0 on success; 0 also when already initialised (nothing changes and the first
    // callback stays); -1 when the directory is unusable (after EVENT_WORKDIR_ERROR, param 0,
    // on this thread), or the buffers, the command thread or the agent cannot be brought up:
    // what this call had set up is undone again, and init may be retried.
    virtual int init(TavoMBBMSEngineCallback* /*callback*/, const char* /*dir*/) { return 0; }  // 2
    // Slot 3. Tears the engine down: shuts the agent down, closes the play engine's
    // connection and destroys the shared buffers. Running TV services are not stopped (the
    // agent is shut down); running recordings keep their recorders (stopRecording after the
    // next init completes them). Recordings the frame path had ended are completed and
    // their events sent before it returns; after it returns no callback reaches the
    // application. init may follow again. Returns 0 (also when not initialised), or -1
    // when called from inside a callback of the engine, where it does nothing.
    virtual int deinit() { return 0; }  // 3
    // Slot 4. Stores the mode, any value, at any time; it survives deinit and init. Only
    // MBBMS_MODE (1) allows the MBBMS-only requests; only CMMB_MODE (0) holds back
    // EVENT_MBBMS_ONLY. Always 0.
    virtual int setMode(Mode /*newMode*/) { return 0; }  // 4
    // Slot 5. Has the agent fill `info` (776 bytes). -1 when not initialised or info is null.
    virtual int getModuleInfo(ModuleInfo* /*info*/) { return 0; }  // 5
    // Slot 6. Hands the network settings to the agent (by pointer, during the call).
    // -1 when not initialised or pref is null; otherwise 0.
    virtual int setPreference(const Preference* /*pref*/) { return 0; }  // 6
    // Slot 7. Scans the `count` frequency points of `freqDots` (array and count handed to
    // the agent unchanged); the end arrives as onScanFinished. -1 when not initialised or
    // freqDots is null; otherwise 0 (the agent's result is not returned).
    virtual int startScan(int* /*freqDots*/, int /*count*/) { return 0; }  // 7
    // Slot 8. Stops a scan. -1 when not initialised; otherwise 0.
    virtual int stopScan() { return 0; }  // 8
    // Slot 9. Tunes to a frequency point. -1 when not initialised; otherwise 0.
    virtual int setFrequency(int /*freqDot*/) { return 0; }  // 9
    // Slot 10. The agent's current frequency point; -1 when not initialised (or none).
    virtual int getFrequency() { return 0; }  // 10
    // Slot 11. The agent's number of sessions, at any time; 0 when no agent could be
    // loaded. The engine serves at most 2, whatever the agent says.
    virtual int getMaxSupportedSessions() { return 0; }  // 11
    // Slot 12. Shows a broadcast service in `session` (0 up to the supported sessions - 1).
    // freqDot, start, count, mod and isma are handed to the agent's startService unchanged
    // (the meaning of start, count and mod is the agent's); isma is required and must stay
    // valid during the call. A service already running (same isma->serviceID) is shared
    // without asking the agent. All running services must be on one frequency point. The play
    // engine reads the session from its shared buffer; getTVServiceUrl names it. Returns 0, or -1
    // when not initialised, for a bad session, freqDot -1, another frequency point in use, a null
    // isma, a session already started, or the agent's refusal.
    virtual int startTVService(int /*session*/, int /*freqDot*/, int /*start*/, int /*count*/,
                               int /*mod*/, IsmaPara* /*isma*/) {
        return 0;
    }  // 12
    // Slot 13. Detaches the session from its service (the agent's service is stopped when
    // no other session uses it) and empties the session's shared buffer, also when the
    // session was not started. 0, or -1 when not initialised, for a bad session number, or
    // when the session was not started.
    virtual int stopTVService(int /*session*/) { return 0; }  // 13
    // Slot 14. Writes "cmmb://127.0.0.1/session=<session>" and its terminating NUL into
    // `url`, at any time and for any session number. `url` must not be null and must hold
    // 27 bytes for sessions 0 to 9 (37 for any int); there is no size argument.
    virtual void getTVServiceUrl(int /*session*/, char* /*url*/) {}  // 14
    // Slot 15. Starts reading TS0 (the control table) of a frequency point; the result
    // arrives as onTS0Parsed, onServiceParam and onCaInfo. -1 when not initialised; else 0.
    virtual int startUpdateTS0(int /*freqDot*/) { return 0; }  // 15
    // Slot 16. Stops reading TS0. -1 when not initialised; otherwise 0.
    virtual int stopUpdateTS0() { return 0; }  // 16
    // Slot 17. Starts an ESG update: freqDot, start, count and mod (their meaning is the
    // agent's) are handed to the agent's startUpdateESG unchanged. Fragments
    // arrive as onESGXml, the end as onESGUpdated. -1 when not initialised; otherwise 0.
    virtual int startUpdateESG(int /*freqDot*/, int /*start*/, int /*count*/, int /*mod*/) {
        return 0;
    }  // 17
    // Slot 18. Stops an ESG update. -1 when not initialised; otherwise 0.
    virtual int stopUpdateESG() { return 0; }  // 18
    // Slots 19 to 25: MBBMS requests, one at a time. Each returns the agent's result, or
    // -1 when not initialised, while another request is pending, or (UpdateSG, InitGBA,
    // UpdateST, AuthorizeService) when the mode is not MBBMS_MODE. An accepted request stays
    // pending until its completion callback (slots 10 to 16), whatever the agent returned.
    // Arguments are handed to the agent unchanged, by pointer, during the call.
    virtual int requestUpdateSG(const char* /*areaName*/) { return 0; }  // 19
    virtual int requestInitGBA(int /*force*/) { return 0; }              // 20
    virtual int requestUpdateST() { return 0; }                          // 21
    virtual int requestSubscribeService(const char* const* /*ids*/, int /*count*/) {
        return 0;
    }  // 22
    virtual int requestUnsubscribeService(const char* const* /*ids*/, int /*count*/) {
        return 0;
    }  // 23
    virtual int requestAuthorizeService(int* /*list1*/, int* /*list2*/, const char** /*names*/,
                                        int /*count*/) {
        return 0;
    }                                                  // 24
    virtual int requestInquiryAccount() { return 0; }  // 25
    // Slot 26. Asks the agent to cancel the pending request; it stays pending until its
    // completion callback. The agent's result; 0 when nothing is pending; -1 when not
    // initialised.
    virtual int cancelMBBMSRequest() { return 0; }  // 26
    // Slot 27. Records `session` (0 or 1) into the file open on `fd`. The descriptor must be
    // writable, not in append mode, positioned at byte 0, on a file system with at least
    // 1 MiB free. The engine works on its own duplicates: the caller keeps `fd`, may close it
    // once this returns, and must not write to it or move its offset while recording (the
    // duplicates share the offset). A recording already running on the session is completed
    // first. Returns 0, or -1 when not initialised, for another session, for a descriptor
    // that fails these checks or a file that cannot take its first bytes, or when the
    // recording's completion thread cannot be started (nothing is recorded then). The end of a
    // recording that stops by itself arrives as onEvent 151 to 154.
    virtual int startRecording(int /*session*/, int /*fd*/) { return 0; }  // 27
    // Slot 28. Stops recording `session` and completes its file (index written, synced,
    // closed) on the calling thread; returns once any recording event of the session that
    // was due has been delivered. 0 (also when nothing was recorded), or -1 when not
    // initialised, for another session, or when the file could not be completed.
    virtual int stopRecording(int /*session*/) { return 0; }  // 28
    // Slot 29. Whether `session` is being recorded; at any time, false for other sessions.
    virtual bool isRecording(int /*session*/) { return 0; }  // 29
    // Slot 30. Asks the play engine for a snapshot of `session` (0 or 1), written into the
    // file open on `fd`. The descriptor is passed to the play engine (which receives its
    // own duplicate); the engine neither closes nor keeps `fd`, so the caller may close it
    // once this returns. The outcome arrives as onEvent 161 or 162 with the session. Returns
    // -1 when not initialised or for another session (no event); otherwise 0, also when the
    // snapshot fails at once (fd's file system cannot be queried or has less than 100 KB
    // free, no play engine is connected): then 162 is sent on this thread before it returns.
    virtual int captureImage(int /*session*/, int /*fd*/) { return 0; }  // 30
    // Slot 31. Whether a snapshot of `session` is in progress; at any time, false for other
    // sessions.
    virtual bool isCapturing(int /*session*/) { return 0; }  // 31
};

#endif  // TAVO_MBBMS_ENGINE_H
