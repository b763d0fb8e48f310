// The scriptable fake tuner agent used by the tests: it records every call with its
// arguments, returns what the test configures, and plays callbacks on a thread of its own.
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "FakeAgentControl.h"
#include "FakeBroadcast.h"
#include "FormatString.h"
#include "MBBMSAgent.h"

namespace {

std::mutex gGlobalsLock;
int gLoadCount = 0;
int gCreateCount = 0;
FakeAgentControl* gLastAgent = nullptr;

__attribute__((constructor)) void onLibraryLoaded() {
    std::lock_guard<std::mutex> guard(gGlobalsLock);
    ++gLoadCount;
}

// Runs queued work on one thread of the agent's own, as a vendor stack would.
class AgentThread {
public:
    AgentThread() : mThread([this] { run(); }) {}
    ~AgentThread() {
        {
            std::lock_guard<std::mutex> guard(mLock);
            mStopping = true;
        }
        mWake.notify_all();
        mThread.join();
    }

    void post(std::function<void()> work) {
        {
            std::lock_guard<std::mutex> guard(mLock);
            mQueue.push_back(std::move(work));
            ++mPosted;
        }
        mWake.notify_all();
    }

    void drain() {
        std::unique_lock<std::mutex> lock(mLock);
        long target = mPosted;
        mWake.wait(lock, [&] { return mDone >= target; });
    }

private:
    void run() {
        std::unique_lock<std::mutex> lock(mLock);
        for (;;) {
            mWake.wait(lock, [&] { return mStopping || !mQueue.empty(); });
            if (mQueue.empty())
                return;
            std::function<void()> work = std::move(mQueue.front());
            mQueue.pop_front();
            lock.unlock();
            work();
            lock.lock();
            ++mDone;
            mWake.notify_all();
        }
    }

    std::mutex mLock;
    std::condition_variable mWake;
    std::deque<std::function<void()>> mQueue;  // guarded by mLock
    long mPosted = 0;                          // guarded by mLock
    long mDone = 0;                            // guarded by mLock
    bool mStopping = false;                    // guarded by mLock
    std::thread mThread;
};

class FakeAgent : public MBBMSAgent, public FakeAgentControl {
public:
    // ---- FakeAgentControl ----
    std::vector<std::string> calls() override {
        std::lock_guard<std::mutex> guard(mLock);
        return mCalls;
    }
    void clearCalls() override {
        std::lock_guard<std::mutex> guard(mLock);
        mCalls.clear();
    }
    int countCalls(const std::string& prefix) override {
        std::lock_guard<std::mutex> guard(mLock);
        int count = 0;
        for (const std::string& call : mCalls)
            count += call.compare(0, prefix.size(), prefix) == 0;
        return count;
    }
    void setResult(const std::string& operation, int value) override {
        std::lock_guard<std::mutex> guard(mLock);
        mResults[operation] = value;
    }
    void clearResult(const std::string& operation) override {
        std::lock_guard<std::mutex> guard(mLock);
        mResults.erase(operation);
    }
    void setNextChannelID(int channelID) override {
        std::lock_guard<std::mutex> guard(mLock);
        mFixedChannelID = channelID;
        mHasFixedChannelID = true;
    }
    void setCallHook(std::function<void(const std::string&)> hook) override {
        std::lock_guard<std::mutex> guard(mLock);
        mHook = std::move(hook);
    }
    MBBMSAgentCallback* callback() override {
        std::lock_guard<std::mutex> guard(mLock);
        return mCallback;
    }
    void runOnAgentThread(std::function<void(MBBMSAgentCallback*)> fn) override {
        postToAgentThread(std::move(fn));
        mThread.drain();
    }
    void postToAgentThread(std::function<void(MBBMSAgentCallback*)> fn) override {
        mThread.post([this, fn] { fn(callback()); });
    }
    void drainAgentThread() override { mThread.drain(); }

