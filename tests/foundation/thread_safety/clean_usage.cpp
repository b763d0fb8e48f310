// expect: clean
// Correct use of the engine's lock annotations compiles without a diagnostic, so that the
// other cases fail for their own fault and not for the setup.
#include "MutexLock.h"
#include "SemaphoreLock.h"
#include "SessionManager.h"

class Counter {
public:
    void add() {
        MutexLock lock(mMutex);
        ++mCount;
    }

private:
    Mutex mMutex;
    int mCount GUARDED_BY(mMutex) = 0;
};

bool lockedReset(SharedBufferSet& buffers) {
    if (!buffers.lock(0))
        return false;
    buffers.unlock(0);
    return true;
}
