// The engine of a fuzz target's process: created once (it is a process-wide singleton) in a
// fresh Android root, with the fake tuner agent, logging off, and an application callback
// that only counts events, so that millions of inputs keep the process's memory bounded.
#ifndef TAVO_FUZZ_FUZZ_ENGINE_H
#define TAVO_FUZZ_FUZZ_ENGINE_H

#include <atomic>
#include <string>

#include "FakeAgentControl.h"
#include "IgnoringCallback.h"
#include "TavoMBBMSEngine.h"
#include "TavoMBBMSEngineImpl.h"
#include "TestRoot.h"

// Counts onEvent calls per event code (below 256); ignores every other callback.
class CountingCallback : public IgnoringCallback<> {
public:
    int events(int code) const { return mEvents[code & 255].load(); }

    void onEvent(EventType type, int) override { mEvents[static_cast<int>(type) & 255]++; }

private:
    std::atomic<int> mEvents[256] = {};
};

class FuzzEngine {
public:
    // The initialised engine; aborts the process when it cannot be set up.
    static FuzzEngine& instance();

    TavoMBBMSEngineImpl* engine() const { return mEngine; }
    FakeAgentControl* agent() const { return mAgent; }
    const TestRoot& root() const { return mRoot; }
    CountingCallback& callback() { return mCallback; }

    // startTVService for `session` on a service the agent reports as `channelID`.
    void startService(int session, int channelID);

private:
    FuzzEngine();

    TestRoot mRoot;
    CountingCallback mCallback;
    TavoMBBMSEngineImpl* mEngine = nullptr;
    FakeAgentControl* mAgent = nullptr;
};

// Prints the reason and aborts, so that libFuzzer records the input as a finding.
[[noreturn]] void fuzzFailure(const std::string& what);

#endif  // TAVO_FUZZ_FUZZ_ENGINE_H
