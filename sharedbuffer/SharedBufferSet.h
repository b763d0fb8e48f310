// The two per-session shared A/V buffers of the engine, the engine's side of their buffer
// lock (mutexDataAccessable), and their replacement when the play engine that used them has
// gone leaving a lock taken.
//
// Ownership: the set owns each session's current region (SharedRegion: descriptor, mapping,
// semaphores). The play engine receives duplicates of the descriptors and maps the regions
// itself.
//
// Who holds a buffer lock. The lock word lives in shared memory and carries no owner, so the
// set keeps, per buffer and in this process only, whether an engine thread holds the lock
// (engineHolds) and how many engine threads wait for it (engineWaiters). Every engine thread
// takes and gives the lock through lock() and unlock(), which update these under the
// buffer's ownership mutex.
//
// A buffer is abandoned when the word reads 0, no engine thread holds it, and every client
// connection that received the region's descriptor has ended (readerConnected is false): a
// process that got the region from a play engine that is gone keeps the lock, and nothing
// says whether it ever gives it back. The set never guesses from process ids. It replaces
// an abandoned region instead: a fresh region (new descriptor, new semaphores, same layout
// and name) takes its place, and the old one is unmapped and closed here; whoever still maps
// it keeps it for itself. A replacement happens only with frames held off:
//   - at the first frame start after a client's connection ended (onFrameStart(), called by
//     the frame hand-off on the frame thread before it touches any buffer);
//   - when a client is accepted, before it receives the descriptors (replaceAbandoned(),
//     called by the command thread while it holds frames off).
// It never happens while an engine thread waits for the region's lock: a waiter that finds
// its buffer abandoned gives up its wait (the caller drops its frame or its reset), and the
// region is replaced once no waiter is left. So no engine thread ever waits on a region that
// is gone, and two engine threads never hold the locks of an old and a new region at once.
//
// A play engine that is alive but does not give the lock back (stopped, hung) while it stays
// connected is waited for at most lockTimeoutMs() (the system property
// "persist.mbbms.playengine.lock_timeout_ms", 2000 ms by default). After such a time-out the
// buffer counts as stalled: later lock() calls only try the lock, without waiting, until one
// succeeds again, so a hung reader does not slow the delivery of the other session.
//
// Time: every wait of the set (the bounded lock wait and its slices, the wait for waiters of
// an abandoned buffer to leave) is measured and slept through the Env given to create(), so
// that a test can run the set against a clock of its own.
//
// Threads: create() and destroy() run under the engine's mLock while no other thread uses
// the set (before the command thread starts, after it has stopped, with no session
// manager). lock(), unlock() and the connection calls may run on any thread while the set
// exists; replacements run on the frame thread or with frames held off, so the frame path
// may keep a buffer's address from its frame start to its frame end. buffer() and fd() of
// another thread read the current region atomically. The ownership mutex of a buffer is
// innermost; nothing waits while holding it.
#ifndef TAVO_SHAREDBUFFER_SHARED_BUFFER_SET_H
#define TAVO_SHAREDBUFFER_SHARED_BUFFER_SET_H

#include <atomic>

#include "CmmbSharedBuffer.h"
#include "Mutex.h"
#include "SharedRegion.h"
#include "ThreadAnnotations.h"

class Env;

class SharedBufferSet {
public:
    enum { DEFAULT_LOCK_TIMEOUT_MS = 2000 };

    SharedBufferSet() = default;
    ~SharedBufferSet() { destroy(nullptr); }
    SharedBufferSet(const SharedBufferSet&) = delete;
    SharedBufferSet& operator=(const SharedBufferSet&) = delete;

    // Creates, maps and initialises both buffers through `env`, logging as `caller`, and
    // keeps `env` for the set's waits until destroy(). 0 on success; -1 on any failure, with
    // nothing left behind.
    int create(const char* caller, Env* env);
    // Destroys the semaphores, unmaps and closes both buffers; logs as `caller` when given.
    // A region descriptor of value 0 is left open.
    void destroy(const char* caller);

    // The mapping of a session's current buffer in this process, or null (sessions 0 and 1
    // only).
    CmmbSharedBuffer* buffer(int session) const;
    // The descriptor of a session's current region, or -1.
    int fd(int session) const;
    int lockTimeoutMs() const { return mLockTimeoutMs; }

    // Takes a session's mutexDataAccessable for this process, waiting at most
    // lockTimeoutMs() (not at all while the buffer is stalled). True when taken; false on a
    // time-out, or when the buffer turned out abandoned while waiting. The buffer must
    // exist.
    bool lock(int session) TRY_ACQUIRE(true, mOwnership[session].mutexDataAccessable);
    // Gives back a lock taken with lock().
    void unlock(int session) RELEASE(mOwnership[session].mutexDataAccessable);
    // The end of a frame written under lock(): gives the lock back and counts the frame in
    // mutexDataAvailable, both posted together (one system call on the host).
    void unlockAnnouncingFrame(int session) RELEASE(mOwnership[session].mutexDataAccessable);

