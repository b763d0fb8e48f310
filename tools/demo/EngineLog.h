// Reads the engine's log file (TAVO_LOG_FILE) to follow what happens inside the engine:
// frames handed to each session, frames the play engine did not fetch in time, frames
// recorded, and the play engine's connections. Positions are byte offsets into the file,
// so that a count can be limited to what was logged between two moments.
//
// Threading: used by the demo's main thread only.
#ifndef TAVO_DEMO_ENGINE_LOG_H
#define TAVO_DEMO_ENGINE_LOG_H

#include <chrono>
#include <string>

class EngineLog {
public:
    struct SessionFrames {
        int delivered = 0;  // frames handed to the session's buffer
        int lost = 0;       // frames the play engine had not fetched when the next one came
        int recorded = 0;   // frames passed to the session's recording
    };

    explicit EngineLog(const std::string& path) : mPath(path) {}

    const std::string& path() const { return mPath; }
    // The end of what has been logged so far.
    long long mark() const;
    // Lines containing text, logged between from and to (to < 0: up to now).
    int count(const std::string& text, long long from = 0, long long to = -1) const;
    // Waits until count(text, from) reaches n; false after timeout.
    bool waitForCount(const std::string& text, int n, long long from,
                      std::chrono::milliseconds timeout) const;
    // The frame statistics of a session between from and to. A lost frame is reported at
    // the start of the frame that replaces it, so it is counted for the session whose
    // frame end follows it; with one session per channel that is exact.
    SessionFrames sessionFrames(int session, long long from = 0, long long to = -1) const;

private:
    std::string slice(long long from, long long to) const;

    std::string mPath;
};

#endif  // TAVO_DEMO_ENGINE_LOG_H
