// A minimal play engine for tests: connects to the engine's command socket as the real one
// does, maps the two shared buffers it is sent and reads frames by the reader contract.
#ifndef TAVO_TESTS_DATAPATH_PLAY_ENGINE_READER_H
#define TAVO_TESTS_DATAPATH_PLAY_ENGINE_READER_H

#include <string>
#include <vector>

#include "CmmbSharedBuffer.h"

using Bytes = std::vector<unsigned char>;

// The payloads of one frame as a reader copied them (AAC frames with their ADTS header).
struct ReadFrame {
    std::vector<Bytes> nals, aacs;
};

class PlayEngineReader {
public:
    PlayEngineReader() = default;
    ~PlayEngineReader();
    PlayEngineReader(const PlayEngineReader&) = delete;
    PlayEngineReader& operator=(const PlayEngineReader&) = delete;

    // Binds clientPath, connects to serverPath and maps the "sharebuffer" descriptors of
    // sessions 0 and 1. Returns "" or what went wrong.
    std::string connect(const std::string& serverPath, const std::string& clientPath);
    CmmbSharedBuffer* buffer(int session) const { return mBuffers[session]; }
    int fd(int session) const { return mFds[session]; }

    // One frame: waits (bounded) on mutexDataAvailable, then on mutexDataAccessable, copies
    // the payloads, clears both counts and posts mutexDataAccessable. False on a timeout.
    bool readFrame(int session, ReadFrame* frame, int timeoutMs = 20000);

private:
    int mSocket = -1;
    int mFds[CMMB_SHARED_BUFFER_COUNT] = {-1, -1};
    CmmbSharedBuffer* mBuffers[CMMB_SHARED_BUFFER_COUNT] = {};
};

#endif  // TAVO_TESTS_DATAPATH_PLAY_ENGINE_READER_H
