// Maps TV sessions onto the agent's broadcast channels.
//
// Several sessions showing the same service share one channel: the service runs once in the
// agent and its data is copied into every attached session's shared buffer. The manager
// starts and stops agent services, counts the sessions attached to each channel, keeps all
// running channels on one frequency point, and writes optional per-channel debug files.
//
// Threads and locking: start() and stop() run on application threads; the data-path members
// run on the agent's thread. mutexSessionChangable guards the tables. It is a semaphore used
// as a lock because the frame bracket takes it in onOutputAVStart and releases it in
// onOutputAVEnd; the NAL and AAC callbacks in between read the tables without taking it.
// Inside it the frame bracket takes the attached sessions' buffer locks in ascending session
// order. Where it stands among the engine's locks is stated on its declaration below and on
// the others' (ACQUIRED_BEFORE); docs/foundation.md lists the whole order.
#ifndef TAVO_SESSION_SESSION_MANAGER_H
#define TAVO_SESSION_SESSION_MANAGER_H

#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "BufferWriteState.h"
#include "FrameSink.h"
#include "MBBMSAgent.h"
#include "SemaphoreLock.h"
#include "SharedBufferSet.h"
#include "ThreadAnnotations.h"
#include "UniqueHandle.h"

class SessionManager {
public:
    enum { MAX_SESSIONS = 10, MAX_CHANNELS = 10 };

    struct SessionEntry {
        bool started;
        int channelIndex;  // -1 when not attached
    };

    struct ChannelEntry {
        int started;  // 1 while the agent service of this slot runs
        struct timeval startTime;
        struct timeval lastFrameTime;
        int mFrameCount;
        UniqueFile timeFile;  // "<workdir>/<serviceID>.time" (STATISTICS)
        UniqueFile mfsFile;   // "/sdcard//<serviceID>.mfs" (DATA_MFS)
        int serviceID;        // -1 when free
        int refCount;
        int channelID;  // -1 when free
        int refSession[MAX_SESSIONS];
    };

    // buffers: the sessions' shared buffers (sessions 0 and 1); sink: told of each session's
    // frame end; workDir: where the statistics files go. None is owned; all outlive the
    // manager.
    SessionManager(SharedBufferSet* buffers, FrameSink* sink, MBBMSAgent* agent,
                   const char* workDir);
    virtual ~SessionManager();
    SessionManager(const SessionManager&) = delete;
    SessionManager& operator=(const SessionManager&) = delete;

    int start(int session, int freqDot, int start, int count, int mod, IsmaPara* isma)
        EXCLUDES(mutexSessionChangable);
    int stop(int session) EXCLUDES(mutexSessionChangable);
    void dumpChannels() REQUIRES(mutexSessionChangable);
    // The slot of a channel identifier, or -1.
    int channelIDToIndex(int channelID) REQUIRES(mutexSessionChangable);

    // Data path (agent thread). The frame bracket holds mutexSessionChangable from
    // onOutputAVStart to onOutputAVEnd, across calls, and the NAL and AAC callbacks rely on
    // that hold: the analysis cannot follow a lock held between calls, so these are not
    // checked.
    void onOutputAVStart(int channelID, const unsigned char* frame,
                         int length) NO_THREAD_SAFETY_ANALYSIS;
    void onOutputAVEnd(int channelID, bool withError) NO_THREAD_SAFETY_ANALYSIS;
    void onClearVideoNalData(int channelID, unsigned long tsBase, unsigned long tsRelative,
                             unsigned char* data, unsigned short length,
                             MBBMSAgent::NAL_FRAGMENT_POS_IND pos) NO_THREAD_SAFETY_ANALYSIS;
    void onClearAudioAacFrame(int channelID, unsigned long tsBase, unsigned long tsRelative,
                              unsigned char* data, unsigned short length) NO_THREAD_SAFETY_ANALYSIS;

    // Waits until no multiplex frame is in progress and keeps frames from starting until
    // endExclusive(); used by recording control so that a recorder is never stopped or
    // replaced while the agent's thread writes a frame into it.
    // Returns whether it took the lock; pass that to endExclusive. On the thread that holds
    // the frame bracket (an application reacting to a recording event raised inside a frame)
    // it takes nothing: that thread writes no frame while it runs the caller.
    // The hold spans calls (taken here, given back by endExclusive, both conditionally), which
    // the analysis cannot follow: not checked.
    bool beginExclusive() NO_THREAD_SAFETY_ANALYSIS;
    void endExclusive(bool taken) NO_THREAD_SAFETY_ANALYSIS;

    // Ends a frame bracket whose end will never arrive (deinit has removed the manager while
    // a frame was open): unlocks the buffers it holds and mutexSessionChangable, so that
    // application threads blocked behind it go on. Does nothing between frames. No thread
    // may run the data path of this manager, now or later. It gives back locks that another
    // call took, so it is not checked.
    void releaseAbandonedFrame() NO_THREAD_SAFETY_ANALYSIS;

private:
    // The engine's lock declarations name mutexSessionChangable in the lock order.
    friend class TavoMBBMSEngineImpl;

