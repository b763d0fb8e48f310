// Reads one session's shared buffer on a thread of its own through the play-engine SDK:
// waits for a frame (mutexDataAvailable, then mutexDataAccessable), copies its checked
// records, releases it (both counts 0, lock posted); then hands the copy to a consumer.
//
// Threads: constructed and destroyed by the main thread; the destructor stops and joins the
// reader thread (within about 100 ms, the longest wait it makes). The connection's regions
// must stay mapped while a reader exists.
#ifndef TAVO_TOOLS_PLAYENGINE_SESSION_READER_H
#define TAVO_TOOLS_PLAYENGINE_SESSION_READER_H

#include <atomic>
#include <memory>
#include <thread>

#include "FrameConsumer.h"
#include "TavoPlayEngine.h"

class SessionReader {
public:
    // Starts reading `session` of `connection` and feeding `consumer`; both must outlive this.
    SessionReader(tavo_pe* connection, int session, FrameConsumer* consumer);
    ~SessionReader();
    SessionReader(const SessionReader&) = delete;
    SessionReader& operator=(const SessionReader&) = delete;

private:
    void run();
    // Copies the frame's valid records and their items; returns the records left out.
    uint32_t copyFrame(const tavo_pe_frame& shared);

    tavo_pe* mConnection;
    const int mSession;
    FrameConsumer* mConsumer;
    // The reader thread's private copy of the current frame, allocated once.
    std::unique_ptr<CmmbSharedBuffer> mFrame;
    std::atomic<bool> mStop;
    std::thread mThread;  // last: starts after everything above exists
};

#endif  // TAVO_TOOLS_PLAYENGINE_SESSION_READER_H
