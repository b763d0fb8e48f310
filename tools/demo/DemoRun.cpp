#include "DemoRun.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "DemoFiles.h"
#include "ExternalTool.h"
#include "Mp4Summary.h"
#include "ProcessPaths.h"
#include "UniqueHandle.h"

// Paths of the simulator relative to the program's directory, in the installation and in the
// build tree alike (the build tree keeps the installed layout).
#ifndef TAVO_DEMO_INSTALLED_SIM_AGENT
#define TAVO_DEMO_INSTALLED_SIM_AGENT ""
#endif
#ifndef TAVO_DEMO_INSTALLED_SIM_CONTENT
#define TAVO_DEMO_INSTALLED_SIM_CONTENT ""
#endif

using std::chrono::milliseconds;

namespace {

// The engine's log categories the demo reads: frame ends and recorded frames (MAIN),
// lost frames (WARNING) and the play engine's connections (CMD_PATH).
const char kLogMask[] = "ERROR,WARNING,MAIN,CMD_PATH";
const char kBuffersSent[] = "sendmsg OK: cmd=sharebuffer (session=1)";
const int kScanPoints[] = {13, 20, 27, 33};
const char kAreaName[] = "Beijing";

const char* modulationName(int modulation) {
    switch (modulation) {
        case 0:
            return "BPSK";
        case 1:
            return "QPSK";
        case 2:
            return "16QAM";
        default:
            return "?";
    }
}

// Frames of a session as the play engine reports them when it exits
// ("session N: frames=F ..."), or -1 when it did not report them.
int fetchedFrames(const std::string& playEngineLog, int session) {
    std::string key = "session " + std::to_string(session) + ": frames=";
    size_t at = playEngineLog.rfind(key);
    if (at == std::string::npos)
        return -1;
    return atoi(playEngineLog.c_str() + at + key.size());
}

bool failed(const char* step, const std::string& why) {
    fprintf(stderr, "tavo_demo: %s failed: %s\n", step, why.c_str());
    return false;
}

void heading(const char* text) {
    printf("\n== %s\n", text);
    fflush(stdout);
}

}  // namespace

DemoRun::DemoRun(const DemoOptions& options)
    : mOptions(options),
      mOut(absolutePath(options.outDir)),
      mRoot(mOut + "/android-root"),
      mLog(mOut + "/engine.log") {}

std::chrono::milliseconds DemoRun::broadcastTimeout(double broadcastSeconds) const {
    return milliseconds(static_cast<long long>(broadcastSeconds / mOptions.speed * 3000.0) + 20000);
}

int DemoRun::run() {
    bool ok = prepare() && initEngine() && scan() && readTables() && runMbbmsRound() &&
              startPlayEngine() && startServices() && record() && mSnapshotTaken;
    // Whatever happened, leave the engine and the play engine stopped.
    bool stopped = mEngine == nullptr || stopEverything();
    bool summarized = ok && summarize();
    return ok && stopped && summarized ? 0 : 1;
}

bool DemoRun::prepare() {
    heading("Preparing the android root");
    if (!demofiles::makeDirectories(mOut))
        return failed("prepare", "cannot create " + mOut);
    const std::string agent = findSimAgent(), content = findSimContent();
    // A Unix socket path holds at most 107 bytes; the engine's lives in the android root.
    std::string socketPath = mRoot.resolve("/data/app/cmmb.socket");
    if (socketPath.size() > 107) {
        return failed("prepare", "--out is too long for the engine's socket path " + socketPath);
    }
    if (agent.empty()) {
        return failed("prepare", std::string("no simulator at ") + TAVO_DEMO_INSTALLED_SIM_AGENT +
                                     " from the program's directory");
    }
    if (content.empty()) {
        return failed("prepare", std::string("no simulator content at ") +
                                     TAVO_DEMO_INSTALLED_SIM_CONTENT +
                                     " from the program's directory");
    }
    std::string error;
    if (!mRoot.prepare(agent, content, mOptions.speed, &error)) {
        return failed("prepare", error);
    }
    demofiles::writeTextFile(mLog.path(), "");
    mRoot.exportEnvironment(mLog.path(), kLogMask);
    printf("android root   %s\n", mRoot.path().c_str());
    printf("tuner agent    broadcast simulator at %.2fx real time\n", mOptions.speed);
    printf("engine log     %s\n", mLog.path().c_str());
    return true;
}

