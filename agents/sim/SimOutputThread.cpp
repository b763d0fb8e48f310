#include "SimOutputThread.h"

namespace {

// When the receiver held the thread up for longer than this many periods, the schedule
// restarts from now instead of bursting out the backlog.
constexpr int kMaxBacklogPeriods = 4;

}  // namespace

SimOutputThread::SimOutputThread(double speed)
    : mPeriod(
          std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / speed))) {
}

SimOutputThread::~SimOutputThread() {
    stop();
}

void SimOutputThread::start(MBBMSAgentCallback* callback) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mRunning)
        return;
    mRunning = true;
    mCallback = callback;
    mThread = std::thread([this] { run(); });
}

void SimOutputThread::stop() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mRunning = false;
        for (Slot& slot : mSlots)
            slot.used = false;
    }
    mWake.notify_all();
    if (mThread.joinable())
        mThread.join();
}

bool SimOutputThread::addChannel(const SimChannel& channel) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        Slot* free = nullptr;
        for (Slot& slot : mSlots) {
            if (!slot.used) {
                free = &slot;
                break;
            }
        }
        if (free == nullptr)
            return false;
        free->used = true;
        free->channel = channel;
        free->due = Clock::now() + mPeriod;
    }
    mWake.notify_all();
    return true;
}

bool SimOutputThread::removeChannel(int channelID) {
    std::lock_guard<std::mutex> guard(mLock);
    for (Slot& slot : mSlots) {
        if (slot.used && slot.channel.channelID == channelID) {
            slot.used = false;
            return true;
        }
    }
    return false;
}

size_t SimOutputThread::channelCount() {
    std::lock_guard<std::mutex> guard(mLock);
    size_t count = 0;
    for (const Slot& slot : mSlots)
        count += slot.used ? 1 : 0;
    return count;
}

SimOutputThread::Slot* SimOutputThread::earliestLocked() {
    Slot* earliest = nullptr;
    for (Slot& slot : mSlots) {
        if (slot.used && (earliest == nullptr || slot.due < earliest->due))
            earliest = &slot;
    }
    return earliest;
}

void SimOutputThread::run() {
    std::unique_lock<std::mutex> lock(mLock);
    while (mRunning) {
        Slot* next = earliestLocked();
        if (next == nullptr) {
            mWake.wait(lock);
            continue;
        }
        const Clock::time_point due = next->due;
        if (Clock::now() < due) {
            mWake.wait_until(lock, due);
            continue;  // a channel may have come or gone meanwhile
        }

        // Emit a copy without the lock, then store its new position if the channel is
        // still there.
        SimChannel channel = next->channel;
        MBBMSAgentCallback* callback = mCallback;
        lock.unlock();
        mEmitter.emitNextSecond(callback, &channel);
        lock.lock();

        for (Slot& slot : mSlots) {
            if (!slot.used || slot.channel.channelID != channel.channelID)
                continue;
            slot.channel = channel;
            slot.due = due + mPeriod;
            Clock::time_point now = Clock::now();
            if (slot.due + kMaxBacklogPeriods * mPeriod < now)
                slot.due = now;
        }
    }
}
