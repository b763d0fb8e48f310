// Session and channel tables: construction, start and stop of sessions, the frequency rule,
// reference counts and the per-channel debug files. The data-path members live in
// sharedbuffer/ (NalIngestion, AacIngestion, FrameHandOff).
#define LOG_TAG "TavoMBBMSEngine"
#include "SessionManager.h"

#include <errno.h>

#include <algorithm>
#include <cstring>

#include "AndroidPaths.h"
#include "Log.h"

namespace {

void clearChannel(SessionManager::ChannelEntry& channel) {
    channel.started = 0;
    memset(&channel.startTime, 0, sizeof(channel.startTime));
    memset(&channel.lastFrameTime, 0, sizeof(channel.lastFrameTime));
    channel.mFrameCount = 0;
    channel.timeFile.reset();
    channel.mfsFile.reset();
    channel.serviceID = -1;
    channel.refCount = 0;
    channel.channelID = -1;
    memset(channel.refSession, 0, sizeof(channel.refSession));
}

FILE* openDebugFile(const char* path, const char* caller) {
    FILE* file = fopen(path, "wbe");
    if (file == nullptr)
        TLOG_FOR(caller, ERROR, "fopen %s failed", path);
    return file;
}

}  // namespace

SessionManager::SessionManager(SharedBufferSet* buffers, FrameSink* sink, MBBMSAgent* agent,
                               const char* workDir)
    : mSession(),
      mChannel(),
      mFreqDot(-1),
      mMaxSessions(0),
      mChannelCount(0),
      mBuffers(buffers),
      mSink(sink),
      mAgent(agent),
      mWorkDir{},
      mOpenFrameSlot(NO_FRAME),
      mFrameThread(std::thread::id()),
      mFrameLocked{},
      mFrameTargets{},
      mFrameTargetCount(0),
      mFrameChannelID(-1),
      mFrameTargetsValid(false) {
    snprintf(mWorkDir, sizeof(mWorkDir), "%s", workDir != nullptr ? workDir : "");
    TLOG(SESSION, "SessionManager::%s()", "SessionManager");
    // The tables hold MAX_SESSIONS entries whatever the agent claims.
    int reported = mAgent != nullptr ? mAgent->getMaxSupportedSessions() : 0;
    mMaxSessions = std::max(0, std::min(reported, static_cast<int>(MAX_SESSIONS)));
    for (SessionEntry& session : mSession) {
        session.started = false;
        session.channelIndex = -1;
    }
    for (ChannelEntry& channel : mChannel)
        clearChannel(channel);

    if (!mutexSessionChangable.initialised()) {
        TLOG(ERROR, "sem_init mutexSessionChangable failed");
    } else {
        TLOG(SEMAPHORE, "sem_init mutexSessionChangable OK");
    }
}

SessionManager::~SessionManager() {
    TLOG(SESSION, "SessionManager::%s()", "~SessionManager");
    // Running agent services are left alone: the engine shuts the agent down next.
    mAgent = nullptr;
    releaseAbandonedFrame();
    for (ChannelEntry& channel : mChannel)
        closeDebugFiles(channel);
    if (!mutexSessionChangable.destroy()) {
        TLOG(ERROR, "sem_destroy mutexSessionChangable failed");
    } else {
        TLOG(SEMAPHORE, "sem_destroy mutexSessionChangable OK");
    }
}

void SessionManager::releaseAbandonedFrame() {
    const int slot = mOpenFrameSlot.load();
    if (slot == NO_FRAME)
        return;
    TLOG(WARNING, "frame in progress on channel slot %d is abandoned, its buffers are unlocked",
         slot);
    if (slot >= 0) {
        const ChannelEntry& channel = mChannel[slot];
        for (int s = 0; s < mMaxSessions; ++s) {
            if (channel.refSession[s] == 1 && mFrameLocked[s]) {
                mFrameLocked[s] = false;
                mBuffers->unlock(s);
            }
        }
    }
    mFrameTargetsValid = false;
    mOpenFrameSlot.store(NO_FRAME);
    mFrameThread.store(std::thread::id());
    unlockSessions(__func__);
}

bool SessionManager::anySessionStarted() const {
    for (int s = 0; s < mMaxSessions; ++s) {
        if (mSession[s].started)
            return true;
    }
    return false;
}

