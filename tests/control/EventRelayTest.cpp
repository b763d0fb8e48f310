// Relay of agent results and events to the application, with its three filters: the TS0
// gate, emergency message deduplication and the CMMB-mode event filter. Callbacks are
// played from the fake agent's own thread; each body runs in a child process.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ControlEngine.h"

namespace {

// Plays the three TS0-gated reports of a frequency point.
void reportTables(ControlEngine& control, int freqDot) {
    control.fromAgent([freqDot](MBBMSAgentCallback& c) {
        ServiceParam param = {};
        param.serviceID = 600 + freqDot;
        CaInfo ca[2] = {};
        c.onServiceParam(param);
        c.onCaInfo(ca, 2);
        c.onTS0Parsed(freqDot);
    });
}

std::vector<std::string> tablesOf(int freqDot) {
    return {"onServiceParam(" + std::to_string(600 + freqDot) + ")", "onCaInfo(2)",
            "onTS0Parsed(" + std::to_string(freqDot) + ")"};
}

EmergencyMessage emergency(uint8_t type, uint16_t id) {
    EmergencyMessage msg = {};
    msg.msgType = type;
    msg.msgID = id;
    strcpy(msg.text, "flood warning");
    return msg;
}

void playEmergency(ControlEngine& control, const EmergencyMessage& msg) {
    control.fromAgent([msg](MBBMSAgentCallback& c) {
        EmergencyMessage copy = msg;  // the agent passes a record of its own
        c.onEmergencyMessage(copy);
    });
}

const char kRepeat[] = "Same emergency message received, drop it!";

}  // namespace

TEST(TS0Gate, TablesOfAPointReachTheApplicationOnceUntilTheNextInitEvenWithoutCallback) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        control.engine().setFrequency(20);
        reportTables(control, 20);
        reportTables(control, 20);
        EXPECT_EQ(tablesOf(20), control.app().calls());

        // Points 0 to 47 have a flag each, not set on the way; points outside, and no
        // frequency at all (-1), have none.
        for (int freqDot : {-1, 48, 1000, 0, 47}) {
            control.app().clear();
            control.agent().setResult("getFrequency", freqDot);
            reportTables(control, freqDot);
            reportTables(control, freqDot);
            std::vector<std::string> expected = tablesOf(freqDot), once = expected;
            if (freqDot < 0 || freqDot > 47)
                expected.insert(expected.end(), once.begin(), once.end());
            EXPECT_EQ(expected, control.app().calls()) << "freqDot " << freqDot;
        }
        control.agent().clearResult("getFrequency");

        control.app().clear();
        ASSERT_EQ(0, control.engine().deinit());
        ASSERT_EQ(0, control.init());
        control.engine().setFrequency(20);
        reportTables(control, 20);
        EXPECT_EQ(tablesOf(20), control.app().calls());
        // Every report is logged, passed on or not.
        EXPECT_EQ(3, control.countLogLine("ENGINE", "onTS0Parsed", "freqDot=20"));

        // With no application callback the report still sets the flag. It shows once a
        // callback is registered without the flags being cleared: an init that fails in the
        // agent stores the callback but never reaches the reset of the flags.
        ASSERT_EQ(0, control.engine().deinit());
        ASSERT_EQ(0, control.initWithoutCallback());
        control.engine().setFrequency(20);
        reportTables(control, 20);
        EXPECT_EQ(4, control.countLogLine("ENGINE", "onTS0Parsed", "freqDot=20"));
        ASSERT_EQ(0, control.engine().deinit());
        control.agent().setResult("init", -1);
        control.app().clear();
        ASSERT_EQ(-1, control.init());
        reportTables(control, 20);
        EXPECT_EQ(std::vector<std::string>{}, control.app().calls());
        reportTables(control, 21);  // the callback itself is in place
        EXPECT_EQ(std::vector<std::string>{"onTS0Parsed(21)"}, control.app().calls());
    });
}

