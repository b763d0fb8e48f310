#include "CheckApplication.h"

#include <algorithm>

bool CheckApplication::waitUntil(const std::function<bool()>& pred,
                                 std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, timeout, pred);
}

int CheckApplication::esgUpdates() {
    std::lock_guard<std::mutex> guard(mLock);
    return mEsgUpdates;
}

int CheckApplication::completions() {
    std::lock_guard<std::mutex> guard(mLock);
    return mCompletions;
}

std::vector<int> CheckApplication::lockedFrequencies() {
    std::lock_guard<std::mutex> guard(mLock);
    return mLocked;
}

std::vector<ServiceParam> CheckApplication::services() {
    std::lock_guard<std::mutex> guard(mLock);
    return mServices;
}

bool CheckApplication::lastCompletionDone() {
    std::lock_guard<std::mutex> guard(mLock);
    return mLastDone;
}

void CheckApplication::onServiceParam(ServiceParam& param) {
    ServiceParam copy = param;  // the record is the agent's, valid during the call only
    update([&] {
        for (const ServiceParam& known : mServices) {
            if (known.freqDot == copy.freqDot && known.serviceID == copy.serviceID)
                return;
        }
        mServices.push_back(copy);
    });
}

void CheckApplication::onTS0Parsed(int freqDot) {
    update([&] { mTs0Parsed.insert(freqDot); });
}

void CheckApplication::onESGUpdated(bool) {
    update([&] { ++mEsgUpdates; });
}

void CheckApplication::onScanFinished(bool) {
    update([&] { mScanFinished = true; });
}

void CheckApplication::onSignalUpdated(SignalStatus& status) {
    const int freqDot = status.freqDot, locked = status.locked;
    update([&] {
        if (locked && std::find(mLocked.begin(), mLocked.end(), freqDot) == mLocked.end())
            mLocked.push_back(freqDot);
    });
}

void CheckApplication::onEvent(EventType type, int) {
    update([&] {
        if (type == EVENT_CAPTURE_SUCCESS || type == EVENT_CAPTURE_FAIL)
            ++mCaptureEvents;
    });
}

void CheckApplication::completed(bool done) {
    update([&] {
        ++mCompletions;
        mLastDone = done;
    });
}
