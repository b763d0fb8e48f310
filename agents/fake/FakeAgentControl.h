// Test-side control of the scriptable fake tuner agent.
//
// The fake agent library is installed as libsiano.so / libinno.so and loaded by the engine
// with dlopen. A test reaches the agent the engine created through the unmangled function
// "fakeAgentControl" of the same loaded library (see FakeAgentAccess in tests/support):
//   - every agent operation the engine calls is recorded as a line "name(arg, ...)";
//   - results are configurable per operation name;
//   - the test plays any agent callback from the fake's own agent thread, or from any
//     thread of its own through callback().
// Calls are virtual so that the test needs no link-time symbol of the library.
//
// With TAVO_FAKE_AGENT_BREACH set in the environment the fake agent runs in broadcast mode
// instead (FakeBroadcast.h): it answers scans, tables and requests and outputs frames by
// itself, committing the named breach of the agent contract, for tests of tavo_agentcheck.
#ifndef TAVO_AGENTS_FAKE_AGENT_CONTROL_H
#define TAVO_AGENTS_FAKE_AGENT_CONTROL_H

#include <functional>
#include <string>
#include <vector>

#include "MBBMSAgent.h"

class FakeAgentControl {
public:
    virtual ~FakeAgentControl() {}

    // Agent operations called so far, in order, e.g. "setFrequency(20)",
    // "init(<callback>, /tmp/x, /tmp/x)", "startService(20, 1, 2, 3, serviceID=7)".
    virtual std::vector<std::string> calls() = 0;
    virtual void clearCalls() = 0;
    // Number of recorded calls whose line starts with `prefix`.
    virtual int countCalls(const std::string& prefix) = 0;

    // Result returned by the named operation from now on (for example "init", "startService",
    // "stopService", "requestInitGBA", "getMaxSupportedSessions", "getFrequency").
    // Defaults: 0; getMaxSupportedSessions 2; getFrequency the last setFrequency (-1 before).
    virtual void setResult(const std::string& operation, int value) = 0;
    virtual void clearResult(const std::string& operation) = 0;
    // Channel identifier written by the next startService calls; by default each successful
    // start hands out the next number from 0.
    virtual void setNextChannelID(int channelID) = 0;

    // A hook run at the start of every agent operation, on the caller's thread, with the
    // operation's name (for example to block an operation until the test releases it).
    virtual void setCallHook(std::function<void(const std::string&)> hook) = 0;

    // The callback the engine gave to init, or null.
    virtual MBBMSAgentCallback* callback() = 0;
    // Runs fn on the agent's own thread and waits for it to finish.
    virtual void runOnAgentThread(std::function<void(MBBMSAgentCallback*)> fn) = 0;
    // Queues fn on the agent's own thread and returns at once.
    virtual void postToAgentThread(std::function<void(MBBMSAgentCallback*)> fn) = 0;
    // Waits until everything posted so far has run.
    virtual void drainAgentThread() = 0;
};

extern "C" {
// The most recently created fake agent's control, or null.
typedef FakeAgentControl* (*FakeAgentControlFunc)();
// How many times the library has been loaded (constructors run) and agents created.
typedef int (*FakeAgentCounterFunc)();
}

#endif  // TAVO_AGENTS_FAKE_AGENT_CONTROL_H
