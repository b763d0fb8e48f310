// The reference play engine: keeps a connection to the engine's command socket through the
// play-engine SDK, reads both sessions' shared buffers while connected, answers snapshot
// requests and stops on request.
//
// Threads: run() on the main thread, which alone uses the connection's commands; one
// SessionReader thread per session while connected.
#ifndef TAVO_TOOLS_PLAYENGINE_PLAY_ENGINE_H
#define TAVO_TOOLS_PLAYENGINE_PLAY_ENGINE_H

#include <signal.h>

#include <memory>

#include "FrameBudget.h"
#include "PlayEngineOptions.h"
#include "SessionOutput.h"
#include "SessionReader.h"
#include "TavoPlayEngine.h"

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
    // Connects and starts both readers; false when the engine is not there (yet).
    bool connect(bool* reportedWaiting);
    void handle(const tavo_pe_command& command);
    void capture(int session, UniqueFd fd);
    void detachBuffers();

    struct ConnectionDeleter {
        void operator()(tavo_pe* connection) const { tavo_pe_destroy(connection); }
    };

    PlayEngineOptions mOptions;
    FrameBudget mBudget;
    std::unique_ptr<tavo_pe, ConnectionDeleter> mConnection;
    std::unique_ptr<SessionOutput> mOutputs[2];
    std::unique_ptr<SessionReader> mReaders[2];       // while connected; each feeds mOutputs[i]
    std::unique_ptr<unsigned char[]> mSnapshotInput;  // Annex B picture for the encoder
};

#endif  // TAVO_TOOLS_PLAYENGINE_PLAY_ENGINE_H
