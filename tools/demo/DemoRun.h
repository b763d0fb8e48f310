// One run of the demo, step by step: an application of the engine from start to finish.
// Each step prints what it did; a step that fails ends the run with a message.
#ifndef TAVO_DEMO_RUN_H
#define TAVO_DEMO_RUN_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AndroidRoot.h"
#include "DemoCallback.h"
#include "DemoOptions.h"
#include "EngineLog.h"
#include "PlayEngineProcess.h"
#include "TavoMBBMSEngine.h"

class DemoRun {
public:
    explicit DemoRun(const DemoOptions& options);

    // Runs every step; returns the process exit status (0 when everything worked).
    int run();

private:
    struct SessionPlan {
        int session;
        ServiceSummary service;
        bool started;  // startTVService succeeded
    };

    bool prepare();
    bool initEngine();
    bool scan();
    bool readTables();
    bool runMbbmsRound();
    bool startPlayEngine();
    bool startServices();
    // Records session 0 and takes the snapshot while it records.
    bool record();
    bool snapshot();
    bool stopEverything();
    bool summarize();

    // Calls request until the engine accepts it (it refuses while the previous request is
    // still being finished) and waits for its completion callback.
    bool runRequest(const char* name, const std::function<int()>& request);
    bool checkRecordingWithFfprobe();
    std::vector<std::string> playEngineArguments() const;
    std::string findPlayEngine() const;
    // The simulator library and its content: the installed layout next to this program's
    // directory when it is there, else the build tree's.
    std::string findSimAgent() const;
    std::string findSimContent() const;

    // Bounded waits: generous, scaled to the broadcast speed.
    std::chrono::milliseconds broadcastTimeout(double broadcastSeconds) const;

    const DemoOptions mOptions;
    const std::string mOut;  // absolute
    AndroidRoot mRoot;
    EngineLog mLog;
    DemoCallback mCallback;
    TavoMBBMSEngine* mEngine = nullptr;
    std::unique_ptr<PlayEngineProcess> mPlayEngine;
    std::vector<SessionPlan> mPlans;

    std::string mRecordingPath;
    std::string mSnapshotPath;
    long long mServicesMark = 0;   // log position when the services started
    long long mRecordingMark = 0;  // log position when the recording started
    long long mRecordingEnd = 0;   // log position when it stopped
    int mPlayEngineStatus = -1;
    bool mSnapshotTaken = false;
};

#endif  // TAVO_DEMO_RUN_H
