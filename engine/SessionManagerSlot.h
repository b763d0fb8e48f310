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
// control would then wait for ever, and retire() with them. So once every remaining user is
// such a blocked thread, retire() ends the abandoned frame itself, which lets them go on.
#ifndef TAVO_ENGINE_SESSION_MANAGER_SLOT_H
#define TAVO_ENGINE_SESSION_MANAGER_SLOT_H

#include <atomic>

class SessionManager;

class SessionManagerSlot {
public:
    class Access {
    public:
        explicit Access(SessionManagerSlot& slot) : mSlot(slot) {
            mSlot.mUsers.fetch_add(1, std::memory_order_seq_cst);
            mManager = mSlot.mManager.load(std::memory_order_seq_cst);
        }
        ~Access() { mSlot.mUsers.fetch_sub(1, std::memory_order_seq_cst); }
        Access(const Access&) = delete;
        Access& operator=(const Access&) = delete;

        SessionManager* get() const { return mManager; }
        SessionManager* operator->() const { return mManager; }
        explicit operator bool() const { return mManager != nullptr; }

    private:
        SessionManagerSlot& mSlot;
        SessionManager* mManager;
    };

    // REQUIRES: no manager installed.
    void install(SessionManager* manager) { mManager.store(manager, std::memory_order_seq_cst); }

    // Removes the manager and waits for its current users; the caller deletes it.
    SessionManager* retire();

    bool installed() const { return mManager.load(std::memory_order_seq_cst) != nullptr; }

private:
    std::atomic<SessionManager*> mManager{nullptr};
    std::atomic<int> mUsers{0};
};

#endif  // TAVO_ENGINE_SESSION_MANAGER_SLOT_H
