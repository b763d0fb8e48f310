// Everything a check found, for the report.
#ifndef TAVO_TOOLS_AGENTCHECK_CHECK_OUTCOME_H
#define TAVO_TOOLS_AGENTCHECK_CHECK_OUTCOME_H

#include <cstdio>
#include <string>
#include <vector>

#include "AgentCheckReport.h"

struct StepResult {
    std::string name;
    bool ok = false;
    std::string detail;
};

struct CheckOutcome {
    std::string library;
    std::vector<StepResult> steps;
    std::vector<BreachSummary> breaches;
    std::vector<ChannelSummary> channels;
    long framesFetched[2] = {0, 0};
    bool couldNotRun = false;
    std::string error;  // why the check could not run

    // 0 passed, 1 breached, 2 could not run.
    int exitStatus() const { return couldNotRun ? 2 : (breaches.empty() ? 0 : 1); }
};

// Prints the outcome as a table (with the rule of each breach), or as one JSON object.
void printOutcomeTable(const CheckOutcome& outcome, FILE* out);
void printOutcomeJson(const CheckOutcome& outcome, FILE* out);

#endif  // TAVO_TOOLS_AGENTCHECK_CHECK_OUTCOME_H
