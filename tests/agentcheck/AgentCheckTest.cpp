// tavo_agentcheck run as a child process on the broadcast simulator (which must pass), on the
// fake agent committing one breach of the agent contract at a time (which must be reported,
// and nothing else), and on libraries that cannot be checked.
#include <gtest/gtest.h>

#include <ostream>
#include <set>
#include <string>

#include "ChildProcess.h"
#include "JsonValue.h"

namespace {

struct ToolRun {
    int status = -1;
    std::string output;  // standard output only
    JsonValue json;
    bool parsed = false;
};

// Runs the tool with `arguments` (and `environment` assignments before it); with --json in
// the arguments the output is parsed.
ToolRun runTool(const std::string& environment, const std::string& arguments) {
    ToolRun run;
    const std::string command =
        environment + " timeout 120 " TAVO_AGENTCHECK_PATH " " + arguments + " 2>/dev/null";
    run.status = runCommand(command, &run.output);
    if (arguments.find("--json") != std::string::npos)
        run.parsed = JsonValue::parse(run.output, &run.json);
    return run;
}

std::set<std::string> breachIds(const JsonValue& json) {
    std::set<std::string> ids;
    for (const JsonValue& breach : json["breaches"].array())
        ids.insert(breach["id"].string());
    return ids;
}

const char kFakeOptions[] = "--freqs 13,20 --seconds 2 --json " TAVO_FAKE_AGENT_PATH;

TEST(AgentCheck, TheBroadcastSimulatorPasses) {
    ToolRun run = runTool("",
                          "--freqs 13,20,27 --property persist.tavo.sim.speed=4 --seconds 3 "
                          "--mbbms --json " TAVO_SIM_AGENT_PATH);
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_EQ("pass", run.json["result"].string());
    EXPECT_EQ(0.0, run.json["exitStatus"].number());
    EXPECT_TRUE(run.json["breaches"].array().empty()) << run.output;
    for (const JsonValue& step : run.json["steps"].array())
        EXPECT_TRUE(step["ok"].boolean())
            << step["name"].string() << ": " << step["detail"].string();
    // Two sessions on the two services of point 13, both delivered and fetched.
    ASSERT_EQ(2u, run.json["channels"].array().size()) << run.output;
    for (const JsonValue& channel : run.json["channels"].array()) {
        EXPECT_GT(channel["frames"].number(), 0.0);
        EXPECT_GT(channel["parameterSets"].number(), 0.0);
    }
    EXPECT_GT(run.json["framesFetched"].array().at(0).number(), 0.0);
    EXPECT_GT(run.json["framesFetched"].array().at(1).number(), 0.0);
}

TEST(AgentCheck, TheFakeAgentWithoutABreachPasses) {
    ToolRun run = runTool("TAVO_FAKE_AGENT_BREACH=none", std::string("--mbbms ") + kFakeOptions);
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(0, run.status) << run.output;
    EXPECT_TRUE(run.json["breaches"].array().empty()) << run.output;
}

// Each breach the fake agent can commit, whether the run needs the MBBMS requests, and the
// breach id expected when the fake's name for it differs.
struct BreachCase {
    const char* id;
    bool mbbms;
    const char* reportedAs;
    const char* expected() const { return reportedAs != nullptr ? reportedAs : id; }
};

void PrintTo(const BreachCase& breach, std::ostream* out) {
    *out << breach.id;
}

class AgentCheckBreach : public testing::TestWithParam<BreachCase> {};

TEST_P(AgentCheckBreach, IsReportedAloneWithExitStatus1) {
    const BreachCase& breach = GetParam();
    ToolRun run = runTool(std::string("TAVO_FAKE_AGENT_BREACH=") + breach.id,
                          std::string(breach.mbbms ? "--mbbms " : "") + kFakeOptions);
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_EQ("fail", run.json["result"].string());
    EXPECT_EQ(std::set<std::string>{breach.expected()}, breachIds(run.json)) << run.output;
    const JsonValue& first = run.json["breaches"].array().at(0);
    EXPECT_GE(first["count"].number(), 1.0);
    EXPECT_FALSE(first["message"].string().empty());
    EXPECT_FALSE(first["rule"].string().empty());
}

INSTANTIATE_TEST_SUITE_P(
    FakeAgent, AgentCheckBreach,
    testing::Values(
        BreachCase{"unpaired-bracket", false, nullptr},
        BreachCase{"nested-bracket", false, nullptr},
        // A frame never ended: ended by the tool after 2 s, so the run goes on.
        BreachCase{"unended-bracket", false, "unpaired-bracket"},
        BreachCase{"data-outside-bracket", false, nullptr},
        BreachCase{"callback-inside-bracket", false, nullptr},
        BreachCase{"fragment-order", false, nullptr}, BreachCase{"nal-start-code", false, nullptr},
        BreachCase{"parameter-sets-missing", false, nullptr},
        BreachCase{"parameter-sets-rare", false, nullptr},
        BreachCase{"aac-adts-header", false, nullptr}, BreachCase{"aac-too-long", false, nullptr},
        BreachCase{"time-backwards", false, nullptr}, BreachCase{"time-jump", false, nullptr},
        BreachCase{"frame-too-large", false, nullptr},
        BreachCase{"frame-too-many-items", false, nullptr},
        BreachCase{"request-completed-twice", true, nullptr},
        BreachCase{"request-never-completed", true, nullptr},
        BreachCase{"unknown-event", false, nullptr},
        BreachCase{"data-thread-changed", false, nullptr}),
    [](const testing::TestParamInfo<BreachCase>& param) {
        std::string name = param.param.id;
        for (char& c : name)
            c = c == '-' ? '_' : c;
        return name;
    });

TEST(AgentCheck, TheTableNamesTheBreachAndItsRule) {
    ToolRun run = runTool("TAVO_FAKE_AGENT_BREACH=nested-bracket",
                          "--freqs 20 --seconds 1 " TAVO_FAKE_AGENT_PATH);
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("nested-bracket")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("rule: frame brackets never nest")) << run.output;
    EXPECT_NE(std::string::npos, run.output.find("result: fail")) << run.output;
}

