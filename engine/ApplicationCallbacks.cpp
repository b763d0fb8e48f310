#include "ApplicationCallbacks.h"

namespace {

// Application calls the current thread is inside (nested when the application calls the
// engine from a callback and that call reports to it again).
thread_local int tCallbackDepth = 0;

}  // namespace

ApplicationCallbacks::InFlight::InFlight(ApplicationCallbacks& owner)
    : mOwner(owner), mCallback(nullptr) {
    std::lock_guard<std::mutex> guard(mOwner.mLock);
    if (!mOwner.mOpen || mOwner.mCallback == nullptr)
        return;
    mCallback = mOwner.mCallback;
    ++mOwner.mInFlight;
    ++tCallbackDepth;
}

ApplicationCallbacks::InFlight::~InFlight() {
    if (mCallback == nullptr)
        return;
    --tCallbackDepth;
    std::lock_guard<std::mutex> guard(mOwner.mLock);
    if (--mOwner.mInFlight == 0)
        mOwner.mIdle.notify_all();
}

unsigned ApplicationCallbacks::open(TavoMBBMSEngineCallback* callback) {
    std::lock_guard<std::mutex> guard(mLock);
    mCallback = callback;
    mOpen = true;
    ++mGeneration;
    mIdle.notify_all();  // a close waiting for an older registration stops waiting
    return mGeneration;
}

unsigned ApplicationCallbacks::generation() {
    std::lock_guard<std::mutex> guard(mLock);
    return mGeneration;
}

void ApplicationCallbacks::close(unsigned generation) {
    std::unique_lock<std::mutex> lock(mLock);
    if (generation != mGeneration)
        return;
    mOpen = false;
    mIdle.wait(lock, [&] { return mInFlight == 0 || mGeneration != generation; });
}

bool ApplicationCallbacks::registered() {
    std::lock_guard<std::mutex> guard(mLock);
    return mOpen && mCallback != nullptr;
}

bool ApplicationCallbacks::insideCallback() {
    return tCallbackDepth > 0;
}
