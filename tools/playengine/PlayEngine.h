// The reference play engine: keeps a connection to the engine's command socket, reads both
// sessions' shared buffers while connected, answers snapshot requests and stops on request.
//
// Threads: run() on the main thread; one SessionReader thread per mapped buffer.
#ifndef TAVO_TOOLS_PLAYENGINE_PLAY_ENGINE_H
#define TAVO_TOOLS_PLAYENGINE_PLAY_ENGINE_H

#include <signal.h>

#include <memory>

#include "EngineConnection.h"
#include "FrameBudget.h"
#include "PlayEngineOptions.h"
#include "SessionOutput.h"
#include "SessionReader.h"

class PlayEngine {
public:
    explicit PlayEngine(const PlayEngineOptions& options);
    PlayEngine(const PlayEngine&) = delete;
    PlayEngine& operator=(const PlayEngine&) = delete;

    // Runs until *stopRequested becomes non-zero (set by a signal handler), the frame budget
    // is spent, or the engine goes away without --reconnect. Returns the exit status.
    int run(const volatile sig_atomic_t* stopRequested);
    // Prints the per-session counters to standard error.
    void printStatistics() const;

private:
    bool shouldStop(const volatile sig_atomic_t* stopRequested) const;
    void handle(EngineCommand& command);
    void attachBuffer(int session, UniqueFd fd);
    void capture(int session, UniqueFd fd);
    void detachBuffers();

    PlayEngineOptions mOptions;
    FrameBudget mBudget;
    EngineConnection mConnection;
    std::unique_ptr<SessionOutput> mOutputs[2];
    std::unique_ptr<SessionReader> mReaders[2];       // while connected; each feeds mOutputs[i]
    std::unique_ptr<unsigned char[]> mSnapshotInput;  // Annex B picture for the encoder
};

#endif  // TAVO_TOOLS_PLAYENGINE_PLAY_ENGINE_H
