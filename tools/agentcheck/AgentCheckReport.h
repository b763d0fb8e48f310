// What the checking proxy found, as the tool reads it: the proxy library is loaded into the
// tool's process by the engine, and the tool reaches it through the unmangled function
// "tavoAgentCheckReport" of that loaded library. Calls are virtual so that the tool needs no
// link-time symbol of the proxy.
#ifndef TAVO_TOOLS_AGENTCHECK_AGENT_CHECK_REPORT_H
#define TAVO_TOOLS_AGENTCHECK_AGENT_CHECK_REPORT_H

#include <string>
#include <vector>

// One kind of breach of the agent contract: how often it happened and the first occurrence.
struct BreachSummary {
    std::string id;
    int count = 0;
    std::string firstMessage;
};

// What one channel delivered.
struct ChannelSummary {
    int channelID = -1;
    long frames = 0;
    long framesWithError = 0;
    long nalUnits = 0;
    long aacFrames = 0;
    long parameterSets = 0;  // SPS and PPS NAL units
};

class AgentCheckReport {
public:
    virtual ~AgentCheckReport() {}

    // False with the loader's reason when the vendor library or its createAgent was not found.
    virtual bool vendorLoaded(std::string* error) = 0;
    virtual std::vector<BreachSummary> breaches() = 0;
    virtual std::vector<ChannelSummary> channels() = 0;
    // Ends, towards the engine, a frame that has been open longer than maxAgeMs (reported as
    // an unpaired bracket): the engine holds its session lock for the whole frame, and the
    // run could not go on without it.
    virtual void expireOpenFrame(int maxAgeMs) = 0;
    // The checks that can only be made at the end of a run: frames still open, requests never
    // completed, video without parameter sets. Call once, after the last wait.
    virtual void finish() = 0;
};

extern "C" {
typedef AgentCheckReport* (*AgentCheckReportFunc)();
}

#endif  // TAVO_TOOLS_AGENTCHECK_AGENT_CHECK_REPORT_H
