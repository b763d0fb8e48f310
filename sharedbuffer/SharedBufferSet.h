// The two per-session shared A/V buffers of the engine, and the engine's side of their
// buffer lock (mutexDataAccessable).
//
// Ownership: the set owns each region's descriptor, its mapping in this process and the two
// semaphores inside it; destroy() or the destructor releases them. The play engine receives
// duplicates of the descriptors and maps the regions itself.
//
// Who holds a buffer lock. The lock word lives in shared memory and carries no owner, so the
// set keeps, per buffer and in this process only, whether an engine thread holds the lock
// (engineHolds) and how many engine threads are waiting for it (engineWaiters). Every engine
// thread takes and gives the lock through lock() and unlock(), which update these under the
// buffer's ownership mutex. A lock word at 0 that no engine thread holds or is waiting to
// take is therefore held by the play engine.
//
// A play engine that dies while it holds the lock never gives it back. When its connection
// ends, the command thread calls takeBackFromReader(): a lock the reader holds is taken
// back, the buffer is emptied and the lock given back; if an engine thread is already
// waiting for it, that thread takes the lock over instead, within one wait slice.
//
// A play engine that is alive but does not give the lock back (stopped, hung) is waited for
// at most lockTimeoutMs() (the system property "persist.mbbms.playengine.lock_timeout_ms",
// 2000 ms by default). After such a time-out the buffer counts as stalled: later lock()
// calls only try the lock, without waiting, until one succeeds again, so a hung reader does
// not slow the delivery of the other session.
//
// Threads: create() and destroy() run under the engine's mLock while no other thread uses
// the set (before the command thread starts, after it has stopped, with no session manager).
// lock(), unlock() and takeBackFromReader() may run on any thread while the set exists.
// Lock order: the ownership mutex of a buffer is innermost; nothing waits while holding it.
#ifndef TAVO_SHAREDBUFFER_SHARED_BUFFER_SET_H
#define TAVO_SHAREDBUFFER_SHARED_BUFFER_SET_H

#include <mutex>

#include "CmmbSharedBuffer.h"
#include "UniqueFd.h"
#include "UniqueMapping.h"

class SharedBufferSet {
public:
    enum { DEFAULT_LOCK_TIMEOUT_MS = 2000 };

    SharedBufferSet() = default;
    ~SharedBufferSet() { destroy(nullptr); }
    SharedBufferSet(const SharedBufferSet&) = delete;
    SharedBufferSet& operator=(const SharedBufferSet&) = delete;

    // Creates, maps and initialises both buffers, logging as `caller`. 0 on success; -1 on
    // any failure, with nothing left behind.
    int create(const char* caller);
    // Destroys the semaphores, unmaps and closes both buffers; logs as `caller` when given.
    void destroy(const char* caller);

    // The mapping of a session's buffer in this process, or null (sessions 0 and 1 only).
    CmmbSharedBuffer* buffer(int session) const;
    // The region descriptor of a session, or -1.
    int fd(int session) const;
    int lockTimeoutMs() const { return mLockTimeoutMs; }

    // Takes a session's mutexDataAccessable for this process, waiting at most
    // lockTimeoutMs() (not at all while the buffer is stalled). True when taken; false on a
    // time-out. REQUIRES: the buffer exists.
    bool lock(int session);
    // Gives back a lock taken with lock().
    void unlock(int session);

    // The play engine's connection has ended: takes back a buffer lock it still holds, and
    // forgets the frame signals it will never consume. True when a lock was taken back (or
    // handed to a waiting engine thread). Logs as `caller`.
    bool takeBackFromReader(int session, const char* caller);

private:
    // Per buffer, process-local: who on the engine side holds or awaits the lock.
    struct Ownership {
        std::mutex mutex;          // innermost lock; guards the fields below
        bool engineHolds = false;  // an engine thread holds mutexDataAccessable
        int engineWaiters = 0;     // engine threads waiting in lock()
        bool readerGone = false;   // the reader died holding the lock while we waited
        bool stalled = false;      // the last wait timed out: only try until a success
    };

    // REQUIRES: ownership.mutex held. Takes the lock for the calling engine thread when it
    // is free or was left by a reader that went away; true when it did.
    bool takeLocked(int session, Ownership& ownership);
    static void emptyBuffer(CmmbSharedBuffer* buffer);

    // Owned regions: the descriptor and the mapping of each session's buffer, index =
    // session. mSemaphoresReady[i] tells whether the two semaphores of buffer i exist.
    UniqueFd mSharedFds[CMMB_SHARED_BUFFER_COUNT];
    UniqueMapping mMappings[CMMB_SHARED_BUFFER_COUNT];
    bool mSemaphoresReady[CMMB_SHARED_BUFFER_COUNT] = {};
    Ownership mOwnership[CMMB_SHARED_BUFFER_COUNT];
    int mLockTimeoutMs = DEFAULT_LOCK_TIMEOUT_MS;
};

// Name of the system property that bounds the engine's wait for a buffer lock, in ms.
#define TAVO_LOCK_TIMEOUT_PROPERTY "persist.mbbms.playengine.lock_timeout_ms"

#endif  // TAVO_SHAREDBUFFER_SHARED_BUFFER_SET_H
