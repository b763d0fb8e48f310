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

// The JSON output parsed, with the exit status `status` (also in the output, with its result
// word) and exactly the breaches `breaches`.
void expectVerdict(const ToolRun& run, int status, const std::set<std::string>& breaches) {
    static const char* const kResultWords[] = {"pass", "fail", "error"};
    ASSERT_TRUE(run.parsed) << run.output;
    EXPECT_EQ(status, run.status) << run.output;
    EXPECT_EQ(kResultWords[status], run.json["result"].string());
    EXPECT_EQ(status, run.json["exitStatus"].number());
    std::set<std::string> ids;
    for (const JsonValue& breach : run.json["breaches"].array())
        ids.insert(breach["id"].string());
    EXPECT_EQ(breaches, ids) << run.output;
}

const char kFakeOptions[] = "--freqs 13,20 --seconds 2 --json " TAVO_FAKE_AGENT_PATH;

TEST(AgentCheck, TheBroadcastSimulatorPasses) {
    ToolRun run = runTool("",
                          "--freqs 13,20,27 --property persist.tavo.sim.speed=4 --seconds 3 "
                          "--mbbms --json " TAVO_SIM_AGENT_PATH);
    expectVerdict(run, 0, {});
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

// Each breach the fake agent can commit, whether the run needs the MBBMS requests, and the
// breach id expected when the fake's name for it differs.
struct BreachCase {
    const char* id;
    bool mbbms = false;
    const char* reportedAs = nullptr;
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
    expectVerdict(run, 1, {breach.expected()});
    const JsonValue& first = run.json["breaches"].array().at(0);
    EXPECT_GE(first["count"].number(), 1.0);
    EXPECT_FALSE(first["message"].string().empty());
    EXPECT_FALSE(first["rule"].string().empty());
}

INSTANTIATE_TEST_SUITE_P(
    FakeAgent, AgentCheckBreach,
    testing::Values(BreachCase{"unpaired-bracket"}, BreachCase{"nested-bracket"},
                    // A frame never ended: ended by the tool after 2 s, so the run goes on.
                    BreachCase{"unended-bracket", false, "unpaired-bracket"},
                    BreachCase{"data-outside-bracket"}, BreachCase{"callback-inside-bracket"},
                    BreachCase{"fragment-order"}, BreachCase{"nal-start-code"},
                    BreachCase{"parameter-sets-missing"}, BreachCase{"parameter-sets-rare"},
                    BreachCase{"aac-adts-header"}, BreachCase{"aac-too-long"},
                    BreachCase{"time-backwards"}, BreachCase{"time-jump"},
                    BreachCase{"frame-too-large"}, BreachCase{"frame-too-many-items"},
                    BreachCase{"request-completed-twice", true},
                    BreachCase{"request-never-completed", true}, BreachCase{"unknown-event"},
                    BreachCase{"data-thread-changed"}),
    [](const testing::TestParamInfo<BreachCase>& param) {
        std::string name = param.param.id;
        for (char& c : name)
            c = c == '-' ? '_' : c;
        return name;
    });

// Runs outside the breach table: the verdict, the breaches, and a text that the error or a
// breach's message contains.
TEST(AgentCheck, VerdictsOnLibrariesAndNamesOutsideTheBreachTable) {
    struct Verdict {
        int status;
        const char* breach;  // the one breach reported; none when empty
        const char* detail;
        const char* environment;
        const char* arguments;
    };
    const Verdict verdicts[] = {
        {1, "unknown-event", "", "TAVO_FAKE_AGENT_BREACH=unknown-event",
         "--vendor inno --freqs 20 --seconds 1 --json " TAVO_FAKE_AGENT_PATH},
        {1, "missing-export", "destroyAgent", "TAVO_FAKE_AGENT_BREACH=none",
         "--freqs 20 --seconds 1 --json " TAVO_FAKE_AGENT_NODESTROY_PATH},
        {2, "", "libvendor.so", "", "--json /nonexistent/libvendor.so"},
        {2, "missing-export", "createAgent", "", "--json " TAVO_FAKE_AGENT_NOCREATE_PATH},
        // The fake agent outside its broadcast mode reports no signal and no TS0 services.
        {2, "", "no service", "", "--freqs 20 --seconds 1 --json " TAVO_FAKE_AGENT_PATH},
    };
    for (const Verdict& verdict : verdicts) {
        SCOPED_TRACE(std::string(verdict.environment) + " " + verdict.arguments);
        ToolRun run = runTool(verdict.environment, verdict.arguments);
        std::set<std::string> breaches;
        if (*verdict.breach != '\0')
            breaches.insert(verdict.breach);
        expectVerdict(run, verdict.status, breaches);
        std::string details = run.json["error"].string();
        for (const JsonValue& breach : run.json["breaches"].array())
            details += "\n" + breach["message"].string();
        EXPECT_NE(std::string::npos, details.find(verdict.detail)) << run.output;
    }
}

TEST(AgentCheck, TheTableNamesTheBreachAndItsRule) {
    ToolRun run = runTool("TAVO_FAKE_AGENT_BREACH=nested-bracket",
                          "--freqs 20 --seconds 1 " TAVO_FAKE_AGENT_PATH);
    EXPECT_EQ(1, run.status) << run.output;
    for (const char* text : {"nested-bracket", "rule: frame brackets never nest", "result: fail"})
        EXPECT_NE(std::string::npos, run.output.find(text)) << text << "\n" << run.output;
}

TEST(AgentCheck, BadOptionsEndWithStatus2) {
    for (const char* bad : {"--seconds 0 x.so", "--no-such-option x.so", ""})
        EXPECT_EQ(2, runTool("", bad).status) << bad;
}

}  // namespace
