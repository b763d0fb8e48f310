// One check of a vendor library: loads it through the engine behind the checking proxy and
// drives it through init, scan, tables, requests, services, frames, recording, snapshot,
// stop and deinit, recording each step; the breaches come from the proxy.
//
// Threads: run() on the main thread; while the engine is up a watchdog thread ends frames
// the vendor left open, so that the run cannot hang on them.
#ifndef TAVO_TOOLS_AGENTCHECK_CHECK_RUN_H
#define TAVO_TOOLS_AGENTCHECK_CHECK_RUN_H

#include <memory>
#include <string>

#include "AgentCheckReport.h"
#include "CheckApplication.h"
#include "CheckOptions.h"
#include "CheckOutcome.h"
#include "CheckRoot.h"
#include "FrameReader.h"
#include "TavoMBBMSEngine.h"

class CheckRun {
public:
    explicit CheckRun(const CheckOptions& options) : mOptions(options) {}
    CheckOutcome run();

private:
    bool loadable();
    bool prepare();
    bool initEngine();
    void connectReader();
    void scan();
    void readTables(int freqDot);
    void runRequests();
    void startServices();
    void readFrames();
    void stopAndDeinit();

    bool step(const std::string& name, bool ok, const std::string& detail);
    bool cannotRun(const std::string& why);

    const CheckOptions mOptions;
    CheckOutcome mOutcome;
    CheckRoot mRoot;
    CheckApplication mApplication;
    TavoMBBMSEngine* mEngine = nullptr;
    AgentCheckReport* mReport = nullptr;
    std::unique_ptr<FrameReader> mReader;
    int mStarted[2] = {-1, -1};  // freqDot of each started session, -1 when not started
};

#endif  // TAVO_TOOLS_AGENTCHECK_CHECK_RUN_H
