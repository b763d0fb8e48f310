// expect: requires holding semaphore
// The session manager's channel dump needs mutexSessionChangable, which only the manager
// itself can take.
#include "SessionManager.h"

void dump(SessionManager& manager) {
    manager.dumpChannels();
}