// Results are passed on, and event 130 is dropped only in CMMB mode. Right after init the
// remembered emergency key is all ones; then it is the key of the last message passed on, and
// only its five key values tell messages apart.
TEST(Events, ResultsEvent130AndTheEmergencyKeyAreFilteredAsTheirRulesSay) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ASSERT_EQ(0, control.init());
        control.fromAgent([](MBBMSAgentCallback& c) {
            SignalStatus status = {};
            status.strength = -70;
            c.onESGXml(ESG_CONTENT, "<content id=\"1\"/>");
            c.onESGUpdated(true);
            c.onScanFinished(false);
            c.onSignalUpdated(status);
        });
        EXPECT_EQ((std::vector<std::string>{"onESGXml(3, <content id=\"1\"/>)", "onESGUpdated(1)",
                                            "onScanFinished(0)", "onSignalUpdated(-70)"}),
                  control.app().calls());

        // CMMB_MODE, MBBMS_MODE, and a value that is neither.
        for (int mode : {0, 1, 2}) {
            control.app().clear();
            control.engine().setMode(static_cast<TavoMBBMSEngine::Mode>(mode));
            control.fromAgent([](MBBMSAgentCallback& c) {
                c.onEvent(EVENT_MBBMS_ONLY, 5);
                c.onEvent(static_cast<EventType>(131), 6);
            });
            std::vector<std::string> expected = {"onEvent(130, 5)", "onEvent(131, 6)"};
            if (mode == 0)
                expected.erase(expected.begin());
            EXPECT_EQ(expected, control.app().calls()) << "mode " << mode;
        }
        EXPECT_EQ(1, control.countLogLine("WARNING", "onEvent",
                                          "No need to call back this type event in CMMB mode"));
        EXPECT_EQ(3, control.countLogLine("ENGINE", "onEvent", "type=130, param=5"));

        SCOPED_TRACE("emergency messages");
        control.app().clear();
        EmergencyMessage ones = emergency(0xFF, 0xFFFF);
        ones.msgLevel = ones.networkLevel = ones.networkNumber = 0xFF;
        playEmergency(control, ones);
        EXPECT_EQ(std::vector<std::string>{}, control.app().calls());
        int drops = 1;
        EXPECT_EQ(drops, control.countLogLine("WARNING", "onEmergencyMessage", kRepeat));

        playEmergency(control, emergency(1, 7));
        playEmergency(control, emergency(2, 8));
        playEmergency(control, emergency(1, 7));
        EXPECT_EQ((std::vector<std::string>{"onEmergencyMessage(7)", "onEmergencyMessage(8)",
                                            "onEmergencyMessage(7)"}),
                  control.app().calls());

        // Differences outside the key: byte 3 and everything past byte 4 except offset 28.
        EmergencyMessage last = emergency(1, 7);
        for (size_t offset : {size_t(3), size_t(5), size_t(8), size_t(27), size_t(30), size_t(32),
                              sizeof(EmergencyMessage) - 1}) {
            EmergencyMessage other = last;
            reinterpret_cast<unsigned char*>(&other)[offset] ^= 0x5A;
            playEmergency(control, other);
            EXPECT_EQ(++drops, control.countLogLine("WARNING", "onEmergencyMessage", kRepeat))
                << "offset " << offset;
        }
        EXPECT_EQ(3, control.app().count("onEmergencyMessage("));

        // Each key value on its own makes a new message, which becomes the one remembered.
        int passed = 3;
        for (size_t offset : {0, 1, 2, 4, 28, 29}) {
            EmergencyMessage other = last;
            reinterpret_cast<unsigned char*>(&other)[offset] ^= 0x5A;
            playEmergency(control, other);
            EXPECT_EQ(++passed, control.app().count("onEmergencyMessage(")) << "offset " << offset;
            playEmergency(control, other);
            EXPECT_EQ(++drops, control.countLogLine("WARNING", "onEmergencyMessage", kRepeat));
            last = other;
        }

        // deinit and init forget the key.
        ASSERT_EQ(0, control.engine().deinit());
        ASSERT_EQ(0, control.init());
        control.app().clear();
        playEmergency(control, last);
        EXPECT_EQ(1, control.app().count("onEmergencyMessage("));
        EXPECT_EQ(drops, control.root().countLog(kRepeat));
    });
}

namespace {

// An application that, while it handles TS0 of a point, receives that point's service
// parameters from the agent (the agent reports them from inside the callback).
class ReportsDuringTS0 : public RecordingCallback {
public:
    MBBMSAgentCallback* agentSide = nullptr;
    void onTS0Parsed(int freqDot) override {
        RecordingCallback::onTS0Parsed(freqDot);
        ServiceParam param = {};
        param.serviceID = 777;
        agentSide->onServiceParam(param);
    }
};

}  // namespace

TEST(TS0Gate, ReportsArrivingWhileTheApplicationHandlesTS0StillReachIt) {
    EXPECT_IN_CHILD({
        ControlEngine control;
        ReportsDuringTS0 app;
        ASSERT_EQ(0, control.engine().init(&app, nullptr));
        control.engine().setFrequency(20);
        app.agentSide = control.agent().callback();
        control.fromAgent([](MBBMSAgentCallback& c) { c.onTS0Parsed(20); });
        EXPECT_EQ((std::vector<std::string>{"onTS0Parsed(20)", "onServiceParam(777)"}),
                  app.calls());
        // Marked once the application has returned: later reports stay back.
        control.fromAgent([](MBBMSAgentCallback& c) {
            ServiceParam param = {};
            c.onServiceParam(param);
        });
        EXPECT_EQ(2u, app.calls().size());
        control.engine().deinit();
    });
}
