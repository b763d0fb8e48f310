// Test bench for the live data path inside a child process: the engine with the fake agent,
// and a play engine that maps both shared buffers and reads them by the reader contract.
#ifndef TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H
#define TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CmmbSharedBuffer.h"
#include "EngineRig.h"
#include "TavoPlayEngine.h"
#include "TestBytes.h"

using Pos = MBBMSAgent::NAL_FRAGMENT_POS_IND;

int valueOf(CmmbSharedSemaphore* sem);
// The inode of the session's region held by this process, or -1 (a replaced buffer: a new one).
long long regionInodeInThisProcess(int session);
// The descriptors of this process that refer to the region of `session` (-1: of either).
std::vector<int> regionDescriptors(int session = -1);
// Straight through the agent's callback, without allocating (unit i carries tsBase + i).
void sendNal(MBBMSAgentCallback* agentSide, int channelID, Bytes& unit,
             Pos pos = MBBMSAgent::NAL_FRAGMENT_COMPLETE, unsigned long tsBase = 0,
             unsigned long tsRelative = 0);
void sendAac(MBBMSAgentCallback* agentSide, int channelID, Bytes& frame, unsigned long tsBase = 0,
             unsigned long tsRelative = 0);
void deliverFrame(MBBMSAgentCallback* agentSide, int channelID, Bytes* units, int count,
                  unsigned long tsBase = 0);

// Whether `condition` holds within `bound`, polled while yielding.
bool holdsWithin(std::chrono::milliseconds bound, const std::function<bool()>& condition);

// Runs fn on a thread of its own, left behind if it does not end (the test has failed).
class AsyncCall {
public:
    explicit AsyncCall(std::function<void()> fn) {
        std::packaged_task<void()> task(std::move(fn));
        mDone = task.get_future();
        std::thread(std::move(task)).detach();
    }
    bool endsWithin(std::chrono::milliseconds bound) {
        return mDone.wait_for(bound) == std::future_status::ready;
    }

private:
    std::future<void> mDone;
};

// The payloads of one frame as a reader copied them (AAC frames with their ADTS header).
struct ReadFrame {
    std::vector<Bytes> nals, aacs;
};

// A play engine's view through the play-engine SDK; misbehaving ones use buffer(session).
class PlayEngineReader {
public:
    // Connects (retrying while the engine sets up its socket) and maps the "sharebuffer"
    // regions of sessions 0 and 1. Returns "" or what went wrong.
    std::string connect(const std::string& serverPath, const std::string& clientPath);
    CmmbSharedBuffer* buffer(int session) const { return tavo_pe_region(mSdk.get(), session); }
    tavo_pe* sdk() const { return mSdk.get(); }
    // Ends the connection; the mappings stay.
    void hangUp() { tavo_pe_hang_up(mSdk.get()); }
    // Waits for a frame and its lock, copies the payloads, clears both counts and gives the
    // lock back. False on a timeout or a record outside the payload.
    bool readFrame(int session, ReadFrame* frame, int timeoutMs = 20000);

private:
    struct Destroy {
        void operator()(tavo_pe* pe) const { tavo_pe_destroy(pe); }
    };
    std::unique_ptr<tavo_pe, Destroy> mSdk;
};

// The rig with the engine initialised and, unless told otherwise, the play engine connected.
class EngineDataPath : public EngineRig {
public:
    // properties: system properties set before init (name, value).
    explicit EngineDataPath(const char* logMask = "all", bool connectPlayEngine = true,
                            const Properties& properties = {});
    ~EngineDataPath() { engine().deinit(); }

    // "" when set up; else the reason.
    const std::string& setUpError() const { return mError; }
    // startTVService with an IsmaPara carrying serviceID; the agent hands out `channelID`.
    int startService(int session, int serviceID, int channelID, int freqDot = 20);

    void frameStart(int channelID, const Bytes& multiplexFrame = Bytes());
    void nal(int channelID, Bytes bytes, Pos pos, unsigned long tsBase = 0,
             unsigned long tsRelative = 0);
    void aac(int channelID, Bytes bytes, unsigned long tsBase = 0);
    void frameEnd(int channelID, bool withError = false);
    // A frame of `nals` complete units and `aacs` audio frames.
    void playFrame(int channelID, int nals, int aacs, bool withError = false,
                   const Bytes& multiplexFrame = Bytes());
    CmmbSharedBuffer* buffer(int session) { return reader.buffer(session); }

    PlayEngineReader reader;

private:
    std::string mError;
};

// Declares `bench` (from the arguments after `channel`), set up, session 0 showing service 7.
#define SERVING_BENCH(bench, channel, ...) \
    EngineDataPath bench{__VA_ARGS__};     \
    ASSERT_EQ("", bench.setUpError());     \
    ASSERT_EQ(0, bench.startService(0, 7, channel))

// Declares `bench` (from the arguments after `agentSide`), set up, and the agent's callback.
#define AGENT_BENCH(bench, agentSide, ...)                    \
    EngineDataPath bench{__VA_ARGS__};                        \
    ASSERT_EQ("", bench.setUpError());                        \
    MBBMSAgentCallback* agentSide = bench.agent().callback(); \
    ASSERT_NE(nullptr, agentSide)

#endif  // TAVO_TESTS_DATAPATH_ENGINE_DATA_PATH_H
