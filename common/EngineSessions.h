// The engine's sessions: two, numbered 0 and 1, each with one shared A/V buffer, at most one
// recording and at most one snapshot in progress. Every operation that takes a session number
// from outside checks it with isEngineSession before using it as an index.
#ifndef TAVO_COMMON_ENGINE_SESSIONS_H
#define TAVO_COMMON_ENGINE_SESSIONS_H

#include "CmmbSharedBuffer.h"

constexpr int kEngineSessions = static_cast<int>(CMMB_SHARED_BUFFER_COUNT);

constexpr bool isEngineSession(int session) {
    return session >= 0 && session < kEngineSessions;
}

#endif  // TAVO_COMMON_ENGINE_SESSIONS_H
