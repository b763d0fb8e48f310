#include "SessionManagerSlot.h"

#include <time.h>

#include "SessionManager.h"

SessionManager* SessionManagerSlot::retire() {
    SessionManager* manager = mManager.exchange(nullptr, std::memory_order_seq_cst);
    if (manager == nullptr)
        return nullptr;
    const struct timespec pause = {0, 200000};
    bool frameReleased = false;
    for (;;) {
        const int users = mUsers.load(std::memory_order_seq_cst);
        if (users == 0)
            return manager;
        // No new user can reach the manager any more, so when all that remain are blocked on
        // its session lock, nobody but this thread can end the frame they wait behind.
        if (!frameReleased && users == manager->threadsWaitingForSessions()) {
            manager->releaseAbandonedFrame();
            frameReleased = true;
        }
        nanosleep(&pause, nullptr);
    }
}
