// The fake agent's broadcast mode, for checks of agent-contract checkers: when the
// environment variable TAVO_FAKE_AGENT_BREACH is set, the fake agent answers scans, table
// updates and requests by itself, and a started service outputs synthetic multiplex frames
// (H.264 with in-band SPS/PPS, raw AAC) on a thread of its own, committing the one breach of
// the agent contract that the variable names: a breach id of tavo_agentcheck (e.g.
// "nested-bracket"), "unended-bracket" (a frame begun and never ended, after which the output
// stops), or "none".
//
// Threads: start/stop/join on the agent's callers' threads; the frames on the output thread.
#ifndef TAVO_AGENTS_FAKE_FAKE_BROADCAST_H
#define TAVO_AGENTS_FAKE_FAKE_BROADCAST_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MBBMSAgent.h"

class FakeBroadcast {
public:
    // The breach named by TAVO_FAKE_AGENT_BREACH; "" when broadcast mode is off.
    static std::string breachFromEnvironment();

    explicit FakeBroadcast(const std::string& breach);
    ~FakeBroadcast() { join(); }
    FakeBroadcast(const FakeBroadcast&) = delete;
    FakeBroadcast& operator=(const FakeBroadcast&) = delete;

    bool commits(const char* breach) const { return mBreach == breach; }

    // Starts the output thread for channelID unless it runs; never waits for a frame.
    void start(MBBMSAgentCallback* callback, int channelID);
    // Asks the output thread to stop after its current frame; returns at once.
    void stop() { mStop.store(true); }
    // Stops and joins the output thread.
    void join();

private:
    void run(MBBMSAgentCallback* callback, int channelID);
    void emitFrame(MBBMSAgentCallback* callback, int channelID, int frame);
    void emitVideo(MBBMSAgentCallback* callback, int channelID, uint32_t time,
                   std::vector<unsigned char>* nal, MBBMSAgent::NAL_FRAGMENT_POS_IND pos);

    const std::string mBreach;
    std::atomic<bool> mStop{false};
    std::mutex mLock;
    std::thread mThread;  // guarded by mLock
};

#endif  // TAVO_AGENTS_FAKE_FAKE_BROADCAST_H