bool DemoRun::initEngine() {
    heading("Starting the engine");
    mEngine = TavoMBBMSEngine::getInstance();
    if (mEngine == nullptr)
        return failed("getInstance", "no engine");
    if (mEngine->init(&mCallback, nullptr) != 0)
        return failed("init", "see " + mLog.path());
    mEngine->setMode(TavoMBBMSEngine::MBBMS_MODE);

    Preference pref{};
    snprintf(pref.userAgent, sizeof(pref.userAgent), "TavoDemo/1.0");
    snprintf(pref.apn, sizeof(pref.apn), "cmmb");
    snprintf(pref.wapGateway, sizeof(pref.wapGateway), "10.0.0.172");
    pref.wapPort = 80;
    snprintf(pref.sgDomain, sizeof(pref.sgDomain), "sg.operator.invalid");
    pref.sgPort = 80;
    mEngine->setPreference(&pref);

    ModuleInfo info{};
    mEngine->getModuleInfo(&info);
    info.bytes[sizeof(info.bytes) - 1] = 0;
    printf("module         %s\n", reinterpret_cast<const char*>(info.bytes));
    printf("sessions       %d supported\n", mEngine->getMaxSupportedSessions());
    return true;
}

bool DemoRun::scan() {
    heading("Scanning");
    int points[sizeof(kScanPoints) / sizeof(kScanPoints[0])];
    memcpy(points, kScanPoints, sizeof(points));
    int count = static_cast<int>(sizeof(points) / sizeof(points[0]));
    if (mEngine->startScan(points, count) != 0)
        return failed("startScan", "refused");
    if (!mCallback.waitUntil([this] { return mCallback.scanFinishedLocked(); },
                             broadcastTimeout(5))) {
        return failed("scan", "no onScanFinished");
    }
    for (const SignalStatus& status : mCallback.signals()) {
        if (status.locked) {
            printf("freq %-3d       locked, %d dBm, SNR %d dB\n", status.freqDot, status.strength,
                   status.snr);
        } else {
            printf("freq %-3d       no signal\n", status.freqDot);
        }
    }
    return true;
}

bool DemoRun::readTables() {
    std::vector<SignalStatus> signals = mCallback.signals();
    int freqDot = -1;
    for (const SignalStatus& status : signals) {
        if (status.locked) {
            freqDot = status.freqDot;
            break;
        }
    }
    if (freqDot < 0)
        return failed("scan", "no frequency point with a signal");

    heading("Tuning and reading the control table (TS0)");
    mEngine->setFrequency(freqDot);
    printf("tuned to       freq %d\n", mEngine->getFrequency());
    if (mEngine->startUpdateTS0(freqDot) != 0)
        return failed("startUpdateTS0", "refused");
    if (!mCallback.waitUntil([this, freqDot] { return mCallback.ts0ParsedLocked(freqDot); },
                             broadcastTimeout(5))) {
        return failed("TS0 update", "no onTS0Parsed");
    }
    mEngine->stopUpdateTS0();
    std::vector<ServiceSummary> services = mCallback.tableServices();
    for (const ServiceSummary& s : services) {
        printf("service %-6d freq %d, time slots %d+%d, %s%s\n", s.serviceID, s.freqDot,
               s.timeSlotStart, s.timeSlotCount, modulationName(s.modulation),
               s.scrambled ? ", scrambled" : "");
    }
    if (services.empty())
        return failed("TS0 update", "no services on freq " + std::to_string(freqDot));

    heading("Updating the service guide (ESG)");
    if (mEngine->startUpdateESG(freqDot, 0, 1, 1) != 0)
        return failed("startUpdateESG", "refused");
    if (!mCallback.waitUntil([this] { return mCallback.esgUpdatedLocked(); },
                             broadcastTimeout(10))) {
        return failed("ESG update", "no onESGUpdated");
    }
    mEngine->stopUpdateESG();
    std::vector<ServiceSummary> guide = mCallback.guideServices();
    printf("%d guide fragments, %zu services:\n", mCallback.guideFragments(), guide.size());
    for (const ServiceSummary& s : guide) {
        printf("  %-6d %-14s freq %d%s\n", s.serviceID, s.name.c_str(), s.freqDot,
               s.freqDot == freqDot ? "  (on air here)" : "");
    }

    // The sessions show the first services of the tuned frequency point.
    for (int session = 0; session < mOptions.sessions; ++session) {
        const ServiceSummary& service = services[static_cast<size_t>(session) % services.size()];
        ServiceSummary named = service;
        for (const ServiceSummary& g : guide) {
            if (g.serviceID == service.serviceID)
                named.name = g.name;
        }
        mPlans.push_back({session, named, false});
    }
    return true;
}

