// A minimal play engine inside the tool, on the play-engine SDK: connects to the engine's
// socket from a path of its own, maps the two shared buffers the engine passes, and fetches
// every multiplex frame the engine hands off, so that the engine runs as it does beside a
// real play engine. Snapshot requests ("capture") are answered as failed: it decodes nothing.
//
// Threads: start() and the destructor on the tool's main thread; the connection and the
// frames on the reader's own thread once started. The counters are atomics.
#ifndef TAVO_TOOLS_AGENTCHECK_FRAME_READER_H
#define TAVO_TOOLS_AGENTCHECK_FRAME_READER_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "TavoPlayEngine.h"

class FrameReader {
public:
    FrameReader(const std::string& enginePath, const std::string& ownPath);
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    // Connects (binding its own path, receiving and mapping both buffers) and starts reading;
    // false with the reason in *error.
    bool start(std::string* error);
    bool hasBuffers() const { return mBuffersMapped.load(); }
    long framesFetched(int session) const { return mFetched[session].load(); }

private:
    void run();
    void answer(const tavo_pe_command& command);
    void fetchFrame(int session);

    // Destroying the play engine also removes its own socket path.
    struct PlayEngineRelease {
        void operator()(tavo_pe* playEngine) const { tavo_pe_destroy(playEngine); }
    };
    // The reader thread's once started; goes after the thread is joined.
    const std::unique_ptr<tavo_pe, PlayEngineRelease> mPlayEngine;
    std::atomic<bool> mBuffersMapped{false};
    std::atomic<long> mFetched[CMMB_SHARED_BUFFER_COUNT];
    std::atomic<bool> mStop{false};
    std::thread mThread;
};

#endif  // TAVO_TOOLS_AGENTCHECK_FRAME_READER_H