    void attachSessionToChannel(int session, int channelIndex) REQUIRES(mutexSessionChangable);
    void deattachSessionfromChannel(int session, int channelIndex) REQUIRES(mutexSessionChangable);
    void openDebugFiles(ChannelEntry& channel, const char* caller);
    void closeDebugFiles(ChannelEntry& channel);
    // Waits on / posts mutexSessionChangable, with their log lines in `caller`'s name.
    void lockSessions(const char* caller) ACQUIRE(mutexSessionChangable);
    void unlockSessions(const char* caller) RELEASE(mutexSessionChangable);
    // Whether a session is started, read without mutexSessionChangable: the frequency rule
    // in start() looks before it takes the lock (the flags change only on application
    // threads), so this read is deliberately not checked.
    bool anySessionStarted() const NO_THREAD_SAFETY_ANALYSIS;
    // The channel slot of a data callback, or -1 with the warning logged as `caller`.
    int dataSlot(const char* caller, int channelID) REQUIRES(mutexSessionChangable);
    // Whether a NAL or AAC call for channelID goes to the frame's targets: the frame in
    // progress is on that channel, which is known. Any other call takes the general path.
    bool forFrameTargets(int channelID) const {
        return mFrameTargetsValid && channelID == mFrameChannelID;
    }
    // Calls deliver(buffer, writeState, session) for each session attached to slot c whose
    // buffer the current frame holds, in ascending session order, until deliver returns false
    // (a drop ends the item for the sessions after it too).
    template <typename Deliver>
    void forEachFrameBuffer(int c, Deliver deliver) REQUIRES(mutexSessionChangable) {
        for (int s = 0; s < mMaxSessions; ++s) {
            if (mChannel[c].refSession[s] != 1 || !mFrameLocked[s])
                continue;
            if (!deliver(mBuffers->buffer(s), mWriteState[s], s))
                return;
        }
    }

    // Written by start() and stop() and read by the frame bracket while they hold the lock;
    // the NAL and AAC callbacks read them inside the bracket without taking it.
    SessionEntry mSession[MAX_SESSIONS] GUARDED_BY(mutexSessionChangable);
    ChannelEntry mChannel[MAX_CHANNELS] GUARDED_BY(mutexSessionChangable);
    // start()'s frequency rule sets it before taking the lock, so it is not marked as guarded;
    // application threads only.
    int mFreqDot;
    int mMaxSessions;  // fixed at construction
    int mChannelCount GUARDED_BY(mutexSessionChangable);
    SharedBufferSet* mBuffers;  // not owned
    FrameSink* mSink;           // not owned
    MBBMSAgent* mAgent;         // not owned
    char mWorkDir[128];
    // Process-private, initial value 1. Taken after the engine's mLock, before any shared
    // buffer's lock.
    SemaphoreLock mutexSessionChangable
        ACQUIRED_BEFORE(SharedBufferSet::Ownership::mutexDataAccessable);
    // The channel slot of the frame bracket in progress, -1 for an unknown channel, NO_FRAME
    // between frames. Written by agent threads inside the bracket; atomic so that a frame end
    // without a start (which is ignored) and the destructor can read it.
    enum { NO_FRAME = -2 };
    std::atomic<int> mOpenFrameSlot;
    // Thread that holds the frame bracket; a default id when no frame is in progress.
    std::atomic<std::thread::id> mFrameThread;
    // Per session, agent thread inside the bracket: the frame start took the session's
    // buffer lock. A session whose lock the play engine kept past the bound is left out of
    // the frame.
    bool mFrameLocked[MAX_SESSIONS];
    // Per session with a buffer, agent thread inside the bracket (the session's buffer lock
    // held): what this frame has written into the buffer. Only sessions whose mFrameLocked is
    // set are used, and those have a buffer, so the index is below CMMB_SHARED_BUFFER_COUNT.
    BufferWriteState mWriteState[CMMB_SHARED_BUFFER_COUNT];
    // The frame's targets, resolved once by the frame start so that each NAL and AAC call
    // of the frame neither looks the channel up nor scans the sessions: the buffer, write
    // state and session of every session whose buffer the frame holds, in ascending session
    // order. Agent thread inside the bracket; valid while mFrameTargetsValid is set (from a
    // frame start on a known channel to its end or abandonment), for channel mFrameChannelID.
    FrameTarget mFrameTargets[CMMB_SHARED_BUFFER_COUNT];
    int mFrameTargetCount;
    int mFrameChannelID;
    bool mFrameTargetsValid;
};

#endif  // TAVO_SESSION_SESSION_MANAGER_H
