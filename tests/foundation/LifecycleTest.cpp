// Engine creation, agent loading, init and deinit, through the public interface with the
// fake agent loaded from its own shared library. Each test body runs in a child process
// because the engine is one object per process.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "ChildProcess.h"
#include "EngineRig.h"
#include "FakeAgentAccess.h"
#include "OpenDescriptors.h"

namespace {

bool isDirectory(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Shared-memory regions of the engine currently open in this process.
int openSharedRegions() {
    return openDescriptors("cmmb_shared_memory_");
}

// A work directory that cannot be created: its parent is a plain file.
std::string uncreatableDir(const TestRoot& root) {
    writeTextFile(root.resolve("/plainfile"), "x");
    return root.resolve("/plainfile/sub");
}

}  // namespace

TEST(AgentLoading, RacingGetInstanceCreatesOneEngineLoadingTheLibraryOnceAndDeleteDestroysIt) {
    EXPECT_IN_CHILD({
        TestRoot root;
        const std::string siano = root.resolve("/system/lib/libsiano.so");
        std::promise<void> go;
        std::shared_future<void> started = go.get_future().share();
        auto racer = [&] {
            started.wait();
            return TavoMBBMSEngine::getInstance();
        };
        std::future<TavoMBBMSEngine*> racers[2] = {std::async(std::launch::async, racer),
                                                   std::async(std::launch::async, racer)};
        go.set_value();
        TavoMBBMSEngine* seen[2] = {racers[0].get(), racers[1].get()};
        ASSERT_NE(nullptr, seen[0]);
        EXPECT_EQ(seen[0], seen[1]);
        EXPECT_EQ(seen[0], TavoMBBMSEngine::getInstance());
        EXPECT_EQ(1, fakeAgentLoadCountAt(siano));
        EXPECT_EQ(1, fakeAgentCreateCountAt(siano));
        // Either the library is unloaded or its agent is gone (a C++ library may stay
        // resident after dlclose).
        delete seen[0];
        EXPECT_EQ(nullptr, fakeAgentAt(siano));
    });
}

// The property value selects the vendor library: "inno" in any case as the first four
// letters means libinno.so, anything else (or nothing) libsiano.so.
TEST(AgentLoading, TheVendorPropertySelectsTheAgentLibrary) {
    const std::pair<const char*, bool> values[] = {
        {"inno", true},   {"Inno", true}, {"innovative", true}, {"INNOx", true},
        {nullptr, false}, {"", false},    {"siano", false},     {"inn", false}};
    for (const auto& value : values) {
        SCOPED_TRACE(value.first != nullptr ? value.first : "(not set)");
        EXPECT_IN_CHILD({
            TestRoot root;
            if (value.first != nullptr)
                root.setVendor(value.first);
            TavoMBBMSEngine::getInstance();
            const std::string inno = root.resolve("/system/lib/libinno.so");
            const std::string siano = root.resolve("/system/lib/libsiano.so");
            EXPECT_NE(nullptr, fakeAgentAt(value.second ? inno : siano));
            EXPECT_EQ(-1, fakeAgentLoadCountAt(value.second ? siano : inno))
                << "the other vendor library was loaded";
        });
    }
}

// No agent library, or one without createAgent: the engine exists, but every agent
// operation fails.
TEST(AgentLoading, WithoutALibraryOrItsCreateAgentEveryAgentOperationFails) {
    for (const std::string& library : {std::string(), TestRoot::fakeAgentWithoutCreatePath()}) {
        SCOPED_TRACE("agent library \"" + library + "\"");
        EXPECT_IN_CHILD({
            TestRoot root(library);
            TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
            ASSERT_NE(nullptr, engine);
            EXPECT_EQ(0, engine->getMaxSupportedSessions());
            RecordingCallback callback;
            EXPECT_EQ(-1, engine->init(&callback, nullptr));
            EXPECT_EQ(-1, engine->setFrequency(20));
            EXPECT_EQ(0, engine->deinit());
            EXPECT_EQ(0, openSharedRegions()) << "a failed init left shared buffers behind";
        });
    }
}

// The agent is brought up in order and shut down after the session manager is gone, with the
// module queried once at init and once more before the shutdown; a second init keeps the
// first callback. init fails only for a work directory it cannot use or an agent result of -1.
TEST(Init, BringsTheAgentUpInOrderTakesItDownOnceAndFailsOnlyForAnUnusableWorkDirectory) {
    EXPECT_IN_CHILD({
        EngineRig rig;
        TavoMBBMSEngine& engine = rig.engine();
        const std::string defaultDir = rig.root().resolve("/data/app/cmmb");
        ASSERT_FALSE(isDirectory(defaultDir));
        ASSERT_EQ(0, engine.init(nullptr, nullptr));
        std::vector<std::string> calls = rig.agent().calls();
        ASSERT_GE(calls.size(), 3u);
        EXPECT_EQ("preInitStep1()", calls[0]);
        EXPECT_EQ("preInitStep2()", calls[1]);
        EXPECT_EQ("init(callback, " + defaultDir + ", " + defaultDir + ")", calls[2]);
        EXPECT_TRUE(isDirectory(defaultDir));
        EXPECT_EQ(1, rig.agent().countCalls("getModuleInfo"));

        int managerGoneLinesAtAgentDeinit = -1;
        rig.agent().setCallHook([&](const std::string& operation) {
            if (operation == "deinit")
                managerGoneLinesAtAgentDeinit =
                    rig.root().countLog("SessionManager::~SessionManager()");
        });
        EXPECT_EQ(0, engine.deinit());
        rig.agent().setCallHook(nullptr);
        EXPECT_EQ(1, managerGoneLinesAtAgentDeinit);
        calls = rig.agent().calls();
        EXPECT_EQ(2, rig.agent().countCalls("getModuleInfo"));
        EXPECT_EQ("getModuleInfo()", calls[calls.size() - 2]);
        EXPECT_EQ("deinit()", calls.back());
        EXPECT_EQ(0, engine.deinit()) << "a second deinit";
        EXPECT_EQ(1, rig.agent().countCalls("deinit"));

        RecordingCallback second;
        ASSERT_EQ(0, rig.init());
        EXPECT_EQ(0, engine.init(&second, nullptr));
        rig.fromAgent([](MBBMSAgentCallback& callback) { callback.onScanFinished(true); });
        EXPECT_EQ(1, rig.app().count("onScanFinished(1)"));
        EXPECT_EQ(0, second.count("onScanFinished"));
        EXPECT_EQ(0, engine.deinit());
        ASSERT_EQ(0, engine.init(&second, nullptr));
        rig.fromAgent([](MBBMSAgentCallback& callback) { callback.onScanFinished(false); });
        EXPECT_EQ(1, second.count("onScanFinished(0)"));
        EXPECT_EQ(0, engine.deinit());

        // A given directory is created, an existing path of any kind is accepted; one that
        // cannot be created or is longer than 127 characters is refused, and only with a
        // callback is that also an event.
        rig.app().clear();
        const std::string dir = rig.root().resolve("/work");
        ASSERT_EQ(0, engine.init(nullptr, dir.c_str()));
        EXPECT_TRUE(isDirectory(dir));
        EXPECT_EQ(1, rig.agent().countCalls("init(callback, " + dir + ", " + dir + ")"));
        EXPECT_EQ(0, engine.deinit());

        const std::string impossible = uncreatableDir(rig.root());
        EXPECT_EQ(0, engine.init(nullptr, rig.root().resolve("/plainfile").c_str()));
        EXPECT_EQ(0, engine.deinit());
        EXPECT_EQ(-1, engine.init(nullptr, impossible.c_str()));
        EXPECT_EQ(-1, engine.init(&rig.app(), impossible.c_str()));
        EXPECT_EQ(std::vector<std::string>{"onEvent(140, 0)"}, rig.app().calls());
        EXPECT_EQ(0, openSharedRegions());

        std::string base = rig.root().resolve("/");
        std::string fits = base + std::string(127 - base.size(), 'd');
        std::string tooLong = fits + "e";
        EXPECT_EQ(-1, engine.init(nullptr, tooLong.c_str()));
        EXPECT_FALSE(isDirectory(tooLong));
        EXPECT_FALSE(isDirectory(fits)) << "the path was cut instead of refused";
        EXPECT_EQ(0, engine.init(nullptr, fits.c_str()));
        EXPECT_TRUE(isDirectory(fits));
        EXPECT_EQ(0, engine.deinit());

        // Of the agent's init results only -1 fails; the retry starts from scratch: one set
        // of buffers, one server.
        rig.agent().setResult("init", -1);
        EXPECT_EQ(-1, rig.initWithoutCallback());
        EXPECT_EQ(0, openSharedRegions()) << "a failed init keeps its shared buffers";
        for (int result : {7, -2}) {
            rig.agent().setResult("init", result);
            EXPECT_EQ(0, rig.initWithoutCallback()) << result;
            EXPECT_EQ(2, openSharedRegions());
            EXPECT_EQ(0, rig.engine().deinit());
        }
    });
}

TEST(Logging, LinesCarryCategoryFunctionAndLine) {
    EXPECT_IN_CHILD({
        EngineRig rig("ENGINE,SEMAPHORE");
        ASSERT_EQ(0, rig.initWithoutCallback());
        EXPECT_EQ(0, rig.engine().deinit());
        const std::string initLine =
            "D/TavoMBBMSEngine(" + std::to_string(getpid()) + "): [LogMask::ENGINE][init():";
        int initLines = 0;
        for (const std::string& line : rig.root().logLines()) {
            if (line.find("[LogMask::ENGINE][init():") == std::string::npos)
                continue;
            ++initLines;
            EXPECT_EQ(0u, line.find(initLine)) << line;
            EXPECT_EQ("init()", line.substr(line.rfind(']') + 1));
        }
        EXPECT_GT(initLines, 0);
        EXPECT_TRUE(rig.root().logContains("[LogMask::SEMAPHORE][deinit():"));
        EXPECT_TRUE(rig.root().logContains("]wait mLock...done"));
        EXPECT_FALSE(rig.root().logContains("[LogMask::MAIN]")) << "MAIN was not switched on";
    });
}
