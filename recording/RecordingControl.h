// The engine's recording control: starting and stopping the recording of a session, and the
// per-frame step (dataRecording) that watches the free space, copies the frame out of the
// session's shared buffer and hands it to the recording manager.
//
// Completing a recording (writing its index, syncing and closing the file) can take seconds
// on a handset's card, so it never happens while live frames are held back. Every stop, and
// a start that replaces a recording, detaches the session's recorder while frames are held
// off (a short, bounded step) and completes it afterwards: an application's stopRecording
// completes it on its own thread and returns the completion's result; a stop decided inside
// the frame path (storage full, a failed write, the size limit) queues the recorder for the
// completion thread, which completes the queued recorders in order and logs and sends each
// one's recording event after it, so that the event follows the completion as it always did.
// The completion thread is started by the first startRecording, which fails when it cannot
// be started: the frame path never completes a file itself.
//
// Threads: startRecording, stopRecording and isRecording on application threads (and on the
// completion thread when an application stops from a recording event); dataRecording on
// the agent's thread inside the frame bracket. The recording flags are read by the frame
// hand-off without a lock. Recorder slots of the manager change only while frames are held
// off or on the frame's own thread. mLock guards the queue of the completion thread; it is
// taken after the frame gate and never held while a recorder is completed or an event sent.
#ifndef TAVO_RECORDING_RECORDING_CONTROL_H
#define TAVO_RECORDING_RECORDING_CONTROL_H

#include <pthread.h>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "CmmbFrameCopy.h"
#include "CmmbSharedBuffer.h"
#include "TavoMBBMSEngine.h"

class CmmbRecorder;

class RecordingControl {
public:
    enum { SESSION_COUNT = 2 };

    // What the control needs from the engine that owns it.
    class Host {
    public:
        // Waits for a frame in progress and holds further frames off until
        // releaseFrames(true). Returns false (and holds nothing) on the frame's own thread.
        virtual bool holdFrames() = 0;
        virtual void releaseFrames(bool held) = 0;
        // Sends an application event (when a callback is registered).
        virtual void notifyRecordingEvent(EventType type, int session) = 0;

    protected:
        ~Host() = default;
    };

    // `flags`: the engine's per-session recording flags (SESSION_COUNT of them).
    RecordingControl(Host& host, std::atomic<bool>* flags);
    // Completes any recording still handed to the completion thread and joins it.
    ~RecordingControl();
    // Completes every recording handed to the completion thread, sends its event, and joins
    // the thread; a later startRecording starts it again. Not on the completion thread.
    void finishPending();
    RecordingControl(const RecordingControl&) = delete;
    RecordingControl& operator=(const RecordingControl&) = delete;

    // The engine's operations of the same names, after its initialisation check.
    int startRecording(int session, int fd);
    int stopRecording(int session);
    bool isRecording(int session) const;
    // REQUIRES: inside the frame bracket, the session's buffer locked.
    // `buffer`: the session's shared buffer (null: nothing to copy).
    void dataRecording(int session, CmmbSharedBuffer* buffer);

private:
    // Why a recording ended inside the frame path, which decides its log line and event.
    enum class EndReason { STORAGE_FULL, CHAIN_FAILURE };
    struct PendingCompletion {
        int session = 0;
        CmmbRecorder* recorder = nullptr;  // owned while pending
        EndReason reason = EndReason::CHAIN_FAILURE;
        int recorded = 0;    // dataRecording's result for CHAIN_FAILURE
        int writeError = 0;  // errno of the failed write, 0 when none
    };

    static bool validSession(int session) { return session >= 0 && session < SESSION_COUNT; }
    // Free space for the recording of `session`: the lesser of "/sdcard" and the file system
    // of its file. False when "/sdcard" cannot be queried.
    bool freeSpaceForRecording(int session, long long* freeBytes);
    // Ends the recording inside the frame path: detaches the recorder and queues it for the
    // completion thread. REQUIRES: on the frame's thread inside the frame bracket.
    void endInFramePath(int session, EndReason reason, int recorded);
    // Completes a detached recorder (null: nothing to complete) and deletes it. 0 or -1.
    static int complete(CmmbRecorder* recorder, const char* operation);
    // Logs and sends the event of a recording that ended in the frame path.
    void reportEnd(const PendingCompletion& ended, int completed);
    // Waits until no completion of the session is queued or in progress (returns at once on
    // the completion thread, whose own work that is).
    void waitForCompletion(int session);
    // Completes and reports one queued recording. REQUIRES: mLock held by `lock`, the queue
    // not empty; releases the lock meanwhile.
    void completeNext(std::unique_lock<std::mutex>& lock);
    void runCompletions();
    static void* completionThreadMain(void* control);
    // REQUIRES: mLock held.
    bool onCompletionThread() const;
    bool completionPending(int session) const;
    // Starts the completion thread unless it runs. False when it cannot be started.
    // REQUIRES: mLock held.
    bool startCompletionThread();

    Host& mHost;
    std::atomic<bool>* const mIsRecording;
    // Agent thread only, inside the frame bracket: the frame being recorded. A fixed buffer
    // so that no frame allocates.
    CmmbFrameCopy mCopy;

    std::mutex mLock;
    std::condition_variable mChanged;
    // Guarded by mLock. Recordings ended in the frame path, oldest first (allocates only
    // when a recording ends, never per frame).
    std::deque<PendingCompletion> mQueue;
    bool mCompleting[SESSION_COUNT] = {};  // the completion thread is completing one
    bool mStopping = false;
    // Started by the first startRecording (plain pthread through the platform's Env: no
    // thread type of the standard library is instantiated inside the exported library).
    bool mCompletionThreadStarted = false;
    pthread_t mCompletionThread;
};

#endif  // TAVO_RECORDING_RECORDING_CONTROL_H