    // ---- MBBMSAgent ----
    int init(MBBMSAgentCallback* cb, const char* dir, const char* dir2) override {
        {
            std::lock_guard<std::mutex> guard(mLock);
            mCallback = cb;
        }
        return record("init", formatString("init(%s, %s, %s)", cb != nullptr ? "callback" : "null",
                                           dir ? dir : "null", dir2 ? dir2 : "null"));
    }
    int deinit() override {
        if (mBroadcast)
            mBroadcast->join();
        return record("deinit", "deinit()");
    }
    int getModuleInfo(ModuleInfo* info) override {
        if (info != nullptr) {
            for (size_t i = 0; i < sizeof(info->bytes); ++i)
                info->bytes[i] = static_cast<unsigned char>(i);
        }
        return record("getModuleInfo", "getModuleInfo()");
    }
    int preInitStep1() override { return record("preInitStep1", "preInitStep1()"); }
    int preInitStep2() override { return record("preInitStep2", "preInitStep2()"); }
    int setPreference(const Preference* pref) override {
        return record("setPreference",
                      formatString("setPreference(%s)", pref != nullptr ? pref->apn : "null"));
    }
    int startScan(int* freqDots, int count) override {
        std::string line = "startScan(";
        for (int i = 0; freqDots != nullptr && i < count; ++i)
            line += formatString("%d ", freqDots[i]);
        if (mBroadcast)
            broadcastScan(freqDots, count);
        return record("startScan", line + formatString("count=%d)", count));
    }
    int stopScan() override { return record("stopScan", "stopScan()"); }
    int setFrequency(int freqDot) override {
        {
            std::lock_guard<std::mutex> guard(mLock);
            mFrequency = freqDot;
        }
        return record("setFrequency", formatString("setFrequency(%d)", freqDot));
    }
    int getFrequency() override {
        int current;
        {
            std::lock_guard<std::mutex> guard(mLock);
            current = mFrequency;
        }
        return record("getFrequency", "getFrequency()", current);
    }
    int getMaxSupportedSessions() override {
        return record("getMaxSupportedSessions", "getMaxSupportedSessions()", 2);
    }
    int startService(int* channelID, int freqDot, int start, int count, int mod,
                     IsmaPara* isma) override {
        int result =
            record("startService",
                   formatString("startService(%d, %d, %d, %d, serviceID=%d)", freqDot, start, count,
                                mod, isma != nullptr ? isma->serviceID : -1));
        std::lock_guard<std::mutex> guard(mLock);
        if (channelID != nullptr)
            *channelID = mHasFixedChannelID ? mFixedChannelID : mNextChannelID;
        const int started = mHasFixedChannelID ? mFixedChannelID : mNextChannelID;
        if (result == 0 && !mHasFixedChannelID)
            ++mNextChannelID;
        if (result == 0 && mBroadcast)
            mBroadcast->start(mCallback, started);
        return result;
    }
    int stopService(int channelID) override {
        if (mBroadcast)
            mBroadcast->stop();
        return record("stopService", formatString("stopService(%d)", channelID));
    }
    int startUpdateTS0(int freqDot) override {
        if (mBroadcast)
            broadcastTs0(freqDot);
        return record("startUpdateTS0", formatString("startUpdateTS0(%d)", freqDot));
    }
    int stopUpdateTS0() override { return record("stopUpdateTS0", "stopUpdateTS0()"); }
    int startUpdateESG(int freqDot, int start, int count, int mod) override {
        if (mBroadcast)
            postToAgentThread([](MBBMSAgentCallback* cb) { cb->onESGUpdated(true); });
        return record("startUpdateESG",
                      formatString("startUpdateESG(%d, %d, %d, %d)", freqDot, start, count, mod));
    }
    int stopUpdateESG() override { return record("stopUpdateESG", "stopUpdateESG()"); }
    int requestInitGBA(int force) override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestInitGBA(true); });
        return record("requestInitGBA", formatString("requestInitGBA(%d)", force));
    }
    int requestUpdateSG(const char* areaName) override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestUpdateSG(true, "sg", ""); });
        return record("requestUpdateSG",
                      formatString("requestUpdateSG(%s)", areaName ? areaName : "null"));
    }
    int requestSubscribeService(const char* const* ids, int count) override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestSubscribeService(true); });
        return record("requestSubscribeService", joinIds("requestSubscribeService", ids, count));
    }
    int requestUnsubscribeService(const char* const* ids, int count) override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestUnsubscribeService(true); });
        return record("requestUnsubscribeService",
                      joinIds("requestUnsubscribeService", ids, count));
    }
    int requestAuthorizeService(int* /*list1*/, int* /*list2*/, const char** names,
                                int count) override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestAuthorizeService(true); });
        return record("requestAuthorizeService", joinIds("requestAuthorizeService", names, count));
    }
    int requestInquiryAccount() override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestInquiryAccount(true, "account"); });
        return record("requestInquiryAccount", "requestInquiryAccount()");
    }
    int requestUpdateST() override {
        complete([](MBBMSAgentCallback* cb) { cb->onRequestUpdateST(true, "st"); });
        return record("requestUpdateST", "requestUpdateST()");
    }
    int cancelMBBMSRequest(int request) override {
        return record("cancelMBBMSRequest", formatString("cancelMBBMSRequest(%d)", request));
    }

