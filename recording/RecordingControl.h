// The engine's recording control: starting and stopping the recording of a session, and the
// per-frame step (dataRecording) that watches the free space, copies the frame out of the
// session's shared buffer and hands it to the recording manager.
//
// Completing a recording (writing its index, syncing and closing the file) can take seconds
// on a handset's card, so it never happens while live frames are held back. Every stop, and
// a start that replaces a recording, detaches the session's recorder while frames are held
// off (a short, bounded step) and completes it afterwards: an application's stopRecording
// completes it on its own thread and returns the completion's result. Whatever the frame path
// decides (storage full, a failed write, the size limit, a card that cannot be queried) is
// queued for the completion thread ("tavo-complete"), which completes the queued recorders in
// order and logs and sends each one's recording event after it. No application callback runs
// inside a frame, so an application may stop services and recordings from any recording
// event. finishPending() empties the queue and ends the thread; the next start, or the next
// recording that ends in the frame path, starts it again.
//
// Threads: startRecording, stopRecording and isRecording on application threads, and from
// any event an application receives (the completion thread, the agent's thread, the command
// thread); dataRecording on the agent's thread inside the frame bracket. The recording flags
// are read by the frame hand-off without a lock. Recorder slots of the manager change only
// while frames are held off or on the frame's own thread. A call never waits for the thread
// it runs on: on the completion thread it does not wait for the completion queue, and on the
// thread that holds a frame it neither holds frames off nor waits for the completion thread
// (whose event handlers may be waiting for that frame). mLock is taken after the frame gate
// and never held while a recorder is completed or an event sent.
#ifndef TAVO_RECORDING_RECORDING_CONTROL_H
#define TAVO_RECORDING_RECORDING_CONTROL_H

#include <pthread.h>
#include <atomic>
#include <deque>
#include <memory>

#include "CmmbFrameCopy.h"
#include "CmmbSharedBuffer.h"
#include "ConditionVariable.h"
#include "EngineSessions.h"
#include "Mutex.h"
#include "TavoMBBMSEngine.h"
#include "ThreadAnnotations.h"

class CmmbRecorder;
class Env;

class RecordingControl {
public:
    // What the control needs from the engine that owns it.
    class Host {
    public:
        // Waits for a frame in progress and holds further frames off until
        // releaseFrames(true). Returns false (and holds nothing) on the frame's own thread,
        // and when no frame can be in progress (the engine has no session manager).
        virtual bool holdFrames() = 0;
        virtual void releaseFrames(bool held) = 0;
        // Sends an application event (when a callback is registered).
        virtual void notifyRecordingEvent(EventType type, int session) = 0;
        // The platform calls of the recording (free-space queries, the completion thread, the
        // recorders' writes and syncs): the engine's, from its init. The control outlives
        // init and deinit, so it asks for each use.
        virtual Env* env() = 0;

    protected:
        ~Host() = default;
    };

    // `flags`: the engine's per-session recording flags (kEngineSessions of them).
    RecordingControl(Host& host, std::atomic<bool>* flags);
    // Completes any recording still queued (finishPending).
    ~RecordingControl();
    RecordingControl(const RecordingControl&) = delete;
    RecordingControl& operator=(const RecordingControl&) = delete;

    // The engine's operations of the same names, after its initialisation check.
    int startRecording(int session, int fd) EXCLUDES(mLock);
    int stopRecording(int session) EXCLUDES(mLock);
    bool isRecording(int session) const;
    // Inside the frame bracket, with the session's buffer lock held (taken by the frame
    // hand-off, which the analysis cannot follow into here, so it is stated, not annotated).
    // `buffer`: the session's shared buffer (null: nothing to copy).
    void dataRecording(int session, CmmbSharedBuffer* buffer) EXCLUDES(mLock);
    // Completes every queued recording and sends its event, then ends and joins the
    // completion thread. Called from a recording event (on the completion thread itself) it
    // completes the rest of the queue there and leaves the thread running.
    // Not inside a frame bracket on this thread.
    void finishPending() EXCLUDES(mLock);

private:
    // Why a recording ended inside the frame path, which decides its log lines and event.
    enum class EndReason { NO_SDCARD, STORAGE_FULL, CHAIN_FAILURE };
    struct PendingCompletion {
        int session = 0;
        std::unique_ptr<CmmbRecorder> recorder;  // null for NO_SDCARD
        EndReason reason = EndReason::CHAIN_FAILURE;
        int recorded = 0;    // dataRecording's result for CHAIN_FAILURE
        int writeError = 0;  // errno of the failed write, 0 when none
    };

