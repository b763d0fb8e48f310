#include "SimTaskThread.h"

SimTaskThread::~SimTaskThread() {
    stop();
}

void SimTaskThread::start() {
    std::lock_guard<std::mutex> guard(mLock);
    if (mRunning)
        return;
    mRunning = true;
    mThread = std::thread([this] { run(); });
}

void SimTaskThread::stop() {
    {
        std::lock_guard<std::mutex> guard(mLock);
        mRunning = false;
        mTasks.clear();
    }
    mWake.notify_all();
    if (mThread.joinable())
        mThread.join();
}

void SimTaskThread::post(Clock::duration delay, Task task) {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (!mRunning)
            return;
        mTasks.emplace(Clock::now() + delay, std::move(task));
    }
    mWake.notify_all();
}

void SimTaskThread::run() {
    std::unique_lock<std::mutex> lock(mLock);
    while (mRunning) {
        if (mTasks.empty()) {
            mWake.wait(lock);
            continue;
        }
        auto first = mTasks.begin();
        const Clock::time_point due = first->first;  // the node may go while we wait
        if (Clock::now() < due) {
            mWake.wait_until(lock, due);
            continue;
        }
        Task task = std::move(first->second);
        mTasks.erase(first);
        lock.unlock();
        task();
        lock.lock();
    }
}
