// Engine lifecycle: the singleton, loading of the vendor agent library, init and deinit.
#include "TavoMBBMSEngineImpl.h"

#include <dlfcn.h>
#include <strings.h>
#include <sys/stat.h>

#include <cstring>

#include "AndroidPaths.h"
#include "EngineLog.h"
#include "LogMask.h"
#include "Properties.h"
#include "SessionManager.h"

namespace {

const char kVendorProperty[] = "persist.mbbms.module.vendor";
const char kInnoLibrary[] = "/system/lib/libinno.so";
const char kSianoLibrary[] = "/system/lib/libsiano.so";
const char kDefaultWorkDir[] = "/data/app/cmmb";

}  // namespace

std::atomic<TavoMBBMSEngineImpl*> TavoMBBMSEngineImpl::mInstance{nullptr};
std::mutex TavoMBBMSEngineImpl::mInstanceLock;
std::atomic<TavoMBBMSEngineCallback*> TavoMBBMSEngineImpl::mCallback{nullptr};
std::atomic<bool> TavoMBBMSEngineImpl::mIsStarted{false};
PlayEngineLink TavoMBBMSEngineImpl::mPlayEngineLink;
std::atomic<bool> TavoMBBMSEngineImpl::mIsRecording[2] = {{false}, {false}};
std::atomic<bool> TavoMBBMSEngineImpl::mIsCapturing[2] = {{false}, {false}};

TavoMBBMSEngine* TavoMBBMSEngine::getInstance() {
    return TavoMBBMSEngineImpl::getInstance();
}

TavoMBBMSEngineImpl* TavoMBBMSEngineImpl::getInstance() {
    std::lock_guard<std::mutex> guard(mInstanceLock);
    if (mInstance.load() == nullptr)
        mInstance.store(new TavoMBBMSEngineImpl());
    return mInstance.load();
}

TavoMBBMSEngineImpl::TavoMBBMSEngineImpl()
    : mPendingRequest(REQUEST_NOT_READY),
      mMode(CMMB_MODE),
      mAgent(nullptr),
      mAgentLib(nullptr),
      mIsInitialized(false),
      mTS0Reported{},
      mLastEmergencyKey(kNoEmergencyKey),
      mWorkDir{},
      mThreadCommand(),
      mCommandThreadRunning(false),
      mSharedBuffers(),
      mFrameSink(*this) {
    LogMask::readConfigure();
    TLOG(ENGINE, "%s()", __func__);
    mIsStarted = false;
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
    mAgentLib = dlopen(path, RTLD_LAZY);
    if (mAgentLib == nullptr) {
        TLOG_FOR(caller, ERROR, "Can not load library: %s", dlerror());
        return;
    }
    TLOG_FOR(caller, MAIN, "dynamically load so file successfully");

    dlerror();
    void* symbol = dlsym(mAgentLib, "createAgent");
    const char* error = dlerror();
    if (error != nullptr || symbol == nullptr) {
        TLOG_FOR(caller, ERROR, "Cannot load symbol for createAgent: %s",
                 error != nullptr ? error : "null symbol");
        return;  // no agent: every operation that needs it fails
    }
    CreateAgentFunc createAgent = reinterpret_cast<CreateAgentFunc>(symbol);
    mAgent = createAgent();
}

TavoMBBMSEngineImpl::~TavoMBBMSEngineImpl() {
    TLOG(ENGINE, "%s()", "~TavoMBBMSEngineImpl");
    if (mAgentLib == nullptr)
        return;
    dlerror();
    void* symbol = dlsym(mAgentLib, "destroyAgent");
    const char* error = dlerror();
    if (error != nullptr || symbol == nullptr) {
        TLOG(ERROR, "Cannot load symbol for destroyAgent: %s",
             error != nullptr ? error : "null symbol");
        // Without "destroyAgent" the agent cannot be released safely: it is left alive and
        // its library stays loaded, since closing it would unmap the agent's code.
        return;
    }
    if (mAgent != nullptr)
        reinterpret_cast<DestroyAgentFunc>(symbol)(mAgent);
    mAgent = nullptr;
    dlclose(mAgentLib);
    mAgentLib = nullptr;
}

