// Delivers the multiplex frames of every running channel from one thread, so that the
// frame brackets of different channels never overlap. Each channel outputs one second of
// content per period; the period is one second divided by the speed.
//
// Threading: addChannel, removeChannel, start and stop may be called from any thread.
// Frames are emitted on the output thread with no lock held: the engine calls the
// agent's startService and stopService while holding the semaphore that a frame start
// waits for, so holding mLock across a callback could deadlock. A channel removed while
// its frame is in flight finishes that frame; the receiver then no longer knows the
// channel and drops it.
#ifndef TAVO_SIM_OUTPUT_THREAD_H
#define TAVO_SIM_OUTPUT_THREAD_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

#include "MultiplexFrameEmitter.h"
#include "SimChannel.h"

class SimOutputThread {
public:
    static constexpr size_t kMaxChannels = 2;

    explicit SimOutputThread(double speed);
    ~SimOutputThread();
    SimOutputThread(const SimOutputThread&) = delete;
    SimOutputThread& operator=(const SimOutputThread&) = delete;

    // Starts the thread; frames go to callback. Channels are kept across stop and start.
    void start(MBBMSAgentCallback* callback);
    // Stops and joins the thread and forgets every channel.
    void stop();

    // The channel's first frame follows one period later. False when the table is full.
    bool addChannel(const SimChannel& channel);
    // False when no running channel has that identifier.
    bool removeChannel(int channelID);
    size_t channelCount();

private:
    using Clock = std::chrono::steady_clock;

    struct Slot {
        bool used = false;
        SimChannel channel;
        Clock::time_point due;
    };

    void run();
    // REQUIRES: mLock held. The used slot due first, or nullptr.
    Slot* earliestLocked();

    const Clock::duration mPeriod;

    // Guarded by mLock.
    std::mutex mLock;
    std::condition_variable mWake;
    Slot mSlots[kMaxChannels];
    bool mRunning = false;
    MBBMSAgentCallback* mCallback = nullptr;

    std::thread mThread;             // owned by whoever calls start/stop
    MultiplexFrameEmitter mEmitter;  // output thread only
};

#endif  // TAVO_SIM_OUTPUT_THREAD_H
