// The recording manager: one recorder per recording session, and the conversion of a
// multiplex frame into recorder samples.
//
// For every frame of a recording session the engine copies the session's shared buffer into
// a frame copy (read_to_new_sharedbuf, CmmbFrameCopy.h) and hands it to dataRecording, which
// writes the H.264 parameter sets once, one video sample per NAL record (its slices back to
// back, without start codes), and the AAC frames without their ADTS headers, all timed
// relative to the first sequence parameter set of the recording.
//
// Threads and locking: the manager has no lock of its own. startRecording, stopRecording,
// setMaxFileSize and queryCurrentMoovLength run on application threads, read_to_new_sharedbuf
// and dataRecording on the agent's thread inside the frame bracket. The engine serialises
// the two sides: it changes a slot only while no frame is in progress (the session
// manager's exclusive bracket) or from the agent's thread itself. dataRecording holds the
// recorder's lock for the whole frame.
//
// The process-wide instance from getInstance() lives until the process ends; its own
// startRecording records through the platform's calls (Env::platform()). The engine makes its
// recorders with createRecorder and the Env of its init. Other instances (tests) are given
// their Env and delete the recorders they still hold when they are destroyed.
#ifndef TAVO_RECORDING_MBBMS_REC_MANAGER_H
#define TAVO_RECORDING_MBBMS_REC_MANAGER_H

#include <cstdint>
#include <memory>

#include "CmmbRecorder.h"
#include "EngineSessions.h"
#include "ThreadAnnotations.h"

class Env;
struct _CmmbOutBuffer;

class MBBMSRecManager {
public:
    // dataRecording's result when it is given no recorder.
    static constexpr int NO_RECORDER = INT32_MIN;

    static MBBMSRecManager* getInstance();

    // `env`: the platform calls of the recorders startRecording makes; must outlive them.
    explicit MBBMSRecManager(Env* env);
    ~MBBMSRecManager();
    MBBMSRecManager(const MBBMSRecManager&) = delete;
    MBBMSRecManager& operator=(const MBBMSRecManager&) = delete;

    // The session's recorder, or null (also for sessions other than 0 and 1).
    CmmbRecorder* getRecorder(int session);
    // Starts a new recorder writing to fd, replacing a leftover one. 0 or -1.
    int startRecording(int session, int fd);
    // Stops and deletes the session's recorder. 0 (also when there is none), or -1 when the
    // recorder could not complete its file; it then stays in the slot.
    int stopRecording(int session);

    // The steps of startRecording and stopRecording, for a caller that must not complete a
    // file while frames are held off (the engine's recording control). Each step that logs
    // does so as part of `operation`, the public operation it belongs to, under the manager's
    // tag.
    //
    // The first line of a start: "session=%d".
    void logStart(int session, const char* operation);
    // The first line of a stop: "stopRecording()".
    void logStop(const char* operation);
    // The last line of a stop that completed its recorder: "exit successfully".
    void logStopped(const char* operation);
    // Empties the session's slot and returns the recorder it held, or null. No frame of the
    // session may be in progress on another thread.
    std::unique_ptr<CmmbRecorder> detachRecorder(int session);
    // As detachRecorder, for a start that finds a recorder in the slot: logs
    // "leftover of pRecorder" when there is one.
    std::unique_ptr<CmmbRecorder> detachLeftover(int session, const char* operation);
    // Stops a detached recorder. On success deletes it (`recorder` is empty afterwards) and
    // returns 0; otherwise logs "cannot stop the pRecorder!", returns -1 and leaves it to
    // the caller, who puts it back with restoreRecorder.
    static int stopAndDelete(std::unique_ptr<CmmbRecorder>& recorder, const char* operation);
    // Puts a recorder whose stop failed back into the session's slot, where the next start
    // meets it as a leftover; `recorder` is empty afterwards. False (the caller keeps it)
    // when the slot is taken meanwhile. Called as detachRecorder.
    bool restoreRecorder(int session, std::unique_ptr<CmmbRecorder>& recorder);
    // A started recorder writing to fd through `env`, or null (the reason is logged).
    static std::unique_ptr<CmmbRecorder> createRecorder(int fd, const char* operation, Env* env);
    // Puts a recorder from createRecorder into the empty slot of the session. Called as
    // detachRecorder.
    void installRecorder(int session, std::unique_ptr<CmmbRecorder> recorder,
                         const char* operation);
    // The recorder's results, or -1 when the session has no recorder.
    int setMaxFileSize(int session, long long bytes);
    long long queryCurrentMoovLength(int session);

    // Writes the frame copy of a shared buffer into `copy` (at least CMMB_FRAME_COPY_MAX_SIZE
    // bytes). Returns 0. Called with the buffer's mutexDataAccessable held, which comes before
    // the recorder's lock in the lock order (not an annotation: this layer does not know the
    // buffer set).
    int read_to_new_sharedbuf(unsigned char* copy, unsigned char* sharedBuffer);
    // Records one frame copy. 0 when it was recorded or skipped, NO_RECORDER without a
    // recorder, otherwise the recorder's failure (ERROR_LIMIT_REACHED, ERROR_WRITE_FAILED...)
    // for the first sample it refused; the rest of the frame is then not recorded.
    int dataRecording(CmmbRecorder* recorder, unsigned char* copy)
        EXCLUDES(recorder->recorderLock());

private:
    // Puts back a recorder whose stop failed in startRecording or stopRecording.
    void keepFailedRecorder(int session, std::unique_ptr<CmmbRecorder> recorder);
    int recordVideo(CmmbRecorder* recorder, const unsigned char* copy, uint32_t* resumeTimestamp)
        REQUIRES(recorder->recorderLock());
    int recordAudio(CmmbRecorder* recorder, const unsigned char* copy, uint32_t resumeTimestamp)
        REQUIRES(recorder->recorderLock());
    void writeParameterSet(CmmbRecorder* recorder, const unsigned char* part, uint32_t length)
        REQUIRES(recorder->recorderLock());

    Env* const mEnv;
    // See the class comment for who may touch them.
    std::unique_ptr<CmmbRecorder> mRecorder[kEngineSessions];
};

#endif  // TAVO_RECORDING_MBBMS_REC_MANAGER_H
