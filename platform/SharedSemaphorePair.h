// Posts two shared semaphores at once, as the engine does at the end of every frame: the
// buffer's lock and its data-available count.
//
// The effect is that of cmmb_sem_post(first) followed by cmmb_sem_post(second): each count
// goes up by one and one sleeper of each is woken, so readers see nothing new. On the host it
// costs one system call instead of two (the kernel increments `second` and wakes the sleepers
// of both words in one FUTEX_WAKE_OP); the handset's backend makes the two posts.
//
// Returns 0, or -1 with errno set when a count is at its maximum (EOVERFLOW); a count at its
// maximum is left as it was, the other is still posted.
#ifndef TAVO_PLATFORM_SHARED_SEMAPHORE_PAIR_H
#define TAVO_PLATFORM_SHARED_SEMAPHORE_PAIR_H

#include "CmmbSharedSemaphore.h"

int postSemaphorePair(CmmbSharedSemaphore* first, CmmbSharedSemaphore* second);

#endif  // TAVO_PLATFORM_SHARED_SEMAPHORE_PAIR_H
