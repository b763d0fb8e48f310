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

struct Operation {
    const char* name;
    std::function<int(TavoMBBMSEngine&)> call;
};

// Every operation that needs init, as the application calls it.
std::vector<Operation> guardedOperations() {
    static Preference pref;
    static ModuleInfo info;
    static int freqDots[] = {20};
    static IsmaPara isma;
    static const char* ids[] = {"service-1"};
    return {
        {"getModuleInfo", [](TavoMBBMSEngine& e) { return e.getModuleInfo(&info); }},
        {"setPreference", [](TavoMBBMSEngine& e) { return e.setPreference(&pref); }},
        {"startScan", [](TavoMBBMSEngine& e) { return e.startScan(freqDots, 1); }},
        {"stopScan", [](TavoMBBMSEngine& e) { return e.stopScan(); }},
        {"setFrequency", [](TavoMBBMSEngine& e) { return e.setFrequency(20); }},
        {"getFrequency", [](TavoMBBMSEngine& e) { return e.getFrequency(); }},
        {"startTVService",
         [](TavoMBBMSEngine& e) { return e.startTVService(0, 20, 1, 2, 3, &isma); }},
        {"stopTVService", [](TavoMBBMSEngine& e) { return e.stopTVService(0); }},
        {"startUpdateTS0", [](TavoMBBMSEngine& e) { return e.startUpdateTS0(20); }},
        {"stopUpdateTS0", [](TavoMBBMSEngine& e) { return e.stopUpdateTS0(); }},
        {"startUpdateESG", [](TavoMBBMSEngine& e) { return e.startUpdateESG(20, 1, 2, 3); }},
        {"stopUpdateESG", [](TavoMBBMSEngine& e) { return e.stopUpdateESG(); }},
        {"requestUpdateSG", [](TavoMBBMSEngine& e) { return e.requestUpdateSG("beijing"); }},
        {"requestInitGBA", [](TavoMBBMSEngine& e) { return e.requestInitGBA(1); }},
        {"requestUpdateST", [](TavoMBBMSEngine& e) { return e.requestUpdateST(); }},
        {"requestSubscribeService",
         [](TavoMBBMSEngine& e) { return e.requestSubscribeService(ids, 1); }},
        {"requestUnsubscribeService",
         [](TavoMBBMSEngine& e) { return e.requestUnsubscribeService(ids, 1); }},
        {"requestAuthorizeService",
         [](TavoMBBMSEngine& e) { return e.requestAuthorizeService(nullptr, nullptr, ids, 1); }},
        {"requestInquiryAccount", [](TavoMBBMSEngine& e) { return e.requestInquiryAccount(); }},
        {"cancelMBBMSRequest", [](TavoMBBMSEngine& e) { return e.cancelMBBMSRequest(); }},
        {"startRecording", [](TavoMBBMSEngine& e) { return e.startRecording(0, 1); }},
        {"stopRecording", [](TavoMBBMSEngine& e) { return e.stopRecording(0); }},
        {"captureImage", [](TavoMBBMSEngine& e) { return e.captureImage(0, 1); }},
    };
}

const char kSkipped[] = "skipped due to mIsInitialized==false";

}  // namespace

TEST(BeforeInit, GuardedOperationsFailWithTheWarningAndTheOthersWork) {
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
    });
}

TEST(Tuning, OperationsReachTheAgentUnchangedAndNullRecordsDoNot) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        FakeAgentControl& agent = control.agent();
        for (const char* name :
             {"getModuleInfo", "setPreference", "startScan", "stopScan", "setFrequency",
              "startUpdateTS0", "stopUpdateTS0", "startUpdateESG", "stopUpdateESG"}) {
            agent.setResult(name, -7);
        }
        agent.clearCalls();

        ModuleInfo info;
        memset(&info, 0xEE, sizeof(info));
        Preference pref = {};
        strcpy(pref.apn, "cmnet");
        int freqDots[] = {13, 20, 47};
        TavoMBBMSEngine& engine = control.engine();
        EXPECT_EQ(0, engine.getModuleInfo(&info));
        EXPECT_EQ(0, engine.setPreference(&pref));
        EXPECT_EQ(0, engine.startScan(freqDots, 3));
        EXPECT_EQ(0, engine.stopScan());
        EXPECT_EQ(0, engine.setFrequency(20));
        EXPECT_EQ(0, engine.startUpdateTS0(21));
        EXPECT_EQ(0, engine.stopUpdateTS0());
        EXPECT_EQ(0, engine.startUpdateESG(22, 1, 2, 3));
        EXPECT_EQ(0, engine.stopUpdateESG());
        EXPECT_EQ((std::vector<std::string>{
                      "getModuleInfo()", "setPreference(cmnet)", "startScan(13 20 47 count=3)",
                      "stopScan()", "setFrequency(20)", "startUpdateTS0(21)", "stopUpdateTS0()",
                      "startUpdateESG(22, 1, 2, 3)", "stopUpdateESG()"}),
                  agent.calls());
        EXPECT_EQ(200, info.bytes[200]);  // filled by the agent in place

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
        EXPECT_EQ(1, control.countLogLine("ERROR", "getModuleInfo", "failed due to info==NULL"));
        EXPECT_EQ(1, control.countLogLine("ERROR", "setPreference", "failed due to pref==NULL"));
        EXPECT_EQ(1, control.countLogLine("ERROR", "startScan", "failed due to freqDots==NULL"));
    });
}
