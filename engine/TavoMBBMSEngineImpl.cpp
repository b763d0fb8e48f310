// Engine lifecycle: the singleton, loading of the vendor agent library, init and deinit.
#include "TavoMBBMSEngineImpl.h"
#include "EngineSessions.h"

#include <dlfcn.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstring>

#include "AndroidPaths.h"
#include "EngineLog.h"
#include "Env.h"
#include "LogMask.h"
#include "MutexLock.h"
#include "Properties.h"
#include "SessionManager.h"

namespace {

const char kVendorProperty[] = "persist.mbbms.module.vendor";
const char kInnoLibrary[] = "/system/lib/libinno.so";
const char kSianoLibrary[] = "/system/lib/libsiano.so";
const char kDefaultWorkDir[] = "/data/app/cmmb";
// init's lines are logged in its name, also those of its steps under mLock.
const char kInit[] = "init";
const char kDeinit[] = "deinit";

}  // namespace

std::atomic<TavoMBBMSEngineImpl*> TavoMBBMSEngineImpl::mInstance{nullptr};
Mutex TavoMBBMSEngineImpl::mInstanceLock;
ApplicationCallbacks TavoMBBMSEngineImpl::mCallback;
std::atomic<bool> TavoMBBMSEngineImpl::mIsRecording[2] = {{false}, {false}};
std::atomic<bool> TavoMBBMSEngineImpl::mIsCapturing[2] = {{false}, {false}};

TavoMBBMSEngine* TavoMBBMSEngine::getInstance() {
    return TavoMBBMSEngineImpl::getInstance();
}

TavoMBBMSEngineImpl* TavoMBBMSEngineImpl::getInstance() {
    MutexLock guard(mInstanceLock);
    if (mInstance.load() == nullptr)
        mInstance.store(new TavoMBBMSEngineImpl());
    return mInstance.load();
}

TavoMBBMSEngineImpl::TavoMBBMSEngineImpl()
    : mPendingRequest(REQUEST_NOT_READY),
      mMode(CMMB_MODE),
      mIsInitialized(false),
      mTS0Reported{},
      mLastEmergencyKey(kNoEmergencyKey),
      mWorkDir{},
      mSharedBuffers(),
      mFrameSink(*this) {
    LogMask::readConfigure();
    TLOG(ENGINE, "%s()", __func__);
    loadAgent(__func__);
}

void TavoMBBMSEngineImpl::loadAgent(const char* caller) {
    char vendor[PROPERTY_VALUE_MAX];
    property_get(kVendorProperty, vendor, nullptr);
    const char* library = kSianoLibrary;
    if (vendor[0] != '\0' && strncasecmp(vendor, "inno", 4) == 0) {
        TLOG_FOR(caller, MAIN, "open libinno.so");
        library = kInnoLibrary;
    } else {
        TLOG_FOR(caller, MAIN, "open libsiano.so");
    }

    char path[1024];
    if (resolveAndroidPath(library, path, sizeof(path)) != 0) {
        TLOG_FOR(caller, ERROR, "Can not load library: %s", "path too long");
        return;
    }
    mAgentLib.reset(dlopen(path, RTLD_LAZY));
    if (!mAgentLib) {
        TLOG_FOR(caller, ERROR, "Can not load library: %s", dlerror());
        return;
    }
    TLOG_FOR(caller, MAIN, "dynamically load so file successfully");

    dlerror();
    void* symbol = dlsym(mAgentLib.get(), "createAgent");
    const char* error = dlerror();
    if (error != nullptr || symbol == nullptr) {
        TLOG_FOR(caller, ERROR, "Cannot load symbol for createAgent: %s",
                 error != nullptr ? error : "null symbol");
        return;  // no agent: every operation that needs it fails
    }
    CreateAgentFunc createAgent = reinterpret_cast<CreateAgentFunc>(symbol);
    mAgent.reset(createAgent());
}

TavoMBBMSEngineImpl::~TavoMBBMSEngineImpl() {
    TLOG(ENGINE, "%s()", "~TavoMBBMSEngineImpl");
    if (!mAgentLib)
        return;
    dlerror();
    void* symbol = dlsym(mAgentLib.get(), "destroyAgent");
    const char* error = dlerror();
    if (error != nullptr || symbol == nullptr) {
        TLOG(ERROR, "Cannot load symbol for destroyAgent: %s",
             error != nullptr ? error : "null symbol");
        // Without "destroyAgent" the agent cannot be released safely: it is left alive and
        // its library stays loaded, since closing it would unmap the agent's code.
        mAgent.release();
        mAgentLib.release();
        return;
    }
    mAgent.get_deleter().destroyAgent = reinterpret_cast<DestroyAgentFunc>(symbol);
    mAgent.reset();
    mAgentLib.reset();
}

int TavoMBBMSEngineImpl::init(TavoMBBMSEngineCallback* callback, const char* dir) {
    TLOG(ENGINE, "%s()", __func__);
    bool workDirError = false;
    int result;
    {
        TLOG(SEMAPHORE, "wait mLock...");
        MutexLock guard(mLock);
        TLOG(SEMAPHORE, "wait mLock...done");
        result = initLocked(callback, dir, &workDirError);
    }
    // The application hears of the failure only once mLock is released, so that its handler
    // may call into the engine (even init again, with another directory).
    if (workDirError)
        notifyEvent(EVENT_WORKDIR_ERROR, 0);
    return result;
}