void SessionManager::lockSessions(const char* caller) {
    TLOG_FOR(caller, SEMAPHORE, "sem_wait mutexSessionChangable ...");
    mutexSessionChangable.lock();
    TLOG_FOR(caller, SEMAPHORE, "mutexSessionChangable--");
}

void SessionManager::unlockSessions(const char* caller) {
    mutexSessionChangable.unlock();
    TLOG_FOR(caller, SEMAPHORE, "mutexSessionChangable++");
}

bool SessionManager::beginExclusive() {
    if (mFrameThread.load() == std::this_thread::get_id())
        return false;
    lockSessions(__func__);
    return true;
}

void SessionManager::endExclusive(bool taken) {
    if (taken)
        unlockSessions(__func__);
}

int SessionManager::start(int session, int freqDot, int start, int count, int mod, IsmaPara* isma) {
    TLOG(SESSION, "SessionManager::%s()", "start");
    if (session < 0 || session >= mMaxSessions) {
        TLOG(ERROR, "Wrong mSessionID=%d", session);
        return -1;
    }

    // Frequency rule: every running channel works on one frequency point. Read before the
    // semaphore is taken, as the started flags only change under it on application threads.
    if (freqDot == -1) {
        TLOG(ERROR, "SessionManager::start(): working on freq=%d, can't switch to freq=%d",
             mFreqDot, freqDot);
        return -1;
    }
    mFreqDot = mAgent->getFrequency();
    if (mFreqDot != -1 && mFreqDot != freqDot && anySessionStarted()) {
        TLOG(ERROR, "SessionManager::start(): working on freq=%d, can't switch to freq=%d",
             mFreqDot, freqDot);
        return -1;
    }

    lockSessions(__func__);
    if (mSession[session].started) {
        TLOG(WARNING, "session(%d) already started", session);
        unlockSessions(__func__);
        return -1;
    }

    // A service that already runs is shared: attach to its channel without asking the agent.
    const int serviceID = isma != nullptr ? static_cast<int>(isma->serviceID) : -1;
    for (int c = 0; c < mChannelCount; ++c) {
        if (mChannel[c].started != 0 && mChannel[c].serviceID == serviceID) {
            attachSessionToChannel(session, c);
            unlockSessions(__func__);
            return 0;
        }
    }

    int slot = -1;
    for (int c = 0; c < mChannelCount; ++c) {
        if (mChannel[c].started == 0) {
            slot = c;
            break;
        }
    }
    if (slot == -1) {
        if (mChannelCount >= MAX_CHANNELS) {
            TLOG(ERROR, "Can't open new channel");
            unlockSessions(__func__);
            return -1;
        }
        slot = mChannelCount++;
    }

    int channelID = -1;
    if (mAgent->startService(&channelID, freqDot, start, count, mod, isma) != 0 || channelID < 0) {
        // The slot stays free; an appended slot stays counted and is reused later.
        dumpChannels();
        unlockSessions(__func__);
        return -1;
    }
    ChannelEntry& channel = mChannel[slot];
    mFreqDot = freqDot;
    channel.started = 1;
    channel.channelID = channelID;
    channel.refCount = 0;
    channel.serviceID = serviceID;
    openDebugFiles(channel, __func__);

    attachSessionToChannel(session, slot);
    unlockSessions(__func__);
    return 0;
}

int SessionManager::stop(int session) {
    TLOG(SESSION, "SessionManager::%s()", "stop");
    if (session < 0 || session >= mMaxSessions) {
        TLOG(ERROR, "Wrong mSessionID=%d", session);
        return -1;
    }

    lockSessions(__func__);
    if (!mSession[session].started) {
        TLOG(WARNING, "session(%d) not started yet", session);
        unlockSessions(__func__);
        return -1;
    }
    const int c = mSession[session].channelIndex;
    if (c < 0 || c >= mChannelCount || mChannel[c].started == 0 || mChannel[c].refCount <= 0) {
        TLOG(ERROR, "for sessionIndex=%d, channelIndex=%d", session, c);
        unlockSessions(__func__);
        return -1;
    }

    ChannelEntry& channel = mChannel[c];
    if (channel.refCount == 1) {
        // The last session of the channel: the agent's service stops with it.
        if (mAgent->stopService(channel.channelID) != 0) {
            TLOG(ERROR, "stopService %d failed", session);
            unlockSessions(__func__);
            return -1;
        }
        channel.started = 0;
        closeDebugFiles(channel);
        channel.serviceID = -1;
        channel.channelID = -1;
    }

    deattachSessionfromChannel(session, c);
    unlockSessions(__func__);
    return 0;
}

