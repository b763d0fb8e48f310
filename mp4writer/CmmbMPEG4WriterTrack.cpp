// A track's sample bookkeeping: the avcC body built from the first two H.264 buffers,
// relative time with paused intervals removed, the sample tables, the size estimate that the
// file size limit and the moov prediction use, and chunk output.
#define LOG_TAG "CmmbMPEG4Recorder"

#include <strings.h>

#include <algorithm>

#include "CmmbMPEG4Writer.h"
#include "Log.h"
#include "MediaTicks.h"

namespace {

const int kNalTypeSps = 7;
const int kNalTypePps = 8;

bool isMime(const char* mime, const char* expected) {
    return strcasecmp(mime, expected) == 0;
}

}  // namespace

CmmbMPEG4Writer::Track::Track(CmmbMPEG4Writer* owner, CmmbMediaSource* source)
    : mWriter(owner),
      mSource(source),
      mDone(false),
      mPaused(false),
      mResumed(false),
      mReachedEOS(false),
      mIsAvc(isMime(source->mime, "video/avc")),
      mIsAudio(strncasecmp(source->mime, "audio/", 6) == 0),
      mIsMpeg4Video(isMime(source->mime, "video/mp4v-es")),
      mTimeScale(source->timeScale),
      mTrackDurationTicks(0),
      mEstimatedTrackSizeBytes(0),
      mEstimatedTrackHeaderSizeBytes(0),
      mMdatSizeBytes(0),
      mNumBuffers(0),
      mNumSamples(0),
      mProfileIdc(0),
      mProfileCompatibility(0),
      mLevelIdc(0),
      mStartTimestampTicks(0),
      mLastInputTick(0),
      mLastTimestampTicks(0),
      lastDurationUs(0),
      mCurrDurationMedia(0),
      mLastDurationMedia(0),
      mSttsRunLength(1),
      mChunkStartTicks(0),
      mNumChunks(0) {}

CmmbMPEG4Writer::Track::~Track() {
    stop();
}

int CmmbMPEG4Writer::Track::start() {
    if (!mDone && mPaused) {
        mPaused = false;
        mResumed = true;
        return 0;
    }
    mDone = false;
    mPaused = false;
    mResumed = false;
    mReachedEOS = false;
    mTrackDurationTicks = 0;
    mEstimatedTrackSizeBytes = 0;
    mEstimatedTrackHeaderSizeBytes = 0;
    mMdatSizeBytes = 0;
    mNumBuffers = 0;
    mNumSamples = 0;
    mStartTimestampTicks = 0;
    mLastInputTick = 0;
    mLastTimestampTicks = 0;
    lastDurationUs = 0;
    mCurrDurationMedia = 0;
    mLastDurationMedia = 0;
    mSttsRunLength = 1;
    mChunkStartTicks = 0;
    mNumChunks = 0;
    mCommitted = Committed();
    return 0;
}

int CmmbMPEG4Writer::Track::pause() {
    mPaused = true;
    return 0;
}

int CmmbMPEG4Writer::Track::CmmbOutWrite(_CmmbOutBuffer* buffer) {
    if (!isMime(buffer->mime, mSource->mime)) {
        return 0;  // another track's sample
    }
    // The first two H.264 buffers are the parameter sets; they are taken even while paused.
    if (mIsAvc && mNumBuffers < 2) {
        ++mNumBuffers;
        return takeParameterSet(buffer);
    }
    if (mPaused && !mResumed) {
        return 0;
    }
    ++mNumBuffers;

    const uint8_t* data = buffer->data;
    uint32_t length = buffer->length;
    if (mIsMpeg4Video && mCodecSpecificData.empty()) {
        uint32_t configLength = splitMpeg4VideoConfig(data, length);
        data += configLength;
        length -= configLength;
    }

    uint32_t storedSize = length;
    if (mIsAvc) {
        storedSize += mWriter->useNalLengthFour() ? 4 : 2;
    }
    mMdatSizeBytes += storedSize;
    updateTrackSizeEstimate();
    if (mWriter->exceedsFileSizeLimit() || mWriter->exceedsFileDurationLimit()) {
        return ERROR_LIMIT_REACHED;
    }

    int64_t relativeTicks = relativeTimeOf(buffer->timestamp);
    recordTiming(relativeTicks);
    mSampleSizes.push_back(storedSize);
    if (buffer->isSyncFrame) {
        addOneStssTableEntry(mNumSamples);
    }
    if (!outputSample(data, length, relativeTicks, buffer->isSyncFrame)) {
        return ERROR_WRITE_FAILED;
    }
    return 0;
}

