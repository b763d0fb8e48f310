// Test bench for the live data path, used inside a child process (one engine per process):
// a fresh android root, the engine initialised with the fake agent, optionally a play-engine
// connection that holds both shared buffers, and helpers that play the agent's frame
// bracket on the agent's own thread.
#ifndef TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H
#define TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H

#include <string>
#include <vector>

#include "FakeAgentControl.h"
#include "PlayEngineReader.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

using Bytes = std::vector<unsigned char>;

// `count` bytes: the start code (3 or 4 bytes, or none for 0), then the NAL header byte,
// then a running pattern beginning at `seed`.
Bytes nalUnit(int startCodeLength, unsigned char header, size_t count, unsigned char seed = 0);
// `count` bytes of a running pattern beginning at `seed`.
Bytes pattern(size_t count, unsigned char seed = 0);

class EngineDataPath {
public:
    struct Options {
        const char* logMask = "all";  // TAVO_LOGMASK for the engine
        bool connectPlayEngine = true;
    };
    EngineDataPath() : EngineDataPath(Options()) {}
    explicit EngineDataPath(const Options& options);
    ~EngineDataPath();

    // "" when the engine is initialised (and the play engine connected); else the reason.
    const std::string& setUpError() const { return mError; }

    // startTVService with an IsmaPara carrying serviceID; the agent hands out `channelID`.
    int startService(int session, int serviceID, int channelID, int freqDot = 20);

    // The agent's frame bracket and items, each played on the agent's thread.
    void frameStart(int channelID, const Bytes& multiplexFrame = Bytes());
    void nal(int channelID, const Bytes& bytes, MBBMSAgent::NAL_FRAGMENT_POS_IND pos,
             unsigned long tsBase = 0, unsigned long tsRelative = 0);
    void aac(int channelID, const Bytes& bytes, unsigned long tsBase = 0,
             unsigned long tsRelative = 0);
    void frameEnd(int channelID, bool withError = false);

    // The session's buffer as the connected play engine maps it.
    CmmbSharedBuffer* buffer(int session) { return reader.buffer(session).get(); }
    // Current value of a semaphore in a buffer.
    static int valueOf(CmmbSharedSemaphore* sem);

    TestRoot root;
    RecordingCallback callback;
    PlayEngineReader reader;
    TavoMBBMSEngine* engine = nullptr;
    FakeAgentControl* agent = nullptr;

private:
    std::string mError;
};

#endif  // TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H
