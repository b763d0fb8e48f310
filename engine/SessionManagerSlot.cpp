#include "SessionManagerSlot.h"

#include <errno.h>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

#include "Env.h"
#include "SessionManager.h"

namespace {

const std::chrono::microseconds kPause(200);

// Registers the process for expedited process-wide barriers; false where the kernel (or
// an emulator, or a system-call filter) does not offer them.
bool registerProcessBarriers() {
#if defined(__NR_membarrier)
    return syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
#else
    return false;
#endif
}

}  // namespace

SessionManagerSlot::SessionManagerSlot(CallBarrier barrier)
    : mProcessBarriers(barrier == CallBarrier::PROCESS_WIDE_WHERE_AVAILABLE &&
                       registerProcessBarriers()) {}

void SessionManagerSlot::retireBarrier() const {
#if defined(__NR_membarrier)
    if (mProcessBarriers) {
        // Registered at construction, so this cannot fail for lack of registration (only a
        // signal can interrupt it); it returns once this and every other running thread of
        // the process has passed a full barrier.
        while (syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) != 0 &&
               errno == EINTR) {
        }
    }
#endif
    // Without process-wide barriers the calls' read-modify-write and the sequentially
    // consistent store and load here order the two sides.
}

SessionManagerSlot::~SessionManagerSlot() {
    delete mManager.load(std::memory_order_seq_cst);
}

void SessionManagerSlot::install(std::unique_ptr<SessionManager> manager) {
    mManager.store(manager.release(), std::memory_order_seq_cst);
}

std::unique_ptr<SessionManager> SessionManagerSlot::retire(Env* env) {
    std::unique_ptr<SessionManager> manager(mManager.exchange(nullptr, std::memory_order_seq_cst));
    if (!manager)
        return nullptr;
    // A data callback inside the manager ends within the bound of its buffer-lock waits. A
    // frame start that found the manager has opened its lease once its Access is gone.
    while (mDataPathUsers.load(std::memory_order_seq_cst) != 0)
        env->sleepFor(kPause);
    revokeLease(env);
    // From here on no data callback reaches the manager: a frame still open is abandoned.
    manager->releaseAbandonedFrame();
    while (mUsers.load(std::memory_order_seq_cst) != 0)
        env->sleepFor(kPause);
    return manager;
}

void SessionManagerSlot::revokeLease(Env* env) {
    if (mLease.load(std::memory_order_acquire) == CLOSED)
        return;  // no frame open, and none opens for the removed manager
    mLease.store(REVOKED, std::memory_order_seq_cst);
    retireBarrier();
    // A call that saw the lease OPEN is inside; it ends within the bound of its waits.
    while (mInCall.load(std::memory_order_seq_cst))
        env->sleepFor(kPause);
}