void SessionManager::attachSessionToChannel(int session, int channelIndex) {
    TLOG(SESSION, "SessionManager::%s(sessionIndex=%d, channelIndex=%d)", "attachSessionToChannel",
         session, channelIndex);
    mSession[session].started = true;
    mSession[session].channelIndex = channelIndex;
    mChannel[channelIndex].refCount += 1;
    mChannel[channelIndex].refSession[session] = 1;
    dumpChannels();
}

void SessionManager::deattachSessionfromChannel(int session, int channelIndex) {
    TLOG(SESSION, "SessionManager::%s(sessionIndex=%d, channelIndex=%d)",
         "deattachSessionfromChannel", session, channelIndex);
    mSession[session].channelIndex = -1;
    mSession[session].started = false;
    mChannel[channelIndex].refCount -= 1;
    mChannel[channelIndex].refSession[session] = 0;
    dumpChannels();
}

void SessionManager::dumpChannels() {
    if (!TLOG_ENABLED(SESSION))
        return;
    for (int c = 0; c < mChannelCount; ++c) {
        const ChannelEntry& channel = mChannel[c];
        char text[256];
        int used = snprintf(
            text, sizeof(text), "started=%d, serviceID=%d, refCount=%d, channelID=%d, refSession{",
            channel.started, channel.serviceID, channel.refCount, channel.channelID);
        for (int s = 0; s < mMaxSessions; ++s) {
            if (channel.refSession[s] == 1) {
                used += snprintf(text + used, sizeof(text) - static_cast<size_t>(used), "%d ", s);
            }
        }
        snprintf(text + used, sizeof(text) - static_cast<size_t>(used), "}\n");
        TLOG(SESSION, "mChannel[%d]: %s", c, text);
    }
}

int SessionManager::dataSlot(const char* caller, int channelID) {
    const int c = channelIDToIndex(channelID);
    if (c < 0)
        TLOG_FOR(caller, WARNING, "channelIDToIndex(%ld)=%d", static_cast<long>(channelID), -1);
    return c;
}

int SessionManager::channelIDToIndex(int channelID) {
    // Free slots hold -1, which no running channel has: start() refuses negative identifiers.
    for (int c = 0; c < mChannelCount; ++c) {
        if (mChannel[c].channelID == channelID)
            return c;
    }
    return -1;
}

void SessionManager::openDebugFiles(ChannelEntry& channel, const char* caller) {
    char path[512];
    if (TLOG_ENABLED(STATISTICS)) {
        gettimeofday(&channel.startTime, nullptr);
        channel.mFrameCount = 0;
        snprintf(path, sizeof(path), "%s/%d.time", mWorkDir, channel.serviceID);
        channel.timeFile.reset(openDebugFile(path, caller));
    }
    if (TLOG_ENABLED(DATA_MFS)) {
        char sdcard[448];
        if (resolveAndroidPath("/sdcard/", sdcard, sizeof(sdcard)) != 0) {
            TLOG_FOR(caller, ERROR, "fopen %s failed", "/sdcard/");
        } else {
            snprintf(path, sizeof(path), "%s/%d.mfs", sdcard, channel.serviceID);
            channel.mfsFile.reset(openDebugFile(path, caller));
        }
    }
}

void SessionManager::closeDebugFiles(ChannelEntry& channel) {
    if (TLOG_ENABLED(STATISTICS)) {
        memset(&channel.startTime, 0, sizeof(channel.startTime));
        memset(&channel.lastFrameTime, 0, sizeof(channel.lastFrameTime));
        channel.mFrameCount = 0;
    }
    // A file opened while its category was on is closed even if the switch has been turned
    // off since, so that no stream outlives its channel.
    channel.timeFile.reset();
    channel.mfsFile.reset();
}
