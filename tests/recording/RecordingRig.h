// Recording through the engine of the current (child) process: the fake agent plays real
// H.264 and AAC as multiplex frames into a running TV service, and the recorded files are
// examined with ffprobe.
#ifndef TAVO_TESTS_RECORDING_RECORDING_RIG_H
#define TAVO_TESTS_RECORDING_RECORDING_RIG_H

#include <string>
#include <vector>

#include "ClipFeed.h"
#include "FakeAgentControl.h"
#include "RecordedFile.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

class RecordingRig {
public:
    // Creates the engine (the first getInstance of the process) with the given log switches.
    // With sdcardBytes > 0, "/sdcard" is first made a tmpfs of that size, private to this
    // process (before the engine starts any thread, which mounting requires).
    explicit RecordingRig(const char* logMask = "ERROR,WARNING,MAIN,ENGINE,RECORD",
                          long long sdcardBytes = 0);
    ~RecordingRig();
    RecordingRig(const RecordingRig&) = delete;
    RecordingRig& operator=(const RecordingRig&) = delete;

    TavoMBBMSEngine& engine() { return *mEngine; }
    RecordingCallback& app() { return mApp; }
    const TestRoot& root() const { return mRoot; }
    FakeAgentControl& agent();

    // init, then starts the TV service on session 0 (and session 1 on the same channel).
    // Fails the test when the engine refuses.
    void startService(bool bothSessions = false);

    // Plays one frame on the agent's thread and waits for it. NAL units longer than 1,000
    // bytes are delivered in fragments.
    void play(const MultiplexFrame& frame);
    // Plays a frame from the calling thread (for tests that race the agent's thread).
    void playHere(const MultiplexFrame& frame);

    // Creates (truncating) a file under the test root and returns a descriptor open for
    // reading and writing; the caller closes it.
    int createOutput(const std::string& name) const;
    std::string outputPath(const std::string& name) const;

private:
    TestRoot mRoot;
    RecordingCallback mApp;
    TavoMBBMSEngine* mEngine;
    int mChannelID;
    bool mMountedSdcard;
};

// Mounts a tmpfs of `bytes` on `dir` in a new mount namespace of the calling process.
// Returns "" or the reason it failed.
std::string mountPrivateTmpfs(const std::string& dir, long long bytes);
// Whether this process may mount a tmpfs (tried in a child process).
bool canMountTmpfs(std::string* reason);

#endif  // TAVO_TESTS_RECORDING_RECORDING_RIG_H
