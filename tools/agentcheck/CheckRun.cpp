#include "CheckRun.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ProcessPaths.h"
#include "UniqueHandle.h"

using std::chrono::milliseconds;

namespace {

// A frame open longer than this is ended towards the engine (and reported).
const int kMaxFrameMs = 2000;
const milliseconds kWatchdogSlice(100);
const milliseconds kTableWait(15000);
const milliseconds kRequestWait(10000);
const milliseconds kSecondCompletionWait(500);
const milliseconds kCaptureWait(5000);
const char kAreaName[] = "Beijing";

// Calls report->expireOpenFrame until destroyed.
class FrameWatchdog {
public:
    explicit FrameWatchdog(AgentCheckReport* report)
        : mReport(report), mThread([this] { run(); }) {}
    ~FrameWatchdog() {
        mStop.store(true);
        mThread.join();
    }

private:
    void run() {
        while (!mStop.load()) {
            mReport->expireOpenFrame(kMaxFrameMs);
            std::this_thread::sleep_for(kWatchdogSlice);
        }
    }
    AgentCheckReport* mReport;
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

std::string number(long value) {
    return std::to_string(value);
}

}  // namespace

bool CheckRun::step(const std::string& name, bool ok, const std::string& detail) {
    mOutcome.steps.push_back({name, ok, detail});
    return ok;
}

bool CheckRun::cannotRun(const std::string& why) {
    mOutcome.couldNotRun = true;
    if (mOutcome.error.empty())
        mOutcome.error = why;
    return false;
}

CheckOutcome CheckRun::run() {
    mOutcome.library = mOptions.library;
    if (!loadable() || !prepare() || !initEngine())
        return mOutcome;
    {
        FrameWatchdog watchdog(mReport);
        connectReader();
        scan();
        if (mOptions.mbbms)
            runRequests();
        startServices();
        readFrames();
        stopAndDeinit();
    }
    mReport->finish();
    mOutcome.breaches = mReport->breaches();
    mOutcome.channels = mReport->channels();
    return mOutcome;
}

bool CheckRun::loadable() {
    if (access(mOptions.library.c_str(), R_OK) != 0)
        return cannotRun(mOptions.library + ": " + strerror(errno));
    // Loaded once here to tell a library that cannot be loaded from one that breaks the
    // contract; it stays loaded, so the proxy later gets the same copy.
    void* handle = dlopen(absolutePath(mOptions.library).c_str(), RTLD_LAZY);
    if (handle == nullptr) {
        const char* error = dlerror();
        return cannotRun(error != nullptr ? error : "cannot load the library");
    }
    if (dlsym(handle, "createAgent") == nullptr) {
        mOutcome.breaches.push_back(
            {"missing-export", 1, "the library does not export createAgent"});
        if (dlsym(handle, "destroyAgent") == nullptr) {
            mOutcome.breaches.back().count = 2;
            mOutcome.breaches.back().firstMessage += " nor destroyAgent";
        }
        return cannotRun("no createAgent: the engine could not create an agent");
    }
    return true;
}

bool CheckRun::prepare() {
    const std::string proxy = findCheckingProxy();
    if (proxy.empty())
        return cannotRun("the checking proxy libtavo_agentcheck_proxy.so is not installed");
    std::string error;
    if (!mRoot.create(proxy, mOptions.inno, mOptions.properties, &error))
        return cannotRun(error);
    mRoot.exportEnvironment(mOptions.library);
    return true;
}

bool CheckRun::initEngine() {
    mEngine = TavoMBBMSEngine::getInstance();
    void* proxy = dlopen(mRoot.proxyPath().c_str(), RTLD_NOW | RTLD_NOLOAD);
    void* symbol = proxy != nullptr ? dlsym(proxy, "tavoAgentCheckReport") : nullptr;
    if (symbol == nullptr)
        return cannotRun("the engine did not load the checking proxy");
    mReport = reinterpret_cast<AgentCheckReportFunc>(symbol)();
    std::string error;
    if (!mReport->vendorLoaded(&error)) {
        mOutcome.breaches = mReport->breaches();
        return cannotRun(error);
    }
    mEngine->setMode(mOptions.mbbms ? TavoMBBMSEngine::MBBMS_MODE : TavoMBBMSEngine::CMMB_MODE);
    const std::string workDir = mRoot.resolve("/data/app/cmmb");
    if (mEngine->init(&mApplication, workDir.c_str()) != 0) {
        step("init", false, "engine init failed (the agent's init returned -1?)");
        mOutcome.breaches = mReport->breaches();
        return cannotRun("engine init failed");
    }
    ModuleInfo info;
    memset(&info, 0, sizeof(info));
    mEngine->getModuleInfo(&info);
    info.bytes[sizeof(info.bytes) - 1] = 0;
    const int sessions = mEngine->getMaxSupportedSessions();
    std::string module(reinterpret_cast<const char*>(info.bytes),
                       strnlen(reinterpret_cast<const char*>(info.bytes), 60));
    for (char& c : module) {
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)
            c = '.';
    }
    step("init", true, number(sessions) + " sessions; module \"" + module + "\"");
    return true;
}