TEST(AgentCheck, LibrariesThatCannotBeCheckedGiveExitStatus2) {
    ToolRun missing = runTool("", "--json /nonexistent/libvendor.so");
    ASSERT_TRUE(missing.parsed) << missing.output;
    EXPECT_EQ(2, missing.status);
    EXPECT_EQ("error", missing.json["result"].string());
    EXPECT_FALSE(missing.json["error"].string().empty());

    ToolRun noCreate = runTool("", "--json " TAVO_FAKE_AGENT_NOCREATE_PATH);
    ASSERT_TRUE(noCreate.parsed) << noCreate.output;
    EXPECT_EQ(2, noCreate.status) << noCreate.output;
    EXPECT_EQ(std::set<std::string>{"missing-export"}, breachIds(noCreate.json));
}

TEST(AgentCheck, ALibraryThatStartsNoServiceCannotBeChecked) {
    // The fake agent outside its broadcast mode reports no signal and no TS0 services.
    ToolRun run = runTool("", "--freqs 20 --seconds 1 --json " TAVO_FAKE_AGENT_PATH);
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(2, run.status) << run.output;
    EXPECT_NE(std::string::npos, run.json["error"].string().find("no service")) << run.output;
}

TEST(AgentCheck, TheInnoLibraryNameIsCheckedToo) {
    ToolRun run = runTool("TAVO_FAKE_AGENT_BREACH=unknown-event",
                          "--vendor inno --freqs 20 --seconds 1 --json " TAVO_FAKE_AGENT_PATH);
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_EQ(std::set<std::string>{"unknown-event"}, breachIds(run.json));
}

TEST(AgentCheck, AMissingDestroyAgentIsABreach) {
    ToolRun run = runTool("TAVO_FAKE_AGENT_BREACH=none",
                          "--freqs 20 --seconds 1 --json " TAVO_FAKE_AGENT_NODESTROY_PATH);
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(1, run.status) << run.output;
    EXPECT_EQ(std::set<std::string>{"missing-export"}, breachIds(run.json));
    EXPECT_NE(std::string::npos,
              run.json["breaches"].array().at(0)["message"].string().find("destroyAgent"));
}

TEST(AgentCheck, HelpVersionAndBadOptions) {
    ToolRun help = runTool("", "--help");
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.output.find("usage: tavo_agentcheck"));
    ToolRun version = runTool("", "--version");
    EXPECT_EQ(0, version.status);
    EXPECT_EQ(0u, version.output.find("tavo_agentcheck "));
    EXPECT_EQ(2, runTool("", "--seconds 0 x.so").status);
    EXPECT_EQ(2, runTool("", "--no-such-option x.so").status);
    EXPECT_EQ(2, runTool("", "").status);
}

}  // namespace