int TavoMBBMSEngineImpl::init(TavoMBBMSEngineCallback* callback, const char* dir) {
    TLOG(ENGINE, "%s()", __func__);
    TLOG(SEMAPHORE, "wait mLock...");
    std::lock_guard<std::mutex> guard(mLock);
    TLOG(SEMAPHORE, "wait mLock...done");

    if (mIsInitialized.load()) {
        TLOG(WARNING, "skipped due to mIsInitialized==true");
        return 0;
    }

    mCallback.store(callback);

    // The working directory must fit mWorkDir whole; a longer path is refused, never cut.
    const char* requested = dir;
    char defaultDir[sizeof(mWorkDir)];
    if (requested == nullptr) {
        if (resolveAndroidPath(kDefaultWorkDir, defaultDir, sizeof(defaultDir)) != 0) {
            TLOG(ERROR, "working directory too long (more than %d characters): %s%s",
                 static_cast<int>(sizeof(mWorkDir)) - 1, "<root>", kDefaultWorkDir);
            notifyEvent(EVENT_WORKDIR_ERROR, 0);
            return -1;
        }
        requested = defaultDir;
    }
    if (strlen(requested) >= sizeof(mWorkDir)) {
        TLOG(ERROR, "working directory too long (more than %d characters): %s",
             static_cast<int>(sizeof(mWorkDir)) - 1, requested);
        notifyEvent(EVENT_WORKDIR_ERROR, 0);
        return -1;
    }
    strcpy(mWorkDir, requested);

    struct stat status;
    if (lstat(mWorkDir, &status) != 0) {
        mkdir(mWorkDir, 0777);
        if (lstat(mWorkDir, &status) != 0) {
            TLOG(ERROR, "%s not exist and can't be created", mWorkDir);
            notifyEvent(EVENT_WORKDIR_ERROR, 0);
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
        TLOG(ERROR, "no agent: the agent library or its createAgent could not be loaded");
        rollBackFailedInit(true);
        return -1;
    }
    mAgent->preInitStep1();
    mAgent->preInitStep2();
    if (mAgent->init(this, mWorkDir, mWorkDir) == -1) {
        rollBackFailedInit(true);
        return -1;
    }
    TLOG(MAIN, "init Agent OK");

    for (std::atomic<bool>& reported : mTS0Reported)
        reported.store(false);
    mLastEmergencyKey.store(kNoEmergencyKey);

    mIsInitialized.store(true);
    mPendingRequest.store(REQUEST_NONE);

    mSessionManager.install(new SessionManager(&mSharedBuffers, &mFrameSink, mAgent, mWorkDir));

    ModuleInfo scratch;
    getModuleInfo(&scratch);
    return 0;
}

void TavoMBBMSEngineImpl::rollBackFailedInit(bool commandThreadStarted) {
    if (commandThreadStarted) {
        mIsStarted.store(false);
        stopCommandThread();
    }
    deinitSharedBuffers();
}

int TavoMBBMSEngineImpl::deinit() {
    TLOG(ENGINE, "%s()", __func__);
    TLOG(SEMAPHORE, "wait mLock...");
    std::lock_guard<std::mutex> guard(mLock);
    TLOG(SEMAPHORE, "wait mLock...done");

    if (!mIsInitialized.load()) {
        TLOG(WARNING, "skipped due to mIsInitialized==false");
        return 0;
    }

    ModuleInfo scratch;
    getModuleInfo(&scratch);

    mIsInitialized.store(false);
    mIsStarted.store(false);

    // Running services are not stopped; the agent is shut down right after.
    delete mSessionManager.retire();

    mAgent->deinit();
    mPendingRequest.store(REQUEST_NOT_READY);
    stopCommandThread();
    deinitSharedBuffers();
    return 0;
}

void TavoMBBMSEngineImpl::notifyEvent(EventType type, int param) {
    TavoMBBMSEngineCallback* callback = mCallback.load();
    if (callback != nullptr)
        callback->onEvent(type, param);
}

CmmbSharedBuffer* TavoMBBMSEngineImpl::sharedBuffer(int session) const {
    return mSharedBuffers.buffer(session);
}

bool TavoMBBMSEngineImpl::recordingFlag(int session) {
    if (session < 0 || session > 1)
        return false;
    return mIsRecording[session].load();
}
