#include "ControlEngine.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include "FakeAgentAccess.h"

ControlEngine::ControlEngine(const std::string& agentLibrary) : mRoot(agentLibrary) {
    // Read by the engine's constructor, so it must be set before the first getInstance.
    setenv("TAVO_LOGMASK", "all", 1);
    mEngine = TavoMBBMSEngine::getInstance();
}

FakeAgentControl& ControlEngine::agent() {
    FakeAgentControl* agent = fakeAgentAt(mRoot.resolve("/system/lib/libsiano.so"));
    if (agent == nullptr) {
        ADD_FAILURE() << "the engine has no fake agent";
        abort();
    }
    return *agent;
}

void ControlEngine::fromAgent(const std::function<void(MBBMSAgentCallback&)>& play) {
    agent().runOnAgentThread([&](MBBMSAgentCallback* callback) {
        ASSERT_NE(nullptr, callback) << "the agent has no engine callback yet";
        play(*callback);
    });
}

int ControlEngine::countLogLine(const std::string& category, const std::string& function,
                                const std::string& message) const {
    const std::string prefix = "[LogMask::" + category + "][" + function + "():";
    const std::string ending = "]" + message;
    int count = 0;
    for (const std::string& line : mRoot.logLines()) {
        size_t at = line.find(prefix);
        if (at == std::string::npos)
            continue;
        size_t end = at + prefix.size();
        while (end < line.size() && isdigit(static_cast<unsigned char>(line[end])))
            ++end;
        count += line.compare(end, std::string::npos, ending) == 0;
    }
    return count;
}
