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

#include "MBBMSAgent.h"

class TavoMBBMSEngineImpl;

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
        FILE* timeFile;  // "<workdir>/<serviceID>.time" (STATISTICS)
        FILE* mfsFile;   // "/sdcard//<serviceID>.mfs" (DATA_MFS)
        int serviceID;   // -1 when free
        int refCount;
        int channelID;  // -1 when free
        int refSession[MAX_SESSIONS];
    };

    SessionManager(TavoMBBMSEngineImpl* engine, MBBMSAgent* agent);
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

private:
    void attachSessionToChannel(int session, int channelIndex);
    void deattachSessionfromChannel(int session, int channelIndex);
    void openDebugFiles(ChannelEntry& channel);
    void closeDebugFiles(ChannelEntry& channel);
    void lockSessions();    // waits on mutexSessionChangable, with its log lines
    void unlockSessions();  // posts mutexSessionChangable, with its log line
    // Destructor only: unlocks the buffers of a frame bracket that deinit cut short, so that
    // a play engine still mapping them is not left waiting.
    void releaseAbandonedFrame();

    // Guarded by mutexSessionChangable: written by start() and stop() and read by the frame
    // bracket while they hold it; the NAL and AAC callbacks read them inside the bracket
    // without taking it. start() reads the sessions' started flags and sets mFreqDot before
    // taking it (frequency rule); mMaxSessions is fixed at construction.
    SessionEntry mSession[MAX_SESSIONS];
    ChannelEntry mChannel[MAX_CHANNELS];
    int mFreqDot;
    int mMaxSessions;
    int mChannelCount;
    TavoMBBMSEngineImpl* mEngine;  // not owned
    MBBMSAgent* mAgent;            // not owned
    sem_t mutexSessionChangable;   // process-private, initial value 1
    // The channel slot of the frame bracket in progress, -1 for an unknown channel, NO_FRAME
    // between frames. Written by agent threads inside the bracket; atomic so that a frame end
    // without a start (which is ignored) and the destructor can read it.
    enum { NO_FRAME = -2 };
    std::atomic<int> mOpenFrameSlot;
    // Thread that holds the frame bracket; a default id when no frame is in progress.
    std::atomic<std::thread::id> mFrameThread;
};

#endif  // TAVO_SESSION_SESSION_MANAGER_H