void CheckRun::connectReader() {
    mReader.reset(new FrameReader(mRoot.resolve("/data/app/cmmb.socket"),
                                  mRoot.resolve("/data/app/agentcheck.socket")));
    // The engine's command thread creates its socket a moment after init has returned.
    std::string error;
    bool ok = mReader->start(&error);
    for (int i = 0; !ok && i < 100; ++i) {
        std::this_thread::sleep_for(milliseconds(20));
        ok = mReader->start(&error);
    }
    for (int i = 0; ok && i < 100 && !mReader->hasBuffers(); ++i)
        std::this_thread::sleep_for(milliseconds(20));
    step("play engine reader", ok && mReader->hasBuffers(),
         ok ? (mReader->hasBuffers() ? "both shared buffers mapped" : "no shared buffers") : error);
}

void CheckRun::scan() {
    std::vector<int> points = mOptions.freqDots;
    mEngine->startScan(points.data(), static_cast<int>(points.size()));
    const milliseconds timeout(10000 + 2000 * static_cast<long>(points.size()));
    bool finished =
        mApplication.waitUntil([this] { return mApplication.scanFinishedLocked(); }, timeout);
    std::vector<int> locked = mApplication.lockedFrequencies();
    std::string detail = number(static_cast<long>(points.size())) + " points, locked:";
    for (int f : locked)
        detail += " " + number(f);
    step("scan", finished, finished ? detail : "no onScanFinished; " + detail);
    for (int f : locked)
        readTables(f);
}

void CheckRun::readTables(int freqDot) {
    mEngine->setFrequency(freqDot);
    mEngine->startUpdateTS0(freqDot);
    bool ts0 = mApplication.waitUntil(
        [this, freqDot] { return mApplication.ts0ParsedLocked(freqDot); }, kTableWait);
    mEngine->stopUpdateTS0();
    long services = 0;
    for (const ServiceParam& s : mApplication.services())
        services += s.freqDot == freqDot;
    step("TS0 freq " + number(freqDot), ts0,
         ts0 ? number(services) + " services" : "no onTS0Parsed");

    const int before = mApplication.esgUpdates();
    mEngine->startUpdateESG(freqDot, 0, 1, 1);
    bool esg = mApplication.waitUntil(
        [this, before] { return mApplication.esgUpdatesLocked() > before; }, kTableWait);
    mEngine->stopUpdateESG();
    step("ESG freq " + number(freqDot), esg, esg ? "updated" : "no onESGUpdated");
}

void CheckRun::runRequests() {
    static const char* const kPackages[] = {"agentcheck-package"};
    static const char* kNames[] = {"agentcheck"};
    static int kList1[] = {1}, kList2[] = {0};
    TavoMBBMSEngine* engine = mEngine;
    const std::pair<const char*, std::function<int()>> requests[] = {
        {"requestInitGBA", [engine] { return engine->requestInitGBA(0); }},
        {"requestUpdateSG", [engine] { return engine->requestUpdateSG(kAreaName); }},
        {"requestUpdateST", [engine] { return engine->requestUpdateST(); }},
        {"requestSubscribeService",
         [engine] { return engine->requestSubscribeService(kPackages, 1); }},
        {"requestAuthorizeService",
         [engine] { return engine->requestAuthorizeService(kList1, kList2, kNames, 1); }},
        {"requestInquiryAccount", [engine] { return engine->requestInquiryAccount(); }},
        {"requestUnsubscribeService",
         [engine] { return engine->requestUnsubscribeService(kPackages, 1); }},
    };
    for (const auto& request : requests) {
        const int before = mApplication.completions();
        // The engine ends a request only after the completion has reached us, so the next
        // one may come a moment early: try again briefly.
        int result = -1;
        for (int attempt = 0; attempt < 100 && result != 0; ++attempt) {
            result = request.second();
            if (result != 0)
                std::this_thread::sleep_for(milliseconds(20));
        }
        if (result != 0) {
            step(request.first, false, "refused (result " + number(result) + ")");
            continue;
        }
        bool completed = mApplication.waitUntil(
            [this, before] { return mApplication.completionsLocked() > before; }, kRequestWait);
        if (!completed) {
            step(request.first, false, "no completion callback");
            return;  // the engine refuses every later request until it comes
        }
        // A second completion of the same request would come right behind the first.
        std::this_thread::sleep_for(kSecondCompletionWait);
        step(request.first, true, mApplication.lastCompletionDone() ? "done" : "done=false");
    }
}

