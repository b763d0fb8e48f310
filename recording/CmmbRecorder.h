// Per-session recorder: one H.264 + AAC recording at a time into an output descriptor.
//
// The recorder owns the file writer of the recording in progress, the two track descriptors
// it hands to the writer, and its own duplicate of the caller's descriptor, which it syncs
// and closes at stop. The track set and format are fixed: H.264 320x240 with a time scale of
// 22,500 as track 1, AAC at 24,000 Hz as track 2, movie time scale 24,000, 4-byte NAL length
// prefixes and 32-bit file offsets.
//
// Threads and locking: each operation takes mLock for its whole duration, except
// setOutputFile(const char*) and writeout. The recording manager's data thread holds it
// across the samples of one frame with LockRecorder()/UnlockRecorder() and calls writeout
// only inside that bracket; control operations from other threads wait for the batch to
// finish. The mutex is not recursive: between LockRecorder() and UnlockRecorder() the same
// thread calls nothing but writeout.
//
// The recorder's file syncs and its writer's writes go through the Env it is created with,
// which must outlive it.
//
// Operations are virtual so that tests can observe what the manager hands over.
#ifndef TAVO_RECORDING_CMMB_RECORDER_H
#define TAVO_RECORDING_CMMB_RECORDER_H

#include <cstdint>
#include <memory>

#include "CmmbMPEG4Writer.h"
#include "CmmbMediaTypes.h"
#include "Mutex.h"
#include "ThreadAnnotations.h"
#include "UniqueHandle.h"

class Env;

class CmmbRecorder {
public:
    explicit CmmbRecorder(Env* env);
    virtual ~CmmbRecorder();
    CmmbRecorder(const CmmbRecorder&) = delete;
    CmmbRecorder& operator=(const CmmbRecorder&) = delete;

    // Releases a writer left from an earlier recording (stopping it first).
    virtual int init() EXCLUDES(mLock);
    // Recording to a path is not supported: ERROR_INVALID.
    virtual int setOutputFile(const char* path);
    // The whole of fd is the file (offset and length must be 0). The recorder keeps a
    // duplicate (close-on-exec, like the one it gives the writer); the caller keeps fd.
    virtual int setOutputFile(int fd, long long offset, long long length) EXCLUDES(mLock);
    // Takes effect at the next start.
    virtual int setMaxFileSize(long long bytes) EXCLUDES(mLock);
    // Predicted size of the index that stop will append, or ERROR_INVALID without a writer.
    virtual long long queryCurrentMoovLength() EXCLUDES(mLock);
    virtual int prepare() EXCLUDES(mLock);
    virtual int start() EXCLUDES(mLock);
    virtual int pause() EXCLUDES(mLock);
    // Continues a paused recording; video restarts at the next IDR slice.
    virtual int resume() EXCLUDES(mLock);
    virtual int LockRecorder() ACQUIRE(mLock);
    virtual int UnlockRecorder() RELEASE(mLock);
    virtual int writeout(_CmmbOutBuffer* buffer) REQUIRES(mLock);
    // The lock LockRecorder() takes, for the annotations of the recorder's callers.
    const Mutex& recorderLock() const RETURN_CAPABILITY(mLock) { return mLock; }
    // Completes the file (writer stop, fsync) and closes the recorder's descriptor.
    virtual int stop() EXCLUDES(mLock);
    virtual int close() EXCLUDES(mLock);
    virtual int reset() EXCLUDES(mLock);

    // The recorder's own descriptor of the output file, or -1. Set before start.
    int outputFd() EXCLUDES(mLock);
    // errno of the first failed write of the recording in progress, 0 when none.
    int writeError() EXCLUDES(mLock);

    // Fixed sample storage for the caller of writeout: one video access unit or one audio
    // frame, and an SPS or a PPS.
    _CmmbOutBuffer& sampleScratch() REQUIRES(mLock) { return *mSampleScratch; }
    _CmmbOutBuffer& parameterSetScratch() REQUIRES(mLock) { return *mParameterSetScratch; }

    // Recording state kept for the recording manager, which reads and updates it while it
    // holds LockRecorder(). The recorder resets it when a writer goes away and resume() sets
    // mWaitForIdr.
    // The SPS of this recording has been handed over.
    int32_t mGotSps GUARDED_BY(mLock);
    // The PPS of this recording has been handed over.
    int32_t mGotPps GUARDED_BY(mLock);
    // Input time of the first SPS: timestamp 0 of the recording.
    uint32_t mBaseTimestamp GUARDED_BY(mLock);
    // After a resume: skip video up to the next IDR slice.
    bool mWaitForIdr GUARDED_BY(mLock);
    // An audio frame of this recording has been handed over.
    bool mAudioStarted GUARDED_BY(mLock);

private:
    int startMPEG4Recording() REQUIRES(mLock);
    // Destroys the writer and the track descriptors and resets the manager's state.
    void releaseWriter() REQUIRES(mLock);
    void resetManagerState() REQUIRES(mLock);

    Env* const mEnv;
    // Taken before the writer's own lock, which the writer takes while it writes a chunk.
    Mutex mLock ACQUIRED_BEFORE(CmmbMPEG4Writer::mLock);
    // The writer keeps pointers to the track descriptors: they are declared before it so that
    // it goes first.
    std::unique_ptr<CmmbMediaSource> mVideoSource GUARDED_BY(mLock)
        PT_GUARDED_BY(mLock);  // handed to the writer as track 1
    std::unique_ptr<CmmbMediaSource> mAudioSource GUARDED_BY(mLock)
        PT_GUARDED_BY(mLock);  // handed to the writer as track 2
    // Null when no recording is in progress.
    std::unique_ptr<CmmbMPEG4Writer> mWriter GUARDED_BY(mLock) PT_GUARDED_BY(mLock);
    UniqueFd mOutputFd GUARDED_BY(mLock);      // duplicate of the caller's descriptor, or empty
    long long mMaxFileSize GUARDED_BY(mLock);  // handed to the writer at start
    // The sample records the recording manager fills while it holds the recorder's lock,
    // allocated once with the recorder so that no frame allocates. Two blocks of 64 KiB
    // rather than one of 128 KiB: malloc and the sanitizers' allocators give a block of
    // 128 KiB or more a mapping of its own, a system call and a TLB flush per recording.
    const std::unique_ptr<_CmmbOutBuffer> mSampleScratch;
    const std::unique_ptr<_CmmbOutBuffer> mParameterSetScratch;
};

#endif  // TAVO_RECORDING_CMMB_RECORDER_H
