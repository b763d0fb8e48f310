// A 4-byte counting semaphore that works across processes sharing a mapping.
//
// The shared A/V buffer keeps two of these at fixed offsets, and the engine and every
// reader in another process operate on them in place. The word is the count itself: a
// native unsigned 32-bit integer changed only by atomic operations. Which backend is built
// (a futex-based one on Linux hosts, the platform's own 4-byte sem_t on the handset) is a
// build-time choice; callers see only these functions.
//
// All functions return 0 on success and -1 with errno set on failure, like their POSIX
// counterparts. Waits are restarted after signal interruptions.
//
// Compiles as C (C11) and as C++; the functions have C linkage.
#ifndef CMMB_SHARED_SEMAPHORE_H
#define CMMB_SHARED_SEMAPHORE_H

#include <stdint.h>

#ifdef __cplusplus
#define CMMB_STATIC_ASSERT(condition, message) static_assert(condition, message)
extern "C" {
#else
#define CMMB_STATIC_ASSERT(condition, message) _Static_assert(condition, message)
#endif

typedef struct CmmbSharedSemaphore {
    uint32_t word;
} CmmbSharedSemaphore;
CMMB_STATIC_ASSERT(sizeof(CmmbSharedSemaphore) == 4, "the shared layout holds 4-byte semaphores");

int cmmb_sem_init(CmmbSharedSemaphore* sem, unsigned int value);
int cmmb_sem_destroy(CmmbSharedSemaphore* sem);
int cmmb_sem_wait(CmmbSharedSemaphore* sem);
int cmmb_sem_trywait(CmmbSharedSemaphore* sem); /* -1 with EAGAIN when the count is 0 */
/* Waits at most timeoutMs milliseconds (monotonic clock); -1 with ETIMEDOUT when it expires. */
int cmmb_sem_timedwait(CmmbSharedSemaphore* sem, int timeoutMs);
int cmmb_sem_post(CmmbSharedSemaphore* sem);
int cmmb_sem_getvalue(CmmbSharedSemaphore* sem, int* value);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif  // CMMB_SHARED_SEMAPHORE_H
