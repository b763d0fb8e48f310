// Handset backend of the 4-byte shared semaphore: bionic's sem_t on 32-bit ARM is a single
// 32-bit word, and a play engine built for the handset calls sem_wait/sem_post on the same
// slots, so the platform's own semaphore is used in place, unchanged.
#include <semaphore.h>
#include <time.h>

#include "CmmbSharedSemaphore.h"

static_assert(sizeof(sem_t) == sizeof(CmmbSharedSemaphore), "bionic sem_t is one 32-bit word");

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
    return sem_wait(asSem(sem));
}
int cmmb_sem_trywait(CmmbSharedSemaphore* sem) {
    return sem_trywait(asSem(sem));
}
int cmmb_sem_timedwait(CmmbSharedSemaphore* sem, int timeoutMs) {
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000;
    }
    return sem_timedwait(asSem(sem), &deadline);
}
int cmmb_sem_post(CmmbSharedSemaphore* sem) {
    return sem_post(asSem(sem));
}
int cmmb_sem_getvalue(CmmbSharedSemaphore* sem, int* value) {
    return sem_getvalue(asSem(sem), value);
}
