// Recording through the engine of the current (child) process: the fake agent plays the
// clips as multiplex frames into a running TV service on channel 5.
#ifndef TAVO_TESTS_RECORDING_RECORDING_RIG_H
#define TAVO_TESTS_RECORDING_RECORDING_RIG_H

#include <string>

#include "FakeAgentControl.h"
#include "RecordingCallback.h"
#include "RecordingMedia.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

class RecordingRig {
public:
    // Creates the engine (the first getInstance of the process) with the given log switches.
    explicit RecordingRig(const char* logMask = "ERROR,WARNING,MAIN,ENGINE,RECORD");

    TavoMBBMSEngine& engine() { return *mEngine; }
    RecordingCallback& app() { return mApp; }
    const TestRoot& root() const { return mRoot; }
    FakeAgentControl& agent();

    // init, then the TV service on session 0 (and on session 1, same channel).
    void startService(bool bothSessions = false);
    // Plays one frame on the agent's thread and waits for it; playHere plays it on the
    // calling thread. NAL units longer than 1,000 bytes are delivered in fragments.
    void play(const MultiplexFrame& frame);
    void playHere(const MultiplexFrame& frame);

    // A truncated file under the test root, open for reading and writing; the caller closes it.
    int createOutput(const std::string& name) const;
    std::string outputPath(const std::string& name) const { return mRoot.path() + "/" + name; }

    static const int kChannel = 5;

private:
    TestRoot mRoot;
    RecordingCallback mApp;
    TavoMBBMSEngine* mEngine;
};

#endif  // TAVO_TESTS_RECORDING_RECORDING_RIG_H
