// The one way from the engine to the application's TavoMBBMSEngineCallback.
//
// Holds the callback that init registered, counts the calls in flight, knows whether the
// calling thread is inside an application callback, and can be closed: after close() no
// call reaches the application any more, and close() itself returns only once the calls in
// flight have returned. init opens it again with the callback it is given.
//
// Each registration has a generation number. A deinit closes the generation it tore down;
// when an init on another thread has opened a newer one meanwhile, that one stays open.
//
// mLock is never held while the application runs. The thread's depth of nested application
// calls is thread-local.
#ifndef TAVO_ENGINE_APPLICATION_CALLBACKS_H
#define TAVO_ENGINE_APPLICATION_CALLBACKS_H

#include "ConditionVariable.h"
#include "Mutex.h"
#include "TavoMBBMSEngine.h"
#include "ThreadAnnotations.h"

class ApplicationCallbacks {
public:
    ApplicationCallbacks() = default;
    ApplicationCallbacks(const ApplicationCallbacks&) = delete;
    ApplicationCallbacks& operator=(const ApplicationCallbacks&) = delete;

    // Registers `callback` (null: nothing is passed on) and lets calls through. Returns the
    // new registration's generation.
    unsigned open(TavoMBBMSEngineCallback* callback) EXCLUDES(mLock);
    // The current registration's generation.
    unsigned generation() EXCLUDES(mLock);
    // When `generation` is still the current registration: refuses every later call and
    // waits until the calls in flight have returned. Never call it on a thread inside an
    // application callback (it would wait for itself).
    void close(unsigned generation) EXCLUDES(mLock);

    // Whether a callback is registered and calls are let through.
    bool registered() EXCLUDES(mLock);
    // Whether the calling thread is inside a call to the application made here.
    static bool insideCallback();

    // Calls deliver(callback) with the registered callback, unless there is none or the
    // registration is closed. No engine lock may be held by the caller.
    template <typename Deliver>
    void call(Deliver deliver) EXCLUDES(mLock) {
        InFlight inFlight(*this);
        if (inFlight.callback() != nullptr)
            deliver(*inFlight.callback());
    }

private:
    // Counts one call in flight for its lifetime (when one is let through).
    class InFlight {
    public:
        explicit InFlight(ApplicationCallbacks& owner);
        ~InFlight();
        InFlight(const InFlight&) = delete;
        InFlight& operator=(const InFlight&) = delete;
        TavoMBBMSEngineCallback* callback() const { return mCallback; }

    private:
        ApplicationCallbacks& mOwner;
        TavoMBBMSEngineCallback* mCallback;
    };

    // Innermost: taken for a few loads and stores, never while anything is called.
    Mutex mLock;
    ConditionVariable mIdle;  // signalled when mInFlight drops to 0 or a new open
    TavoMBBMSEngineCallback* mCallback GUARDED_BY(mLock) = nullptr;
    bool mOpen GUARDED_BY(mLock) = false;
    unsigned mGeneration GUARDED_BY(mLock) = 0;
    int mInFlight GUARDED_BY(mLock) = 0;
};

#endif  // TAVO_ENGINE_APPLICATION_CALLBACKS_H
