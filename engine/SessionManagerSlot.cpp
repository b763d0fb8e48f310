#include "SessionManagerSlot.h"

#include <time.h>

#include "SessionManager.h"

SessionManager* SessionManagerSlot::retire() {
    SessionManager* manager = mManager.exchange(nullptr, std::memory_order_seq_cst);
    if (manager == nullptr)
        return nullptr;
    const struct timespec pause = {0, 200000};
    // A data callback inside the manager ends within the bound of its buffer-lock waits.
    while (mDataPathUsers.load(std::memory_order_seq_cst) != 0)
        nanosleep(&pause, nullptr);
    // From here on no data callback reaches the manager: a frame still open is abandoned.
    manager->releaseAbandonedFrame();
    while (mUsers.load(std::memory_order_seq_cst) != 0)
        nanosleep(&pause, nullptr);
    return manager;
}