void CheckRun::startServices() {
    std::vector<ServiceChoice> choices = mOptions.services;
    if (choices.empty()) {
        for (const ServiceParam& s : mApplication.services()) {
            if (choices.size() == 2)
                break;
            if (!choices.empty() && choices[0].freqDot != s.freqDot)
                continue;  // the second session must share the first one's frequency point
            choices.push_back(
                {s.freqDot, s.serviceID, s.timeSlotStart, s.timeSlotCount, s.modulation});
        }
    }
    if (choices.empty()) {
        step("start services", false, "no service given and none reported in TS0");
        return;
    }
    for (size_t session = 0; session < choices.size() && session < 2; ++session) {
        const ServiceChoice& c = choices[session];
        const std::string name = "start session " + number(static_cast<long>(session));
        if (session == 1 && mStarted[0] >= 0 && mStarted[0] != c.freqDot) {
            step(name, true, "skipped: another frequency point than session 0");
            continue;
        }
        mEngine->setFrequency(c.freqDot);
        IsmaPara isma;
        memset(&isma, 0, sizeof(isma));
        isma.serviceID = static_cast<uint16_t>(c.serviceID);
        int result = mEngine->startTVService(static_cast<int>(session), c.freqDot, c.start, c.count,
                                             c.mod, &isma);
        if (result == 0)
            mStarted[session] = c.freqDot;
        step(name, result == 0,
             "freq " + number(c.freqDot) + ", service " + number(c.serviceID) + ", slots " +
                 number(c.start) + "+" + number(c.count) + ", mod " + number(c.mod));
    }
}

void CheckRun::readFrames() {
    if (mStarted[0] < 0 && mStarted[1] < 0) {
        cannotRun("no service could be started, so no frame could be checked");
        return;
    }
    const int session = mStarted[0] >= 0 ? 0 : 1;
    const std::string recordingPath = mRoot.resolve("/sdcard/agentcheck.3gp");
    const std::string snapshotPath = mRoot.resolve("/sdcard/agentcheck.jpg");
    UniqueFd recording(open(recordingPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    UniqueFd snapshot(open(snapshotPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    int recordResult = recording.valid() ? mEngine->startRecording(session, recording.get()) : -1;

    const int totalMs = mOptions.seconds * 1000;
    std::this_thread::sleep_for(milliseconds(totalMs / 2));
    int captureResult = snapshot.valid() ? mEngine->captureImage(session, snapshot.get()) : -1;
    bool answered = captureResult == 0 &&
                    mApplication.waitUntil(
                        [this] { return mApplication.captureEventsLocked() > 0; }, kCaptureWait);
    std::this_thread::sleep_for(milliseconds(totalMs - totalMs / 2));
    int stopResult = recordResult == 0 ? mEngine->stopRecording(session) : -1;

    struct stat info;
    long long size = fstat(recording.get(), &info) == 0 ? info.st_size : 0;
    step("recording session " + number(session), recordResult == 0 && stopResult == 0,
         number(static_cast<long>(size)) + " bytes written");
    step("snapshot session " + number(session), answered,
         answered ? "answered (the built-in reader decodes nothing and answers failed)"
                  : "no answer");
    long frames = 0;
    for (const ChannelSummary& c : mReport->channels())
        frames += c.frames;
    for (int s = 0; s < 2; ++s)
        mOutcome.framesFetched[s] = mReader ? mReader->framesFetched(s) : 0;
    if (frames == 0)
        cannotRun("no multiplex frame within " + number(mOptions.seconds) + " s");
    step("frames", frames > 0, number(frames) + " multiplex frames delivered");
}

void CheckRun::stopAndDeinit() {
    for (int session = 0; session < 2; ++session) {
        if (mStarted[session] >= 0) {
            step("stop session " + number(session), mEngine->stopTVService(session) == 0, "");
        }
    }
    mReader.reset();
    step("deinit", mEngine->deinit() == 0, "");
    // Callbacks that the vendor still had under way.
    std::this_thread::sleep_for(milliseconds(300));
}
