#define LOG_TAG "TavoMBBMSEngine"
#include "RecordingControl.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "AndroidPaths.h"
#include "CmmbMediaTypes.h"
#include "CmmbRecorder.h"
#include "Env.h"
#include "FileSystemSpace.h"
#include "Log.h"
#include "MBBMSRecManager.h"
#include "MutexLock.h"
#include "ThreadName.h"

namespace {

const char kStorageCard[] = "/sdcard";
// Space thresholds, in whole MiB.
const long long kMinimumSpaceToStartMiB = 1;
const long long kWatchMoovBelowMiB = 14;

const char kStartRecording[] = "startRecording";
const char kStopRecording[] = "stopRecording";
const char kDataRecording[] = "dataRecording";

// The writer writes a recording from byte 0 of its descriptor and patches earlier bytes in
// place (pwrite), which a descriptor in append mode, or one positioned elsewhere, would turn
// into a file that cannot be played. Logs the reason of a refusal.
bool writableFromStart(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        const int error = errno;
        TLOG_FOR(kStartRecording, ERROR, "fd=%d refused: cannot read its flags: %s", fd,
                 strerror(error));
        return false;
    }
    if ((flags & O_APPEND) != 0) {
        TLOG_FOR(kStartRecording, ERROR,
                 "fd=%d refused: it is in append mode, the file's index cannot be written in place",
                 fd);
        return false;
    }
    const off_t offset = lseek(fd, 0, SEEK_CUR);
    if (offset < 0) {
        const int error = errno;
        TLOG_FOR(kStartRecording, ERROR, "fd=%d refused: it has no file offset: %s", fd,
                 strerror(error));
        return false;
    }
    if (offset != 0) {
        TLOG_FOR(kStartRecording, ERROR,
                 "fd=%d refused: its file offset is %lld, a recording starts at byte 0", fd,
                 static_cast<long long>(offset));
        return false;
    }
    return true;
}

long long toMiB(long long bytes) {
    return bytes >> 20;
}

bool isStorageFullError(int error) {
    return error == ENOSPC || error == EDQUOT;
}

// Holds frames off for its lifetime (nothing on the thread that holds the frame itself).
class FramesHeldOff {
public:
    explicit FramesHeldOff(RecordingControl::Host& host) : mHost(host), mHeld(host.holdFrames()) {}
    ~FramesHeldOff() { mHost.releaseFrames(mHeld); }
    FramesHeldOff(const FramesHeldOff&) = delete;
    FramesHeldOff& operator=(const FramesHeldOff&) = delete;

