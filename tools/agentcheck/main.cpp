// tavo_agentcheck: checks a tuner vendor's agent library against the agent contract by
// loading it through the engine, as a handset does, behind a checking proxy.
#include <cstdio>

#include "CheckOptions.h"
#include "CheckOutcome.h"
#include "CheckRun.h"

#ifndef TAVO_AGENTCHECK_VERSION
#define TAVO_AGENTCHECK_VERSION "0"
#endif

int main(int argc, char** argv) {
    CheckOptions options;
    std::string error;
    switch (parseCheckOptions(argc, argv, &options, &error)) {
        case ParseResult::HELP:
            printCheckUsage(stdout);
            return 0;
        case ParseResult::VERSION:
            printf("tavo_agentcheck %s\n", TAVO_AGENTCHECK_VERSION);
            return 0;
        case ParseResult::BAD:
            fprintf(stderr, "tavo_agentcheck: %s\n", error.c_str());
            printCheckUsage(stderr);
            return 2;
        case ParseResult::RUN:
            break;
    }
    CheckOutcome outcome = CheckRun(options).run();
    if (options.json)
        printOutcomeJson(outcome, stdout);
    else
        printOutcomeTable(outcome, stdout);
    fflush(stdout);
    return outcome.exitStatus();
}
