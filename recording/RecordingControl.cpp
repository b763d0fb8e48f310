// Recording control of the engine: starting and stopping the recording of a session, and the
// per-frame step that watches the storage card, copies the frame out of the session's
// shared buffer and hands it to the recording manager.
//
// Threads: startRecording, stopRecording and isRecording run on application threads;
// dataRecording runs on the agent's thread inside the frame bracket, with the session
// manager's mutexSessionChangable and the session buffer's mutexDataAccessable held.
// mIsRecording is read by the frame hand-off without a lock. A recorder is stopped or
// replaced from an application thread only inside the session manager's exclusive bracket,
// which waits for a frame in progress and holds further frames off, so the agent's thread
// never writes into a recorder that is going away.
#include <errno.h>
#include <sys/vfs.h>

#include <cstring>

#include "AndroidPaths.h"
#include "CmmbMediaTypes.h"
#include "EngineLog.h"
#include "FileSystemSpace.h"
#include "MBBMSRecManager.h"
#include "SessionManager.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

const char kStorageCard[] = "/sdcard";
// Space thresholds, in whole MiB.
const long long kMinimumSpaceToStartMiB = 1;
const long long kWatchMoovBelowMiB = 14;

bool validSession(int session) {
    return session >= 0 && session < MBBMSRecManager::SESSION_COUNT;
}

long long freeBytes(const struct statfs& status) {
    return static_cast<long long>(status.f_bsize) * static_cast<long long>(status.f_bfree);
}

long long toMiB(long long bytes) {
    return bytes >> 20;
}

// Holds frames off for the lifetime of the object, once any frame in progress has ended.
// Without a session manager no frame can be in progress.
class FramesHeldOff {
public:
    explicit FramesHeldOff(SessionManagerSlot& slot) : mManager(slot), mTaken(false) {
        if (mManager)
            mTaken = mManager->beginExclusive();
    }
    ~FramesHeldOff() {
        if (mManager)
            mManager->endExclusive(mTaken);
    }
    FramesHeldOff(const FramesHeldOff&) = delete;
    FramesHeldOff& operator=(const FramesHeldOff&) = delete;

private:
    SessionManagerSlot::Access mManager;
    bool mTaken;  // false on the frame's own thread, which needs no waiting
};

}  // namespace

int TavoMBBMSEngineImpl::startRecording(int session, int fd) {
    TLOG(ENGINE, "session=%d", session);
    RETURN_IF_NOT_INITIALIZED(-1);
    if (!validSession(session)) {
        TLOG(ERROR, "no such session: %d", session);
        return -1;
    }

    struct statfs status;
    if (platform_fstatfs(fd, &status) != 0) {
        int error = errno;
        TLOG(ERROR, "fstatfs failed, error number is %d,reason: %s", error, strerror(error));
        return -1;
    }
    if (toMiB(freeBytes(status)) < kMinimumSpaceToStartMiB)
        return -1;

    int result;
    {
        // A leftover recorder of the session, or the one still recording, is stopped and
        // replaced here. Whatever happens, the session records afterwards only into a
        // recorder this call started.
        FramesHeldOff heldOff(mSessionManager);
        result = MBBMSRecManager::getInstance()->startRecording(session, fd);
        mIsRecording[session].store(result == 0);
    }
    return result == 0 ? 0 : -1;
}

int TavoMBBMSEngineImpl::stopRecording(int session) {
    TLOG(ENGINE, "session=%d", session);
    RETURN_IF_NOT_INITIALIZED(-1);
    if (!validSession(session)) {
        TLOG(ERROR, "no such session: %d", session);
        return -1;
    }

    // Frames that begin from here on are not recorded; one already in progress is waited for.
    mIsRecording[session].store(false);
    FramesHeldOff heldOff(mSessionManager);
    return MBBMSRecManager::getInstance()->stopRecording(session);
}

bool TavoMBBMSEngineImpl::isRecording(int session) {
    if (!validSession(session))
        return false;
    return mIsRecording[session].load();
}

void TavoMBBMSEngineImpl::dataRecording(int session) {
    if (!validSession(session))
        return;
    MBBMSRecManager* manager = MBBMSRecManager::getInstance();

    char storageCard[1024];
    struct statfs status;
    if (resolveAndroidPath(kStorageCard, storageCard, sizeof(storageCard)) != 0 ||
        platform_statfs(storageCard, &status) != 0) {
        TLOG(ERROR, "sdcard not found");
        mIsRecording[session].store(false);
        notifyEvent(EVENT_RECORD_NO_SDCARD, session);
        return;
    }

    const long long freeSpace = freeBytes(status);
    TLOG(MAIN, "session=%d, free space=%lld", session, freeSpace);
    if (toMiB(freeSpace) < kWatchMoovBelowMiB) {
        const long long moovLength = manager->queryCurrentMoovLength(session);
        TLOG(WARNING, "session=%d, free space=%lld, required minimal space=%lld", session,
             freeSpace, moovLength);
        if (toMiB(freeSpace) <= toMiB(moovLength)) {
            const int stopped = manager->stopRecording(session);
            mIsRecording[session].store(false);
            if (stopped != 0) {
                TLOG(ERROR, "sdcard not found");
                notifyEvent(EVENT_RECORD_NO_SDCARD, session);
            } else {
                TLOG(ERROR, "storage is full");
                notifyEvent(EVENT_RECORD_STORAGE_FULL, session);
            }
            return;
        }
    }

    CmmbSharedBuffer* buffer = sharedBuffer(session);
    if (buffer == nullptr)
        return;
    unsigned char* copy = reinterpret_cast<unsigned char*>(&mRecordingCopy);
    manager->read_to_new_sharedbuf(copy, reinterpret_cast<unsigned char*>(buffer));

    const int recorded = manager->dataRecording(manager->getRecorder(session), copy);
    if (recorded >= 0)
        return;

    const int stopped = manager->stopRecording(session);
    mIsRecording[session].store(false);
    if (stopped < 0) {
        TLOG(ERROR, "stop failed");
        notifyEvent(EVENT_RECORD_ERROR, session);
    } else if (recorded == ERROR_WRITE_FAILED) {
        notifyEvent(EVENT_RECORD_ERROR, session);
        TLOG(ERROR, "write file error!");
    } else if (recorded == ERROR_LIMIT_REACHED) {
        notifyEvent(EVENT_RECORD_MAX_FILE_SIZE, session);
        TLOG(ERROR, "exceed the max file size");
    } else {
        notifyEvent(EVENT_RECORD_ERROR, session);
    }
}
