#include "BreachLog.h"

#include <cstdarg>
#include <cstdio>

void BreachLog::report(Breach breach, const char* format, ...) {
    size_t index = static_cast<size_t>(breach);
    std::lock_guard<std::mutex> guard(mLock);
    if (mCounts[index]++ > 0)
        return;
    char message[256];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    mFirstMessages[index] = message;
}

std::vector<BreachSummary> BreachLog::summaries() {
    std::lock_guard<std::mutex> guard(mLock);
    std::vector<BreachSummary> result;
    for (size_t i = 0; i < kBreachCount; ++i) {
        if (mCounts[i] == 0)
            continue;
        BreachSummary summary;
        summary.id = breachId(static_cast<Breach>(i));
        summary.count = mCounts[i];
        summary.firstMessage = mFirstMessages[i];
        result.push_back(summary);
    }
    return result;
}
