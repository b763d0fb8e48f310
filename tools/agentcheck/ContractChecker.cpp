#include "ContractChecker.h"

namespace {

const uint32_t kTicksPerSecond = 22500;
// An SPS at least this often, so that a recording can start within a few seconds.
const uint32_t kMaxParameterSetGap = 5 * kTicksPerSecond;
// A larger step between two items of one track is a jump.
const uint32_t kMaxTimeStep = 3 * kTicksPerSecond;
const unsigned kMaxFramePayload = 65534;
const unsigned kMaxFrameItems = 256;
const unsigned kAdtsHeaderLength = 7;
const unsigned kMaxAacLength = 2040;
const int kNalTypeSps = 7;
const int kNalTypePps = 8;

unsigned startCodeLength(const unsigned char* data, unsigned length) {
    if (length < 3 || data[0] != 0 || data[1] != 0)
        return 0;
    if (data[2] == 1)
        return 3;
    if (data[2] != 0 || length < 4)
        return 0;
    return data[3] == 1 ? 4 : 0;
}

double seconds(uint32_t ticks) {
    return static_cast<double>(ticks) / kTicksPerSecond;
}

}  // namespace

int& ContractChecker::droppedFramesLocked() {
    const std::thread::id self = std::this_thread::get_id();
    DroppedFrames* free = nullptr;
    for (DroppedFrames& entry : mDropped) {
        if (entry.depth > 0 && entry.thread == self)
            return entry.depth;
        if (entry.depth == 0 && free == nullptr)
            free = &entry;
    }
    if (free == nullptr)
        return mDropped[0].depth;  // more threads nesting at once than entries: share one
    free->thread = self;
    return free->depth;
}

ContractChecker::Channel* ContractChecker::channelLocked(int channelID) {
    for (Channel& channel : mChannels) {
        if (channel.used && channel.channelID == channelID)
            return &channel;
    }
    for (Channel& channel : mChannels) {
        if (!channel.used) {
            channel.used = true;
            channel.channelID = channelID;
            channel.summary.channelID = channelID;
            channel.thread = std::this_thread::get_id();
            return &channel;
        }
    }
    return nullptr;
}

void ContractChecker::checkThreadLocked(Channel* channel) {
    std::thread::id self = std::this_thread::get_id();
    if (channel->thread != self) {
        mLog->report(Breach::DATA_THREAD_CHANGED,
                     "data of channel %d came from a second thread (frame %ld)", channel->channelID,
                     channel->summary.frames);
        channel->thread = self;
    }
}

bool ContractChecker::frameStart(int channelID) {
    std::lock_guard<std::mutex> guard(mLock);
    int& dropped = droppedFramesLocked();
    if (dropped > 0 || mFrameOpen) {
        bool sameThread = dropped > 0 || mFrameThread == std::this_thread::get_id();
        mLog->report(Breach::NESTED_BRACKET,
                     "onOutputAVStart(%d) while the frame of channel %d is still open (%s)",
                     channelID, mFrameChannel, sameThread ? "same thread" : "another thread");
        ++dropped;
        return false;
    }
    Channel* channel = channelLocked(channelID);
    if (channel != nullptr) {
        checkThreadLocked(channel);
        channel->payload = channel->nalUnits = channel->aacFrames = 0;
        channel->tooLargeReported = channel->tooManyReported = false;
        channel->nalOpen = false;
        ++channel->summary.frames;
    }
    mFrameOpen = true;
    mFrameChannel = channelID;
    mFrameThread = std::this_thread::get_id();
    mFrameStarted = std::chrono::steady_clock::now();
    return true;
}

bool ContractChecker::frameEnd(int* channelID, bool withError) {
    std::lock_guard<std::mutex> guard(mLock);
    int& dropped = droppedFramesLocked();
    if (dropped > 0) {
        --dropped;
        return false;
    }
    if (!mFrameOpen || mFrameThread != std::this_thread::get_id()) {
        mLog->report(Breach::UNPAIRED_BRACKET, "onOutputAVEnd(%d) without its onOutputAVStart%s",
                     *channelID, mFrameOpen ? " on this thread" : "");
        return false;
    }
    if (*channelID != mFrameChannel) {
        mLog->report(Breach::UNPAIRED_BRACKET,
                     "onOutputAVEnd(%d) ends the frame begun by onOutputAVStart(%d)", *channelID,
                     mFrameChannel);
        *channelID = mFrameChannel;
    }
    Channel* channel = channelLocked(mFrameChannel);
    if (channel != nullptr) {
        if (channel->nalOpen) {
            mLog->report(Breach::FRAGMENT_ORDER,
                         "frame of channel %d ended with a NAL unit still open (no END fragment)",
                         channel->channelID);
        }
        channel->nalOpen = false;
        channel->summary.framesWithError += withError ? 1 : 0;
    }
    mFrameOpen = false;
    return true;
}

