#define LOG_TAG "TavoMBBMSEngine"
#include "RecordingControl.h"

#include <errno.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstring>

#include "AndroidPaths.h"
#include "CmmbMediaTypes.h"
#include "CmmbRecorder.h"
#include "Env.h"
#include "FileSystemSpace.h"
#include "Log.h"
#include "MBBMSRecManager.h"

namespace {

const char kStorageCard[] = "/sdcard";
// Space thresholds, in whole MiB.
const long long kMinimumSpaceToStartMiB = 1;
const long long kWatchMoovBelowMiB = 14;

const char kStartRecording[] = "startRecording";
const char kStopRecording[] = "stopRecording";
const char kDataRecording[] = "dataRecording";

long long toMiB(long long bytes) {
    return bytes >> 20;
}

bool isStorageFullError(int error) {
    return error == ENOSPC || error == EDQUOT;
}

// Holds frames off for its lifetime.
class FramesHeldOff {
public:
    explicit FramesHeldOff(RecordingControl::Host& host) : mHost(host), mHeld(host.holdFrames()) {}
    ~FramesHeldOff() { mHost.releaseFrames(mHeld); }
    FramesHeldOff(const FramesHeldOff&) = delete;
    FramesHeldOff& operator=(const FramesHeldOff&) = delete;

private:
    RecordingControl::Host& mHost;
    const bool mHeld;
};

}  // namespace

RecordingControl::RecordingControl(Host& host, std::atomic<bool>* flags)
    : mHost(host), mIsRecording(flags) {}

RecordingControl::~RecordingControl() {
    finishPending();
}

void RecordingControl::finishPending() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mCompletionThreadStarted)
            return;
        mStopping = true;
    }
    mChanged.notify_all();
    pthread_join(mCompletionThread, nullptr);  // it empties the queue before it ends
    std::lock_guard<std::mutex> guard(mLock);
    mCompletionThreadStarted = false;
    mStopping = false;
}

void* RecordingControl::completionThreadMain(void* control) {
    static_cast<RecordingControl*>(control)->runCompletions();
    return nullptr;
}

bool RecordingControl::onCompletionThread() const {
    return mCompletionThreadStarted && pthread_equal(mCompletionThread, pthread_self());
}

bool RecordingControl::startCompletionThread() {
    if (mCompletionThreadStarted)
        return true;
    const int error = Env::current()->startThread(&mCompletionThread, completionThreadMain, this);
    if (error != 0) {
        TLOG_FOR(kStartRecording, ERROR, "cannot start the recording completion thread: %s",
                 strerror(error));
        return false;
    }
    mCompletionThreadStarted = true;
    return true;
}

bool RecordingControl::completionPending(int session) const {
    if (mCompleting[session])
        return true;
    for (const PendingCompletion& pending : mQueue) {
        if (pending.session == session)
            return true;
    }
    return false;
}

int RecordingControl::startRecording(int session, int fd) {
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
    if (toMiB(freeSpaceBytes(status)) < kMinimumSpaceToStartMiB)
        return -1;
    {
        // A recording that may end in the frame path needs the thread that completes it.
        std::lock_guard<std::mutex> guard(mLock);
        if (!startCompletionThread())
            return -1;
    }

    // A recording of the session that ended in the frame path is complete before the next
    // one starts, so that its event comes first.
    waitForCompletion(session);
    MBBMSRecManager* manager = MBBMSRecManager::getInstance();
    manager->logStart(session, kStartRecording);
    // A recording in progress, or a leftover, is detached while frames are held off and
    // completed here, outside.
    CmmbRecorder* leftover;
    {
        FramesHeldOff heldOff(mHost);
        mIsRecording[session].store(false);
        leftover = manager->detachRecorder(session, kStartRecording);
    }
    if (leftover != nullptr && MBBMSRecManager::completeRecorder(leftover, kStartRecording) != 0)
        return -1;

    // The new file gets its first bytes before frames are held off again.
    CmmbRecorder* recorder = MBBMSRecManager::createRecorder(fd, kStartRecording);
    if (recorder == nullptr)
        return -1;
    CmmbRecorder* raced;
    {
        FramesHeldOff heldOff(mHost);
        // Another application thread may have started the session meanwhile: the later
        // start wins, as if it had come second.
        raced = manager->detachRecorder(session, kStartRecording);
        manager->installRecorder(session, recorder, kStartRecording);
        mIsRecording[session].store(true);
    }
    MBBMSRecManager::completeRecorder(raced, kStartRecording);
    return 0;
}

int RecordingControl::stopRecording(int session) {
    if (!validSession(session)) {
        TLOG(ERROR, "no such session: %d", session);
        return -1;
    }
    // Frames that begin from here on are not recorded; one already in progress is waited
    // for, then the recorder is detached and its file completed outside.
    mIsRecording[session].store(false);
    CmmbRecorder* recorder;
    {
        FramesHeldOff heldOff(mHost);
        recorder = MBBMSRecManager::getInstance()->detachRecorder(session, kStopRecording);
    }
    const int result = MBBMSRecManager::completeRecorder(recorder, kStopRecording);
    // A recording that ended in the frame path is complete when stopRecording returns.
    waitForCompletion(session);
    return result;
}

bool RecordingControl::isRecording(int session) const {
    return validSession(session) && mIsRecording[session].load();
}

