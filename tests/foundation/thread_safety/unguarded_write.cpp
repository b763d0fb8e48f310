// expect: requires holding mutex 'mMutex'
// A member marked GUARDED_BY written without its mutex.
#include "Mutex.h"

class Counter {
public:
    void add() { ++mCount; }

private:
    Mutex mMutex;
    int mCount GUARDED_BY(mMutex) = 0;
};
