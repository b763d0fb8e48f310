// The one implementation of TavoMBBMSEngine, and the engine's MBBMSAgentCallback.
//
// A process-wide singleton created by getInstance(). Its member functions live beside the
// subsystem they belong to:
//   engine/        lifecycle and agent loading, tuning and tables, MBBMS requests, event relay
//   session/       TV service control (startTVService, stopTVService, getTVServiceUrl)
//   sharedbuffer/  creation, destruction and reset of the shared A/V buffers
//   playengine/    command socket server, play-engine commands, image capture
//   recording/     recording control (startRecording, stopRecording, dataRecording)
//
// Threads: application threads call the interface operations; agent threads call the
// MBBMSAgentCallback operations; the command thread serves the play engine; the recording
// completion thread completes recordings that ended in the frame path.
// Locks: the order in which they nest is stated on the lock declarations (ACQUIRED_BEFORE),
// starting with mInstanceLock below; docs/foundation.md lists it. Every call to the application
// goes through mCallback (ApplicationCallbacks) and is made holding none of these: results raised
// inside a frame bracket are deferred to its end (DeferredCalls), init reports a working-directory
// error after releasing mLock, and deinit refuses to run inside a callback and closes mCallback
// last.
#ifndef TAVO_ENGINE_TAVO_MBBMS_ENGINE_IMPL_H
#define TAVO_ENGINE_TAVO_MBBMS_ENGINE_IMPL_H

#include <pthread.h>

#include <atomic>
#include <memory>

#include "ApplicationCallbacks.h"
#include "CmmbFrameCopy.h"
#include "CmmbSharedBuffer.h"
#include "CommandSocketServer.h"
#include "DeferredCalls.h"
#include "Env.h"
#include "FrameSink.h"
#include "MBBMSAgent.h"
#include "Mutex.h"
#include "PlayEngineLink.h"
#include "PlayEngineProtocol.h"
#include "RecordingControl.h"
#include "SessionManager.h"
#include "SessionManagerSlot.h"
#include "SharedBufferSet.h"
#include "TavoMBBMSEngine.h"
#include "ThreadAnnotations.h"
#include "UniqueHandle.h"

class Env;
class SessionManager;

// Releases an agent through its library's "destroyAgent", which the engine looks up and sets
// when it destroys the agent.
struct AgentRelease {
    DestroyAgentFunc destroyAgent = nullptr;
    void operator()(MBBMSAgent* agent) const { destroyAgent(agent); }
};

