#include "SessionManagerSlot.h"

#include <chrono>

#include "Env.h"
#include "SessionManager.h"

SessionManager* SessionManagerSlot::retire(Env* env) {
    SessionManager* manager = mManager.exchange(nullptr, std::memory_order_seq_cst);
    if (manager == nullptr)
        return nullptr;
    const std::chrono::microseconds pause(200);
    // A data callback inside the manager ends within the bound of its buffer-lock waits.
    while (mDataPathUsers.load(std::memory_order_seq_cst) != 0)
        env->sleepFor(pause);
    // From here on no data callback reaches the manager: a frame still open is abandoned.
    manager->releaseAbandonedFrame();
    while (mUsers.load(std::memory_order_seq_cst) != 0)
        env->sleepFor(pause);
    return manager;
}