    // Whether a reader outside the engine holds a session's buffer lock: 1 when the lock
    // word reads 0 and no engine thread holds it, 0 when the lock is free or an engine thread
    // holds it, -1 for a bad session or a buffer that does not exist. Any thread. A snapshot:
    // for the moment between an engine thread's wait taking the word and its recording the
    // hold, the holder still counts as a reader.
    int readerHolds(int session);

    // A client is about to receive the descriptors of the current regions (command thread).
    void readerConnected();
    // The client that received them has gone: closed, reset or pushed out (command thread).
    void readerDisconnected();

    // Replaces each abandoned buffer. When engine threads still wait for an abandoned
    // buffer, waits (briefly: they give up within one wait slice) until they have left.
    // Returns false when an abandoned buffer could not be replaced (no memory for a new
    // region). Frames must be held off. Logs as `caller`.
    bool replaceAbandoned(const char* caller);
    // True when a buffer is abandoned (nothing is changed).
    bool anyAbandoned();

    // The frame hand-off calls this at each frame start, on the frame thread, before it
    // takes any buffer: after a client's connection has ended, abandoned buffers are
    // replaced before the frame is written. One atomic load when nothing is pending.
    void onFrameStart() {
        if (mCheckPending.load(std::memory_order_acquire))
            replacePending();
    }

private:
    // unlock() and unlockAnnouncingFrame(): with `announceFrame`, mutexDataAvailable is posted
    // together with the lock.
    void giveLockBack(int session, bool announceFrame)
        RELEASE(mOwnership[session].mutexDataAccessable);
    // The session manager names the buffer lock in its lock order.
    friend class SessionManager;

    // The engine's side of a buffer's mutexDataAccessable as the thread-safety analysis sees
    // it: lock() and unlock() mark taking and giving back the semaphore in the region. It
    // has no state; Ownership::engineHolds records the hold at run time.
    struct CAPABILITY("shared buffer lock") BufferLock {
        void taken() ACQUIRE() {}
        void given() RELEASE() {}
    };
    // Per buffer, process-local: who on the engine side holds or awaits the lock, and
    // whether a live connection has the region.
    struct Ownership {
        BufferLock mutexDataAccessable;
        // Innermost lock; also guards the buffer's entry of mRegions.
        Mutex mutex ACQUIRED_AFTER(mutexDataAccessable);
        // An engine thread holds mutexDataAccessable.
        bool engineHolds GUARDED_BY(mutex) = false;
        int engineWaiters GUARDED_BY(mutex) = 0;  // engine threads waiting in lock()
        // The last wait timed out: only try until a success.
        bool stalled GUARDED_BY(mutex) = false;
        // A connected client received this region.
        bool readerConnected GUARDED_BY(mutex) = false;
    };
    enum class Verdict { IN_USE, ABANDONED, UNDECIDED };

    // Whether the buffer is abandoned; UNDECIDED when it looks abandoned but engine threads
    // wait for it (one may just have taken the word).
    Verdict verdictLocked(int session, const Ownership& ownership) const REQUIRES(ownership.mutex);
    // The buffer abandoned with no engine waiter, frames held off: puts a fresh region in
    // place of the old one; false when none can be made.
    bool replaceLocked(int session, Ownership& ownership, const char* caller)
        REQUIRES(ownership.mutex);
    // The frame-start check after a connection ended; clears the pending flag once every
    // buffer is decided.
    void replacePending();
    void publish(int session);

    // Owned regions, index = session; each changes only under its buffer's ownership mutex
    // (an array element's guard cannot be stated as an annotation). mAddresses and mFds
    // publish the current region to readers without the mutex.
    SharedRegion mRegions[CMMB_SHARED_BUFFER_COUNT];
    std::atomic<CmmbSharedBuffer*> mAddresses[CMMB_SHARED_BUFFER_COUNT] = {};
    std::atomic<int> mFds[CMMB_SHARED_BUFFER_COUNT] = {{-1}, {-1}};
    Ownership mOwnership[CMMB_SHARED_BUFFER_COUNT];
    // Set when a client that had the buffers has gone; cleared by the frame-start check.
    std::atomic<bool> mCheckPending{false};
    int mLockTimeoutMs = DEFAULT_LOCK_TIMEOUT_MS;
    // The platform calls and the clock of the buffers, from create(). Written only by create()
    // while no other thread uses the set; read by every thread that uses the buffers.
    Env* mEnv = nullptr;
};

// Name of the system property that bounds the engine's wait for a buffer lock, in ms.
#define TAVO_LOCK_TIMEOUT_PROPERTY "persist.mbbms.playengine.lock_timeout_ms"

#endif  // TAVO_SHAREDBUFFER_SHARED_BUFFER_SET_H