bool RecordingControl::freeSpaceForRecording(int session, long long* freeBytes) {
    char storageCard[1024];
    struct statfs status;
    if (resolveAndroidPath(kStorageCard, storageCard, sizeof(storageCard)) != 0 ||
        platform_statfs(storageCard, &status) != 0) {
        return false;
    }
    *freeBytes = freeSpaceBytes(status);
    // The recording's own file system may be another one, and fill up first.
    CmmbRecorder* recorder = MBBMSRecManager::getInstance()->getRecorder(session);
    const int fd = recorder != nullptr ? recorder->outputFd() : -1;
    if (fd >= 0 && platform_fstatfs(fd, &status) == 0)
        *freeBytes = std::min(*freeBytes, freeSpaceBytes(status));
    return true;
}

void RecordingControl::dataRecording(int session, CmmbSharedBuffer* buffer) {
    if (!validSession(session))
        return;
    MBBMSRecManager* manager = MBBMSRecManager::getInstance();

    long long freeSpace = 0;
    if (!freeSpaceForRecording(session, &freeSpace)) {
        TLOG_FOR(kDataRecording, ERROR, "sdcard not found");
        mIsRecording[session].store(false);
        mHost.notifyRecordingEvent(EVENT_RECORD_NO_SDCARD, session);
        return;
    }
    TLOG_FOR(kDataRecording, MAIN, "session=%d, free space=%lld", session, freeSpace);
    if (toMiB(freeSpace) < kWatchMoovBelowMiB) {
        const long long moovLength = manager->queryCurrentMoovLength(session);
        TLOG_FOR(kDataRecording, WARNING,
                 "session=%d, free space=%lld, required minimal space=%lld", session, freeSpace,
                 moovLength);
        if (toMiB(freeSpace) <= toMiB(moovLength)) {
            endInFramePath(session, EndReason::STORAGE_FULL, 0);
            return;
        }
    }

    if (buffer == nullptr)
        return;
    unsigned char* copy = reinterpret_cast<unsigned char*>(&mCopy);
    manager->read_to_new_sharedbuf(copy, reinterpret_cast<unsigned char*>(buffer));
    const int recorded = manager->dataRecording(manager->getRecorder(session), copy);
    if (recorded < 0)
        endInFramePath(session, EndReason::CHAIN_FAILURE, recorded);
}

void RecordingControl::endInFramePath(int session, EndReason reason, int recorded) {
    mIsRecording[session].store(false);
    PendingCompletion ended;
    ended.session = session;
    ended.recorder = MBBMSRecManager::getInstance()->detachRecorder(session, kDataRecording);
    ended.reason = reason;
    ended.recorded = recorded;
    ended.writeError = ended.recorder != nullptr ? ended.recorder->writeError() : 0;
    {
        std::lock_guard<std::mutex> guard(mLock);
        mQueue.push_back(ended);
    }
    mChanged.notify_all();
}

void RecordingControl::completeNext(std::unique_lock<std::mutex>& lock) {
    const PendingCompletion ended = mQueue.front();
    mQueue.pop_front();
    mCompleting[ended.session] = true;
    lock.unlock();
    reportEnd(ended, MBBMSRecManager::completeRecorder(ended.recorder, kDataRecording));
    lock.lock();
    mCompleting[ended.session] = false;
    mChanged.notify_all();
}

void RecordingControl::runCompletions() {
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        if (!mQueue.empty())
            completeNext(lock);
        else if (mStopping)
            return;
        else
            mChanged.wait(lock);
    }
}

void RecordingControl::reportEnd(const PendingCompletion& ended, int completed) {
    const int session = ended.session;
    if (ended.reason == EndReason::STORAGE_FULL) {
        if (completed != 0) {
            TLOG_FOR(kDataRecording, ERROR, "sdcard not found");
            mHost.notifyRecordingEvent(EVENT_RECORD_NO_SDCARD, session);
        } else {
            TLOG_FOR(kDataRecording, ERROR, "storage is full");
            mHost.notifyRecordingEvent(EVENT_RECORD_STORAGE_FULL, session);
        }
        return;
    }
    if (ended.recorded == ERROR_WRITE_FAILED) {
        // A full storage is reported as such, whether or not the index still fitted.
        if (completed < 0)
            TLOG_FOR(kDataRecording, ERROR, "stop failed");
        mHost.notifyRecordingEvent(
            isStorageFullError(ended.writeError) ? EVENT_RECORD_STORAGE_FULL : EVENT_RECORD_ERROR,
            session);
        TLOG_FOR(kDataRecording, ERROR, "write file error!");
    } else if (completed < 0) {
        TLOG_FOR(kDataRecording, ERROR, "stop failed");
        mHost.notifyRecordingEvent(EVENT_RECORD_ERROR, session);
    } else if (ended.recorded == ERROR_LIMIT_REACHED) {
        mHost.notifyRecordingEvent(EVENT_RECORD_MAX_FILE_SIZE, session);
        TLOG_FOR(kDataRecording, ERROR, "exceed the max file size");
    } else {
        mHost.notifyRecordingEvent(EVENT_RECORD_ERROR, session);
    }
}

void RecordingControl::waitForCompletion(int session) {
    std::unique_lock<std::mutex> lock(mLock);
    // An application stopping from the recording event runs on the completion thread, and
    // its own completion is the one in progress.
    if (onCompletionThread())
        return;
    mChanged.wait(lock, [&] { return !completionPending(session); });
}
