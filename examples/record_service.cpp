// record_service: a small application of the installed engine.
//
// It runs the engine on a Linux host with the broadcast simulator as its tuner agent,
// tunes to a frequency point and waits for its control table, starts the reference play
// engine (tavo_playengine) as a child process, plays one service into it in session 0,
// records ten seconds of that service into OUTPUT_DIR/recording.3gp and stops everything.
//
//   record_service [--speed X] [OUTPUT_DIR]     (default ./record-service-out, speed 1)
//
// On the host the engine's built-in Android paths ("/system/lib/libsiano.so",
// "/data/app/cmmb.socket", "/sdcard", the property files) resolve under TAVO_ANDROID_ROOT,
// so the program first lays out such a root in OUTPUT_DIR/android-root with the simulator
// installed as the vendor library. On a handset none of this is needed: the application
// calls the engine exactly as below.
//
// The program learns from the engine itself when the play engine has connected and when it
// has let go of the session's buffer (TavoMBBMSEngineStatus.h).
#include <TavoMBBMSEngine.h>
#include <TavoMBBMSEngineStatus.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

namespace {

// The service played and recorded: service 101 on frequency point 13, time slots 1 to 4,
// modulation QPSK (the simulator's first service).
const int kFreqDot = 13;
const int kServiceID = 101;
const int kTimeSlotStart = 1, kTimeSlotCount = 4, kModulation = 1;
const double kRecordSeconds = 10.0;

// The application's side of the engine: prints events and lets the main thread wait for
// the control table of the tuned point. Called on the agent's and the command thread.
class ExampleCallback : public TavoMBBMSEngineCallback {
public:
    bool waitForTS0(int freqDot, std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, timeout, [&] { return mTS0FreqDot == freqDot; });
    }

    void onTS0Parsed(int freqDot) override {
        std::lock_guard<std::mutex> lock(mMutex);
        mTS0FreqDot = freqDot;
        mChanged.notify_all();
    }
    void onEvent(EventType type, int param) override {
        printf("  event %d (param %d)\n", static_cast<int>(type), param);
    }
    void onServiceParam(ServiceParam&) override {}
    void onCaInfo(CaInfo*, int) override {}
    void onEmergencyMessage(EmergencyMessage&) override {}
    void onESGXml(ESGType, const char*) override {}
    void onESGUpdated(bool) override {}
    void onScanFinished(bool) override {}
    void onSignalUpdated(SignalStatus&) override {}
    void onRequestUpdateSG(bool, const char*, const char*) override {}
    void onRequestInitGBA(bool) override {}
    void onRequestUpdateST(bool, const char*) override {}
    void onRequestSubscribeService(bool) override {}
    void onRequestUnsubscribeService(bool) override {}
    void onRequestInquiryAccount(bool, const char*) override {}
    void onRequestAuthorizeService(bool) override {}

private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mTS0FreqDot = -1;  // REQUIRES: mMutex held.
};

bool makeDirectories(const std::string& path) {
    for (size_t at = 1; at != std::string::npos; at = path.find('/', at + 1)) {
        mkdir(path.substr(0, at).c_str(), 0777);
    }
    struct stat st;
    return mkdir(path.c_str(), 0777) == 0 || (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode));
}

bool writeText(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text << "\n";
    return static_cast<bool>(file);
}

long long fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

// A host android root: the simulator as the vendor library, its content and speed as
// properties, and the directories the engine uses.
bool prepareAndroidRoot(const std::string& root, double speed) {
    for (const char* dir : {"/system/lib", "/data/property", "/data/app", "/sdcard"}) {
        if (!makeDirectories(root + dir))
            return false;
    }
    const std::string vendorLibrary = root + "/system/lib/libsiano.so";
    unlink(vendorLibrary.c_str());
    if (symlink(EXAMPLE_SIM_AGENT, vendorLibrary.c_str()) != 0)
        return false;
    return writeText(root + "/data/property/persist.mbbms.module.vendor", "siano") &&
           writeText(root + "/data/property/persist.tavo.sim.content", EXAMPLE_SIM_CONTENT) &&
           writeText(root + "/data/property/persist.tavo.sim.speed", std::to_string(speed));
}

