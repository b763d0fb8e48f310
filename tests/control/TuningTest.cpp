// Tuning, scan and table operations, and the refusal of operations that need init before it.
// Each body runs in a child process: one engine per process.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ControlEngine.h"

namespace {

ModuleInfo gInfo;
Preference gPref;
int gFreqDots[] = {13, 20, 47};
using E = TavoMBBMSEngine;

struct Operation {
    const char* name;
    std::function<int(TavoMBBMSEngine&)> call;
    const char* agentCall;  // what the agent gets when the engine passes it on as it is
};

// Every operation that needs init, as the application calls it.
std::vector<Operation> guardedOperations() {
    static IsmaPara isma;
    std::vector<Operation> operations = {
        {"getModuleInfo", [](E& e) { return e.getModuleInfo(&gInfo); }, "getModuleInfo()"},
        {"setPreference", [](E& e) { return e.setPreference(&gPref); }, "setPreference(cmnet)"},
        {"startScan", [](E& e) { return e.startScan(gFreqDots, 3); },
         "startScan(13 20 47 count=3)"},
        {"stopScan", [](E& e) { return e.stopScan(); }, "stopScan()"},
        {"setFrequency", [](E& e) { return e.setFrequency(20); }, "setFrequency(20)"},
        {"startUpdateTS0", [](E& e) { return e.startUpdateTS0(21); }, "startUpdateTS0(21)"},
        {"stopUpdateTS0", [](E& e) { return e.stopUpdateTS0(); }, "stopUpdateTS0()"},
        {"startUpdateESG", [](E& e) { return e.startUpdateESG(22, 1, 2, 3); },
         "startUpdateESG(22, 1, 2, 3)"},
        {"stopUpdateESG", [](E& e) { return e.stopUpdateESG(); }, "stopUpdateESG()"},
        {"getFrequency", [](E& e) { return e.getFrequency(); }, nullptr},
        {"startTVService", [](E& e) { return e.startTVService(0, 20, 1, 2, 3, &isma); }, nullptr},
        {"stopTVService", [](E& e) { return e.stopTVService(0); }, nullptr},
        {"cancelMBBMSRequest", [](E& e) { return e.cancelMBBMSRequest(); }, nullptr},
        {"startRecording", [](E& e) { return e.startRecording(0, 1); }, nullptr},
        {"stopRecording", [](E& e) { return e.stopRecording(0); }, nullptr},
        {"captureImage", [](E& e) { return e.captureImage(0, 1); }, nullptr},
    };
    for (const Request& request : allRequests())
        operations.push_back({request.name, request.issue, nullptr});
    return operations;
}

const char kSkipped[] = "skipped due to mIsInitialized==false";

}  // namespace

TEST(Tuning, GuardedOperationsFailBeforeInitAndReachTheAgentUnchangedAfterIt) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        control.agent().setResult("getMaxSupportedSessions", 1);
        EXPECT_EQ(1, control.engine().getMaxSupportedSessions());
        EXPECT_EQ(0, control.engine().setMode(TavoMBBMSEngine::MBBMS_MODE));
        EXPECT_FALSE(control.engine().isRecording(0));
        EXPECT_FALSE(control.engine().isCapturing(1));
        EXPECT_EQ(0, control.root().countLog(kSkipped));
        control.agent().clearCalls();

        // Before the first init, and again after deinit.
        for (int round = 1; round <= 2; ++round) {
            for (const Operation& operation : guardedOperations()) {
                EXPECT_EQ(-1, operation.call(control.engine())) << operation.name;
                EXPECT_EQ(round, control.countLogLine("WARNING", operation.name, kSkipped))
                    << operation.name;
            }
            EXPECT_EQ(std::vector<std::string>{}, control.agent().calls());
            ASSERT_EQ(0, control.init());
            ASSERT_EQ(0, control.engine().deinit());
            control.agent().clearCalls();
        }
        // The mode set before init holds after it.
        ASSERT_EQ(0, control.init());
        EXPECT_EQ(0, control.engine().requestUpdateSG("beijing"));
        EXPECT_EQ(1, control.agent().countCalls("requestUpdateSG(beijing)"));

        FakeAgentControl& agent = control.agent();
        TavoMBBMSEngine& engine = control.engine();
        memset(&gInfo, 0xEE, sizeof(gInfo));
        strcpy(gPref.apn, "cmnet");
        // After init they reach the agent unchanged; its own result (-7) is not passed on.
        for (const Operation& operation : guardedOperations()) {
            if (operation.agentCall == nullptr)
                continue;
            agent.clearCalls();
            agent.setResult(operation.name, -7);
            EXPECT_EQ(0, operation.call(engine)) << operation.name;
            EXPECT_EQ(std::vector<std::string>{operation.agentCall}, agent.calls());
        }
        EXPECT_EQ(200, gInfo.bytes[200]);  // filled by the agent in place

        // getFrequency alone returns what the agent answers.
        EXPECT_EQ(20, engine.getFrequency());
        agent.setResult("getFrequency", -1);
        EXPECT_EQ(-1, engine.getFrequency());

        // Null records are refused without reaching the agent.
        agent.clearCalls();
        EXPECT_EQ(-1, engine.getModuleInfo(nullptr));
        EXPECT_EQ(-1, engine.setPreference(nullptr));
        EXPECT_EQ(-1, engine.startScan(nullptr, 2));
        EXPECT_EQ(std::vector<std::string>{}, agent.calls());
    });
}
