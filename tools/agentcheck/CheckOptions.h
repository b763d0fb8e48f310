// Command line of tavo_agentcheck.
#ifndef TAVO_TOOLS_AGENTCHECK_CHECK_OPTIONS_H
#define TAVO_TOOLS_AGENTCHECK_CHECK_OPTIONS_H

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

// A TV service to start: the values of the vendor's TS0 record.
struct ServiceChoice {
    int freqDot = -1;
    int serviceID = 0;
    int start = 0;
    int count = 0;
    int mod = 0;
};

struct CheckOptions {
    std::string library;
    std::vector<int> freqDots;            // default 0 to 47
    std::vector<ServiceChoice> services;  // empty: the first two of the vendor's TS0 records
    int seconds = 5;
    bool inno = false;
    bool mbbms = false;
    bool json = false;
    std::vector<std::pair<std::string, std::string>> properties;
};

enum class ParseResult { RUN, HELP, VERSION, BAD };

// Fills *options; on BAD, *error says why.
ParseResult parseCheckOptions(int argc, char** argv, CheckOptions* options, std::string* error);
void printCheckUsage(FILE* out);

#endif  // TAVO_TOOLS_AGENTCHECK_CHECK_OPTIONS_H
