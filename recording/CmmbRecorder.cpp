#define LOG_TAG "CmmbRecorder"

#include "CmmbRecorder.h"

#include "MutexLock.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "CmmbMPEG4Writer.h"
#include "Env.h"
#include "Log.h"

namespace {

const long long kDefaultMaxFileSize = 2147483647LL;

// The fixed format of every recording.
const CmmbMediaSource kVideoFormat = {"video/avc", 320, 240, 25, 22500};
const CmmbMediaSource kAudioFormat = {"audio/mp4a-latm", 0, 0, 24000, 24000};
const int32_t kMovieTimeScale = 24000;

// A duplicate that a program the application starts (fork and exec) does not inherit, so
// that no other process keeps the recording's file open.
int duplicateCloseOnExec(int fd) {
    return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

_CmmbMetaData startParameters() {
    _CmmbMetaData meta;
    meta.timeScale = kMovieTimeScale;
    meta.useNalLengthFour = true;
    meta.use32BitFileOffset = true;
    return meta;
}

}  // namespace

CmmbRecorder::CmmbRecorder(Env* env)
    : mGotSps(0),
      mGotPps(0),
      mBaseTimestamp(0),
      mWaitForIdr(false),
      mAudioStarted(false),
      mEnv(env),
      mMaxFileSize(kDefaultMaxFileSize),
      mSampleScratch(new _CmmbOutBuffer),
      mParameterSetScratch(new _CmmbOutBuffer) {}

CmmbRecorder::~CmmbRecorder() {
    MutexLock guard(mLock);
    if (mWriter != nullptr) {
        mWriter->stop();
        releaseWriter();
    }
}

int CmmbRecorder::init() {
    MutexLock guard(mLock);
    if (mWriter == nullptr)
        return 0;
    ALOGW("CmmbRecorder:  in init(), release old writer!");
    int result = mWriter->stop();
    if (result == 0)
        releaseWriter();
    return result;
}

int CmmbRecorder::setOutputFile(const char* /*path*/) {
    return ERROR_INVALID;
}

int CmmbRecorder::setOutputFile(int fd, long long offset, long long length) {
    MutexLock guard(mLock);
    if (offset != 0 || length != 0) {
        ALOGE("setOutputFile: offset %lld and length %lld are not supported", offset, length);
        return ERROR_INVALID;
    }
    mOutputFd.reset(duplicateCloseOnExec(fd));
    if (!mOutputFd) {
        ALOGE("dup of the output descriptor failed: %s", strerror(errno));
        return ERROR_INVALID;
    }
    return 0;
}

int CmmbRecorder::setMaxFileSize(long long bytes) {
    MutexLock guard(mLock);
    mMaxFileSize = bytes;
    return 0;
}

long long CmmbRecorder::queryCurrentMoovLength() {
    MutexLock guard(mLock);
    if (mWriter == nullptr) {
        ALOGE("no writer!");
        return ERROR_INVALID;
    }
    return mWriter->queryMoovLength();
}

int CmmbRecorder::prepare() {
    MutexLock guard(mLock);
    return 0;
}

int CmmbRecorder::start() {
    MutexLock guard(mLock);
    if (mWriter != nullptr) {
        ALOGE("File writer is not avaialble");
        return ERROR_INVALID;
    }
    return startMPEG4Recording();
}

int CmmbRecorder::pause() {
    MutexLock guard(mLock);
    if (mWriter == nullptr) {
        ALOGE("no writer!");
        return ERROR_INVALID;
    }
    return mWriter->pause();
}

int CmmbRecorder::resume() {
    MutexLock guard(mLock);
    if (mWriter == nullptr) {
        ALOGE("no writer!");
        return ERROR_INVALID;
    }
    mWaitForIdr = true;
    _CmmbMetaData meta = startParameters();
    return mWriter->start(&meta);
}

int CmmbRecorder::LockRecorder() {
    mLock.lock();
    return 0;
}

int CmmbRecorder::UnlockRecorder() {
    mLock.unlock();
    return 0;
}

int CmmbRecorder::writeout(_CmmbOutBuffer* buffer) {
    if (mWriter == nullptr) {
        ALOGE("no writer!");
        return ERROR_INVALID;
    }
    return mWriter->writeout(buffer);
}

int CmmbRecorder::stop() {
    MutexLock guard(mLock);
    if (mWriter == nullptr)
        return 0;

    int result = mWriter->stop();
    releaseWriter();

    if (mOutputFd) {
        if (result == 0 && mEnv->fsync(mOutputFd.get()) != 0) {
            ALOGD("error reason is %s", strerror(errno));
            result = -1;
        }
        mOutputFd.reset();
    }
    return result;
}

int CmmbRecorder::outputFd() {
    MutexLock guard(mLock);
    return mOutputFd.get();
}

int CmmbRecorder::writeError() {
    MutexLock guard(mLock);
    return mWriter != nullptr ? mWriter->writeError() : 0;
}

int CmmbRecorder::close() {
    MutexLock guard(mLock);
    return 0;
}

int CmmbRecorder::reset() {
    MutexLock guard(mLock);
    return 0;
}

int CmmbRecorder::startMPEG4Recording() {
    int fd = duplicateCloseOnExec(mOutputFd.get());
    if (fd < 0) {
        ALOGE("dup mOutputFd failed");
        return ERROR_INVALID;
    }
    mWriter.reset(new CmmbMPEG4Writer(fd, mEnv));

    mVideoSource.reset(new CmmbMediaSource(kVideoFormat));
    mWriter->addSource(mVideoSource.get());
    mAudioSource.reset(new CmmbMediaSource(kAudioFormat));
    mWriter->addSource(mAudioSource.get());

    mWriter->setMaxFileSize(mMaxFileSize);
    _CmmbMetaData meta = startParameters();
    return mWriter->start(&meta);
}

void CmmbRecorder::releaseWriter() {
    // The writer keeps pointers to the track descriptors: it goes first.
    mWriter.reset();
    mVideoSource.reset();
    mAudioSource.reset();
    resetManagerState();
}

void CmmbRecorder::resetManagerState() {
    mGotSps = 0;
    mGotPps = 0;
    mBaseTimestamp = 0;
    mWaitForIdr = false;
    mAudioStarted = false;
}