private:
    // Broadcast mode: one locked frequency point, 20, carrying service 7.
    static const int kBroadcastFreqDot = 20;

    void broadcastScan(const int* freqDots, int count) {
        std::vector<int> points(freqDots, freqDots + (freqDots != nullptr ? count : 0));
        postToAgentThread([points](MBBMSAgentCallback* cb) {
            for (int freqDot : points) {
                SignalStatus status = {freqDot, freqDot == kBroadcastFreqDot, -60, 20, 0};
                cb->onSignalUpdated(status);
            }
            cb->onScanFinished(true);
        });
    }

    void broadcastTs0(int freqDot) {
        postToAgentThread([freqDot](MBBMSAgentCallback* cb) {
            if (freqDot == kBroadcastFreqDot) {
                ServiceParam param = {kBroadcastFreqDot, 7, 1, 4, 1, 0};
                cb->onServiceParam(param);
            }
            cb->onTS0Parsed(freqDot);
        });
    }

    // Broadcast mode: a request completes on the agent thread (twice, or never, when that is
    // the breach to commit).
    void complete(std::function<void(MBBMSAgentCallback*)> completion) {
        if (!mBroadcast || mBroadcast->commits("request-never-completed"))
            return;
        postToAgentThread(completion);
        if (mBroadcast->commits("request-completed-twice"))
            postToAgentThread(completion);
    }

    // Records the call, runs the hook, and returns the configured result (or fallback).
    int record(const char* operation, const std::string& line, int fallback = 0) {
        std::function<void(const std::string&)> hook;
        int result = fallback;
        {
            std::lock_guard<std::mutex> guard(mLock);
            mCalls.push_back(line);
            auto configured = mResults.find(operation);
            if (configured != mResults.end())
                result = configured->second;
            hook = mHook;
        }
        if (hook)
            hook(operation);
        return result;
    }

    static std::string joinIds(const char* name, const char* const* ids, int count) {
        std::string line = std::string(name) + "(";
        for (int i = 0; ids != nullptr && i < count; ++i) {
            line += ids[i] != nullptr ? ids[i] : "null";
            line += " ";
        }
        return line + formatString("count=%d)", count);
    }

    std::mutex mLock;
    std::vector<std::string> mCalls;                // guarded by mLock
    std::map<std::string, int> mResults;            // guarded by mLock
    std::function<void(const std::string&)> mHook;  // guarded by mLock
    MBBMSAgentCallback* mCallback = nullptr;        // guarded by mLock
    int mFrequency = -1;                            // guarded by mLock
    int mNextChannelID = 0;                         // guarded by mLock
    int mFixedChannelID = 0;                        // guarded by mLock
    bool mHasFixedChannelID = false;                // guarded by mLock
    // Set in broadcast mode only (see FakeBroadcast); fixed at construction.
    const std::unique_ptr<FakeBroadcast> mBroadcast{
        FakeBroadcast::breachFromEnvironment().empty()
            ? nullptr
            : new FakeBroadcast(FakeBroadcast::breachFromEnvironment())};
    AgentThread mThread;  // last member: stopped first, before the state it uses
};

}  // namespace

extern "C" {

__attribute__((visibility("default"))) FakeAgentControl* fakeAgentControl() {
    std::lock_guard<std::mutex> guard(gGlobalsLock);
    return gLastAgent;
}

__attribute__((visibility("default"))) int fakeAgentLoadCount() {
    std::lock_guard<std::mutex> guard(gGlobalsLock);
    return gLoadCount;
}

__attribute__((visibility("default"))) int fakeAgentCreateCount() {
    std::lock_guard<std::mutex> guard(gGlobalsLock);
    return gCreateCount;
}

#ifndef FAKE_AGENT_WITHOUT_CREATE
__attribute__((visibility("default"))) MBBMSAgent* createAgent() {
    FakeAgent* agent = new FakeAgent();
    std::lock_guard<std::mutex> guard(gGlobalsLock);
    ++gCreateCount;
    gLastAgent = agent;
    return agent;
}
#endif

#ifndef FAKE_AGENT_WITHOUT_DESTROY
__attribute__((visibility("default"))) void destroyAgent(MBBMSAgent* agent) {
    {
        std::lock_guard<std::mutex> guard(gGlobalsLock);
        if (gLastAgent == dynamic_cast<FakeAgentControl*>(agent))
            gLastAgent = nullptr;
    }
    delete agent;
}
#endif

}  // extern "C"