int TavoMBBMSEngineImpl::initLocked(TavoMBBMSEngineCallback* callback, const char* dir,
                                    bool* workDirError) {
    if (mIsInitialized.load()) {
        TLOG_FOR(kInit, WARNING, "skipped due to mIsInitialized==true");
        return 0;
    }

    // From here on callbacks reach the new registration, also when init fails later on.
    mCallback.open(callback);
    // The one read of the current Env: this init and everything it creates use it.
    mEnv.store(Env::current());

    // The working directory must fit mWorkDir whole; a longer path is refused, never cut.
    const char* requested = dir;
    char defaultDir[sizeof(mWorkDir)];
    if (requested == nullptr) {
        if (resolveAndroidPath(kDefaultWorkDir, defaultDir, sizeof(defaultDir)) != 0) {
            TLOG_FOR(kInit, ERROR, "working directory too long (more than %d characters): %s%s",
                     static_cast<int>(sizeof(mWorkDir)) - 1, "<root>", kDefaultWorkDir);
            *workDirError = true;
            return -1;
        }
        requested = defaultDir;
    }
    if (strlen(requested) >= sizeof(mWorkDir)) {
        TLOG_FOR(kInit, ERROR, "working directory too long (more than %d characters): %s",
                 static_cast<int>(sizeof(mWorkDir)) - 1, requested);
        *workDirError = true;
        return -1;
    }
    strcpy(mWorkDir, requested);

    struct stat status;
    if (lstat(mWorkDir, &status) != 0) {
        mkdir(mWorkDir, 0777);
        if (lstat(mWorkDir, &status) != 0) {
            TLOG_FOR(kInit, ERROR, "%s not exist and can't be created", mWorkDir);
            *workDirError = true;
            return -1;
        }
    }

    if (initSharedBuffers() == -1)
        return -1;

    if (startCommandThread() == -1) {
        rollBackFailedInit(false);
        return -1;
    }

    if (mAgent == nullptr) {
        TLOG_FOR(kInit, ERROR,
                 "no agent: the agent library or its createAgent could not be loaded");
        rollBackFailedInit(true);
        return -1;
    }
    mAgent->preInitStep1();
    mAgent->preInitStep2();
    if (mAgent->init(this, mWorkDir, mWorkDir) == -1) {
        rollBackFailedInit(true);
        return -1;
    }
    TLOG_FOR(kInit, MAIN, "init Agent OK");

    for (std::atomic<bool>& reported : mTS0Reported)
        reported.store(false);
    mLastEmergencyKey.store(kNoEmergencyKey);

    mIsInitialized.store(true);
    mPendingRequest.store(REQUEST_NONE);

    mSessionManager.install(
        std::make_unique<SessionManager>(&mSharedBuffers, &mFrameSink, mAgent.get(), mWorkDir));

    ModuleInfo scratch;
    getModuleInfo(&scratch);
    return 0;
}

void TavoMBBMSEngineImpl::rollBackFailedInit(bool commandThreadStarted) {
    if (commandThreadStarted) {
        mCommandServer.clearRunFlag();
        stopCommandThread();
    }
    deinitSharedBuffers();
}

int TavoMBBMSEngineImpl::deinit() {
    TLOG(ENGINE, "%s()", __func__);
    // From inside a callback deinit would wait for that callback (or join the thread it runs
    // on, or take a lock the thread already holds): refused, the engine goes on serving.
    if (ApplicationCallbacks::insideCallback()) {
        TLOG(ERROR, "deinit called from a callback of the engine, refused");
        return -1;
    }

    MutexLock serialised(mDeinitLock);
    unsigned registration;
    bool wasInitialized;
    {
        TLOG(SEMAPHORE, "wait mLock...");
        MutexLock guard(mLock);
        TLOG(SEMAPHORE, "wait mLock...done");
        registration = mCallback.generation();
        wasInitialized = deinitLocked();
    }
    // With mLock released (their handlers may call into the engine): recordings that ended
    // in the frame path are completed and their events sent, and the completion thread ends.
    if (wasInitialized)
        mRecording.finishPending();
    // Then no callback reaches the application any more; the calls still in flight on other
    // threads return first. An init that another thread ran meanwhile keeps its own.
    mCallback.close(registration);
    return 0;
}

bool TavoMBBMSEngineImpl::deinitLocked() {
    if (!mIsInitialized.load()) {
        TLOG_FOR(kDeinit, WARNING, "skipped due to mIsInitialized==false");
        return false;
    }

    ModuleInfo scratch;
    getModuleInfo(&scratch);

    mIsInitialized.store(false);
    mCommandServer.clearRunFlag();

    // Running services are not stopped; the agent is shut down right after.
    mSessionManager.retire(mEnv.load()).reset();

    mAgent->deinit();
    // Results the agent raised inside a frame that never ended belong to this registration.
    mDeferredCalls.discard();
    mPendingRequest.store(REQUEST_NOT_READY);
    stopCommandThread();
    deinitSharedBuffers();
    return true;
}

void TavoMBBMSEngineImpl::stopCommandThreadAtExit() {
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine == nullptr)
        return;
    // When init or deinit runs on another thread, it owns the command thread.
    if (!engine->mLock.try_lock())
        return;
    engine->mCommandServer.stopAtExit();
    engine->mLock.unlock();
}

void TavoMBBMSEngineImpl::notifyEvent(EventType type, int param) {
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine != nullptr && engine->deferInsideBracket(DeferredCalls::ENGINE_EVENT, type, param))
        return;
    mCallback.call([&](TavoMBBMSEngineCallback& app) { app.onEvent(type, param); });
}

CmmbSharedBuffer* TavoMBBMSEngineImpl::sharedBuffer(int session) const {
    return mSharedBuffers.buffer(session);
}

bool TavoMBBMSEngineImpl::recordingFlag(int session) {
    if (!isEngineSession(session))
        return false;
    return mIsRecording[session].load();
}
