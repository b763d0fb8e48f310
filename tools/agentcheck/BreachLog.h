// Counts the breaches found so far and keeps the first message of each kind.
//
// Locking: every member takes mLock; callable from any thread. report() allocates only for
// the first occurrence of a kind.
#ifndef TAVO_TOOLS_AGENTCHECK_BREACH_LOG_H
#define TAVO_TOOLS_AGENTCHECK_BREACH_LOG_H

#include <mutex>
#include <string>
#include <vector>

#include "AgentCheckReport.h"
#include "Breaches.h"

class BreachLog {
public:
    void report(Breach breach, const char* format, ...) __attribute__((format(printf, 3, 4)));
    std::vector<BreachSummary> summaries();

private:
    std::mutex mLock;
    int mCounts[kBreachCount] = {};            // guarded by mLock
    std::string mFirstMessages[kBreachCount];  // guarded by mLock
};

#endif  // TAVO_TOOLS_AGENTCHECK_BREACH_LOG_H
