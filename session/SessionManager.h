// Maps TV sessions onto the agent's broadcast channels.
//
// Several sessions showing the same service share one channel: the service runs once in the
// agent and its data is copied into every attached session's shared buffer. The manager
// starts and stops agent services, counts the sessions attached to each channel, keeps all
// running channels on one frequency point, and writes optional per-channel debug files.
//
// Threads and locking: start() and stop() run on application threads; the data-path members
// run on the agent's thread. mutexSessionChangable guards the whole object. It is a
// semaphore used as a lock because the frame bracket takes it in onOutputAVStart and
// releases it in onOutputAVEnd; the NAL and AAC callbacks in between read the tables
// without taking it. Lock order: mutexSessionChangable, then each attached session's
// mutexDataAccessable in ascending session order.
#ifndef TAVO_SESSION_SESSION_MANAGER_H
#define TAVO_SESSION_SESSION_MANAGER_H

#include <semaphore.h>
#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "BufferWriteState.h"
#include "FrameSink.h"
#include "MBBMSAgent.h"
#include "SharedBufferSet.h"
#include "UniqueFile.h"

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

    int start(int session, int freqDot, int start, int count, int mod, IsmaPara* isma);
    int stop(int session);
    // REQUIRES: mutexSessionChangable held.
    void dumpChannels();
    // The slot of a channel identifier, or -1.
    int channelIDToIndex(int channelID);

    // Data path (agent thread).
    void onOutputAVStart(int channelID, const unsigned char* frame, int length);
    void onOutputAVEnd(int channelID, bool withError);
    void onClearVideoNalData(int channelID, unsigned long tsBase, unsigned long tsRelative,
                             unsigned char* data, unsigned short length,
                             MBBMSAgent::NAL_FRAGMENT_POS_IND pos);
    void onClearAudioAacFrame(int channelID, unsigned long tsBase, unsigned long tsRelative,
                              unsigned char* data, unsigned short length);

    // Waits until no multiplex frame is in progress and keeps frames from starting until
    // endExclusive(); used by recording control so that a recorder is never stopped or
    // replaced while the agent's thread writes a frame into it.
    // Returns whether it took the lock; pass that to endExclusive. On the thread that holds
    // the frame bracket (an application reacting to a recording event raised inside a frame)
    // it takes nothing: that thread writes no frame while it runs the caller.
    bool beginExclusive();
    void endExclusive(bool taken);

    // Ends a frame bracket whose end will never arrive (deinit has removed the manager while
    // a frame was open): unlocks the buffers it holds and mutexSessionChangable, so that
    // application threads blocked behind it go on. Does nothing between frames. REQUIRES:
    // no thread runs the data path of this manager, and none will.
    void releaseAbandonedFrame();

private:
    void attachSessionToChannel(int session, int channelIndex);
    void deattachSessionfromChannel(int session, int channelIndex);
    void openDebugFiles(ChannelEntry& channel, const char* caller);
    void closeDebugFiles(ChannelEntry& channel);
    // Waits on / posts mutexSessionChangable, with their log lines in `caller`'s name.
    void lockSessions(const char* caller);
    void unlockSessions(const char* caller);
    // The channel slot of a data callback, or -1 with the warning logged as `caller`.
    int dataSlot(const char* caller, int channelID);
    // Whether a NAL or AAC call for channelID goes to the frame's targets: the frame in
    // progress is on that channel, which is known. Any other call takes the general path.
    bool forFrameTargets(int channelID) const {
        return mFrameTargetsValid && channelID == mFrameChannelID;
    }
    // Calls deliver(buffer, writeState, session) for each session attached to slot c whose
    // buffer the current frame holds, in ascending session order, until deliver returns false
    // (a drop ends the item for the sessions after it too).
    template <typename Deliver>
    void forEachFrameBuffer(int c, Deliver deliver) {
        for (int s = 0; s < mMaxSessions; ++s) {
            if (mChannel[c].refSession[s] != 1 || !mFrameLocked[s])
                continue;
            if (!deliver(mBuffers->buffer(s), mWriteState[s], s))
                return;
        }
    }

    // Guarded by mutexSessionChangable: written by start() and stop() and read by the frame
    // bracket while they hold it; the NAL and AAC callbacks read them inside the bracket
    // without taking it. start() reads the sessions' started flags and sets mFreqDot before
    // taking it (frequency rule); mMaxSessions is fixed at construction.
    SessionEntry mSession[MAX_SESSIONS];
    ChannelEntry mChannel[MAX_CHANNELS];
    int mFreqDot;
    int mMaxSessions;
    int mChannelCount;
    SharedBufferSet* mBuffers;  // not owned
    FrameSink* mSink;           // not owned
    MBBMSAgent* mAgent;         // not owned
    char mWorkDir[128];
    sem_t mutexSessionChangable;  // process-private, initial value 1
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
