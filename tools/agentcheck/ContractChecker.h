// Checks every callback a vendor agent makes against the agent contract and decides whether
// the engine may see it. Breaches go to a BreachLog.
//
// What is not forwarded: calls that would leave the engine's frame locks unbalanced (a
// nested frame start with its data and end, an end without a start, data outside its frame);
// the engine would wait for ever or write a buffer it does not hold. Everything else is
// forwarded, breach or not.
//
// Locking: all state below is guarded by mLock, taken briefly by every member; nothing is
// called with it held. The per-item members allocate nothing.
#ifndef TAVO_TOOLS_AGENTCHECK_CONTRACT_CHECKER_H
#define TAVO_TOOLS_AGENTCHECK_CONTRACT_CHECKER_H

#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "AgentCheckReport.h"
#include "BreachLog.h"

class ContractChecker {
public:
    explicit ContractChecker(BreachLog* log) : mLog(log) {}

    // Frame bracket. Each returns whether to forward the call to the engine; frameEnd may
    // change the channel forwarded to the one whose frame is open.
    bool frameStart(int channelID);
    bool frameEnd(int* channelID, bool withError);
    bool videoData(int channelID, uint32_t time, const unsigned char* data, unsigned length,
                   int pos);
    bool audioData(int channelID, uint32_t time, const unsigned char* data, unsigned length);

    // A result or event callback (always forwarded).
    void resultOrEvent(const char* name);
    void event(int type);

    // MBBMS requests, by their MBBMSRequest number.
    void requestIssued(int request);
    void requestRefused(int request);
    void requestCompleted(int request, const char* name);

    // True, with the channel in *channelID, when a frame has been open longer than maxAge:
    // it is reported and counts as ended; the caller ends it towards the engine.
    bool expireOpenFrame(std::chrono::milliseconds maxAge, int* channelID);
    void finish();
    std::vector<ChannelSummary> channels();

private:
    static const int kMaxChannels = 16;

    struct Track {
        bool seen = false;
        uint32_t last = 0;
    };

    struct Channel {
        bool used = false;
        int channelID = -1;
        std::thread::id thread;
        bool nalOpen = false;
        Track video, audio;
        bool spsSeen = false, ppsSeen = false;
        uint32_t firstVideo = 0, lastSps = 0;
        bool rareReported = false, missingReported = false;
        // This frame's totals.
        unsigned payload = 0, nalUnits = 0, aacFrames = 0;
        bool tooLargeReported = false, tooManyReported = false;
        ChannelSummary summary;
    };

    // Frames of one thread that were not forwarded (a nested start), so that their data and
    // end are not forwarded either.
    struct DroppedFrames {
        std::thread::id thread;
        int depth = 0;
    };
    static const int kMaxNestingThreads = 8;

    // REQUIRES: mLock held. The current thread's count of frames not forwarded.
    int& droppedFramesLocked();
    // REQUIRES: mLock held. The channel's state, created on first use; null when the table is
    // full.
    Channel* channelLocked(int channelID);
    // REQUIRES: mLock held. True when data of channelID may go to the engine now.
    bool dataInFrameLocked(int channelID, const char* what);
    void checkThreadLocked(Channel* channel);
    void checkTimeLocked(Channel* channel, Track* track, const char* trackName, uint32_t time);
    void checkParameterSetsLocked(Channel* channel, int nalType, uint32_t time);
    void addToFrameLocked(Channel* channel, unsigned bytes, bool isNal, bool isAac);

    BreachLog* mLog;
    std::mutex mLock;
    Channel mChannels[kMaxChannels];
    bool mFrameOpen = false;
    int mFrameChannel = -1;
    std::thread::id mFrameThread;
    std::chrono::steady_clock::time_point mFrameStarted;
    int mPendingRequest = 0;  // 0 = none
    DroppedFrames mDropped[kMaxNestingThreads];
};

#endif  // TAVO_TOOLS_AGENTCHECK_CONTRACT_CHECKER_H
