// How many multiplex frames the play engine reads before it stops by itself (all sessions
// together, empty frames included); unlimited when constructed with 0.
//
// Threads: spend() from the session readers, exhausted() from the main thread.
#ifndef TAVO_TOOLS_PLAYENGINE_FRAME_BUDGET_H
#define TAVO_TOOLS_PLAYENGINE_FRAME_BUDGET_H

#include <atomic>

class FrameBudget {
public:
    explicit FrameBudget(long frames) : mLimited(frames > 0), mRemaining(frames) {}

    void spend() {
        if (mLimited)
            mRemaining.fetch_sub(1);
    }
    bool exhausted() const { return mLimited && mRemaining.load() <= 0; }

private:
    const bool mLimited;
    std::atomic<long> mRemaining;
};

#endif  // TAVO_TOOLS_PLAYENGINE_FRAME_BUDGET_H
