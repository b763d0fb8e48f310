#include "ApplicationCallbacks.h"

#include "MutexLock.h"

namespace {

// Application calls the current thread is inside (nested when the application calls the
// engine from a callback and that call reports to it again).
thread_local int tCallbackDepth = 0;

}  // namespace

ApplicationCallbacks::InFlight::InFlight(ApplicationCallbacks& owner)
    : mOwner(owner), mCallback(nullptr) {
    MutexLock guard(mOwner.mLock);
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
    MutexLock guard(mOwner.mLock);
    if (--mOwner.mInFlight == 0)
        mOwner.mIdle.notifyAll();
}

unsigned ApplicationCallbacks::open(TavoMBBMSEngineCallback* callback) {
    MutexLock guard(mLock);
    mCallback = callback;
    mOpen = true;
    ++mGeneration;
    mIdle.notifyAll();  // a close waiting for an older registration stops waiting
    return mGeneration;
}

unsigned ApplicationCallbacks::generation() {
    MutexLock guard(mLock);
    return mGeneration;
}

void ApplicationCallbacks::close(unsigned generation) {
    MutexLock guard(mLock);
    if (generation != mGeneration)
        return;
    mOpen = false;
    while (mInFlight != 0 && mGeneration == generation)
        mIdle.wait(mLock);
}

bool ApplicationCallbacks::registered() {
    MutexLock guard(mLock);
    return mOpen && mCallback != nullptr;
}

bool ApplicationCallbacks::insideCallback() {
    return tCallbackDepth > 0;
}