int CmmbMPEG4Writer::Track::takeParameterSet(const _CmmbOutBuffer* buffer) {
    const uint8_t* data = buffer->data;
    unsigned int length = buffer->length;
    if (mNumBuffers == 1) {
        // avcC: version, profile, compatibility, level, length size, one SPS with its length.
        mCodecSpecificData.assign(length + 8, 0);
        int result = parseParamSet(data, kNalTypeSps, &length);
        if (result != 0) {
            ALOGE("AVC SPS parse error!Give up recording!");
            mCodecSpecificData.clear();
            return result;
        }
        mCodecSpecificData[0] = 1;
        mCodecSpecificData[1] = mProfileIdc;
        mCodecSpecificData[2] = mProfileCompatibility;
        mCodecSpecificData[3] = mLevelIdc;
        mCodecSpecificData[4] = mWriter->useNalLengthFour() ? 0xFF : 0xFD;
        mCodecSpecificData[5] = 0xE1;
        mCodecSpecificData[6] = static_cast<uint8_t>(length >> 8);
        mCodecSpecificData[7] = static_cast<uint8_t>(length);
        std::copy(data, data + length, mCodecSpecificData.begin() + 8);
        return 0;
    }
    // PPS: appended behind the SPS as the one picture parameter set. Without an SPS there is
    // no avcC to extend; the track header then refuses the track.
    if (mCodecSpecificData.empty()) {
        return 0;
    }
    mCodecSpecificData.push_back(0x01);
    mCodecSpecificData.push_back(static_cast<uint8_t>(length >> 8));
    mCodecSpecificData.push_back(static_cast<uint8_t>(length));
    mCodecSpecificData.insert(mCodecSpecificData.end(), data, data + length);
    return 0;
}

int CmmbMPEG4Writer::Track::parseParamSet(const unsigned char* data, int type,
                                          unsigned int* length) {
    TAVO_ASSERT(type == kNalTypeSps || type == kNalTypePps);
    if (*length == 0) {
        ALOGE("Param set is malformed, since its length is 0");
        return ERROR_INVALID;
    }
    if (*length < 4) {
        ALOGE("Seq parameter set malformed");
        return ERROR_INVALID;
    }
    mProfileIdc = data[1];
    mProfileCompatibility = data[2];
    mLevelIdc = data[3];
    return 0;
}

uint32_t CmmbMPEG4Writer::Track::splitMpeg4VideoConfig(const uint8_t* data, uint32_t length) {
    // The decoder configuration is everything before the first VOP start code 00 00 01 B6.
    uint32_t configLength = length;
    for (uint32_t k = 0; k + 3 < length; ++k) {
        if (data[k] == 0 && data[k + 1] == 0 && data[k + 2] == 1 && data[k + 3] == 0xB6) {
            configLength = k;
            break;
        }
    }
    mCodecSpecificData.assign(data, data + configLength);
    return configLength;
}

int64_t CmmbMPEG4Writer::Track::relativeTimeOf(int64_t timestamp) {
    // Only the 32 bits of the broadcast clock count: differences taken modulo 2^32 carry the
    // timeline across the clock's wrap (every 53 hours) without a step.
    const uint32_t tick = static_cast<uint32_t>(timestamp);
    const uint32_t previousTick = mLastInputTick;
    mLastInputTick = tick;
    if (mNumSamples == 0) {
        mStartTimestampTicks = timestamp;
        mResumed = false;
        return 0;
    }
    // The sample that follows a discontinuity, or a pause, follows the previous one by the
    // last sample duration, so that the file's duration stays the content's.
    const int64_t lastDuration = std::max<int64_t>(lastDurationUs, 1);
    const int64_t followOn = mLastTimestampTicks + lastDuration;
    if (mResumed) {
        mResumed = false;
        return mTrackDurationTicks + lastDurationUs;
    }
    const int64_t delta = static_cast<int32_t>(tick - previousTick);
    if (delta < 0 || delta > lastDuration + CMMB_MAX_TICK_GAP) {
        ALOGW("%s time jumps by %lld ticks: continued %lld ticks after the previous sample",
              mIsAudio ? "audio" : "video", static_cast<long long>(delta),
              static_cast<long long>(lastDuration));
        return followOn;
    }
    return mLastTimestampTicks + delta;
}

