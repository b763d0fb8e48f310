// The application calls back into the engine from inside its callbacks, of every kind and on
// every thread they arrive on: the agent's thread outside and inside a multiplex frame, the
// recording completion thread, the command thread and the application's own thread. Each
// call must return (2 s is a hang guard, not a timing goal), deinit is refused there, and
// the engine goes on serving: a play engine in this process gets the next frame. Also: what
// the agent raises inside a frame reaches the application after the frame, in order, with
// copies of its records. Faults come through the platform's Env, so this suite links the
// engine's objects; each test runs in a child process (one engine per process).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "EngineRig.h"
#include "FaultInjectingEnv.h"
#include "UniqueHandle.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kChannel = 3;
const long long kMiB = 1 << 20;
const Clock::duration kHangGuard = std::chrono::seconds(2);
const int kWaitMs = 20000;

// What a play engine does with a capture request besides answering 3 (success) or 4 (failure).
const int kHangUp = 0;

// A play engine in this process, on the SDK: maps both shared buffers and answers every
// capture request with `answer` (3 success, 4 failure, or kHangUp: ends its connection) on a
// thread of its own, which owns the connection once connected.
class CapturingPlayEngine {
public:
    ~CapturingPlayEngine() { stop(); }

    std::string connect(const std::string& serverPath, const std::string& ownPath, int answer) {
        std::string error = mReader.connect(serverPath, ownPath);
        if (!error.empty())
            return error;
        mAnswer = answer;
        mRunning = true;
        mResponder = std::thread([this] { answerCaptures(); });
        return "";
    }

    void stop() {
        mRunning = false;
        if (mResponder.joinable())
            mResponder.join();
        tavo_pe_disconnect(mReader.sdk());
    }

    CmmbSharedBuffer* buffer(int session) const { return mReader.buffer(session); }

    // Forgets the frames signalled so far, so that the next read gets a new one.
    void skipSignalledFrames(int session) {
        while (cmmb_sem_trywait(&buffer(session)->mutexDataAvailable) == 0) {
        }
    }

    // The NAL count of the session's next frame, or -1 when none came in time.
    int readNalCount(int session) {
        ReadFrame frame;
        return mReader.readFrame(session, &frame, kWaitMs) ? static_cast<int>(frame.nals.size())
                                                           : -1;
    }

private:
    void answerCaptures() {
        while (mRunning) {
            tavo_pe_command command;
            const int result = tavo_pe_next_command(mReader.sdk(), &command, 20);
            if (result == TAVO_PE_TIMEOUT)
                continue;
            if (result != TAVO_PE_OK)
                return;  // the connection ended
            UniqueFd target(command.fd);
            if (command.kind != TAVO_PE_CMD_CAPTURE)
                continue;
            if (mAnswer == kHangUp) {
                mReader.hangUp();  // gone without an answer; the mappings stay
                return;
            }
            tavo_pe_send_indication(mReader.sdk(), mAnswer);
        }
    }

    PlayEngineReader mReader;
    std::thread mResponder;
    std::atomic<bool> mRunning{false};
    int mAnswer = 3;
};

// One call made from inside a callback: what it returned and how long it took.
struct Outcome {
    std::string call;
    int result;
    Clock::duration took;
};

// The application: records every call and, from inside the first one that starts with the
// armed prefix, runs `act` (once).
class ReentrantApp : public RecordingCallback {
public:
    // Called before init, so before any callback can come.
    void arm(std::string prefix, std::function<std::vector<Outcome>()> act) {
        mPrefix = std::move(prefix);
        mAct = std::move(act);
    }
    // Whether the callback to act from came; the outcomes once `act` has returned.
    bool came() const { return mActing; }
    std::future<std::vector<Outcome>>& outcomes() { return mOutcomes; }

