// Holds the engine's session manager so that agent and application threads can use it while
// deinit may be deleting it.
//
// Users take an Access for the duration of one call; it yields null when no manager is
// installed. retire() removes the manager so that new Accesses see null, then waits until
// every Access taken before has been released, and hands the manager back for deletion.
// Each Access costs two atomic operations and allocates nothing.
//
// A frame bracket can be open when retire() runs: the agent's thread holds the manager's
// session lock between its callbacks, and its frame end, arriving after the removal, finds
// no manager. Application threads blocked on that lock in start, stop or the recording
// control would then wait for ever, and retire() with them. The agent's callbacks therefore
// take a data-path Access, counted apart: once none is left after the removal, no callback
// can reach the manager any more, and retire() ends an open frame itself, which lets the
// blocked threads go on.
#ifndef TAVO_ENGINE_SESSION_MANAGER_SLOT_H
#define TAVO_ENGINE_SESSION_MANAGER_SLOT_H

#include <atomic>

class Env;
class SessionManager;

class SessionManagerSlot {
public:
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

    // An Access whose end the caller states, for a use that spans two calls (frames held off
    // by the recording control): acquire() counts a user and returns the manager or null;
    // every acquire() is matched by one release().
    SessionManager* acquire() {
        mUsers.fetch_add(1, std::memory_order_seq_cst);
        return mManager.load(std::memory_order_seq_cst);
    }
    void release() { mUsers.fetch_sub(1, std::memory_order_seq_cst); }

    // REQUIRES: no manager installed.
    void install(SessionManager* manager) { mManager.store(manager, std::memory_order_seq_cst); }

    // Removes the manager and waits for its current users, polling through `env`'s sleep; the
    // caller deletes it.
    SessionManager* retire(Env* env);

    bool installed() const { return mManager.load(std::memory_order_seq_cst) != nullptr; }

private:
    std::atomic<SessionManager*> mManager{nullptr};
    std::atomic<int> mUsers{0};
    std::atomic<int> mDataPathUsers{0};  // the part of mUsers taken by data callbacks
};

#endif  // TAVO_ENGINE_SESSION_MANAGER_SLOT_H