bool ContractChecker::dataInFrameLocked(int channelID, const char* what) {
    if (droppedFramesLocked() > 0)
        return false;
    if (!mFrameOpen || mFrameThread != std::this_thread::get_id()) {
        mLog->report(Breach::DATA_OUTSIDE_BRACKET, "%s(%d) outside a frame bracket%s", what,
                     channelID, mFrameOpen ? " (a frame is open on another thread)" : "");
        return false;
    }
    if (channelID != mFrameChannel) {
        mLog->report(Breach::DATA_OUTSIDE_BRACKET, "%s(%d) inside the frame of channel %d", what,
                     channelID, mFrameChannel);
        return false;
    }
    return true;
}

void ContractChecker::checkTimeLocked(Channel* channel, Track* track, const char* trackName,
                                      uint32_t time) {
    if (track->seen) {
        int32_t step = static_cast<int32_t>(time - track->last);
        if (step < 0) {
            mLog->report(Breach::TIME_BACKWARDS,
                         "%s time of channel %d went back %.3f s (%u after %u ticks)", trackName,
                         channel->channelID, seconds(static_cast<uint32_t>(-step)), time,
                         track->last);
        } else if (static_cast<uint32_t>(step) > kMaxTimeStep) {
            mLog->report(Breach::TIME_JUMP, "%s time of channel %d jumped %.3f s (%u after %u)",
                         trackName, channel->channelID, seconds(static_cast<uint32_t>(step)), time,
                         track->last);
        }
    }
    track->seen = true;
    track->last = time;
}

void ContractChecker::checkParameterSetsLocked(Channel* channel, int nalType, uint32_t time) {
    if (!channel->video.seen)
        channel->firstVideo = time;
    if (nalType == kNalTypePps) {
        channel->ppsSeen = true;
        ++channel->summary.parameterSets;
        return;
    }
    if (nalType == kNalTypeSps) {
        channel->spsSeen = true;
        channel->lastSps = time;
        channel->rareReported = false;
        ++channel->summary.parameterSets;
        return;
    }
    if (!channel->spsSeen) {
        uint32_t waited = time - channel->firstVideo;
        if (waited > kMaxParameterSetGap && !channel->missingReported) {
            mLog->report(Breach::PARAMETER_SETS_MISSING,
                         "channel %d: no SPS in the first %.1f s of video", channel->channelID,
                         seconds(waited));
            channel->missingReported = true;
        }
        return;
    }
    uint32_t sinceSps = time - channel->lastSps;
    if (sinceSps > kMaxParameterSetGap && !channel->rareReported) {
        mLog->report(Breach::PARAMETER_SETS_RARE,
                     "channel %d: %.1f s of video without an SPS; a recording could not start",
                     channel->channelID, seconds(sinceSps));
        channel->rareReported = true;
    }
}

void ContractChecker::addToFrameLocked(Channel* channel, unsigned bytes, bool isNal, bool isAac) {
    channel->payload += bytes;
    channel->nalUnits += isNal ? 1 : 0;
    channel->aacFrames += isAac ? 1 : 0;
    if (channel->payload > kMaxFramePayload && !channel->tooLargeReported) {
        mLog->report(Breach::FRAME_TOO_LARGE,
                     "frame %ld of channel %d carries more than %u payload bytes",
                     channel->summary.frames, channel->channelID, kMaxFramePayload);
        channel->tooLargeReported = true;
    }
    if ((channel->nalUnits > kMaxFrameItems || channel->aacFrames > kMaxFrameItems) &&
        !channel->tooManyReported) {
        mLog->report(Breach::FRAME_TOO_MANY_ITEMS,
                     "frame %ld of channel %d carries more than %u %s", channel->summary.frames,
                     channel->channelID, kMaxFrameItems,
                     channel->nalUnits > kMaxFrameItems ? "NAL units" : "AAC frames");
        channel->tooManyReported = true;
    }
}

bool ContractChecker::videoData(int channelID, uint32_t time, const unsigned char* data,
                                unsigned length, int pos) {
    std::lock_guard<std::mutex> guard(mLock);
    if (!dataInFrameLocked(channelID, "onClearVideoNalData"))
        return false;
    Channel* channel = channelLocked(channelID);
    if (channel == nullptr)
        return true;
    checkThreadLocked(channel);
    const bool begins = (pos & 2) != 0, ends = (pos & 1) != 0;
    unsigned stored = length;
    if (begins) {
        if (channel->nalOpen) {
            mLog->report(Breach::FRAGMENT_ORDER,
                         "channel %d: a NAL unit begins (pos=%d) before the open one ended",
                         channelID, pos);
        }
        unsigned startCode = startCodeLength(data, length);
        if (startCode == 0) {
            mLog->report(Breach::NAL_START_CODE,
                         "channel %d: fragment pos=%d of %u bytes has no start code", channelID,
                         pos, length);
            channel->nalOpen = false;
            return true;
        }
        stored = length - startCode;
        int nalType = stored > 0 ? data[startCode] & 0x1F : -1;
        checkParameterSetsLocked(channel, nalType, time);
        checkTimeLocked(channel, &channel->video, "video", time);
        ++channel->summary.nalUnits;
        addToFrameLocked(channel, stored, true, false);
        channel->nalOpen = !ends;
        return true;
    }
    if (!channel->nalOpen) {
        mLog->report(Breach::FRAGMENT_ORDER,
                     "channel %d: fragment pos=%d continues a NAL unit that never began", channelID,
                     pos);
        return true;
    }
    addToFrameLocked(channel, stored, false, false);
    channel->nalOpen = !ends;
    return true;
}

