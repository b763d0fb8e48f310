// Exported interface of the mobile-TV engine library (libtavombbms.so).
//
// An application obtains the single engine object with TavoMBBMSEngine::getInstance(),
// initialises it with a callback object and a working directory, and drives it through
// the virtual operations below. The virtual slot order of TavoMBBMSEngine and of
// TavoMBBMSEngineCallback, and the byte layout of the records, are binary contracts with
// applications and with the tuner vendor's agent library: never reorder or resize them.
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
// other code is the agent's and passes through unchanged.
enum EventType {
    EVENT_MBBMS_ONLY = 130,
    EVENT_WORKDIR_ERROR = 140,
    EVENT_RECORD_NO_SDCARD = 151,
    EVENT_RECORD_STORAGE_FULL = 152,
    EVENT_RECORD_MAX_FILE_SIZE = 153,
    EVENT_RECORD_ERROR = 154,
    EVENT_CAPTURE_SUCCESS = 161,
    EVENT_CAPTURE_FAIL = 162,
};

// Callback interface implemented by the application. Calls arrive on the agent's threads
// and on the engine's own threads.
class TAVO_EXPORT TavoMBBMSEngineCallback {
public:
    virtual ~TavoMBBMSEngineCallback() {}
    virtual void onServiceParam(ServiceParam& param) = 0;                                // 2
    virtual void onCaInfo(CaInfo* info, int size) = 0;                                   // 3
    virtual void onEmergencyMessage(EmergencyMessage& msg) = 0;                          // 4
    virtual void onTS0Parsed(int freqDot) = 0;                                           // 5
    virtual void onESGXml(ESGType datatype, const char* esgXml) = 0;                     // 6
    virtual void onESGUpdated(bool done) = 0;                                            // 7
    virtual void onScanFinished(bool done) = 0;                                          // 8
    virtual void onSignalUpdated(SignalStatus& status) = 0;                              // 9
    virtual void onRequestUpdateSG(bool done, const char* info, const char* info2) = 0;  // 10
    virtual void onRequestInitGBA(bool done) = 0;                                        // 11
    virtual void onRequestUpdateST(bool done, const char* info) = 0;                     // 12
    virtual void onRequestSubscribeService(bool done) = 0;                               // 13
    virtual void onRequestUnsubscribeService(bool done) = 0;                             // 14
    virtual void onRequestInquiryAccount(bool done, const char* info) = 0;               // 15
    virtual void onRequestAuthorizeService(bool done) = 0;                               // 16
    virtual void onEvent(EventType type, int param) = 0;                                 // 17
};

// The engine. Obtain it with getInstance(); every operation may be called from any thread.
// The default bodies do nothing and return 0; the library's implementation overrides all.
class TAVO_EXPORT TavoMBBMSEngine {
public:
    enum Mode {
        CMMB_MODE = 0,   // broadcast only (initial mode)
        MBBMS_MODE = 1,  // interactive MBBMS services allowed
    };

    static TavoMBBMSEngine* getInstance();

    virtual ~TavoMBBMSEngine() {}
    virtual int init(TavoMBBMSEngineCallback* /*callback*/, const char* /*dir*/) { return 0; }  // 2
    virtual int deinit() { return 0; }                                                          // 3
    virtual int setMode(Mode /*newMode*/) { return 0; }                                         // 4
    virtual int getModuleInfo(ModuleInfo* /*info*/) { return 0; }                               // 5
    virtual int setPreference(const Preference* /*pref*/) { return 0; }                         // 6
    virtual int startScan(int* /*freqDots*/, int /*count*/) { return 0; }                       // 7
    virtual int stopScan() { return 0; }                                                        // 8
    virtual int setFrequency(int /*freqDot*/) { return 0; }                                     // 9
    virtual int getFrequency() { return 0; }             // 10
    virtual int getMaxSupportedSessions() { return 0; }  // 11
    virtual int startTVService(int /*session*/, int /*freqDot*/, int /*start*/, int /*count*/,
                               int /*mod*/, IsmaPara* /*isma*/) {
        return 0;
    }                                                                // 12
    virtual int stopTVService(int /*session*/) { return 0; }         // 13
    virtual void getTVServiceUrl(int /*session*/, char* /*url*/) {}  // 14
    virtual int startUpdateTS0(int /*freqDot*/) { return 0; }        // 15
    virtual int stopUpdateTS0() { return 0; }                        // 16
    virtual int startUpdateESG(int /*freqDot*/, int /*start*/, int /*count*/, int /*mod*/) {
        return 0;
    }                                                                    // 17
    virtual int stopUpdateESG() { return 0; }                            // 18
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
    }                                                                      // 24
    virtual int requestInquiryAccount() { return 0; }                      // 25
    virtual int cancelMBBMSRequest() { return 0; }                         // 26
    virtual int startRecording(int /*session*/, int /*fd*/) { return 0; }  // 27
    virtual int stopRecording(int /*session*/) { return 0; }               // 28
    virtual bool isRecording(int /*session*/) { return 0; }                // 29
    virtual int captureImage(int /*session*/, int /*fd*/) { return 0; }    // 30
    virtual bool isCapturing(int /*session*/) { return 0; }                // 31
};

#endif  // TAVO_MBBMS_ENGINE_H