bool DemoRun::runRequest(const char* name, const std::function<int()>& request) {
    size_t before = mCallback.requests().size();
    auto deadline = std::chrono::steady_clock::now() + milliseconds(5000);
    // The engine ends a request after our completion callback has returned, so the next
    // request may come a moment too early; it is simply tried again.
    while (request() != 0) {
        if (std::chrono::steady_clock::now() > deadline)
            return failed(name, "refused");
        std::this_thread::sleep_for(milliseconds(10));
    }
    if (!mCallback.waitUntil([this, before] { return mCallback.requestCountLocked() > before; },
                             broadcastTimeout(5))) {
        return failed(name, "no completion");
    }
    RequestResult result = mCallback.requests().back();
    printf("%-28s %s%s%s\n", result.name.c_str(), result.done ? "done" : "FAILED",
           result.info.empty() ? "" : ": ", result.info.c_str());
    return result.done || failed(name, "completed with done=0");
}

bool DemoRun::runMbbmsRound() {
    heading("MBBMS requests");
    static const char* const kPackages[] = {"pkg-news", "pkg-sports"};
    TavoMBBMSEngine* engine = mEngine;
    return runRequest("requestInitGBA", [engine] { return engine->requestInitGBA(0); }) &&
           runRequest("requestUpdateSG", [engine] { return engine->requestUpdateSG(kAreaName); }) &&
           runRequest("requestUpdateST", [engine] { return engine->requestUpdateST(); }) &&
           runRequest("requestSubscribeService",
                      [engine] { return engine->requestSubscribeService(kPackages, 2); }) &&
           runRequest("requestInquiryAccount",
                      [engine] { return engine->requestInquiryAccount(); });
}

std::string DemoRun::findSimAgent() const {
    const std::string installed = executableDirectory() + "/" + TAVO_DEMO_INSTALLED_SIM_AGENT;
    if (*TAVO_DEMO_INSTALLED_SIM_AGENT != '\0' && access(installed.c_str(), R_OK) == 0)
        return installed;
    return "";
}

std::string DemoRun::findSimContent() const {
    const std::string installed = executableDirectory() + "/" + TAVO_DEMO_INSTALLED_SIM_CONTENT;
    if (*TAVO_DEMO_INSTALLED_SIM_CONTENT != '\0' && demofiles::isDirectory(installed))
        return installed;
    return "";
}

std::string DemoRun::findPlayEngine() const {
    const std::string candidate = executableDirectory() + "/tavo_playengine";
    return demofiles::isExecutable(candidate) ? candidate : "";
}

bool DemoRun::startPlayEngine() {
    heading("Starting the play engine");
    std::string program = findPlayEngine();
    if (program.empty())
        return failed("play engine", "tavo_playengine not found next to tavo_demo");
    if (!demofiles::makeDirectories(mOut + "/playengine")) {
        return failed("play engine", "cannot create " + mOut + "/playengine");
    }
    long long mark = mLog.mark();
    mPlayEngine.reset(
        new PlayEngineProcess(program, playEngineArguments(), mOut + "/playengine.log"));
    std::string error;
    if (!mPlayEngine->start(&error))
        return failed("play engine", error);
    printf("play engine    pid %d, output in %s/playengine\n", static_cast<int>(mPlayEngine->pid()),
           mOut.c_str());
    if (!mLog.waitForCount(kBuffersSent, 1, mark, milliseconds(20000))) {
        return failed("play engine", "it did not connect; see " + mOut + "/playengine.log");
    }
    printf("connected      both shared buffers passed\n");
    return true;
}

