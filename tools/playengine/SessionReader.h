// Reads one session's shared buffer on a thread of its own, following the reader contract:
// wait for mutexDataAvailable, take mutexDataAccessable, copy the frame, set both counts to
// 0 (the frame was fetched), release mutexDataAccessable; then hand the copy to a consumer.
//
// Threads: constructed and destroyed by the main thread; the destructor stops and joins the
// reader thread (within about 100 ms, the longest wait it makes).
#ifndef TAVO_TOOLS_PLAYENGINE_SESSION_READER_H
#define TAVO_TOOLS_PLAYENGINE_SESSION_READER_H

#include <atomic>
#include <memory>
#include <thread>

#include "FrameConsumer.h"
#include "SharedBufferMapping.h"

class SessionReader {
public:
    // Starts reading `mapping` (taken over) and feeding `consumer`, which must outlive this.
    SessionReader(std::unique_ptr<SharedBufferMapping> mapping, FrameConsumer* consumer);
    ~SessionReader();
    SessionReader(const SessionReader&) = delete;
    SessionReader& operator=(const SessionReader&) = delete;

private:
    void run();
    // Waits on a semaphore in slices so that a stop request is seen; false when stopped.
    bool waitUnlessStopped(CmmbSharedSemaphore* semaphore);
    void copyFrame(const CmmbSharedBuffer& shared);

    std::unique_ptr<SharedBufferMapping> mMapping;
    FrameConsumer* mConsumer;
    // The reader thread's private copy of the current frame, allocated once.
    std::unique_ptr<CmmbSharedBuffer> mFrame;
    std::atomic<bool> mStop;
    std::thread mThread;  // last: starts after everything above exists
};

#endif  // TAVO_TOOLS_PLAYENGINE_SESSION_READER_H
