// Holds the engine's session manager so that agent and application threads can use it while
// deinit may be deleting it.
//
// The slot owns the installed manager. Users take an Access for the duration of one call; it
// yields null when no manager is installed. retire() removes the manager so that new Accesses
// see null, then waits until every Access taken before has been released, and hands the
// manager's ownership back to the caller.
// Each Access costs two atomic operations and allocates nothing.
//
// The frame bracket. The agent delivers a frame as onOutputAVStart, many NAL and AAC calls,
// then onOutputAVEnd, all on one thread. The frame start takes a data-path Access and, when
// it found a manager, leases that manager to the bracket (openBracket()); the calls of that
// thread up to the frame end reach the manager through a BracketCall, which takes no atomic
// read-modify-write: it marks the thread as inside a call (mInCall), then reads the lease.
// The frame end closes the lease. A call on any other thread, or without an open lease,
// gets no manager from its BracketCall and takes a data-path Access instead.
//
// The lease (mLease):
//   CLOSED   no frame of the leased manager is open;
//   OPEN     a frame is open: its thread's calls may use the leased manager;
//   REVOKED  retire() took the open frame away: no call uses the leased manager any more.
//
// A frame bracket can be open when retire() runs: the agent's thread holds the manager's
// session lock between its callbacks, and its frame end, arriving after the removal, must
// not reach the manager. Application threads blocked on that lock in start, stop or the
// recording control would wait for ever, and retire() with them. retire() therefore waits
// until no data-path Access is left (a frame start that opens a lease holds one until the
// lease is OPEN), marks the lease REVOKED, and waits until the bracket's thread is not inside
// a call; then it ends the abandoned frame itself, which lets the blocked threads go on. A
// call is bounded by its buffer-lock waits, so retire() never waits for ever.
//
// Why a call never uses a manager that retire() deletes: a call stores mInCall and then
// loads mLease; retire() stores mLease and then loads mInCall. Between the store and the
// load each side has a full barrier, so at least one of them sees the other's store: either
// the call sees REVOKED and leaves the manager alone, or retire() sees the call and waits for
// it. The call's side of the barrier costs nothing where the kernel offers process-wide
// barriers (membarrier): retire() then forces one on every thread of the process, and the
// call needs only a compiler barrier. Elsewhere the call marks itself with a sequentially
// consistent read-modify-write, which is a full barrier.
//
// mInCall has one writer, the lease's thread: a call on any other thread does not touch it.
// The lease moves to another thread only at a frame start, which waits for the session lock
// that the previous bracket holds until its end (or until retire() ends it, after which the
// agent is shut down before a new manager can be leased).
#ifndef TAVO_ENGINE_SESSION_MANAGER_SLOT_H
#define TAVO_ENGINE_SESSION_MANAGER_SLOT_H

#include <atomic>
#include <memory>
#include <thread>

class Env;
class SessionManager;

class SessionManagerSlot {
public:
    // How a call of the bracket orders its mark against its read of the lease.
    enum class CallBarrier {
        PROCESS_WIDE_WHERE_AVAILABLE,  // a compiler barrier; retire() uses membarrier
        PER_CALL,                      // a read-modify-write per call (where membarrier is not)
    };

    explicit SessionManagerSlot(CallBarrier barrier = CallBarrier::PROCESS_WIDE_WHERE_AVAILABLE);
    // Deletes a manager still installed; no Access may be left.
    ~SessionManagerSlot();
    SessionManagerSlot(const SessionManagerSlot&) = delete;
    SessionManagerSlot& operator=(const SessionManagerSlot&) = delete;

    class Access {
    public:
        // dataPath: the caller is one of the agent's data callbacks.
        explicit Access(SessionManagerSlot& slot, bool dataPath = false)
            : mSlot(slot), mDataPath(dataPath) {
            mSlot.mUsers.fetch_add(1, std::memory_order_seq_cst);
            if (mDataPath)
                mSlot.mDataPathUsers.fetch_add(1, std::memory_order_seq_cst);
            mManager = mSlot.mManager.load(std::memory_order_seq_cst);
        }
        ~Access() {
            if (mDataPath)
                mSlot.mDataPathUsers.fetch_sub(1, std::memory_order_seq_cst);
            mSlot.mUsers.fetch_sub(1, std::memory_order_seq_cst);
        }
        Access(const Access&) = delete;
        Access& operator=(const Access&) = delete;

        SessionManager* get() const { return mManager; }
        SessionManager* operator->() const { return mManager; }
        explicit operator bool() const { return mManager != nullptr; }

