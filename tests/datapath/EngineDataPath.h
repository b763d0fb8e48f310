// Test bench for the live data path, used inside a child process (one engine per process):
// a fresh android root, the engine initialised with the fake agent, optionally a play engine
// holding both shared buffers, and the agent's frame bracket played on the agent's thread.
#ifndef TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H
#define TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H

#include <string>

#include "FakeAgentControl.h"
#include "PlayEngineReader.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

// `count` bytes of a running pattern beginning at `seed`.
Bytes pattern(size_t count, unsigned char seed = 0);
// `count` bytes: a 3- or 4-byte start code, the NAL header byte, then a running pattern.
Bytes nalUnit(int startCodeLength, unsigned char header, size_t count, unsigned char seed = 0);
int valueOf(CmmbSharedSemaphore* sem);

class EngineDataPath {
public:
    explicit EngineDataPath(const char* logMask = "all", bool connectPlayEngine = true);
    ~EngineDataPath() { engine->deinit(); }

    // "" when the engine is initialised (and the play engine connected); else the reason.
    const std::string& setUpError() const { return mError; }

    // startTVService with an IsmaPara carrying serviceID; the agent hands out `channelID`.
    int startService(int session, int serviceID, int channelID, int freqDot = 20);

    void frameStart(int channelID, const Bytes& multiplexFrame = Bytes());
    void nal(int channelID, const Bytes& bytes, MBBMSAgent::NAL_FRAGMENT_POS_IND pos,
             unsigned long tsBase = 0, unsigned long tsRelative = 0);
    void aac(int channelID, const Bytes& bytes, unsigned long tsBase = 0);
    void frameEnd(int channelID, bool withError = false);
    // A frame of `nals` complete units and `aacs` audio frames.
    void playFrame(int channelID, int nals, int aacs, bool withError = false,
                   const Bytes& multiplexFrame = Bytes());

    CmmbSharedBuffer* buffer(int session) { return reader.buffer(session); }

    TestRoot root;
    RecordingCallback callback;
    PlayEngineReader reader;
    TavoMBBMSEngine* engine = nullptr;
    FakeAgentControl* agent = nullptr;

private:
    std::string mError;
};

#endif  // TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H
