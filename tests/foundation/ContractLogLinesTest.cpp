// The lines of engine creation, agent loading, init and deinit whose text is part of the
// engine's contract: one case per line, each a child with its own engine and root.
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "ChildProcess.h"
#include "ContractLineTable.h"
#include "FakeAgentAccess.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

namespace {

// The text is the beginning of the message; "<root>" stands for the root's path. The root
// has the fake agent installed unless the line's provoke changes that.
using Line = ContractLine<TestRoot>;

class LifecycleContractLine : public testing::TestWithParam<Line> {};

TEST_P(LifecycleContractLine, IsLoggedOnceUnderItsCategoryAndFunction) {
    const Line& line = GetParam();
    EXPECT_IN_CHILD({
        setenv("TAVO_LOGMASK", "all", 1);
        TestRoot root;
        line.provoke(root);
        std::string text = line.text;
        if (text.rfind("<root>", 0) == 0)
            text = root.path() + text.substr(6);
        EXPECT_EQ(line.count, root.countLogLine(line.category, line.function, text));
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

// Creates the engine with `library` as its agent (none when empty).
std::function<void(TestRoot&)> createWithAgent(const std::string& library) {
    return [library](TestRoot& root) {
        ASSERT_EQ(0, unlink(root.resolve("/system/lib/libsiano.so").c_str()));
        if (!library.empty())
            root.installAgent(library, "libsiano.so");
        engine();
    };
}

void initUnderAFile(TestRoot& root) {
    writeTextFile(root.resolve("/plainfile"), "x");
    engine()->init(nullptr, root.resolve("/plainfile/sub").c_str());
}

INSTANTIATE_TEST_SUITE_P(
    Lines, LifecycleContractLine,
    testing::Values(Line{"OpenSiano", "MAIN", "TavoMBBMSEngineImpl", "open libsiano.so", create},
                    Line{"OpenInno", "MAIN", "TavoMBBMSEngineImpl", "open libinno.so",
                         [](TestRoot& root) {
                             root.setVendor("inno");
                             engine();
                         }},
                    Line{"Loaded", "MAIN", "TavoMBBMSEngineImpl",
                         "dynamically load so file successfully", create},
                    Line{"NoLibrary", "ERROR", "TavoMBBMSEngineImpl",
                         "Can not load library: ", createWithAgent("")},
                    Line{"NoCreateAgent", "ERROR", "TavoMBBMSEngineImpl",
                         "Cannot load symbol for createAgent: ",
                         createWithAgent(TestRoot::fakeAgentWithoutCreatePath())},
                    Line{"NoDestroyAgent", "ERROR", "~TavoMBBMSEngineImpl",
                         "Cannot load symbol for destroyAgent: ",
                         [](TestRoot& root) {
                             root.installAgent(TestRoot::fakeAgentWithoutDestroyPath(),
                                               "libsiano.so");
                             deleteEngine(root);
                         }},
                    Line{"InitOk", "MAIN", "init", "init Agent OK",
                         [](TestRoot&) { engine()->init(nullptr, nullptr); }},
                    Line{"InitTwice", "WARNING", "init", "skipped due to mIsInitialized==true",
                         initTwice},
                    Line{"DeinitTwice", "WARNING", "deinit", "skipped due to mIsInitialized==false",
                         deinitUninitialised},
                    Line{"WorkDirNotCreatable", "ERROR", "init",
                         "<root>/plainfile/sub not exist and can't be created", initUnderAFile}),
    ContractLineName());

}  // namespace