bool ContractChecker::audioData(int channelID, uint32_t time, const unsigned char* data,
                                unsigned length) {
    std::lock_guard<std::mutex> guard(mLock);
    if (!dataInFrameLocked(channelID, "onClearAudioAacFrame"))
        return false;
    Channel* channel = channelLocked(channelID);
    if (channel == nullptr)
        return true;
    checkThreadLocked(channel);
    if (length >= 2 && data[0] == 0xFF && (data[1] & 0xF6) == 0xF0) {
        mLog->report(Breach::AAC_ADTS_HEADER,
                     "channel %d: AAC frame begins with an ADTS header (%02x %02x)", channelID,
                     data[0], data[1]);
    }
    if (length > kMaxAacLength) {
        mLog->report(Breach::AAC_TOO_LONG,
                     "channel %d: AAC frame of %u bytes (the engine's header carries %u at most)",
                     channelID, length, kMaxAacLength);
    }
    checkTimeLocked(channel, &channel->audio, "audio", time);
    ++channel->summary.aacFrames;
    addToFrameLocked(channel, length + kAdtsHeaderLength, false, true);
    return true;
}

void ContractChecker::resultOrEvent(const char* name) {
    std::lock_guard<std::mutex> guard(mLock);
    if ((mFrameOpen && mFrameThread == std::this_thread::get_id()) || droppedFramesLocked() > 0) {
        mLog->report(Breach::CALLBACK_INSIDE_BRACKET, "%s inside the frame of channel %d", name,
                     mFrameChannel);
    }
}

void ContractChecker::event(int type) {
    const bool engineOwn =
        type == 140 || (type >= 151 && type <= 154) || type == 161 || type == 162;
    if (type < 0 || type > 255 || engineOwn) {
        mLog->report(Breach::UNKNOWN_EVENT, "onEvent(%d, ...): %s", type,
                     engineOwn ? "an event code of the engine's own" : "not an agent event code");
    }
}

void ContractChecker::requestIssued(int request) {
    std::lock_guard<std::mutex> guard(mLock);
    mPendingRequest = request;
}

void ContractChecker::requestRefused(int request) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mPendingRequest == request)
        mPendingRequest = 0;
}

void ContractChecker::requestCompleted(int request, const char* name) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mPendingRequest == 0) {
        mLog->report(Breach::REQUEST_COMPLETED_TWICE, "%s with no request in progress", name);
    } else if (mPendingRequest != request) {
        mLog->report(Breach::REQUEST_COMPLETED_TWICE, "%s while request %d is in progress", name,
                     mPendingRequest);
    }
    mPendingRequest = 0;
}

bool ContractChecker::expireOpenFrame(std::chrono::milliseconds maxAge, int* channelID) {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mFrameOpen || std::chrono::steady_clock::now() - mFrameStarted < maxAge)
        return false;
    mLog->report(Breach::UNPAIRED_BRACKET,
                 "onOutputAVStart(%d) not followed by onOutputAVEnd within %lld ms", mFrameChannel,
                 static_cast<long long>(maxAge.count()));
    mFrameOpen = false;
    *channelID = mFrameChannel;
    return true;
}

void ContractChecker::finish() {
    std::lock_guard<std::mutex> guard(mLock);
    if (mPendingRequest != 0) {
        mLog->report(Breach::REQUEST_NEVER_COMPLETED, "request %d accepted but never completed",
                     mPendingRequest);
        mPendingRequest = 0;
    }
    for (Channel& channel : mChannels) {
        if (!channel.used || !channel.video.seen || channel.missingReported)
            continue;
        if (!channel.spsSeen || !channel.ppsSeen) {
            mLog->report(Breach::PARAMETER_SETS_MISSING, "channel %d: video without %s in-band",
                         channel.channelID, channel.spsSeen ? "a PPS" : "an SPS");
            channel.missingReported = true;
        }
    }
}

std::vector<ChannelSummary> ContractChecker::channels() {
    std::lock_guard<std::mutex> guard(mLock);
    std::vector<ChannelSummary> result;
    for (const Channel& channel : mChannels) {
        if (channel.used)
            result.push_back(channel.summary);
    }
    return result;
}