class TavoMBBMSEngineImpl : public TavoMBBMSEngine,
                            public MBBMSAgentCallback,
                            private RecordingControl::Host,
                            private CommandSocketServer::Delegate {
public:
    static TavoMBBMSEngineImpl* getInstance() EXCLUDES(mInstanceLock);

    // ---- TavoMBBMSEngine ----
    int init(TavoMBBMSEngineCallback* callback, const char* dir) override EXCLUDES(mLock);
    int deinit() override EXCLUDES(mDeinitLock, mLock);
    int setMode(Mode newMode) override;
    int getModuleInfo(ModuleInfo* info) override;
    int setPreference(const Preference* pref) override;
    int startScan(int* freqDots, int count) override;
    int stopScan() override;
    int setFrequency(int freqDot) override;
    int getFrequency() override;
    int getMaxSupportedSessions() override;
    int startTVService(int session, int freqDot, int start, int count, int mod,
                       IsmaPara* isma) override;
    int stopTVService(int session) override;
    void getTVServiceUrl(int session, char* url) override;
    int startUpdateTS0(int freqDot) override;
    int stopUpdateTS0() override;
    int startUpdateESG(int freqDot, int start, int count, int mod) override;
    int stopUpdateESG() override;
    int requestUpdateSG(const char* areaName) override;
    int requestInitGBA(int force) override;
    int requestUpdateST() override;
    int requestSubscribeService(const char* const* ids, int count) override;
    int requestUnsubscribeService(const char* const* ids, int count) override;
    int requestAuthorizeService(int* list1, int* list2, const char** names, int count) override;
    int requestInquiryAccount() override;
    int cancelMBBMSRequest() override;
    int startRecording(int session, int fd) override;
    int stopRecording(int session) override;
    bool isRecording(int session) override;
    int captureImage(int session, int fd) override;
    bool isCapturing(int session) override;

    // ---- MBBMSAgentCallback (agent threads) ----
    void onServiceParam(ServiceParam& param) override;
    void onESGXml(ESGType datatype, const char* esgXml) override;
    void onESGUpdated(bool done) override;
    void onScanFinished(bool done) override;
    void onEvent(EventType type, int param) override;
    void onCaInfo(CaInfo* info, int size) override;
    void onEmergencyMessage(EmergencyMessage& msg) override;
    void onTS0Parsed(int freqDot) override;
    void onSignalUpdated(SignalStatus& status) override;
    void onRequestUpdateSG(bool done, const char* info, const char* info2) override;
    void onRequestInitGBA(bool done) override;
    void onRequestUpdateST(bool done, const char* info) override;
    void onRequestSubscribeService(bool done) override;
    void onRequestUnsubscribeService(bool done) override;
    void onRequestInquiryAccount(bool done, const char* info) override;
    void onRequestAuthorizeService(bool done) override;
    void onOutputAVStart(int channelID, const unsigned char* data, int length) override;
    void onOutputAVEnd(int channelID, bool withError) override;
    void onClearAudioAacFrame(int channelID, unsigned long tsBase, unsigned long tsRelative,
                              unsigned char* data, unsigned short length) override;
    void onClearVideoNalData(int channelID, unsigned long tsBase, unsigned long tsRelative,
                             unsigned char* data, unsigned short length,
                             MBBMSAgent::NAL_FRAGMENT_POS_IND pos) override;

    // ---- Shared A/V buffers (sharedbuffer/) ----
    // init and deinit.
    int initSharedBuffers() REQUIRES(mLock);
    int deinitSharedBuffers() REQUIRES(mLock);
    // Empties one session's buffer; waits out a frame being written. Sessions 0 and 1 only.
    void resetSharedBuffer(int session);
    // The mapping of a session's buffer in this process, or null (sessions 0 and 1 only).
    CmmbSharedBuffer* sharedBuffer(int session) const;
    const char* workDir() const { return mWorkDir; }

    // ---- Command socket server and play-engine commands (playengine/) ----
    // Under mLock: init, deinit and a failed init's roll-back start and stop the thread.
    int startCommandThread() REQUIRES(mLock);
    int stopCommandThread() REQUIRES(mLock);
    // Run at process exit (registered by the first startCommandThread): stops a command
    // thread that deinit has not stopped, before the objects it uses are destroyed.
    static void stopCommandThreadAtExit();
    // A client was accepted (command thread): it is sent both "sharebuffer" commands.
    int method_onAccepted(int fd);
    // Any thread; 0 when the message went out, else -1.
    int sendCmd(const char* cmd, int fd, int session);
    int sendPlayEngineCommand(PlayEngineCommand cmd, int fd, int session);
    // An indication of the play engine (command thread).
    void onPlayEngineIndication(int indication, int session);

    // ---- Play-engine status (engine/EngineStatus.cpp, exported through
    // TavoMBBMSEngineStatus.h). Any thread, any time; neither creates the engine.
    static int playEngineConnectedStatus();
    static int playEngineHoldsBufferStatus(int session);

    // ---- Recording (recording/) ----
    // Agent thread, inside the frame bracket with the session's buffer locked.
    void dataRecording(int session);
    // The session's recording flag as the frame hand-off reads it (sessions 0 and 1 only).
    static bool recordingFlag(int session);

private:
    // RecordingControl::Host (recording/EngineRecording.cpp).
    bool holdFrames() override;
    void releaseFrames(bool held) override;
    void notifyRecordingEvent(EventType type, int session) override;
    Env* env() override;

    // CommandSocketServer::Delegate (playengine/EngineCommandServer.cpp), command thread.
    // With frames held off, replaces the buffers a departed reader still holds and marks the
    // buffers as handed to a live client. False when the client must not receive them.
    bool prepareForClient() override;
    void clientAccepted(int fd) override;
    // Tells the buffers and ends the snapshots the departed client owed with
    // EVENT_CAPTURE_FAIL.
    void clientGone(PlayEngineLink::CaptureSet owed) override;
    void indicationReceived(int code) override;

    // Tells the engine of each session's frame end: a recording session records it.
    class RecordingSink : public FrameSink {
    public:
        explicit RecordingSink(TavoMBBMSEngineImpl& engine) : mEngine(engine) {}
        void onSessionFrameEnd(int session) override {
            if (TavoMBBMSEngineImpl::recordingFlag(session))
                mEngine.dataRecording(session);
        }

    private:
        TavoMBBMSEngineImpl& mEngine;
    };

    TavoMBBMSEngineImpl();
    ~TavoMBBMSEngineImpl() override;
    TavoMBBMSEngineImpl(const TavoMBBMSEngineImpl&) = delete;
    TavoMBBMSEngineImpl& operator=(const TavoMBBMSEngineImpl&) = delete;

    // Agent library loading, at construction; logs as `caller` (the constructor).
    void loadAgent(const char* caller);
    // init's steps, under mLock. Sets *workDirError when EVENT_WORKDIR_ERROR is due; init
    // sends it once mLock is released.
    int initLocked(TavoMBBMSEngineCallback* callback, const char* dir, bool* workDirError)
        REQUIRES(mLock);
    // deinit's steps, under mLock. False when the engine was not initialised.
    bool deinitLocked() REQUIRES(mLock);
    // Undoes what a failed init had set up, so that a retry creates nothing twice.
    void rollBackFailedInit(bool commandThreadStarted) REQUIRES(mLock);
    // Sends an application event when a callback is registered; inside a frame bracket it is
    // deferred to the bracket's end.
    static void notifyEvent(EventType type, int param);
    // On the thread inside a frame bracket: keeps the agent's call for the bracket's end and
    // returns true. Elsewhere returns false and the caller goes on.
    bool deferInsideBracket(DeferredCalls::Kind kind, int value = 0, int param = 0,
                            DeferredCalls::Bytes first = DeferredCalls::Bytes{nullptr, 0},
                            DeferredCalls::Bytes second = DeferredCalls::Bytes{nullptr, 0});
    // Runs a deferred call as if it arrived now, outside the bracket (EngineEventRelay.cpp).
    void replayDeferred(const DeferredCalls::Call& call);
    // Starts one MBBMS request: the checks, logged as lines of `operation`, then the agent
    // call under mLock.
    template <typename AgentCall>
    int runRequest(const char* operation, MBBMSRequest request, bool needsMbbmsMode, AgentCall call)
        EXCLUDES(mLock);
    // Ends whatever request is pending (completion callbacks).
    void endPendingRequest();

    // Deduplication key of emergency messages: bytes 0, 1, 2 and 4 and the 16-bit value at
    // offset 28, packed into one word so that init and the agent threads exchange it
    // atomically. The value after init is all ones.
    static uint64_t emergencyKeyOf(const EmergencyMessage& msg);
    static const uint64_t kNoEmergencyKey = 0xFFFFFFFFFFFFull;

    // ---- Instance state ----
    // The platform calls and the clock of everything the engine does, read from
    // Env::current() once by each init and handed to every object it creates. Set under mLock
    // before the engine is marked initialised; atomic because an operation that started
    // before a deinit may still read it while the next init sets it.
    std::atomic<Env*> mEnv{nullptr};
    // Pending MBBMS request; tested and set atomically (compare-and-swap) by the request
    // operations, cleared by the completion callbacks on agent threads.
    std::atomic<int> mPendingRequest;
    // Written by setMode (any thread), read by requests and the event relay.
    std::atomic<int> mMode;
    // Results and events the agent raised inside the frame bracket in progress
    // (EngineDataForwarding.cpp).
    DeferredCalls mDeferredCalls;
    // Owned session manager, between a successful init and deinit. The slot lets agent and
    // application threads use it without racing its deletion by deinit.
    SessionManagerSlot mSessionManager;
    // The agent library, and the agent created by it (null if it could not be created). The
    // agent is declared after the library so that it is released first, while the library's
    // code is still mapped; the destructor releases both explicitly.
    UniqueLibrary mAgentLib;
    std::unique_ptr<MBBMSAgent, AgentRelease> mAgent;
    std::atomic<bool> mIsInitialized;
    // Per frequency point 0..47: TS0 reported since init. Agent threads; reset by init.
    std::atomic<bool> mTS0Reported[48];
    // Key of the last emergency message passed on. Agent threads; reset by init.
    std::atomic<uint64_t> mLastEmergencyKey;
    char mWorkDir[128];
    // The two sessions' shared buffers: descriptors, mappings, semaphores and the engine's
    // side of their locks. Created by init, destroyed by deinit (under mLock).
    SharedBufferSet mSharedBuffers;
    RecordingSink mFrameSink;
    // Serialises init, deinit and the agent call of each MBBMS request. The session
    // manager's lock nests inside it.
    Mutex mLock ACQUIRED_BEFORE(SessionManager::mutexSessionChangable);
    // Serialises whole deinit calls, their steps after mLock included, so that a second
    // deinit returns only once the first has delivered its last callback. Never taken on a
    // thread inside an application callback (deinit refuses to run there).
    Mutex mDeinitLock ACQUIRED_BEFORE(mLock);
    // Recording of the sessions; uses mSessionManager and mIsRecording.
    RecordingControl mRecording{*this, mIsRecording};
    // The manager through which the recording control holds frames off, between holdFrames
    // and releaseFrames. Guarded by that hold, which one thread at a time can have.
    SessionManager* mFramesHeldOffBy = nullptr;
    // The play engine's server: the listening socket, the connected client, the command
    // thread and its run flag. Lives as long as the engine; start and stop under mLock.
    CommandSocketServer mCommandServer{*this};

    // ---- Process-wide state ----
    static std::atomic<TavoMBBMSEngineImpl*> mInstance;
    // Singleton creation only; the outermost lock.
    static Mutex mInstanceLock ACQUIRED_BEFORE(mDeinitLock, mLock);
    // The application's callback, registered by init and closed by deinit; every call to the
    // application goes through it.
    static ApplicationCallbacks mCallback;
    static std::atomic<bool> mIsRecording[2];
    static std::atomic<bool> mIsCapturing[2];
};

#endif  // TAVO_ENGINE_TAVO_MBBMS_ENGINE_IMPL_H