    bool held() const { return mHeld; }

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

void* RecordingControl::completionThreadMain(void* control) {
    nameCurrentThread("tavo-complete");
    static_cast<RecordingControl*>(control)->runCompletions();
    return nullptr;
}

bool RecordingControl::onCompletionThread() const {
    return mCompletionThreadStarted && pthread_equal(mCompletionThread, pthread_self());
}

bool RecordingControl::startCompletionThread(const char* operation) {
    const int error = mHost.env()->startThread(&mCompletionThread, completionThreadMain, this);
    if (error != 0) {
        TLOG_FOR(operation, ERROR, "cannot start the recording completion thread: %s",
                 strerror(error));
        return false;
    }
    mCompletionThreadStarted = true;
    return true;
}

bool RecordingControl::completionPending(int session) const {
    if (mCompleting[session] > 0)
        return true;
    for (const PendingCompletion& pending : mQueue) {
        if (pending.session == session)
            return true;
    }
    return false;
}

bool RecordingControl::mayWaitForCompletions() {
    // Holding frames off fails on the thread that holds the frame.
    FramesHeldOff probe(mHost);
    return probe.held();
}

int RecordingControl::startRecording(int session, int fd) {
    if (!isEngineSession(session)) {
        TLOG(ERROR, "no such session: %d", session);
        return -1;
    }
    struct statfs status;
    if (mHost.env()->fstatfs(fd, &status) != 0) {
        int error = errno;
        TLOG(ERROR, "fstatfs failed, error number is %d,reason: %s", error, strerror(error));
        return -1;
    }
    if (toMiB(freeSpaceBytes(status)) < kMinimumSpaceToStartMiB)
        return -1;
    if (!writableFromStart(fd))
        return -1;
    // From here on no frame records the session until the new recorder is installed; one in
    // progress is waited for (not on its own thread).
    mIsRecording[session].store(false);
    const bool mayWait = mayWaitForCompletions();
    {
        // A recording that may end in the frame path needs the thread that completes it. One
        // being joined is waited for, except where its event handlers may be waiting for this
        // thread; its joiner completes what it leaves, and the frame path starts a new one.
        MutexLock lock(mLock);
        if (mayWait && !onCompletionThread()) {
            while (mJoining)
                mChanged.wait(mLock);
        }
        if (!mCompletionThreadStarted && !mJoining && !startCompletionThread(kStartRecording))
            return -1;
    }
    // A recording of the session that ended in the frame path is complete, and its event
    // sent, before the next one starts; a recorder whose completion failed is back in the
    // slot by then, a leftover like any other.
    if (mayWait)
        waitForCompletion(session);

    MBBMSRecManager* manager = MBBMSRecManager::getInstance();
    // A recording in progress, or a leftover, is detached while frames are held off and
    // stopped here, outside.
    std::unique_ptr<CmmbRecorder> leftover;
    {
        FramesHeldOff heldOff(mHost);
        manager->logStart(session, kStartRecording);
        leftover = manager->detachLeftover(session, kStartRecording);
    }
    if (leftover != nullptr && MBBMSRecManager::stopAndDelete(leftover, kStartRecording) != 0) {
        keepFailedRecorder(session, std::move(leftover));
        return -1;
    }

    // The new file gets its first bytes before frames are held off again.
    std::unique_ptr<CmmbRecorder> recorder =
        MBBMSRecManager::createRecorder(fd, kStartRecording, mHost.env());
    if (recorder == nullptr)
        return -1;
    std::unique_ptr<CmmbRecorder> raced;
    {
        FramesHeldOff heldOff(mHost);
        // Another thread may have started the session meanwhile, or put back a recorder
        // whose stop failed: the later start wins, as if it had come second.
        raced = manager->detachRecorder(session);
        manager->installRecorder(session, std::move(recorder), kStartRecording);
        mIsRecording[session].store(true);
    }
    // One whose stop fails is deleted all the same: its slot is taken, nothing can complete
    // it later.
    if (raced != nullptr)
        MBBMSRecManager::stopAndDelete(raced, kStartRecording);
    return 0;
}

int RecordingControl::stopRecording(int session) {
    if (!isEngineSession(session)) {
        TLOG(ERROR, "no such session: %d", session);
        return -1;
    }
    // Frames that begin from here on are not recorded; one already in progress is waited for
    // (not on its own thread), and so are the completions of recordings of the session that
    // ended in the frame path: stopRecording returns once they are complete and reported,
    // and a recorder whose completion failed is back in the slot, to be stopped again here.
    mIsRecording[session].store(false);
    if (mayWaitForCompletions())
        waitForCompletion(session);
    MBBMSRecManager* manager = MBBMSRecManager::getInstance();
    std::unique_ptr<CmmbRecorder> recorder;
    {
        FramesHeldOff heldOff(mHost);
        manager->logStop(kStopRecording);
        recorder = manager->detachRecorder(session);
    }
    // The file is completed outside.
    return completeDetached(session, std::move(recorder), kStopRecording);
}

int RecordingControl::completeDetached(int session, std::unique_ptr<CmmbRecorder> recorder,
                                       const char* operation) {
    if (recorder != nullptr && MBBMSRecManager::stopAndDelete(recorder, operation) != 0) {
        keepFailedRecorder(session, std::move(recorder));
        return -1;
    }
    MBBMSRecManager::getInstance()->logStopped(operation);
    return 0;
}

void RecordingControl::keepFailedRecorder(int session, std::unique_ptr<CmmbRecorder> recorder) {
    {
        FramesHeldOff heldOff(mHost);
        MBBMSRecManager::getInstance()->restoreRecorder(session, recorder);
    }
    // One the slot did not take (a newer recording has it) is deleted here, with frames
    // flowing again.
    recorder.reset();
}

bool RecordingControl::isRecording(int session) const {
    return isEngineSession(session) && mIsRecording[session].load();
}

bool RecordingControl::freeSpaceForRecording(int session, long long* freeBytes) {
    Env* env = mHost.env();
    char storageCard[1024];
    struct statfs status;
    if (resolveAndroidPath(kStorageCard, storageCard, sizeof(storageCard)) != 0 ||
        env->statfs(storageCard, &status) != 0) {
        return false;
    }
    *freeBytes = freeSpaceBytes(status);
    // The recording's own file system may be another one, and fill up first.
    CmmbRecorder* recorder = MBBMSRecManager::getInstance()->getRecorder(session);
    const int fd = recorder != nullptr ? recorder->outputFd() : -1;
    if (fd >= 0 && env->fstatfs(fd, &status) == 0)
        *freeBytes = std::min(*freeBytes, freeSpaceBytes(status));
    return true;
}

void RecordingControl::dataRecording(int session, CmmbSharedBuffer* buffer) {
    if (!isEngineSession(session))
        return;
    MBBMSRecManager* manager = MBBMSRecManager::getInstance();

    long long freeSpace = 0;
    if (!freeSpaceForRecording(session, &freeSpace)) {
        TLOG_FOR(kDataRecording, ERROR, "sdcard not found");
        endInFramePath(session, EndReason::NO_SDCARD, 0);
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
    ended.reason = reason;
    ended.recorded = recorded;
    if (reason != EndReason::NO_SDCARD) {
        ended.recorder = MBBMSRecManager::getInstance()->detachRecorder(session);
        ended.writeError = ended.recorder != nullptr ? ended.recorder->writeError() : 0;
    }
    {
        MutexLock guard(mLock);
        mQueue.push_back(std::move(ended));
        // The thread ends in finishPending (deinit); a recording that survived it and ends
        // now starts it again. One being joined is not waited for: the joiner completes
        // what it left. When none can be started, the next stop or start completes the queue.
        if (!mCompletionThreadStarted && !mJoining)
            startCompletionThread(kDataRecording);
    }
    mChanged.notifyAll();
}

void RecordingControl::completeNext() {
    PendingCompletion ended = std::move(mQueue.front());
    mQueue.pop_front();
    ++mCompleting[ended.session];
    mLock.unlock();
    int completed = 0;
    if (ended.reason != EndReason::NO_SDCARD) {
        // The manager's stop, as the application's stopRecording logs it.
        MBBMSRecManager::getInstance()->logStop(kStopRecording);
        completed = completeDetached(ended.session, std::move(ended.recorder), kStopRecording);
    }
    reportEnd(ended, completed);
    mLock.lock();
    --mCompleting[ended.session];
    mChanged.notifyAll();
}

void RecordingControl::runCompletions() {
    MutexLock lock(mLock);
    for (;;) {
        if (!mQueue.empty())
            completeNext();
        else if (mStopping)
            return;
        else
            mChanged.wait(mLock);
    }
}

void RecordingControl::finishPending() {
    MutexLock lock(mLock);
    if (onCompletionThread()) {
        // From a recording event: this thread cannot join itself.
        while (!mQueue.empty())
            completeNext();
        return;
    }
    while (mJoining)
        mChanged.wait(mLock);
    if (mCompletionThreadStarted) {
        mJoining = true;
        mStopping = true;
        mChanged.notifyAll();
        const pthread_t thread = mCompletionThread;
        lock.unlock();
        pthread_join(thread, nullptr);  // it empties the queue before it ends
        lock.lock();
        mCompletionThreadStarted = false;
        mStopping = false;
        mJoining = false;
        mChanged.notifyAll();
    }
    // Queued while no thread ran, or after it had seen the queue empty.
    while (!mQueue.empty())
        completeNext();
}

void RecordingControl::reportEnd(const PendingCompletion& ended, int completed) {
    const int session = ended.session;
    switch (ended.reason) {
        case EndReason::NO_SDCARD:
            mHost.notifyRecordingEvent(EVENT_RECORD_NO_SDCARD, session);
            return;
        case EndReason::STORAGE_FULL:
            if (completed != 0) {
                TLOG_FOR(kDataRecording, ERROR, "sdcard not found");
                mHost.notifyRecordingEvent(EVENT_RECORD_NO_SDCARD, session);
            } else {
                TLOG_FOR(kDataRecording, ERROR, "storage is full");
                mHost.notifyRecordingEvent(EVENT_RECORD_STORAGE_FULL, session);
            }
            return;
        case EndReason::CHAIN_FAILURE:
            break;
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
    MutexLock lock(mLock);
    // An application stopping from the recording event runs on the completion thread, and
    // its own completion is the one in progress.
    if (onCompletionThread())
        return;
    while (completionPending(session)) {
        // Nobody serves the queue (its thread could not be started): complete it here.
        if (!mCompletionThreadStarted && !mJoining && !mQueue.empty())
            completeNext();
        else
            mChanged.wait(mLock);
    }
}
