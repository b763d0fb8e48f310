// Handset backend of the 4-byte shared semaphore: bionic's sem_t on 32-bit ARM is a single
// 32-bit word, and a play engine built for the handset calls sem_wait/sem_post on the same
// slots, so the platform's own semaphore is used in place, unchanged.
//
// Waits restart after EINTR and time out on the monotonic clock (SemaphoreWaits.h), as the
// interface promises.
#include <semaphore.h>

#include "CmmbSharedSemaphore.h"
#include "SemaphoreWaits.h"
#include "SharedSemaphorePair.h"

// Other C libraries (the host check of this backend) have a larger sem_t: there the file is
// only compiled, never run.
#ifdef __BIONIC__
static_assert(sizeof(sem_t) == sizeof(CmmbSharedSemaphore), "bionic sem_t is one 32-bit word");
#endif

static sem_t* asSem(CmmbSharedSemaphore* sem) {
    return reinterpret_cast<sem_t*>(sem);
}

int cmmb_sem_init(CmmbSharedSemaphore* sem, unsigned int value) {
    return sem_init(asSem(sem), 1, value);
}
int cmmb_sem_destroy(CmmbSharedSemaphore* sem) {
    return sem_destroy(asSem(sem));
}
int cmmb_sem_wait(CmmbSharedSemaphore* sem) {
    return semaphoreWaitRestarting(asSem(sem));
}
int cmmb_sem_trywait(CmmbSharedSemaphore* sem) {
    return sem_trywait(asSem(sem));
}
int cmmb_sem_timedwait(CmmbSharedSemaphore* sem, int timeoutMs) {
    return semaphoreWaitMonotonic(asSem(sem), timeoutMs);
}
int cmmb_sem_post(CmmbSharedSemaphore* sem) {
    return sem_post(asSem(sem));
}
int cmmb_sem_getvalue(CmmbSharedSemaphore* sem, int* value) {
    return sem_getvalue(asSem(sem), value);
}

// bionic posts each semaphore with its own call, and wakes only when a reader sleeps.
int postSemaphorePair(CmmbSharedSemaphore* first, CmmbSharedSemaphore* second) {
    const int firstPosted = sem_post(asSem(first));
    const int secondPosted = sem_post(asSem(second));
    return firstPosted == 0 && secondPosted == 0 ? 0 : -1;
}
