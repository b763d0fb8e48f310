// MBBMS requests: one at a time, some only in MBBMS mode, ended by their completion
// callbacks played from the fake agent's own thread. Each body runs in a child process.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "ControlEngine.h"

namespace {

const char kModeRefusal[] = "failed due to current mode is not MBBMS mode";

std::string busyRefusal(int pending) {
    return "failed due to MBBMS stack is still handling request " + std::to_string(pending);
}

}  // namespace

TEST(Requests, ModeDecidesWhichRequestsReachTheAgent) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        // CMMB_MODE, MBBMS_MODE, and a value that is neither: only 1 allows every request.
        for (int mode : {0, 1, 2}) {
            control.engine().setMode(static_cast<TavoMBBMSEngine::Mode>(mode));
            for (const Request& request : allRequests()) {
                bool allowed = mode == 1 || !request.mbbmsOnly;
                int refusals = control.countLogLine("ERROR", request.name, kModeRefusal);
                int agentCalls = control.agent().countCalls(std::string(request.name) + "(");
                EXPECT_EQ(allowed ? 0 : -1, request.issue(control.engine()))
                    << request.name << " in mode " << mode;
                EXPECT_EQ(refusals + (allowed ? 0 : 1),
                          control.countLogLine("ERROR", request.name, kModeRefusal));
                EXPECT_EQ(agentCalls + (allowed ? 1 : 0),
                          control.agent().countCalls(std::string(request.name) + "("));
                if (allowed)
                    control.fromAgent(request.complete);
            }
        }
        EXPECT_EQ(1, control.agent().countCalls("requestUpdateSG(bj)"));
        EXPECT_EQ(1, control.agent().countCalls("requestAuthorizeService(service-1 service-2 "));
        EXPECT_EQ(3, control.agent().countCalls("requestSubscribeService(service-1 service-2 "));
    });
}

// A pending request refuses every other with its number, before the mode check; any
// completion is passed on and ends whatever request is pending.
TEST(Requests, APendingRequestRefusesEveryOtherWithItsNumberUntilAnyCompletion) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        const std::vector<Request> requests = allRequests();
        for (size_t i = 0; i < requests.size(); ++i) {
            const Request& pending = requests[i];
            control.engine().setMode(TavoMBBMSEngine::MBBMS_MODE);
            ASSERT_EQ(0, pending.issue(control.engine())) << pending.name;
            // CMMB mode: the MBBMS-only requests are refused for the pending one, not the mode.
            control.engine().setMode(TavoMBBMSEngine::CMMB_MODE);
            for (const Request& other : requests) {
                control.agent().clearCalls();
                EXPECT_EQ(-1, other.issue(control.engine())) << other.name;
                EXPECT_EQ(std::vector<std::string>{}, control.agent().calls());
                EXPECT_EQ(1, control.countLogLine("ERROR", other.name, busyRefusal(pending.number)))
                    << other.name << " while " << pending.name << " is pending";
            }
            const Request& completing = requests[(i + 3) % requests.size()];
            const int passedOn = control.app().count(completing.appCompletion);
            control.fromAgent(completing.complete);
            EXPECT_EQ(passedOn + 1, control.app().count(completing.appCompletion));
            control.engine().setMode(TavoMBBMSEngine::MBBMS_MODE);
            EXPECT_EQ(0, pending.issue(control.engine())) << pending.name << " did not end";
            control.fromAgent(pending.complete);
        }
        for (const Request& request : requests) {
            EXPECT_EQ(0, control.countLogLine("ERROR", request.name, kModeRefusal));
        }
    });
}

TEST(Requests, AnAgentRefusalOrCancelLeavesTheRequestPendingUntilItsCompletionOrDeinit) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        EXPECT_EQ(0, control.engine().cancelMBBMSRequest());
        EXPECT_EQ(1, control.countLogLine("WARNING", "cancelMBBMSRequest", "no request to cancel"));
        EXPECT_EQ(0, control.agent().countCalls("cancelMBBMSRequest"));

        control.engine().setMode(TavoMBBMSEngine::MBBMS_MODE);
        control.agent().setResult("requestInitGBA", -5);
        EXPECT_EQ(-5, control.engine().requestInitGBA(1));
        control.agent().setResult("cancelMBBMSRequest", 9);
        EXPECT_EQ(9, control.engine().cancelMBBMSRequest());
        EXPECT_EQ(1, control.agent().countCalls("cancelMBBMSRequest(2)"));
        EXPECT_EQ(-1, control.engine().requestUpdateSG("bj"));
        EXPECT_EQ(1, control.countLogLine("ERROR", "requestUpdateSG", busyRefusal(2)));
        control.fromAgent([](MBBMSAgentCallback& c) { c.onRequestInitGBA(false); });
        EXPECT_EQ(1, control.app().count("onRequestInitGBA(0)"));
        control.agent().setResult("requestUpdateSG", 17);
        EXPECT_EQ(17, control.engine().requestUpdateSG("bj"));

        // Still pending at deinit: the next init accepts a new request at once. Without an
        // application callback a completion still ends the request.
        ASSERT_EQ(0, control.engine().deinit());
        ASSERT_EQ(0, control.initWithoutCallback());
        ASSERT_EQ(0, control.engine().requestInquiryAccount());
        EXPECT_EQ(-1, control.engine().requestSubscribeService(kIds, 1));
        control.fromAgent([](MBBMSAgentCallback& c) { c.onRequestInquiryAccount(true, "x"); });
        EXPECT_EQ(1, control.countLogLine("ENGINE", "onRequestInquiryAccount", "done=1"));
        EXPECT_EQ(0, control.engine().requestSubscribeService(kIds, 1));
    });
}

TEST(Requests, OfTwoRacingRequestsExactlyOneGetsThrough) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        TavoMBBMSEngine& engine = control.engine();
        const int rounds = 300;
        std::atomic<int> arrived{0};
        int results[2] = {0, 0};
        for (int round = 0; round < rounds; ++round) {
            auto racer = [&](int which) {
                arrived.fetch_add(1);
                while (arrived.load() < 2 * (round + 1))
                    std::this_thread::yield();
                results[which] = which == 0 ? engine.requestInquiryAccount()
                                            : engine.requestSubscribeService(kIds, 1);
            };
            std::thread first(racer, 0);
            std::thread second(racer, 1);
            first.join();
            second.join();
            ASSERT_EQ(-1, results[0] + results[1]) << "round " << round;
            ASSERT_EQ(round + 1, control.agent().countCalls("request")) << "round " << round;
            control.fromAgent([](MBBMSAgentCallback& c) { c.onRequestInquiryAccount(true, ""); });
        }
        // Each loser named the winner's number.
        int inquiryWins = control.agent().countCalls("requestInquiryAccount");
        EXPECT_EQ(inquiryWins,
                  control.countLogLine("ERROR", "requestSubscribeService", busyRefusal(6)));
        EXPECT_EQ(rounds - inquiryWins,
                  control.countLogLine("ERROR", "requestInquiryAccount", busyRefusal(4)));
    });
}
