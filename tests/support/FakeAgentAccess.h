// Reaches the fake agent that the engine loaded from a TestRoot.
#ifndef TAVO_TESTS_SUPPORT_FAKE_AGENT_ACCESS_H
#define TAVO_TESTS_SUPPORT_FAKE_AGENT_ACCESS_H

#include <string>

#include "FakeAgentControl.h"

// The control of the agent created from the already loaded library at `libraryPath`
// (usually root.resolve("/system/lib/libsiano.so")), or null when it is not loaded.
FakeAgentControl* fakeAgentAt(const std::string& libraryPath);
// Counters of that loaded library: loads (constructor runs) and createAgent calls; -1 when
// it is not loaded.
int fakeAgentLoadCountAt(const std::string& libraryPath);
int fakeAgentCreateCountAt(const std::string& libraryPath);

#endif  // TAVO_TESTS_SUPPORT_FAKE_AGENT_ACCESS_H
