// Logging of the engine, the session manager, the data path and the command thread.
#ifndef TAVO_PLATFORM_ENGINE_LOG_H
#define TAVO_PLATFORM_ENGINE_LOG_H

#ifndef LOG_TAG
#define LOG_TAG "TavoMBBMSEngine"
#endif

#include "Log.h"

#endif  // TAVO_PLATFORM_ENGINE_LOG_H
