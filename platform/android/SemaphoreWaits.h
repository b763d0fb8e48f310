// Waits on a POSIX semaphore that neither a signal nor a change of the wall clock can cut
// short or stretch: both restart after EINTR, and the timed wait measures its time-out on
// the monotonic clock. Both return 0, or -1 with errno set like sem_wait.
#ifndef TAVO_PLATFORM_ANDROID_SEMAPHORE_WAITS_H
#define TAVO_PLATFORM_ANDROID_SEMAPHORE_WAITS_H

#include <semaphore.h>

int semaphoreWaitRestarting(sem_t* sem);
// Waits at most timeoutMs milliseconds; -1 with ETIMEDOUT when they pass.
int semaphoreWaitMonotonic(sem_t* sem, int timeoutMs);

#endif  // TAVO_PLATFORM_ANDROID_SEMAPHORE_WAITS_H