    void onScanFinished(bool done) override {
        RecordingCallback::onScanFinished(done);
        maybeAct("onScanFinished(" + std::to_string(done) + ")");
    }
    void onEvent(EventType type, int param) override {
        RecordingCallback::onEvent(type, param);
        maybeAct("onEvent(" + std::to_string(type) + ", " + std::to_string(param) + ")");
    }

private:
    void maybeAct(const std::string& call) {
        if (mAct && call.compare(0, mPrefix.size(), mPrefix) == 0 && !mActing.exchange(true))
            mActed.set_value(mAct());
    }

    std::string mPrefix;                         // set before init, read only after
    std::function<std::vector<Outcome>()> mAct;  // set before init, read only after
    std::atomic<bool> mActing{false};
    std::promise<std::vector<Outcome>> mActed;
    std::future<std::vector<Outcome>> mOutcomes = mActed.get_future();
};

// The engine of this (child) process with the fake agent, a play engine and two output files.
struct Bench : EngineRig {
    Bench() : EngineRig("ERROR,WARNING,MAIN,ENGINE") {}
    ~Bench() {
        playEngine.stop();
        engine().deinit();
    }

    // init, the play engine connected, session 0 showing service 7. "" or what failed.
    std::string serve(int captureAnswer) {
        if (!recordFd.valid() || !captureFd.valid())
            return "bench not set up";
        if (engine().init(&application, nullptr) != 0)
            return "init failed";
        std::string error =
            playEngine.connect(serverPath(), root().path() + "/playengine.socket", captureAnswer);
        if (!error.empty())
            return error;
        return startService(0) == 0 ? "" : "startTVService failed";
    }

    int startService(int session) {
        IsmaPara isma = {};
        isma.serviceID = 7;
        agent().setNextChannelID(kChannel);
        return engine().startTVService(session, 20, 1, 2, 3, &isma);
    }

    // Queues a frame of `nals` NAL units on the agent's thread; `inside` runs within it.
    void postFrame(int nals, std::function<void(MBBMSAgentCallback&)> inside = nullptr) {
        agent().postToAgentThread([nals, inside](MBBMSAgentCallback* callback) {
            callback->onOutputAVStart(kChannel, nullptr, 0);
            for (int i = 0; i < nals; ++i) {
                Bytes unit = nalUnit(4, 0x41, 20 + i);
                callback->onClearVideoNalData(kChannel, 100 + i, 0, unit.data(),
                                              static_cast<unsigned short>(unit.size()),
                                              MBBMSAgent::NAL_FRAGMENT_COMPLETE);
            }
            if (inside)
                inside(*callback);
            callback->onOutputAVEnd(kChannel, false);
        });
    }

    // The engine calls an application makes from inside a callback; deinit first, so that the
    // others show the engine still serving.
    std::vector<Outcome> reenter() {
        const std::vector<std::pair<const char*, std::function<int()>>> calls = {
            {"deinit()", [&] { return engine().deinit(); }},
            {"stopRecording(0)", [&] { return engine().stopRecording(0); }},
            {"stopRecording(1)", [&] { return engine().stopRecording(1); }},
            {"startRecording(1)", [&] { return engine().startRecording(1, recordFd.get()); }},
            {"captureImage(0)", [&] { return engine().captureImage(0, captureFd.get()); }},
            {"requestInquiryAccount()", [&] { return engine().requestInquiryAccount(); }},
            {"stopTVService(0)", [&] { return engine().stopTVService(0); }},
        };
        std::vector<Outcome> outcomes;
        for (const auto& call : calls) {
            const Clock::time_point start = Clock::now();
            const int result = call.second();
            outcomes.push_back({call.first, result, Clock::now() - start});
        }
        return outcomes;
    }

    FaultInjectingEnv env;
    ReentrantApp application;
    CapturingPlayEngine playEngine;
    UniqueFd recordFd{open((root().path() + "/record.3gp").c_str(), O_RDWR | O_CREAT, 0644)};
    UniqueFd secondRecordFd{open((root().path() + "/record1.3gp").c_str(), O_RDWR | O_CREAT, 0644)};
    UniqueFd captureFd{open((root().path() + "/capture.jpg").c_str(), O_RDWR | O_CREAT, 0644)};
};