void CmmbMPEG4Writer::Track::recordTiming(int64_t relativeTicks) {
    uint32_t sampleNumber = ++mNumSamples;
    int64_t mediaTime = toMediaTime(relativeTicks);
    int64_t lastMediaTime = toMediaTime(mLastTimestampTicks);
    // The duration of sample n is known when sample n + 1 arrives; runs of equal durations
    // (in media units) become one stts entry.
    if (sampleNumber > 2) {
        mCurrDurationMedia = mediaTime - lastMediaTime;
        if (mCurrDurationMedia == mLastDurationMedia) {
            ++mSttsRunLength;
        } else {
            addOneSttsTableEntry(mSttsRunLength, lastDurationUs);
            mSttsRunLength = 1;
        }
    }
    lastDurationUs = relativeTicks - mLastTimestampTicks;
    mLastDurationMedia = mediaTime - lastMediaTime;
    mLastTimestampTicks = relativeTicks;
    if (relativeTicks > mTrackDurationTicks) {
        mTrackDurationTicks = relativeTicks;
    }
}

bool CmmbMPEG4Writer::Track::outputSample(const uint8_t* data, uint32_t length,
                                          int64_t relativeTicks, bool isSync) {
    if (mWriter->numTracks() == 1) {
        // A single track needs no interleaving: all its samples form one chunk, each sample
        // handed to the file as it comes.
        int32_t offset = mIsAvc ? mWriter->writeLengthPrefixedSampleBytes(data, length)
                                : mWriter->writeSampleBytes(data, length);
        if (!mWriter->mFile.flush()) {
            mWriter->noteOutputFailure();
            return false;
        }
        if (mChunkOffsets.empty()) {
            addChunkOffset(offset);
        }
        checkpointCommitted();
        return true;
    }

    uint8_t prefix[4];
    size_t prefixSize = mIsAvc ? mWriter->nalLengthPrefix(length, prefix) : 0;
    mChunkSamples.append(prefix, prefixSize, data, length, relativeTicks, isSync);
    uint32_t interleaveTicks = mWriter->mInterleaveDuration;
    if (interleaveTicks == 0) {
        ++mNumChunks;
        addOneStscTableEntry(mNumChunks, 1);
        return bufferChunk(relativeTicks);
    }
    if (mChunkStartTicks == 0) {
        mChunkStartTicks = relativeTicks;
    } else if (relativeTicks - mChunkStartTicks > static_cast<int64_t>(interleaveTicks)) {
        ++mNumChunks;
        uint32_t samplesInChunk = mChunkSamples.sampleCount();
        if (mNumChunks == 1 || mStscTableEntries.empty() ||
            samplesInChunk != mStscTableEntries.back().samplesPerChunk) {
            addOneStscTableEntry(mNumChunks, samplesInChunk);
        }
        mChunkStartTicks = relativeTicks;
        return bufferChunk(relativeTicks);
    }
    return true;
}

int CmmbMPEG4Writer::Track::stop() {
    if (mDone) {
        return 0;
    }
    const bool singleTrack = mWriter->numTracks() == 1;
    if (!singleTrack && !mChunkSamples.empty()) {
        ++mNumChunks;
        addOneStscTableEntry(mNumChunks, mChunkSamples.sampleCount());
        bufferChunk(mTrackDurationTicks);
    }
    // After a failed write the tables describe only the samples that reached the file.
    if (mWriter->writeError() != 0) {
        rollBackToCommitted();
    }
    if (singleTrack) {
        addOneStscTableEntry(1, mNumSamples);
    }

    int status = 0;
    if (mSampleSizes.empty() || (!mIsAudio && mStssTableEntries.empty())) {
        ALOGW("no sample written or video no sync frame!!");
        status = ERROR_NO_SAMPLES;
    }

    // The last sample lasts as long as the one before it.
    if (mNumSamples == 1) {
        lastDurationUs = 0;
    } else {
        ++mSttsRunLength;
    }
    addOneSttsTableEntry(mSttsRunLength, lastDurationUs);
    mTrackDurationTicks += lastDurationUs;

    ALOGI("encoded %d frames. - %s", static_cast<int>(mNumSamples), mIsAudio ? "audio" : "video");
    mDone = true;
    mReachedEOS = true;
    return status;
}

