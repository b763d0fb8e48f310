// Logging of the engine, the session manager, the data path and the command thread, and the
// guard every operation that needs an initialised engine starts with.
#ifndef TAVO_PLATFORM_ENGINE_LOG_H
#define TAVO_PLATFORM_ENGINE_LOG_H

#ifndef LOG_TAG
#define LOG_TAG "TavoMBBMSEngine"
#endif

#include "Log.h"

// Logs "skipped due to mIsInitialized==false" (WARNING) in the calling operation and
// returns `result` when the engine is not initialised.
#define RETURN_IF_NOT_INITIALIZED(result)                          \
    do {                                                           \
        if (!mIsInitialized.load()) {                              \
            TLOG(WARNING, "skipped due to mIsInitialized==false"); \
            return result;                                         \
        }                                                          \
    } while (0)

#endif  // TAVO_PLATFORM_ENGINE_LOG_H
