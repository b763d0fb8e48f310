// The agent's control thread: runs delayed tasks (scan steps, table reports, request
// completions, emergency broadcasts) one at a time, in order of their due time. Tasks run
// without the queue's lock held, so a task may post further tasks.
//
// Threading: post, start and stop from any thread except stop from a task.
#ifndef TAVO_SIM_TASK_THREAD_H
#define TAVO_SIM_TASK_THREAD_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

class SimTaskThread {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    SimTaskThread() = default;
    ~SimTaskThread();
    SimTaskThread(const SimTaskThread&) = delete;
    SimTaskThread& operator=(const SimTaskThread&) = delete;

    void start();
    // Drops the tasks not yet run, lets a running one finish and joins the thread.
    void stop();
    // Runs task after delay. Ignored while the thread is stopped.
    void post(Clock::duration delay, Task task);

private:
    void run();

    // Guarded by mLock.
    std::mutex mLock;
    std::condition_variable mWake;
    std::multimap<Clock::time_point, Task> mTasks;
    bool mRunning = false;

    std::thread mThread;
};

#endif  // TAVO_SIM_TASK_THREAD_H
