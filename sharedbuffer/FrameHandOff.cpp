// The multiplex-frame bracket: at the frame's start, lock and empty the shared buffer of
// every session attached to the channel; at its end, record statistics, feed the recording,
// unlock the buffers and signal the play engine.
//
// Agent thread only. mutexSessionChangable is taken in onOutputAVStart and released in
// onOutputAVEnd, on every path, so that the tables stay still for the whole frame; inside it
// each attached session's mutexDataAccessable is held, in ascending session order. Frames
// must therefore never overlap, not even for different channels.
//
// The wait for a session's buffer lock is bounded (SharedBufferSet::lock): a play engine
// that keeps the lock past the bound costs that session its frame, logged as lost, and the
// other sessions of the channel are still served; the next frame tries again.
#define LOG_TAG "TavoMBBMSEngine"
#include <sys/time.h>

#include "Log.h"
#include "SessionManager.h"

namespace {

// Milliseconds from `from` to `to`, truncated toward zero.
int elapsedMs(const struct timeval& from, const struct timeval& to) {
    return static_cast<int>((to.tv_sec - from.tv_sec) * 1000 + (to.tv_usec - from.tv_usec) / 1000);
}

}  // namespace

void SessionManager::onOutputAVStart(int channelID, const unsigned char* frame, int length) {
    lockSessions(__func__);  // held until onOutputAVEnd, whatever happens here
    // Frames are held off here: buffers a gone play engine left locked are replaced now,
    // before any of them is taken.
    mBuffers->onFrameStart();
    mFrameThread.store(std::this_thread::get_id());
    for (bool& locked : mFrameLocked)
        locked = false;
    mFrameTargetCount = 0;
    mFrameTargetsValid = false;
    const int c = channelIDToIndex(channelID);
    mOpenFrameSlot = c;
    if (c < 0) {
        TLOG(WARNING, "channelIDToIndex(%ld)=%d", static_cast<long>(channelID), -1);
        return;
    }
    ChannelEntry& channel = mChannel[c];
    for (int s = 0; s < mMaxSessions; ++s) {
        if (channel.refSession[s] != 1)
            continue;
        if (TLOG_ENABLED(DATA_MFS) && channel.mfsFile && frame != nullptr && length > 0) {
            fwrite(frame, 1, static_cast<size_t>(length), channel.mfsFile.get());  // errors ignored
        }
        CmmbSharedBuffer* buffer = mBuffers->buffer(s);
        if (buffer == nullptr)
            continue;  // only sessions 0 and 1 have a buffer

        TLOG(SEMAPHORE, "sem_wait mutexDataAccessable(session=%d)...", s);
        if (!mBuffers->lock(s)) {  // held until onOutputAVEnd
            TLOG(WARNING,
                 "A/V DATA LOST(session=%d) due to playengine holds the buffer longer than %d ms",
                 s, mBuffers->lockTimeoutMs());
            continue;
        }
        mFrameLocked[s] = true;
        TLOG(SEMAPHORE, "mutexDataAccessable--");
        // The reader's answer: both counts 0 when it fetched the previous frame. Each is read
        // once; nothing else of the region is read back.
        const uint32_t nalLeft = readFromRegion(buffer->nalCount);
        const uint32_t aacLeft = readFromRegion(buffer->aacCount);
        if (nalLeft != 0 || aacLeft != 0) {
            TLOG(WARNING,
                 "A/V DATA LOST(nalCount=%d, aacCount=%d) due to playengine doesn't fetch them "
                 "in time",
                 static_cast<int>(nalLeft), static_cast<int>(aacLeft));
        }
        BufferWriteState& state = mWriteState[s];
        state.clear();
        state.publishCounts(buffer);
        for (CmmbNalRecord& record : buffer->nal)
            record.pos = CMMB_NAL_POS_NONE_OPEN;
        mFrameTargets[mFrameTargetCount++] = FrameTarget{buffer, &state, s};
    }
    mFrameChannelID = channelID;
    mFrameTargetsValid = true;
}

void SessionManager::onOutputAVEnd(int channelID, bool withError) {
    if (mOpenFrameSlot.load() == NO_FRAME) {
        // Not this manager's bracket (for example one begun before a deinit): releasing the
        // session lock here would let two frames or sessions changes in at once.
        TLOG(WARNING, "frame end without frame start, channelID=%d, ignored", channelID);
        return;
    }
    const int c = channelIDToIndex(channelID);
    if (c < 0) {
        TLOG(WARNING, "ChannelIDToIndex(%ld)=%d", static_cast<long>(channelID), -1);
        mFrameTargetsValid = false;
        mOpenFrameSlot = NO_FRAME;
        mFrameThread.store(std::thread::id());
        unlockSessions(__func__);
        return;
    }
    mFrameTargetsValid = false;
    ChannelEntry& channel = mChannel[c];
    for (int s = 0; s < mMaxSessions; ++s) {
        if (channel.refSession[s] != 1 || !mFrameLocked[s])
            continue;  // not attached, or its frame was lost at the start
        CmmbSharedBuffer* buffer = mBuffers->buffer(s);
        BufferWriteState& state = mWriteState[s];

        if (withError) {
            // The payload bytes stay but are no longer referenced: an empty frame is handed on.
            state.nalCount = 0;
            state.aacCount = 0;
            TLOG(WARNING, "after demux, withError = true, DROP this MFS frame");
        }
        // The frame is handed on (and recorded) with the engine's own counts, whatever a
        // reader wrote into the region meanwhile; a reader keeping to its contract wrote
        // nothing and sees the same values.
        state.publishCounts(buffer);
        const int nalCount = static_cast<int>(state.nalCount);
        const int aacCount = static_cast<int>(state.aacCount);
        if (aacCount != 0) {
            TLOG(MAIN, "session=%d, channelID=%d, nalCount=%d, aacCount=%d, baseTime=%lu", s,
                 channelID, nalCount, aacCount, static_cast<unsigned long>(state.firstAacTsBase));
        } else {
            TLOG(MAIN, "session=%d, channelID=%d, nalCount=%d, aacCount=%d", s, channelID, nalCount,
                 aacCount);
        }

        if (TLOG_ENABLED(STATISTICS)) {
            channel.mFrameCount += 1;
            struct timeval now;
            gettimeofday(&now, nullptr);
            const struct timeval& reference =
                channel.mFrameCount == 1 ? channel.startTime : channel.lastFrameTime;
            const int delta = elapsedMs(reference, now);
            TLOG(STATISTICS, "mFrameCount=%d, %lu:%lu, delta=%lu ms", channel.mFrameCount,
                 static_cast<unsigned long>(now.tv_sec), static_cast<unsigned long>(now.tv_usec),
                 static_cast<unsigned long>(delta));
            if (channel.timeFile) {
                fprintf(channel.timeFile.get(), "%d, %lu, %d, %d\n", channel.mFrameCount,
                        static_cast<unsigned long>(delta), nalCount, aacCount);
            }
            channel.lastFrameTime = now;
        }

        // The recording copies the frame while the buffer is still locked.
        mSink->onSessionFrameEnd(s);

        mFrameLocked[s] = false;
        mBuffers->unlockAnnouncingFrame(s);
        TLOG(SEMAPHORE, "mutexDataAccessable(session=%d)++", s);
        TLOG(SEMAPHORE, "mutexDataAvailable(session=%d)++", s);
    }
    mOpenFrameSlot = NO_FRAME;
    mFrameThread.store(std::thread::id());
    unlockSessions(__func__);
}