    private:
        SessionManagerSlot& mSlot;
        const bool mDataPath;
        SessionManager* mManager;
    };

    // One call of the frame bracket's thread: yields the leased manager, or null when the
    // lease is not OPEN or the caller is not the bracket's thread; the caller then falls back
    // to a data-path Access.
    class BracketCall {
    public:
        explicit BracketCall(SessionManagerSlot& slot) : mSlot(slot), mManager(nullptr) {
            if (mSlot.mLeaseThread.load(std::memory_order_relaxed) != std::this_thread::get_id())
                return;
            if (mSlot.enterCall() == OPEN)
                mManager = mSlot.mLeasedManager;
            else
                mSlot.mInCall.store(false, std::memory_order_release);
        }
        ~BracketCall() {
            if (mManager != nullptr)
                mSlot.mInCall.store(false, std::memory_order_release);
        }
        BracketCall(const BracketCall&) = delete;
        BracketCall& operator=(const BracketCall&) = delete;

        SessionManager* operator->() const { return mManager; }
        explicit operator bool() const { return mManager != nullptr; }
        // The frame end, inside the call: the lease closes (unless retire() revoked it
        // meanwhile, which then finds the frame already ended).
        void closeBracket() {
            int open = OPEN;
            mSlot.mLease.compare_exchange_strong(open, CLOSED, std::memory_order_relaxed);
        }

    private:
        SessionManagerSlot& mSlot;
        SessionManager* mManager;
    };

    // Leases `manager` to the frame bracket that the calling thread has just started. Called
    // by the frame start while its data-path Access, which yielded `manager`, is still held.
    void openBracket(SessionManager* manager) {
        mLeasedManager = manager;
        mLeaseThread.store(std::this_thread::get_id(), std::memory_order_relaxed);
        mLease.store(OPEN, std::memory_order_release);
    }

    // An Access whose end the caller states, for a use that spans two calls (frames held off
    // by the recording control): acquire() counts a user and returns the manager or null;
    // every acquire() is matched by one release().
    SessionManager* acquire() {
        mUsers.fetch_add(1, std::memory_order_seq_cst);
        return mManager.load(std::memory_order_seq_cst);
    }
    void release() { mUsers.fetch_sub(1, std::memory_order_seq_cst); }

    // Takes ownership of `manager`. Only while no manager is installed.
    void install(std::unique_ptr<SessionManager> manager);

    // Removes the manager and waits for its current users, polling through `env`'s sleep;
    // returns it (null when none was installed).
    std::unique_ptr<SessionManager> retire(Env* env);

    bool installed() const { return mManager.load(std::memory_order_seq_cst) != nullptr; }

private:
    enum LeaseState { CLOSED = 0, OPEN = 1, REVOKED = 2 };

    // Marks the lease's thread inside a call, then reads the lease: with a compiler barrier
    // in between where retire() forces process-wide barriers, else with both operations
    // sequentially consistent (the read-modify-write is the full barrier).
    int enterCall() {
        if (mProcessBarriers) {
            mInCall.store(true, std::memory_order_relaxed);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            return mLease.load(std::memory_order_acquire);
        }
        mInCall.exchange(true, std::memory_order_seq_cst);
        return mLease.load(std::memory_order_seq_cst);
    }
    // retire()'s side: between its store of the lease and its load of mInCall.
    void retireBarrier() const;
    // Takes an open lease away and waits until no call of the bracket is inside the
    // manager. Only once the manager is removed and no data-path Access is left.
    void revokeLease(Env* env);

    // The installed manager, owned by the slot while it is here.
    std::atomic<SessionManager*> mManager{nullptr};
    std::atomic<int> mUsers{0};
    std::atomic<int> mDataPathUsers{0};  // the part of mUsers taken by data callbacks
    // Whether retire() can force a barrier on every thread of the process; fixed at
    // construction.
    const bool mProcessBarriers;
    // The frame bracket's lease (LeaseState): set by the frame start and end, revoked by
    // retire().
    std::atomic<int> mLease{CLOSED};
    // The thread of the last bracket opened; only its calls use the lease.
    std::atomic<std::thread::id> mLeaseThread{std::thread::id()};
    // Written only by the lease's thread: it is inside a call that may use the manager.
    std::atomic<bool> mInCall{false};
    // The manager leased to the open bracket. Written by openBracket() before the release
    // store that makes the lease OPEN; read only by a call that saw the lease OPEN.
    SessionManager* mLeasedManager = nullptr;
};

#endif  // TAVO_ENGINE_SESSION_MANAGER_SLOT_H