// The reference play engine as a child process, writing each session's streams to `outDir`.
pid_t startPlayEngine(const std::string& outDir) {
    pid_t pid = fork();
    if (pid == 0) {
        execl(EXAMPLE_PLAY_ENGINE, "tavo_playengine", "--out-dir", outDir.c_str(),
              static_cast<char*>(nullptr));
        perror("exec " EXAMPLE_PLAY_ENGINE);
        _exit(127);
    }
    return pid;
}

int stopPlayEngine(pid_t pid) {
    kill(pid, SIGTERM);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Waits until `condition` holds, looking every 20 ms; whether it did within `timeout`.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

int fail(const char* what) {
    fprintf(stderr, "record_service: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    double speed = 1.0;
    std::string out = "record-service-out";
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--speed") == 0 && i + 1 < argc) {
            speed = atof(argv[++i]);
        } else {
            out = argv[i];
        }
    }
    if (speed < 0.1 || speed > 50)
        return fail("--speed must be between 0.1 and 50");
    if (out[0] != '/') {
        char cwd[4096];
        if (getcwd(cwd, sizeof(cwd)) == nullptr)
            return fail("no working directory");
        out = std::string(cwd) + "/" + out;
    }

    const std::string root = out + "/android-root", logFile = out + "/engine.log";
    if (!makeDirectories(out + "/playengine") || !prepareAndroidRoot(root, speed))
        return fail("cannot prepare the android root");
    setenv("TAVO_ANDROID_ROOT", root.c_str(), 1);
    setenv("TAVO_LOG_FILE", logFile.c_str(), 1);
    setenv("TAVO_LOGMASK", "ERROR,WARNING,MAIN", 1);
    unlink(logFile.c_str());

    printf("starting the engine\n");
    TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
    ExampleCallback callback;
    if (engine->init(&callback, nullptr) != 0)
        return fail("init failed (see engine.log)");

    printf("tuning to point %d\n", kFreqDot);
    if (engine->startUpdateTS0(kFreqDot) != 0 ||
        !callback.waitForTS0(kFreqDot, std::chrono::milliseconds(20000))) {
        return fail("no control table from the tuner");
    }
    engine->stopUpdateTS0();

    printf("starting the play engine\n");
    pid_t playEngine = startPlayEngine(out + "/playengine");
    // Connected means accepted and being sent the buffers, so the frames of the service
    // reach it from the start.
    if (playEngine < 0 || !waitUntil([] { return tavo_mbbms_playengine_connected() == 1; },
                                     std::chrono::milliseconds(20000))) {
        return fail("the play engine did not connect");
    }

    IsmaPara isma{};
    isma.serviceID = kServiceID;
    if (engine->startTVService(0, kFreqDot, kTimeSlotStart, kTimeSlotCount, kModulation, &isma) !=
        0)
        return fail("startTVService failed");
    char url[256] = {};
    engine->getTVServiceUrl(0, url);
    printf("playing service %d in session 0 (%s)\n", kServiceID, url);

    const std::string recording = out + "/recording.3gp";
    int fd = open(recording.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || engine->startRecording(0, fd) != 0)
        return fail("startRecording failed");
    printf("recording %.0f seconds\n", kRecordSeconds);
    std::this_thread::sleep_for(std::chrono::duration<double>(kRecordSeconds / speed));
    int stopped = engine->stopRecording(0);
    close(fd);  // the engine keeps its own duplicate until the file is complete

    engine->stopTVService(0);
    int playEngineStatus = stopPlayEngine(playEngine);
    // A play engine that ended its connection while keeping session 0's buffer locked would
    // make the engine replace that buffer before the next service; worth knowing.
    const bool left = waitUntil([] { return tavo_mbbms_playengine_connected() == 0; },
                                std::chrono::milliseconds(5000));
    const int keptBuffer = tavo_mbbms_playengine_holds_buffer(0);
    printf("play engine    %s, session 0's buffer %s\n", left ? "disconnected" : "still connected",
           keptBuffer == 0 ? "released" : "still locked");
    engine->deinit();

    const long long recorded = fileSize(recording);
    const long long played = fileSize(out + "/playengine/session0.h264");
    printf("recording      %s: %lld bytes\n", recording.c_str(), recorded);
    printf("play engine    %s/playengine/session0.h264: %lld bytes (exit %d)\n", out.c_str(),
           played, playEngineStatus);
    if (stopped != 0 || recorded <= 0 || played <= 0 || playEngineStatus != 0)
        return fail("the recording or the play engine's output is missing");
    if (!left)
        return fail("the play engine is still connected after it stopped");
    return 0;
}
