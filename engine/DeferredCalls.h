// Results and events raised inside a multiplex-frame bracket, kept until the bracket ends.
//
// Between onOutputAVStart and onOutputAVEnd the agent's thread holds the session lock and
// the buffer locks of the frame. A result or event that the agent raises on that thread
// meanwhile (and an event the engine raises there itself) must not reach the application
// under those locks: it is deferred here, with copies of what its pointers refer to (they
// are valid only during the agent's call), and replayed, in order, when the bracket has
// ended and its locks are released.
//
// Memory: two queues, each a list of calls and a byte store for the copies, reused from
// frame to frame; they allocate only when a frame defers more than any frame before it.
// A frame that defers nothing costs one atomic load at its end.
//
// Threads: the bracket's thread defers and replays. Another agent thread may open the next
// bracket while the previous one's calls are being replayed; its calls go to the other queue
// and are replayed by the thread already replaying, after those, so the order holds. mLock
// is never held during a replay.
#ifndef TAVO_ENGINE_DEFERRED_CALLS_H
#define TAVO_ENGINE_DEFERRED_CALLS_H

#include <atomic>
#include <cstddef>
#include <vector>

#include "Mutex.h"
#include "MutexLock.h"
#include "ThreadAnnotations.h"

class DeferredCalls {
public:
    // What was deferred: the agent callback (or the engine's own event) and its arguments.
    enum Kind {
        SERVICE_PARAM,
        CA_INFO,
        EMERGENCY_MESSAGE,
        TS0_PARSED,
        ESG_XML,
        ESG_UPDATED,
        SCAN_FINISHED,
        SIGNAL_UPDATED,
        REQUEST_UPDATE_SG,
        REQUEST_INIT_GBA,
        REQUEST_UPDATE_ST,
        REQUEST_SUBSCRIBE_SERVICE,
        REQUEST_UNSUBSCRIBE_SERVICE,
        REQUEST_INQUIRY_ACCOUNT,
        REQUEST_AUTHORIZE_SERVICE,
        AGENT_EVENT,   // onEvent from the agent (its filter applies at the replay)
        ENGINE_EVENT,  // an event of the engine itself
    };
    // One deferred call as replayed. `first` and `second` point at the copies of what the
    // call's pointers referred to (null where the pointer was null); they stay valid until
    // the replay of this call returns.
    struct Call {
        Kind kind;
        int value;  // done flag, frequency point, ESG type, CA count or event type
        int param;  // event parameter
        void* first;
        void* second;
    };
    // A piece of memory to copy with a call; data null means a null pointer.
    struct Bytes {
        const void* data;
        size_t size;
    };

    // A string to copy with a call, with its terminating zero.
    static Bytes text(const char* text);

    DeferredCalls();
    DeferredCalls(const DeferredCalls&) = delete;
    DeferredCalls& operator=(const DeferredCalls&) = delete;

    // Marks the calling thread as the one inside the frame bracket.
    static void beginBracket();
    // Whether the calling thread is inside a frame bracket: calls must be deferred.
    static bool insideBracket();

    // Keeps a call for the end of the bracket, with copies of `first` and `second`.
    // Only on the thread inside the bracket (insideBracket()).
    void defer(Kind kind, int value, int param, Bytes first = Bytes{nullptr, 0},
               Bytes second = Bytes{nullptr, 0}) EXCLUDES(mLock);

    // Ends the bracket on the calling thread and passes every deferred call to replay(call),
    // in order, holding no lock. The bracket's locks must already be released.
    template <typename Replay>
    void endBracket(Replay replay) EXCLUDES(mLock) {
        endBracketOnThisThread();
        // The frame path's usual case, nothing deferred, takes no lock. A false here after
        // this thread deferred calls means another thread has taken them for its replay.
        if (!mQueued.load(std::memory_order_acquire))
            return;
        MutexLock lock(mLock);
        if (mReplaying || mQueues[mFilling].calls.empty())
            return;
        mReplaying = true;
        while (!mQueues[mFilling].calls.empty()) {
            Queue& full = mQueues[mFilling];
            mFilling ^= 1;
            mQueued.store(false, std::memory_order_release);
            lock.unlock();
            // The full queue is this thread's alone while mReplaying is set.
            replayQueue(full, replay);
            lock.lock();
        }
        mReplaying = false;
    }

    // Forgets the calls not yet replayed (deinit: they belong to the registration it ends).
    void discard() EXCLUDES(mLock);

private:
    static const size_t kNone = static_cast<size_t>(-1);
    struct Stored {
        Kind kind;
        int value;
        int param;
        size_t first;  // index of the copy's first block in the queue's store, kNone for null
        size_t second;
    };
    // The unit of the copy store: each copy starts on a block, aligned for any record.
    struct alignas(std::max_align_t) Block {
        unsigned char bytes[alignof(std::max_align_t)];
    };
    struct Queue {
        std::vector<Stored> calls;
        std::vector<Block> blocks;
    };

    static void endBracketOnThisThread();
    // Replays and empties the queue that is not filling. Only the thread that set
    // mReplaying calls it, without mLock: the analysis cannot tell that mFilling's flip
    // handed this queue over, so it is not checked.
    template <typename Replay>
    static void replayQueue(Queue& full, Replay& replay) NO_THREAD_SAFETY_ANALYSIS {
        for (const Stored& stored : full.calls)
            replay(callOf(full, stored));
        full.calls.clear();
        full.blocks.clear();
    }
    // Copies `piece` into the queue's store; the index of its first block, or kNone.
    static size_t store(Queue& queue, Bytes piece);
    static Call callOf(Queue& queue, const Stored& stored);

    // Taken inside the frame bracket, under its session and buffer locks; nothing is called
    // while it is held.
    Mutex mLock;
    // The filling queue (mQueues[mFilling]) is guarded by mLock; the other one belongs to
    // the replaying thread.
    Queue mQueues[2] GUARDED_BY(mLock);
    int mFilling GUARDED_BY(mLock) = 0;         // the queue new calls go to
    bool mReplaying GUARDED_BY(mLock) = false;  // a thread replays the other queue
    // Whether the filling queue holds calls; written under mLock, read without it.
    std::atomic<bool> mQueued{false};
};

#endif  // TAVO_ENGINE_DEFERRED_CALLS_H
