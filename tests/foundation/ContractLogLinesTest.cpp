// The lines of engine creation, agent loading, init and deinit whose text is part of the
// engine's contract: one case per line, each a child with its own engine and root.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ChildProcess.h"
#include "FakeAgentAccess.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

namespace {

struct ContractLine {
    const char* name;
    const char* category;
    const char* function;
    std::string text;   // the beginning of the message; "<root>" stands for the root's path
    std::string agent;  // the agent library installed
    std::function<void(TestRoot&)> run;  // provokes the line
};

void PrintTo(const ContractLine& line, std::ostream* out) {
    *out << line.name;
}

class LifecycleContractLine : public testing::TestWithParam<ContractLine> {};

TEST_P(LifecycleContractLine, IsLoggedOnceUnderItsCategoryAndFunction) {
    const ContractLine& line = GetParam();
    EXPECT_IN_CHILD({
        setenv("TAVO_LOGMASK", "all", 1);
        TestRoot root(line.agent);
        line.run(root);
        std::string text = line.text;
        if (text.rfind("<root>", 0) == 0)
            text = root.path() + text.substr(6);
        EXPECT_EQ(1, root.countLogLine(line.category, line.function, text));
    });
}

TavoMBBMSEngine* engine() {
    return TavoMBBMSEngine::getInstance();
}

void create(TestRoot&) {
    engine();
}

void initTwice(TestRoot&) {
    engine()->init(nullptr, nullptr);
    engine()->init(nullptr, nullptr);
}

void deinitUninitialised(TestRoot&) {
    engine()->deinit();
}

void deleteEngine(TestRoot&) {
    engine()->init(nullptr, nullptr);
    engine()->deinit();
    delete engine();
}

void initUnderAFile(TestRoot& root) {
    writeTextFile(root.resolve("/plainfile"), "x");
    engine()->init(nullptr, root.resolve("/plainfile/sub").c_str());
}

const std::string kFake = TestRoot::fakeAgentPath();

INSTANTIATE_TEST_SUITE_P(
    Lines, LifecycleContractLine,
    testing::Values(
        ContractLine{"OpenSiano", "MAIN", "TavoMBBMSEngineImpl", "open libsiano.so", kFake, create},
        ContractLine{"OpenInno", "MAIN", "TavoMBBMSEngineImpl", "open libinno.so", kFake,
                     [](TestRoot& root) {
                         root.setVendor("inno");
                         engine();
                     }},
        ContractLine{"Loaded", "MAIN", "TavoMBBMSEngineImpl",
                     "dynamically load so file successfully", kFake, create},
        ContractLine{"NoLibrary", "ERROR", "TavoMBBMSEngineImpl", "Can not load library: ", "",
                     create},
        ContractLine{"NoCreateAgent", "ERROR", "TavoMBBMSEngineImpl",
                     "Cannot load symbol for createAgent: ", TestRoot::fakeAgentWithoutCreatePath(),
                     create},
        ContractLine{"NoDestroyAgent", "ERROR", "~TavoMBBMSEngineImpl",
                     "Cannot load symbol for destroyAgent: ",
                     TestRoot::fakeAgentWithoutDestroyPath(), deleteEngine},
        ContractLine{"InitOk", "MAIN", "init", "init Agent OK", kFake,
                     [](TestRoot&) { engine()->init(nullptr, nullptr); }},
        ContractLine{"InitTwice", "WARNING", "init", "skipped due to mIsInitialized==true", kFake,
                     initTwice},
        ContractLine{"DeinitTwice", "WARNING", "deinit", "skipped due to mIsInitialized==false",
                     kFake, deinitUninitialised},
        ContractLine{"WorkDirNotCreatable", "ERROR", "init",
                     "<root>/plainfile/sub not exist and can't be created", kFake, initUnderAFile}),
    [](const testing::TestParamInfo<ContractLine>& line) { return std::string(line.param.name); });

}  // namespace
