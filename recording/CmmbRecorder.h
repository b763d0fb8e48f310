// Per-session recorder: one H.264 + AAC recording at a time into an output descriptor.
//
// The recorder owns the file writer of the recording in progress, the two track descriptors
// it hands to the writer, and its own duplicate of the caller's descriptor, which it syncs
// and closes at stop. The track set and format are fixed: H.264 320x240 with a time scale of
// 22,500 as track 1, AAC at 24,000 Hz as track 2, movie time scale 24,000, 4-byte NAL length
// prefixes and 32-bit file offsets.
//
// Threads and locking: mLock guards every member. Each operation takes it for its whole
// duration, except setOutputFile(const char*) and writeout. The recording manager's data
// thread holds it across the samples of one frame with LockRecorder()/UnlockRecorder() and
// calls writeout only inside that bracket; control operations from other threads wait for
// the batch to finish. The mutex is not recursive: between LockRecorder() and
// UnlockRecorder() the same thread calls nothing but writeout. Lock order: mLock, then the
// writer's own lock.
//
// The recorder's file syncs and its writer's writes go through the Env it is created with,
// which must outlive it.
//
// Operations are virtual so that tests can observe what the manager hands over.
#ifndef TAVO_RECORDING_CMMB_RECORDER_H
#define TAVO_RECORDING_CMMB_RECORDER_H

#include <cstdint>
#include <memory>
#include <mutex>

#include "CmmbMediaTypes.h"

class CmmbMPEG4Writer;
class Env;

class CmmbRecorder {
public:
    explicit CmmbRecorder(Env* env);
    virtual ~CmmbRecorder();
    CmmbRecorder(const CmmbRecorder&) = delete;
    CmmbRecorder& operator=(const CmmbRecorder&) = delete;

    // Releases a writer left from an earlier recording (stopping it first).
    virtual int init();
    // Recording to a path is not supported: ERROR_INVALID.
    virtual int setOutputFile(const char* path);
    // The whole of fd is the file (offset and length must be 0). The recorder keeps a
    // duplicate (close-on-exec, like the one it gives the writer); the caller keeps fd.
    virtual int setOutputFile(int fd, long long offset, long long length);
    // Takes effect at the next start.
    virtual int setMaxFileSize(long long bytes);
    // Predicted size of the index that stop will append, or ERROR_INVALID without a writer.
    virtual long long queryCurrentMoovLength();
    virtual int prepare();
    virtual int start();
    virtual int pause();
    // Continues a paused recording; video restarts at the next IDR slice.
    virtual int resume();
    virtual int LockRecorder();
    virtual int UnlockRecorder();
    // REQUIRES: LockRecorder() held by the calling thread.
    virtual int writeout(_CmmbOutBuffer* buffer);
    // Completes the file (writer stop, fsync) and closes the recorder's descriptor.
    virtual int stop();
    virtual int close();
    virtual int reset();

    // The recorder's own descriptor of the output file, or -1. Set before start.
    int outputFd();
    // errno of the first failed write of the recording in progress, 0 when none.
    int writeError();

    // REQUIRES: LockRecorder() held. Fixed sample storage for the caller of writeout:
    // one video access unit or one audio frame, and an SPS or a PPS.
    _CmmbOutBuffer& sampleScratch() { return *mSampleScratch; }
    _CmmbOutBuffer& parameterSetScratch() { return *mParameterSetScratch; }

    // Recording state kept for the recording manager, which reads and updates it while it
    // holds LockRecorder(). The recorder resets it when a writer goes away and resume() sets
    // mWaitForIdr.
    int32_t mGotSps;          // the SPS of this recording has been handed over
    int32_t mGotPps;          // the PPS of this recording has been handed over
    uint32_t mBaseTimestamp;  // input time of the first SPS: timestamp 0 of the recording
    bool mWaitForIdr;         // after a resume: skip video up to the next IDR slice
    bool mAudioStarted;       // an audio frame of this recording has been handed over

private:
    // REQUIRES: mLock held.
    int startMPEG4Recording();
    // Destroys the writer and the track descriptors and resets the manager's state.
    // REQUIRES: mLock held.
    void releaseWriter();
    void resetManagerState();

    Env* const mEnv;
    std::mutex mLock;
    // Guarded by mLock.
    CmmbMPEG4Writer* mWriter;       // owned; null when no recording is in progress
    CmmbMediaSource* mVideoSource;  // owned; handed to the writer as track 1
    CmmbMediaSource* mAudioSource;  // owned; handed to the writer as track 2
    int mOutputFd;                  // owned duplicate of the caller's descriptor, or -1
    long long mMaxFileSize;         // handed to the writer at start
    // The sample records the recording manager fills while it holds the recorder's lock,
    // allocated once with the recorder so that no frame allocates. Two blocks of 64 KiB
    // rather than one of 128 KiB: malloc and the sanitizers' allocators give a block of
    // 128 KiB or more a mapping of its own, a system call and a TLB flush per recording.
    const std::unique_ptr<_CmmbOutBuffer> mSampleScratch;
    const std::unique_ptr<_CmmbOutBuffer> mParameterSetScratch;
};

#endif  // TAVO_RECORDING_CMMB_RECORDER_H