void CmmbMPEG4Writer::Track::addChunkOffset(long offset) {
    mChunkOffsets.push_back(static_cast<int32_t>(offset));
}

void CmmbMPEG4Writer::Track::addOneSttsTableEntry(unsigned int sampleCount, long long duration) {
    mSttsTableEntries.push_back({sampleCount, static_cast<uint32_t>(duration)});
}

void CmmbMPEG4Writer::Track::addOneStssTableEntry(unsigned int sampleNumber) {
    mStssTableEntries.push_back(static_cast<int32_t>(sampleNumber));
}

void CmmbMPEG4Writer::Track::addOneStscTableEntry(unsigned int firstChunk,
                                                  unsigned int samplesPerChunk) {
    mStscTableEntries.push_back({firstChunk, samplesPerChunk, 1});
}

void CmmbMPEG4Writer::Track::updateTrackSizeEstimate() {
    int64_t offsetBytes =
        static_cast<int64_t>(mChunkOffsets.size()) * (mWriter->use32BitFileOffset() ? 4 : 8);
    mEstimatedTrackHeaderSizeBytes = 4 * (3 * static_cast<int64_t>(mStscTableEntries.size()) +
                                          2 * static_cast<int64_t>(mSttsTableEntries.size()) +
                                          static_cast<int64_t>(mStssTableEntries.size())) +
                                     4 * static_cast<int64_t>(mNumSamples) + offsetBytes;
    mEstimatedTrackSizeBytes = mEstimatedTrackHeaderSizeBytes + mMdatSizeBytes;
}

bool CmmbMPEG4Writer::Track::bufferChunk(long long timestamp) {
    const bool written = mWriter->writeOneChunk(Chunk{this, timestamp, &mChunkSamples});
    mChunkSamples.clear();
    if (written) {
        checkpointCommitted();
    }
    return written;
}

void CmmbMPEG4Writer::Track::checkpointCommitted() {
    mCommitted.sampleSizes = mSampleSizes.size();
    mCommitted.chunkOffsets = mChunkOffsets.size();
    mCommitted.stscEntries = mStscTableEntries.size();
    mCommitted.stssEntries = mStssTableEntries.size();
    mCommitted.sttsEntries = mSttsTableEntries.size();
    mCommitted.numSamples = mNumSamples;
    mCommitted.numChunks = mNumChunks;
    mCommitted.sttsRunLength = mSttsRunLength;
    mCommitted.trackDurationTicks = mTrackDurationTicks;
    mCommitted.lastTimestampTicks = mLastTimestampTicks;
    mCommitted.lastDurationTicks = lastDurationUs;
    mCommitted.lastDurationMedia = mLastDurationMedia;
}

void CmmbMPEG4Writer::Track::rollBackToCommitted() {
    mSampleSizes.resize(mCommitted.sampleSizes);
    mChunkOffsets.resize(mCommitted.chunkOffsets);
    mStscTableEntries.resize(mCommitted.stscEntries);
    mStssTableEntries.resize(mCommitted.stssEntries);
    mSttsTableEntries.resize(mCommitted.sttsEntries);
    mNumSamples = mCommitted.numSamples;
    mNumChunks = mCommitted.numChunks;
    mSttsRunLength = mCommitted.sttsRunLength;
    mTrackDurationTicks = mCommitted.trackDurationTicks;
    mLastTimestampTicks = mCommitted.lastTimestampTicks;
    lastDurationUs = mCommitted.lastDurationTicks;
    mLastDurationMedia = mCommitted.lastDurationMedia;
    mChunkSamples.clear();
}

int64_t CmmbMPEG4Writer::Track::toMediaTime(int64_t ticks) const {
    return ticksToTimeScale(ticks, mTimeScale);
}
