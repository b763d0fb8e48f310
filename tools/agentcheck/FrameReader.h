// A minimal play engine inside the tool: connects to the engine's socket from a path of its
// own, maps the two shared buffers the engine passes ("sharebuffer"), and fetches every
// multiplex frame the engine hands off, so that the engine runs as it does beside a real
// play engine. Snapshot requests ("capture") are answered as failed: it decodes nothing.
//
// One small class so that a play-engine SDK client can take its place.
//
// Threads: start() and the destructor on the tool's main thread; everything else on the
// reader's own thread. The counters are atomics.
#ifndef TAVO_TOOLS_AGENTCHECK_FRAME_READER_H
#define TAVO_TOOLS_AGENTCHECK_FRAME_READER_H

#include <atomic>
#include <string>
#include <thread>

#include "CmmbSharedBuffer.h"
#include "UniqueFd.h"
#include "UniqueMapping.h"

class FrameReader {
public:
    FrameReader(const std::string& enginePath, const std::string& ownPath);
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    // Connects and starts reading; false with the reason in *error.
    bool start(std::string* error);
    bool hasBuffers() const { return mBuffersMapped.load() == int{CMMB_SHARED_BUFFER_COUNT}; }
    long framesFetched(int session) const { return mFetched[session].load(); }
    long capturesAnswered() const { return mCaptures.load(); }

private:
    void run();
    void receiveCommand();
    void fetchFrame(int session);

    std::string mEnginePath, mOwnPath;
    UniqueFd mSocket;
    UniqueMapping mMappings[CMMB_SHARED_BUFFER_COUNT];  // reader thread only, once started
    std::atomic<int> mBuffersMapped{0};
    std::atomic<long> mFetched[CMMB_SHARED_BUFFER_COUNT];
    std::atomic<long> mCaptures{0};
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

#endif  // TAVO_TOOLS_AGENTCHECK_FRAME_READER_H
