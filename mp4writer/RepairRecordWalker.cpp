#include "RepairRecordWalker.h"

#include <cstring>
#include <utility>

namespace {

const size_t kMaxTracks = 8;
const uint64_t kMaxSamplesPerChunk = 1 << 20;
// A stored sample is at most one sample buffer plus a 4-byte H.264 length prefix.
const uint64_t kMaxStoredSampleSize = CMMB_SAMPLE_STORAGE_SIZE + 4;
// Each sample of a chunk record takes two varints of one byte at least.
const size_t kMinSampleFieldBytes = 2;

uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

bool parseConfig(const RepairRecordView& record, RepairConfig* config) {
    RepairRecordReader in(record.body, record.bodySize);
    uint8_t four = 0, count = 0;
    if (!in.u32(&config->movieTimeScale) || !in.u8(&four) || !in.u8(&count) || count == 0 ||
        count > kMaxTracks || config->movieTimeScale == 0 || config->movieTimeScale > 0x7FFFFFFF)
        return false;
    config->nalLengthFour = four != 0;
    config->tracks.resize(count);
    for (RepairTrackConfig& track : config->tracks) {
        uint16_t width = 0, height = 0, codecSize = 0;
        uint32_t sampleRate = 0, timeScale = 0;
        const uint8_t* codec = nullptr;
        if (!in.u8(&track.kind) || !in.u16(&width) || !in.u16(&height) || !in.u32(&sampleRate) ||
            !in.u32(&timeScale) || !in.u16(&codecSize) || !in.bytes(codecSize, &codec))
            return false;
        if ((track.kind != REPAIR_TRACK_AVC && track.kind != REPAIR_TRACK_AAC) || timeScale == 0 ||
            timeScale > 0x7FFFFFFF || sampleRate > 0x7FFFFFFF)
            return false;
        track.source = {track.kind == REPAIR_TRACK_AVC ? "video/avc" : "audio/mp4a-latm", width,
                        height, static_cast<int32_t>(sampleRate), static_cast<int32_t>(timeScale)};
        track.codecData.assign(codec, codec + codecSize);
    }
    return true;
}

}  // namespace

bool RepairConfig::describesSameTracks(const RepairConfig& other) const {
    if (tracks.size() != other.tracks.size())
        return false;
    for (size_t i = 0; i < tracks.size(); ++i) {
        if (tracks[i].kind != other.tracks[i].kind)
            return false;
    }
    return true;
}

bool RepairChunk::parse(const RepairRecordView& record, uint64_t dataStart, uint64_t fileSize,
                        size_t trackCount) {
    RepairRecordReader in(record.body, record.bodySize);
    uint8_t track = 0;
    uint64_t ticks = 0, count = 0;
    if (!in.u8(&track) || track >= trackCount || !in.varint(&ticks) || !in.varint(&count))
        return false;
    const uint64_t fileBytesLeft = dataStart < fileSize ? fileSize - dataStart : 0;
    if (count > kMaxSamplesPerChunk || count > in.remaining() / kMinSampleFieldBytes ||
        count > fileBytesLeft)
        return false;
    mSamples = in;
    mTrack = track;
    mCount = count;
    mFirstTicks = ticks;
    mDataStart = dataStart;
    mDataEnd = fileSize;  // bounds the checking pass below
    rewind();
    RepairSample sample;
    uint64_t seen = 0;
    while (next(&sample))
        ++seen;
    if (seen != count)
        return false;
    mDataEnd = mOffset;
    rewind();
    return true;
}

void RepairChunk::rewind() {
    mCursor = mSamples;
    mIndex = 0;
    mTicks = mFirstTicks;
    mOffset = mDataStart;
}

bool RepairChunk::next(RepairSample* sample) {
    if (mIndex >= mCount)
        return false;
    uint64_t sizeAndSync = 0, toNext = 0;
    if (!mCursor.varint(&sizeAndSync) || !mCursor.varint(&toNext))
        return false;
    const uint64_t size = sizeAndSync >> 1;
    if (size == 0 || size > kMaxStoredSampleSize || size > mDataEnd - mOffset)
        return false;
    sample->offset = mOffset;
    sample->size = static_cast<uint32_t>(size);
    sample->ticks = static_cast<int64_t>(mTicks & 0x7FFFFFFFFFFFFFFFull);
    sample->sync = (sizeAndSync & 1) != 0;
    mOffset += size;
    mTicks += toNext;  // wraps like the writer's unsigned tick arithmetic
    ++mIndex;
    return true;
}

RepairRecordWalker::RepairRecordWalker(RepairInput& input, uint64_t start, uint64_t end)
    : mInput(input),
      mPosition(start),
      mEnd(end < input.size() ? end : input.size()),
      mSampleBudget(input.size() / kInputBytesPerSample) {}

bool RepairRecordWalker::readRecord(RepairRecordView* record) {
    const uint64_t left = mPosition < mEnd ? mEnd - mPosition : 0;
    uint8_t header[REPAIR_RECORD_HEADER_SIZE];
    if (left < REPAIR_RECORD_HEADER_SIZE + REPAIR_RECORD_TRAILER_SIZE ||
        !mInput.read(mPosition, header, sizeof(header)) ||
        memcmp(header, kRepairRecordMagic, sizeof(kRepairRecordMagic)) != 0)
        return false;
    const uint64_t bodySize = be32(header + 4);
    if (bodySize > REPAIR_RECORD_MAX_BODY ||
        bodySize > left - REPAIR_RECORD_HEADER_SIZE - REPAIR_RECORD_TRAILER_SIZE)
        return false;
    // Type, body and CRC: the file holds these bytes, so the buffer may grow to them.
    const size_t checked = static_cast<size_t>(bodySize) + 1;
    mRecord.resize(checked + REPAIR_RECORD_TRAILER_SIZE);
    if (!mInput.read(mPosition + REPAIR_RECORD_HEADER_SIZE - 1, mRecord.data(), mRecord.size()) ||
        be32(mRecord.data() + checked) != repairRecordCrc(mRecord.data(), checked))
        return false;
    record->type = mRecord[0];
    record->body = mRecord.data() + 1;
    record->bodySize = static_cast<size_t>(bodySize);
    record->end = static_cast<size_t>(mPosition + REPAIR_RECORD_HEADER_SIZE + bodySize +
                                      REPAIR_RECORD_TRAILER_SIZE);
    return true;
}

RepairRecordWalker::Step RepairRecordWalker::next() {
    RepairRecordView record;
    if (!readRecord(&record))
        return kEnd;
    const uint64_t recordEnd =
        mPosition + REPAIR_RECORD_HEADER_SIZE + record.bodySize + REPAIR_RECORD_TRAILER_SIZE;
    if (record.type == REPAIR_RECORD_CONFIG) {
        RepairConfig config;
        if (!parseConfig(record, &config) || (hasConfig() && !config.describesSameTracks(mConfig)))
            return kEnd;
        mConfig = std::move(config);
        mPosition = recordEnd;
        return kConfig;
    }
    if (record.type != REPAIR_RECORD_CHUNK || !hasConfig() ||
        !mChunk.parse(record, recordEnd, mEnd, mConfig.tracks.size()) ||
        mChunk.sampleCount() > mSampleBudget - mSamples)
        return kEnd;
    mSamples += mChunk.sampleCount();
    mPosition = mChunk.dataEnd();
    return kChunk;
}
