// Walks the repair records of a recording (RepairRecord.h) from the start of its mdat, one
// record at a time, reading through RepairInput. Every length and count is checked against
// the bytes that back it before anything is sized from it:
//   - a record's body must lie within the file (and within REPAIR_RECORD_MAX_BODY), and its
//     CRC must match; only then is the reusable body buffer grown to hold it;
//   - a chunk's sample count must fit the varints left in its body (two bytes at least per
//     sample) and the file bytes after the record (one byte at least per sample);
//   - every sample has a size from 1 to the largest stored sample, and together they end
//     within the file;
//   - the samples of all chunks stay within a budget of one per kInputBytesPerSample bytes
//     of the file, which bounds the copy's index and the writer's open chunks by the size of
//     the input, whatever the records claim.
// A later configuration must describe the same tracks as the first (it may change their
// codec data). The walk ends at the first record that is absent, damaged or inconsistent.
#ifndef TAVO_MP4WRITER_REPAIR_RECORD_WALKER_H
#define TAVO_MP4WRITER_REPAIR_RECORD_WALKER_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "CmmbMediaTypes.h"
#include "RepairInput.h"
#include "RepairRecord.h"

// One track as a configuration record describes it.
struct RepairTrackConfig {
    uint8_t kind = 0;  // REPAIR_TRACK_AVC or REPAIR_TRACK_AAC
    CmmbMediaSource source = {};
    std::vector<uint8_t> codecData;  // the avcC body for H.264
};

// The contents of a configuration record.
struct RepairConfig {
    uint32_t movieTimeScale = 0;
    bool nalLengthFour = true;
    std::vector<RepairTrackConfig> tracks;

    // Same number of tracks, of the same kinds in the same order.
    bool describesSameTracks(const RepairConfig& other) const;
};

// One sample of a chunk record.
struct RepairSample {
    uint64_t offset;  // in the file
    uint32_t size;    // bytes in the file, H.264 length prefix included
    int64_t ticks;    // input ticks
    bool sync;
};

// The samples of one chunk record, checked as a whole by parse() and then handed out one
// by one. Points into the walker's body buffer: valid until the walker reads the next record.
class RepairChunk {
public:
    // False when the record is malformed or its samples do not all lie within the file.
    bool parse(const RepairRecordView& record, uint64_t dataStart, uint64_t fileSize,
               size_t trackCount);
    uint8_t track() const { return mTrack; }
    uint64_t sampleCount() const { return mCount; }
    uint64_t dataEnd() const { return mDataEnd; }

    // From the first sample again.
    void rewind();
    // The next sample; false after the last.
    bool next(RepairSample* sample);

private:
    RepairRecordReader mSamples{nullptr, 0};  // positioned at the first sample's fields
    RepairRecordReader mCursor{nullptr, 0};
    uint8_t mTrack = 0;
    uint64_t mCount = 0;
    uint64_t mFirstTicks = 0;
    uint64_t mDataStart = 0;
    uint64_t mDataEnd = 0;
    // Cursor state.
    uint64_t mIndex = 0;
    uint64_t mTicks = 0;
    uint64_t mOffset = 0;
};

class RepairRecordWalker {
public:
    enum Step { kConfig, kChunk, kEnd };

    // Walks the records between `start` and `end` (end: exclusive bound on every byte read).
    RepairRecordWalker(RepairInput& input, uint64_t start, uint64_t end);

    RepairRecordWalker(const RepairRecordWalker&) = delete;
    RepairRecordWalker& operator=(const RepairRecordWalker&) = delete;

    // Reads the next record. kConfig: config() is the one it holds. kChunk: chunk() holds its
    // samples, with config() the configuration in force. kEnd: no further usable record.
    Step next();

    const RepairConfig& config() const { return mConfig; }
    bool hasConfig() const { return !mConfig.tracks.empty(); }
    RepairChunk& chunk() { return mChunk; }
    // Where the walk stands: after the last record (and its chunk's bytes) it accepted.
    uint64_t position() const { return mPosition; }
    uint64_t samplesAccepted() const { return mSamples; }

    // On average the input holds at least this many bytes per sample it is repaired up to.
    // A recording holds hundreds (H.264 pictures and AAC frames plus their records).
    static constexpr uint64_t kInputBytesPerSample = 16;

private:
    bool readRecord(RepairRecordView* record);

    RepairInput& mInput;
    uint64_t mPosition;
    const uint64_t mEnd;
    const uint64_t mSampleBudget;
    uint64_t mSamples = 0;
    std::vector<uint8_t> mRecord;  // type, body and CRC of the current record; reused
    RepairConfig mConfig;          // the latest; every one describes the tracks of the first
    RepairChunk mChunk;
};

#endif  // TAVO_MP4WRITER_REPAIR_RECORD_WALKER_H
