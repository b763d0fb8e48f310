/* Every header of the play-engine SDK, compiled as C: the layout and message sizes seen from
 * C, for the test to compare with the C++ view. */
#include "CmmbSharedBuffer.h"
#include "CmmbSharedSemaphore.h"
#include "PlayEngineProtocol.h"
#include "TavoPlayEngine.h"

#include "HeadersAsC.h"

size_t sdk_c_layout(size_t* out, size_t capacity) {
    const size_t layout[] = SDK_LAYOUT_ENTRIES;
    size_t count = sizeof(layout) / sizeof(layout[0]);
    for (size_t i = 0; i < count && i < capacity; ++i)
        out[i] = layout[i];
    return count;
}

int sdk_c_semaphore_round_trip(void) {
    CmmbSharedSemaphore sem;
    int value = -1;
    if (cmmb_sem_init(&sem, 0) != 0 || cmmb_sem_post(&sem) != 0 || cmmb_sem_wait(&sem) != 0)
        return -1;
    if (cmmb_sem_getvalue(&sem, &value) != 0)
        return -1;
    return value;
}
