#include "CheckOutcome.h"

#include "Breaches.h"

#ifndef TAVO_AGENTCHECK_VERSION
#define TAVO_AGENTCHECK_VERSION "0"
#endif

namespace {

const char* ruleOf(const std::string& id) {
    for (size_t i = 0; i < kBreachCount; ++i) {
        if (id == breachId(static_cast<Breach>(i)))
            return breachRule(static_cast<Breach>(i));
    }
    return "";
}

const char* resultWord(const CheckOutcome& outcome) {
    switch (outcome.exitStatus()) {
        case 0:
            return "pass";
        case 1:
            return "fail";
        default:
            return "error";
    }
}

std::string jsonString(const std::string& text) {
    std::string quoted = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
            quoted += static_cast<char>(c);
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            quoted += escaped;
        } else {
            quoted += static_cast<char>(c);
        }
    }
    return quoted + "\"";
}

}  // namespace

void printOutcomeTable(const CheckOutcome& outcome, FILE* out) {
    fprintf(out, "tavo_agentcheck %s: %s\n\n", TAVO_AGENTCHECK_VERSION, outcome.library.c_str());
    fprintf(out, "%-24s %-6s %s\n", "step", "result", "detail");
    for (const StepResult& step : outcome.steps) {
        fprintf(out, "%-24s %-6s %s\n", step.name.c_str(), step.ok ? "ok" : "FAILED",
                step.detail.c_str());
    }
    if (!outcome.channels.empty()) {
        fprintf(out, "\n%-8s %8s %7s %9s %9s %10s\n", "channel", "frames", "errors", "NAL units",
                "AAC", "SPS/PPS");
        for (const ChannelSummary& c : outcome.channels) {
            fprintf(out, "%-8d %8ld %7ld %9ld %9ld %10ld\n", c.channelID, c.frames,
                    c.framesWithError, c.nalUnits, c.aacFrames, c.parameterSets);
        }
        fprintf(out, "frames fetched by the reader: session 0 %ld, session 1 %ld\n",
                outcome.framesFetched[0], outcome.framesFetched[1]);
    }
    if (!outcome.breaches.empty()) {
        fprintf(out, "\n%-24s %6s  %s\n", "breach", "count", "first occurrence");
        for (const BreachSummary& b : outcome.breaches) {
            fprintf(out, "%-24s %6d  %s\n", b.id.c_str(), b.count, b.firstMessage.c_str());
            fprintf(out, "%-24s %6s  rule: %s\n", "", "", ruleOf(b.id));
        }
    }
    fprintf(out, "\nresult: %s", resultWord(outcome));
    if (outcome.couldNotRun)
        fprintf(out, " (could not run: %s)", outcome.error.c_str());
    else if (!outcome.breaches.empty())
        fprintf(out, " (breaches of %zu kind%s)", outcome.breaches.size(),
                outcome.breaches.size() == 1 ? "" : "s");
    fprintf(out, "\n");
}

void printOutcomeJson(const CheckOutcome& outcome, FILE* out) {
    fprintf(out, "{\"tool\": \"tavo_agentcheck\", \"version\": %s, \"library\": %s,\n",
            jsonString(TAVO_AGENTCHECK_VERSION).c_str(), jsonString(outcome.library).c_str());
    fprintf(out, " \"result\": \"%s\", \"exitStatus\": %d, \"error\": %s,\n", resultWord(outcome),
            outcome.exitStatus(), jsonString(outcome.error).c_str());
    fprintf(out, " \"steps\": [");
    for (size_t i = 0; i < outcome.steps.size(); ++i) {
        const StepResult& s = outcome.steps[i];
        fprintf(out, "%s\n  {\"name\": %s, \"ok\": %s, \"detail\": %s}", i ? "," : "",
                jsonString(s.name).c_str(), s.ok ? "true" : "false", jsonString(s.detail).c_str());
    }
    fprintf(out, "],\n \"breaches\": [");
    for (size_t i = 0; i < outcome.breaches.size(); ++i) {
        const BreachSummary& b = outcome.breaches[i];
        fprintf(out, "%s\n  {\"id\": %s, \"count\": %d, \"message\": %s, \"rule\": %s}",
                i ? "," : "", jsonString(b.id).c_str(), b.count, jsonString(b.firstMessage).c_str(),
                jsonString(ruleOf(b.id)).c_str());
    }
    fprintf(out, "],\n \"channels\": [");
    for (size_t i = 0; i < outcome.channels.size(); ++i) {
        const ChannelSummary& c = outcome.channels[i];
        fprintf(out,
                "%s\n  {\"channelID\": %d, \"frames\": %ld, \"framesWithError\": %ld, "
                "\"nalUnits\": %ld, \"aacFrames\": %ld, \"parameterSets\": %ld}",
                i ? "," : "", c.channelID, c.frames, c.framesWithError, c.nalUnits, c.aacFrames,
                c.parameterSets);
    }
    fprintf(out, "],\n \"framesFetched\": [%ld, %ld]}\n", outcome.framesFetched[0],
            outcome.framesFetched[1]);
}