bool DemoRun::startServices() {
    heading("Starting TV services");
    mServicesMark = mLog.mark();
    for (SessionPlan& plan : mPlans) {
        IsmaPara isma{};
        isma.serviceID = static_cast<uint16_t>(plan.service.serviceID);
        if (mEngine->startTVService(plan.session, plan.service.freqDot, plan.service.timeSlotStart,
                                    plan.service.timeSlotCount, plan.service.modulation,
                                    &isma) != 0) {
            return failed("startTVService", "session " + std::to_string(plan.session));
        }
        plan.started = true;
        char url[64] = {};
        mEngine->getTVServiceUrl(plan.session, url);
        printf("session %d      service %d %s, %s\n", plan.session, plan.service.serviceID,
               plan.service.name.c_str(), url);
    }
    std::string firstFrame = "]session=0, channelID=";
    if (!mLog.waitForCount(firstFrame, 1, mServicesMark, broadcastTimeout(3))) {
        return failed("TV service", "no frame reached session 0");
    }
    return true;
}

bool DemoRun::record() {
    heading("Recording session 0");
    mRecordingPath = mOut + "/recording-session0.3gp";
    const UniqueFd fd(open(mRecordingPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd)
        return failed("recording", "cannot create " + mRecordingPath);
    mRecordingMark = mLog.mark();
    if (mEngine->startRecording(0, fd.get()) != 0)
        return failed("startRecording", "refused");
    const std::string recordedFrame = "]session=0, free space=";
    auto deadline = std::chrono::steady_clock::now() + broadcastTimeout(mOptions.seconds);
    int recorded = 0;
    const bool interactive = isatty(STDOUT_FILENO) != 0;
    while (recorded < mOptions.seconds && mEngine->isRecording(0)) {
        if (std::chrono::steady_clock::now() > deadline)
            break;
        std::this_thread::sleep_for(milliseconds(50));
        int now = mLog.count(recordedFrame, mRecordingMark);
        if (now != recorded) {
            recorded = now;
            // One line rewritten in place on a terminal, one line per second in a file.
            printf("%srecording      %d/%d s of content%s", interactive ? "\r" : "", recorded,
                   mOptions.seconds, interactive ? "" : "\n");
            fflush(stdout);
        }
    }
    if (interactive)
        printf("\n");
    mSnapshotTaken = snapshot();
    bool stillRecording = mEngine->isRecording(0);
    int stopResult = mEngine->stopRecording(0);
    mRecordingEnd = mLog.mark();
    if (!stillRecording)
        return failed("recording", "it stopped by itself; see " + mLog.path());
    if (stopResult != 0)
        return failed("stopRecording", "result " + std::to_string(stopResult));
    if (recorded < mOptions.seconds)
        return failed("recording", "content stopped arriving");
    return true;
}

bool DemoRun::snapshot() {
    mSnapshotPath = mOut + "/snapshot-session0.png";
    const UniqueFd fd(open(mSnapshotPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd)
        return failed("snapshot", "cannot create " + mSnapshotPath);
    int before =
        mCallback.eventCount(EVENT_CAPTURE_SUCCESS) + mCallback.eventCount(EVENT_CAPTURE_FAIL);
    bool ok = mEngine->captureImage(0, fd.get()) == 0 &&
              mCallback.waitUntil(
                  [this, before] {
                      return mCallback.eventCountLocked(EVENT_CAPTURE_SUCCESS) +
                                 mCallback.eventCountLocked(EVENT_CAPTURE_FAIL) >
                             before;
                  },
                  milliseconds(20000)) &&
              mCallback.eventCount(EVENT_CAPTURE_SUCCESS) > 0;
    printf("snapshot       %s\n", ok ? mSnapshotPath.c_str() : "FAILED");
    return ok || failed("snapshot", "the play engine reported no image");
}

bool DemoRun::stopEverything() {
    heading("Stopping");
    bool ok = true;
    for (auto plan = mPlans.rbegin(); plan != mPlans.rend(); ++plan) {
        if (plan->started && mEngine->stopTVService(plan->session) != 0) {
            ok = failed("stopTVService", "refused");
        }
    }
    if (mPlayEngine) {
        mPlayEngineStatus = mPlayEngine->stop();
        printf("play engine    exited with status %d\n", mPlayEngineStatus);
    }
    mEngine->deinit();
    printf("engine         de-initialised\n");
    return ok;
}

bool DemoRun::checkRecordingWithFfprobe() {
    std::string ffprobe = externaltool::find("ffprobe");
    if (ffprobe.empty()) {
        printf("ffprobe        not installed, recording not checked\n");
        return true;
    }
    std::string output;
    int status = externaltool::run(ffprobe, {"-v", "error", mRecordingPath}, &output);
    if (status == 0 && output.empty()) {
        printf("ffprobe        recording checked: no errors\n");
        return true;
    }
    printf("ffprobe        recording has errors (status %d):\n%s\n", status, output.c_str());
    return false;
}

bool DemoRun::summarize() {
    heading("Summary");
    std::string playEngineLog;
    demofiles::readFile(mOut + "/playengine.log", &playEngineLog);
    printf("%-8s %-10s %-10s %-10s %-10s\n", "session", "service", "delivered", "fetched", "lost");
    for (const SessionPlan& plan : mPlans) {
        EngineLog::SessionFrames frames = mLog.sessionFrames(plan.session, mServicesMark);
        int fetched = fetchedFrames(playEngineLog, plan.session);
        printf("%-8d %-10d %-10d %-10s %-10d\n", plan.session, plan.service.serviceID,
               frames.delivered, fetched >= 0 ? std::to_string(fetched).c_str() : "?", frames.lost);
    }
    printf(
        "(a frame is one multiplex frame, one second of content; delivered and lost from the\n"
        " engine's log, fetched as counted by the play engine)\n");

    EngineLog::SessionFrames recorded = mLog.sessionFrames(0, mRecordingMark, mRecordingEnd);
    Mp4Summary mp4 = Mp4Summary::read(mRecordingPath);
    printf("\nrecording      %s\n", mRecordingPath.c_str());
    printf("  size         %lld bytes\n", demofiles::fileSize(mRecordingPath));
    printf("  recorded     %d multiplex frames = %.3f s of content\n", recorded.recorded,
           static_cast<double>(recorded.recorded));
    bool ok = true;
    if (mp4.valid) {
        printf("  file         brand %s, duration %.3f s\n", mp4.majorBrand.c_str(), mp4.seconds());
        for (const Mp4Track& track : mp4.tracks) {
            printf("  track %u      %s %s, %u samples, %.3f s", track.trackID,
                   track.handler.c_str(), track.codec.c_str(), track.samples, track.seconds());
            if (track.width != 0)
                printf(", %ux%u", track.width, track.height);
            if (track.sampleRate != 0)
                printf(", %u Hz, %u channels", track.sampleRate, track.channels);
            printf("\n");
        }
        ok = checkRecordingWithFfprobe();
    } else {
        printf("  NOT a readable MP4 file: %s\n", mp4.error.c_str());
        ok = false;
    }

    printf("\nsnapshot       %s (%lld bytes)\n", mSnapshotPath.c_str(),
           demofiles::fileSize(mSnapshotPath));
    printf("\nplay engine    output in %s/playengine, log %s/playengine.log\n", mOut.c_str(),
           mOut.c_str());
    for (const std::string& name : demofiles::listDirectory(mOut + "/playengine")) {
        std::string path = mOut + "/playengine/" + name;
        printf("  %-30s %lld bytes\n", name.c_str(), demofiles::fileSize(path));
    }
    printf("play engine's own report:\n%s", playEngineLog.c_str());
    printf("\nengine log     %s\n", mLog.path().c_str());
    return ok;
}

std::vector<std::string> DemoRun::playEngineArguments() const {
    // The play engine binds its own socket under $TMPDIR and finds the engine's through
    // TAVO_ANDROID_ROOT, which it inherits.
    return {"--out-dir", mOut + "/playengine"};
}
