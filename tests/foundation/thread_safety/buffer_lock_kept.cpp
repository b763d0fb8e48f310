// expect: is not held on every path
// A shared buffer's lock taken and never given back.
#include "SharedBufferSet.h"

void forget(SharedBufferSet& buffers) {
    if (buffers.lock(1))
        return;
}
