// The guard every engine operation that needs an initialised engine starts with. For the
// engine's own member functions only: it reads the engine's mIsInitialized.
#ifndef TAVO_ENGINE_ENGINE_GUARD_H
#define TAVO_ENGINE_ENGINE_GUARD_H

#include "EngineLog.h"

// Logs "skipped due to mIsInitialized==false" (WARNING) in the calling operation and
// returns `result` when the engine is not initialised.
#define RETURN_IF_NOT_INITIALIZED(result)                          \
    do {                                                           \
        if (!mIsInitialized.load()) {                              \
            TLOG(WARNING, "skipped due to mIsInitialized==false"); \
            return result;                                         \
        }                                                          \
    } while (0)

#endif  // TAVO_ENGINE_ENGINE_GUARD_H