    // Free space for the recording of `session`: the lesser of "/sdcard" and the file system
    // of its file. False when "/sdcard" cannot be queried.
    bool freeSpaceForRecording(int session, long long* freeBytes);
    // Ends the recording inside the frame path: clears the flag, detaches the recorder
    // (except for NO_SDCARD, where it stays until the application's next stop or start) and
    // queues the rest for the completion thread. On the frame's thread inside the frame
    // bracket.
    void endInFramePath(int session, EndReason reason, int recorded) EXCLUDES(mLock);
    // Stops a detached recorder (null: nothing to stop) as part of `operation`; one whose
    // stop fails goes back into the session's slot. Logs "exit successfully" on success.
    // 0 or -1.
    int completeDetached(int session, std::unique_ptr<CmmbRecorder> recorder,
                         const char* operation);
    // Puts a recorder whose stop failed back into the slot (deleted when the slot is taken).
    void keepFailedRecorder(int session, std::unique_ptr<CmmbRecorder> recorder);
    // Logs and sends the event of a recording that ended in the frame path.
    void reportEnd(const PendingCompletion& ended, int completed);
    // Waits until no completion of the session is queued or in progress. Returns at once on
    // the completion thread, whose own work that is; completes the queue itself when no
    // thread serves it.
    void waitForCompletion(int session) EXCLUDES(mLock);
    // Completes and reports the oldest queued recording; the queue must not be empty.
    // Releases mLock meanwhile.
    void completeNext() REQUIRES(mLock);
    void runCompletions() EXCLUDES(mLock);
    static void* completionThreadMain(void* control);
    bool onCompletionThread() const REQUIRES(mLock);
    bool completionPending(int session) const REQUIRES(mLock);
    // Starts the completion thread (logged as part of `operation` when it cannot be started).
    // False when it cannot be started. No thread may be running or joined.
    bool startCompletionThread(const char* operation) REQUIRES(mLock);
    // Whether this thread may wait for the completion thread: not when it holds a frame that
    // the completion thread's event handlers may be waiting for. Waits out a frame in
    // progress on another thread. (Also false without a session manager, where not waiting
    // only lets the call return before queued events.)
    bool mayWaitForCompletions();

    Host& mHost;
    std::atomic<bool>* const mIsRecording;
    // Agent thread only, inside the frame bracket: the frame being recorded. A fixed buffer
    // so that no frame allocates.
    CmmbFrameCopy mCopy;

    Mutex mLock;
    ConditionVariable mChanged;
    // Recordings ended in the frame path, oldest first (allocates only when a recording
    // ends, never per frame).
    std::deque<PendingCompletion> mQueue GUARDED_BY(mLock);
    // Completions of the session being reported now.
    int mCompleting[kEngineSessions] GUARDED_BY(mLock) = {};
    // The completion thread (plain pthread through the platform's Env: no thread type of the
    // standard library is instantiated inside the exported library).
    // mCompletionThread holds a thread to join.
    bool mCompletionThreadStarted GUARDED_BY(mLock) = false;
    bool mStopping GUARDED_BY(mLock) = false;  // the thread ends once the queue is empty
    bool mJoining GUARDED_BY(mLock) = false;   // finishPending is joining it
    pthread_t mCompletionThread GUARDED_BY(mLock);
};

#endif  // TAVO_RECORDING_RECORDING_CONTROL_H