// One kind of callback: how the test provokes it and how its call is recognised.
struct CallbackKind {
    const char* name;
    const char* trigger;  // prefix of the application call to act from
    int captureAnswer;    // the play engine's answer to captures
    bool servedBefore;    // the engine serves when the callback is provoked
    std::function<void(Bench&)> provoke;
};

std::vector<CallbackKind> callbackKinds() {
    return {
        {"TunerThreadEvent", "onScanFinished(", 3, true,
         [](Bench& b) {
             b.agent().postToAgentThread([](MBBMSAgentCallback* c) { c->onScanFinished(true); });
         }},
        {"AgentEventInsideAFrame", "onEvent(99, ", 3, true,
         [](Bench& b) {
             b.postFrame(1,
                         [](MBBMSAgentCallback& c) { c.onEvent(static_cast<EventType>(99), 1); });
         }},
        // The storage fills up while both sessions record: the completion thread reports both,
        // and the stops made from the first report reach the recording queued behind it.
        {"CompletionThreadEvent", "onEvent(15", 3, true,
         [](Bench& b) {
             ASSERT_EQ(0, b.startService(1));
             ASSERT_EQ(0, b.engine().startRecording(0, b.recordFd.get()));
             ASSERT_EQ(0, b.engine().startRecording(1, b.secondRecordFd.get()));
             b.env.setFreeBytes(kMiB - 1);
             b.postFrame(1);
         }},
        {"CaptureSuccessOnTheCommandThread", "onEvent(161, 0)", 3, true,
         [](Bench& b) { ASSERT_EQ(0, b.engine().captureImage(0, b.captureFd.get())); }},
        // The play engine goes away with a capture outstanding: the command thread ends it.
        {"CaptureFailureWhenThePlayEngineGoes", "onEvent(162, 0)", kHangUp, true,
         [](Bench& b) { ASSERT_EQ(0, b.engine().captureImage(0, b.captureFd.get())); }},
        // init on the application's thread with a directory that cannot be created.
        {"WorkDirErrorOnTheCallersThread", "onEvent(140, 0)", 3, false,
         [](Bench& b) {
             writeTextFile(b.root().resolve("/plainfile"), "x");
             const std::string impossible = b.root().resolve("/plainfile/sub");
             TavoMBBMSEngine* engine = &b.engine();
             ReentrantApp* app = &b.application;
             AsyncCall([engine, app, impossible] { engine->init(app, impossible.c_str()); });
         }},
        // captureImage on the application's thread with too little free space.
        {"CaptureFailureOnTheCallersThread", "onEvent(162, 0)", 3, true,
         [](Bench& b) {
             b.env.setFreeBytes(50 * 1024);
             TavoMBBMSEngine* engine = &b.engine();
             const int fd = b.captureFd.get();
             AsyncCall([engine, fd] { engine->captureImage(0, fd); });
         }},
    };
}

void PrintTo(const CallbackKind& kind, std::ostream* out) {
    *out << kind.name;
}

class CallbackReentrancy : public ::testing::TestWithParam<CallbackKind> {};

}  // namespace

TEST_P(CallbackReentrancy, EngineCallsReturnDeinitIsRefusedAndFramesFlowAfterwards) {
    const CallbackKind kind = GetParam();
    EXPECT_IN_CHILD({
        Bench bench;
        bench.application.arm(kind.trigger, [&bench] { return bench.reenter(); });
        if (kind.servedBefore) {
            ASSERT_EQ("", bench.serve(kind.captureAnswer));
        }
        kind.provoke(bench);
        if (::testing::Test::HasFatalFailure())
            return;

        std::future<std::vector<Outcome>>& acted = bench.application.outcomes();
        if (acted.wait_for(std::chrono::milliseconds(kWaitMs)) != std::future_status::ready) {
            ASSERT_TRUE(bench.application.came())
                << "no call starting \"" << kind.trigger << "\" came";
            ADD_FAILURE() << "a call made from inside " << kind.name << " does not return";
            fflush(stdout);
            _exit(1);  // a thread is stuck inside the engine: no orderly teardown
        }
        const std::vector<Outcome> outcomes = acted.get();
        for (const Outcome& outcome : outcomes)
            EXPECT_LT(outcome.took, kHangGuard) << outcome.call;
        ASSERT_EQ("deinit()", outcomes[0].call);
        EXPECT_EQ(-1, outcomes[0].result);
        // Stopping a recording, also one whose completion is queued, or none, succeeds.
        for (size_t stop : {1, 2})
            EXPECT_EQ(kind.servedBefore ? 0 : -1, outcomes[stop].result) << outcomes[stop].call;

        // The engine goes on serving: the next frame reaches the play engine.
        bench.env.setFreeBytes(-1);
        if (!kind.servedBefore) {
            ASSERT_EQ("", bench.serve(kind.captureAnswer));
        } else {
            EXPECT_EQ(0, bench.startService(0)) << "stopTVService(0) from the callback failed";
        }
        bench.agent().drainAgentThread();
        bench.playEngine.skipSignalledFrames(0);
        bench.postFrame(3);
        EXPECT_EQ(3, bench.playEngine.readNalCount(0));
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, CallbackReentrancy, ::testing::ValuesIn(callbackKinds()),
                         [](const ::testing::TestParamInfo<CallbackKind>& kind) {
                             return std::string(kind.param.name);
                         });

// What the agent raises inside a frame is passed on after the frame, once its buffer lock is
// free, in the order raised, with the strings and records as they were during the agent's
// call, and through the engine's filters.
TEST(FrameBracket, ResultsRaisedInsideAFrameFollowItInOrderWithTheirContent) {
    EXPECT_IN_CHILD({
        struct LockWatchingApp : RecordingCallback {
            CmmbSharedBuffer* buffer = nullptr;
            std::atomic<int> lockedDuringCalls{0};
            void note() {
                int value = -1;
                cmmb_sem_getvalue(&buffer->mutexDataAccessable, &value);
                if (value != 1)
                    ++lockedDuringCalls;
            }
            void onESGXml(ESGType type, const char* xml) override {
                note();
                RecordingCallback::onESGXml(type, xml);
            }
            void onEvent(EventType type, int param) override {
                note();
                RecordingCallback::onEvent(type, param);
            }
            void onRequestInquiryAccount(bool done, const char* info) override {
                note();
                RecordingCallback::onRequestInquiryAccount(done, info);
            }
        };
        Bench bench;
        LockWatchingApp app;
        ASSERT_EQ(0, bench.engine().init(&app, nullptr));
        ASSERT_EQ("", bench.playEngine.connect(bench.serverPath(),
                                               bench.root().path() + "/playengine.socket", 3));
        ASSERT_EQ(0, bench.startService(0));
        app.buffer = bench.playEngine.buffer(0);
        ASSERT_EQ(0, bench.engine().requestInquiryAccount());

        bench.postFrame(2, [](MBBMSAgentCallback& c) {
            char xml[32];
            strcpy(xml, "<guide/>");
            c.onESGXml(static_cast<ESGType>(4), xml);
            strcpy(xml, "overwritten");      // valid only during the call
            c.onEvent(EVENT_MBBMS_ONLY, 1);  // dropped in CMMB mode
            c.onEvent(static_cast<EventType>(97), 3);
            c.onRequestInquiryAccount(true, "balance");
        });
        bench.agent().drainAgentThread();
        const std::vector<std::string> expected = {"onESGXml(4, <guide/>)", "onEvent(97, 3)",
                                                   "onRequestInquiryAccount(1, balance)"};
        EXPECT_EQ(expected, app.calls());
        EXPECT_EQ(0, app.lockedDuringCalls.load()) << "called while the frame held its lock";
        EXPECT_EQ(2, bench.playEngine.readNalCount(0));
        // The completion ended the pending request: a new one is accepted.
        EXPECT_EQ(0, bench.engine().requestInquiryAccount());
        bench.playEngine.stop();
        EXPECT_EQ(0, bench.engine().deinit());
    });
}
