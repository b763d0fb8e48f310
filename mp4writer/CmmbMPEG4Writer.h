// CmmbMPEG4Writer writes one ISO base media (3GP) file per recording from the H.264 and AAC
// samples a recorder hands it. The file is laid out front to back:
//
//   ftyp (24 bytes) | mdat header ("????mdat", patched at stop) | samples ... | moov
//
// Nothing is reserved ahead of the samples; stop appends the moov after the last chunk.
// queryMoovLength() predicts how many bytes that will take, and the file size limit stops
// sample intake at 95 % of the limit so that the moov still fits.
//
// Threading: one thread (the recorder's caller, holding the recorder's lock) calls every
// operation. The writer's own mLock serialises chunk output and guards the track list.
//
// Every multi-byte integer in the file is big-endian. File positions are signed 32-bit:
// the writer handles files up to 2,147,483,647 bytes.
#ifndef TAVO_MP4WRITER_CMMB_MPEG4_WRITER_H
#define TAVO_MP4WRITER_CMMB_MPEG4_WRITER_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "ChunkSampleBuffer.h"
#include "CmmbMediaTypes.h"
#include "FileOutput.h"
#include "Mutex.h"
#include "RepairRecord.h"
#include "ThreadAnnotations.h"

// Converts a 64-bit value between host order and big-endian (network) order.
unsigned long long cmmb_hton64(unsigned long long value);

class CmmbMPEG4Writer {
public:
    class Track;

    // A closed chunk of one track, handed to writeOneChunk: the samples are copies held by
    // the track, already in their mdat form, until the chunk is written.
    struct Chunk {
        Track* mTrack;
        int64_t mTimeStampTicks;  // relative time at which the chunk closed (not written)
        const ChunkSampleBuffer* mSamples;
    };

    // Takes ownership of fd (closed by stop). Without a valid descriptor, start, writeout and
    // stop return ERROR_INVALID. Every write goes through `env` (which must outlive the
    // writer) and is checked: the first failure makes start, writeout or stop return
    // ERROR_WRITE_FAILED, and writeError() tells its errno.
    CmmbMPEG4Writer(int fd, Env* env);
    virtual ~CmmbMPEG4Writer();

    CmmbMPEG4Writer(const CmmbMPEG4Writer&) = delete;
    CmmbMPEG4Writer& operator=(const CmmbMPEG4Writer&) = delete;

    // Adds a track for the descriptor (kept by pointer; the caller owns it and keeps it
    // alive until the writer is destroyed). Tracks get ids 1, 2, ... in this order.
    virtual int addSource(CmmbMediaSource* source);
    // First call: writes ftyp and the mdat header and starts the tracks. After pause():
    // resumes. Otherwise changes nothing. Start parameters are applied on every call.
    virtual int start(_CmmbMetaData* meta);
    // Samples are dropped until start() resumes; the paused time is removed from the tracks.
    virtual int pause();
    // Hands the sample to the track whose mime it carries (0 when none takes it).
    virtual int writeout(_CmmbOutBuffer* buffer);
    virtual bool reachedEOS();
    // Completes the file: patches the mdat size, appends the moov, flushes and closes it.
    // After a failed write the moov describes the samples whose chunks reached the file, and
    // is written if the storage still takes it.
    virtual int stop();
    virtual int setMaxFileSize(long long bytes);
    virtual int setMaxFileDuration(long long duration);

    // Predicted size in bytes of the moov that stop() would append now.
    long long queryMoovLength();

    int setInterleaveDuration(unsigned int ticks);
    bool use32BitFileOffset() const { return mUse32BitOffset; }
    bool useNalLengthFour() const { return mUseNalLengthFour; }
    // True when the tracks' estimated sizes reach 95 % of the size limit (never without one).
    bool exceedsFileSizeLimit();
    // The duration limit is never set by this system; without one nothing is exceeded.
    bool exceedsFileDurationLimit();
    int numTracks();

    // Output primitives. Each advances the write position by the bytes actually written and
    // returns that count; none stops on a short write.
    size_t write(const void* data, unsigned int size);
    size_t writeInt8(signed char value);
    size_t writeInt16(short value);
    size_t writeInt32(int value);
    size_t writeInt64(long long value);
    size_t writeCString(const char* text);  // the string and its NUL
    size_t writeFourcc(const char* fourcc);
    // Boxes get a placeholder size on begin; endBox patches the size of the innermost one.
    void beginBox(const char* fourcc);
    void endBox();
    // Nine 32-bit values: the transformation matrix for a rotation of 0, 90, 180 or 270.
    void writeCompositionMatrix(int degrees);

    // Sample output. Both return the file offset where the sample starts; the write
    // position advances by the full sample size whatever the stream reports.
    int32_t addSample(_CmmbOutBuffer* buffer);
    int32_t addLengthPrefixedSample(_CmmbOutBuffer* buffer);
    // Writes the chunk's samples at the end of the file; false when the write failed.
    bool writeOneChunk(const Chunk& chunk);

    void lock() ACQUIRE(mLock);
    void unlock() RELEASE(mLock);

    int32_t currentOffset() const { return mOffset; }
    // Whether chunks get repair records (RepairRecord.h); from the system property
    // kRepairRecordsProperty at construction, on unless it says "0", "false" or "off".
    void setRepairRecords(bool enabled) { mRepairRecords = enabled; }
    static const char kRepairRecordsProperty[];
    // errno of the first failed write of this file, 0 when none.
    int writeError() const { return mWriteError; }

private:
    size_t writeRaw(const void* data, size_t size);
    int32_t writeSampleBytes(const uint8_t* data, uint32_t length);
    int32_t writeLengthPrefixedSampleBytes(const uint8_t* data, uint32_t length);
    // Fills `prefix` with the H.264 length prefix of a NAL unit; returns its size (4 or 2).
    size_t nalLengthPrefix(uint32_t length, uint8_t* prefix) const;
    // Overwrites bytes at an earlier position and returns to the end of the file.
    void patchAt(int32_t position, const void* bytes, size_t size);
    void advanceOffset(size_t count);
    void writeFileTypeBox();
    void writeMdatHeader();
    void patchMdatSize();
    void writeMovieHeaderBox(int64_t durationTicks);
    int startTracks();
    void stopTracks(size_t count);
    int closeFile(int result);

    // Latches the output's failure into mWriteError and resynchronises mOffset; true when
    // the output has failed.
    bool noteOutputFailure();

    // Appends the records that go in front of the chunk to mRecordBytes.
    void buildRepairRecords(const Chunk& chunk) REQUIRES(mLock);

    FileOutput mFile;  // not open when the descriptor was invalid, and after stop
    int mWriteError;   // errno of the first failed write, 0 when none
    bool mRepairRecords;
    // Reused for every chunk's records.
    std::vector<uint8_t> mRecordBytes GUARDED_BY(mLock);
    // Codec data bytes when the last config record was made.
    size_t mDescribedConfigSize GUARDED_BY(mLock);
    int32_t mOffset;              // bytes in the file so far = position of the next write
    int32_t mMdatOffset;          // position of the mdat header
    std::vector<int32_t> mBoxes;  // start positions of the open boxes, innermost last

    int32_t mTimeScale;  // movie time scale (mvhd, tkhd)
    bool mUse32BitOffset;
    bool mUseNalLengthFour;
    int64_t mMaxFileSizeLimitBytes;  // 0 = no limit
    int64_t mMaxFileDurationLimit;   // 0 = no limit
    uint32_t mInterleaveDuration;    // input ticks per chunk when interleaving tracks
    bool mPaused;
    bool mStarted;

    // Serialises chunk output. Innermost lock of the recording path: nothing else is taken
    // while it is held. The recorder names it in its lock order.
    friend class CmmbRecorder;
    Mutex mLock;
    // Written only in addSource, before start, under mLock; the recording thread then reads
    // it without the lock, so it is not marked as guarded.
    std::vector<std::unique_ptr<Track>> mTracks;
};

// One elementary stream of the file: turns samples into sample tables (stts, stss, stsz,
// stsc, stco) and writes its trak box at stop. Called on the writer's thread only.
//
// Times: input timestamps are ticks of 1/22500 s of a 32-bit clock; each track starts at
// relative time 0 with its first stored sample and advances by the clock's differences
// (modulo 2^32, so across its wrap). A difference that goes backwards or jumps forwards by
// more than CMMB_MAX_TICK_GAP past the expected time is a discontinuity: the sample then
// follows the previous one by the last sample duration, as after a pause. The tables keep durations
// in ticks and convert them into the track's media time scale only when the boxes are written.
class CmmbMPEG4Writer::Track {
public:
    Track(CmmbMPEG4Writer* owner, CmmbMediaSource* source);
    ~Track();

    Track(const Track&) = delete;
    Track& operator=(const Track&) = delete;

    int start();
    int pause();
    int CmmbOutWrite(_CmmbOutBuffer* buffer);
    int stop();
    bool reachedEOS() const { return mReachedEOS; }
    // The track duration in input ticks (the name is historic).
    int64_t getDurationUs() const { return mTrackDurationTicks; }
    int64_t getEstimatedTrackSizeBytes() const { return mEstimatedTrackSizeBytes; }
    int64_t getEstimatedTrackHeaderSizeBytes() const { return mEstimatedTrackHeaderSizeBytes; }
    int writeTrackHeader(int trackId);
    // The track's entry of a repair config record.
    void describeForRepair(RepairRecordBuilder& record) const;
    size_t codecSpecificDataSize() const { return mCodecSpecificData.size(); }

    void addChunkOffset(long offset);

private:
    struct SttsTableEntry {
        uint32_t sampleCount;
        uint32_t sampleDuration;  // input ticks
    };
    struct StscTableEntry {
        uint32_t firstChunk;  // 1-based
        uint32_t samplesPerChunk;
        uint32_t sampleDescriptionId;  // always 1
    };

    int takeParameterSet(const _CmmbOutBuffer* buffer);
    int parseParamSet(const unsigned char* data, int type, unsigned int* length);
    uint32_t splitMpeg4VideoConfig(const uint8_t* data, uint32_t length);
    int64_t relativeTimeOf(int64_t timestamp);
    void recordTiming(int64_t relativeTicks);
    bool outputSample(const uint8_t* data, uint32_t length, int64_t relativeTicks, bool isSync);
    void addOneSttsTableEntry(unsigned int sampleCount, long long duration);
    void addOneStssTableEntry(unsigned int sampleNumber);
    void addOneStscTableEntry(unsigned int firstChunk, unsigned int samplesPerChunk);
    void updateTrackSizeEstimate();
    bool bufferChunk(long long timestamp);
    // The table state after the last sample that reached the file, and its restoration when
    // later samples were lost to a failed write.
    void checkpointCommitted();
    void rollBackToCommitted();
    int64_t toMediaTime(int64_t ticks) const;

    // Header boxes (written at stop).
    void writeTrackHeaderBox(int trackId, uint32_t now);
    void writeMediaHeaderBox(uint32_t now);
    void writeHandlerBox();
    void writeMediaInformationHeaderBox();
    void writeDataInformationBox();
    int writeSampleDescriptionBox();
    int writeAudioSampleEntry();
    int writeVideoSampleEntry();
    // The fields in which the audio and the visual elementary stream descriptors differ.
    struct EsDescriptor {
        uint8_t flags;  // stream priority and flags of the ES descriptor
        uint8_t objectType;
        uint8_t streamType;
        uint32_t bufferSize;  // 24 bits
        uint32_t maxBitrate;
        uint32_t averageBitrate;
    };
    void writeAudioEsdsBox();
    void writeVideoEsdsBox();
    // esds around mCodecSpecificData as the decoder specific info.
    void writeEsdsBox(const EsDescriptor& descriptor);
    void writeD263Box();
    void writeAvccBox();
    void writeSttsBox();
    void writeStssBox();
    void writeStszBox();
    void writeStscBox();
    int writeStcoBox();

    CmmbMPEG4Writer* mWriter;
    CmmbMediaSource* mSource;
    bool mDone;
    bool mPaused;
    bool mResumed;  // resumed; the gap is removed at the next stored sample
    bool mReachedEOS;
    bool mIsAvc;
    bool mIsAudio;
    bool mIsMpeg4Video;
    int32_t mTimeScale;  // media time scale (mdhd, stts)

    int64_t mTrackDurationTicks;  // largest relative time; plus the last duration after stop
    int64_t mEstimatedTrackSizeBytes;
    int64_t mEstimatedTrackHeaderSizeBytes;
    int64_t mMdatSizeBytes;
    uint32_t mNumBuffers;  // buffers accepted, H.264 parameter sets included
    uint32_t mNumSamples;  // samples stored

    uint8_t mProfileIdc;
    uint8_t mProfileCompatibility;
    uint8_t mLevelIdc;
    std::vector<uint8_t> mCodecSpecificData;  // avcC body, or MPEG-4 video decoder config

    // Timing of the stored samples, in relative input ticks unless named media.
    int64_t mStartTimestampTicks;  // input timestamp of relative time 0
    uint32_t mLastInputTick;       // broadcast clock of the previous sample
    int64_t mLastTimestampTicks;
    int64_t lastDurationUs;  // ticks from the previous sample to the last one
    int64_t mCurrDurationMedia;
    int64_t mLastDurationMedia;
    uint32_t mSttsRunLength;  // samples in the current run of equal media durations

    // Chunking when several tracks interleave.
    int64_t mChunkStartTicks;  // 0 = no chunk timing yet
    uint32_t mNumChunks;
    ChunkSampleBuffer mChunkSamples;

    // Sample tables. Per-sample data is kept as compactly as the boxes need it: a sample
    // size per stored sample, runs for durations, one entry per chunk or sync sample.
    std::vector<uint32_t> mSampleSizes;  // stsz, NAL length prefix included
    std::vector<int32_t> mChunkOffsets;  // stco
    std::vector<StscTableEntry> mStscTableEntries;
    std::vector<int32_t> mStssTableEntries;  // 1-based sample numbers
    std::vector<SttsTableEntry> mSttsTableEntries;

    // Everything the tables were at the last checkpoint (see checkpointCommitted).
    struct Committed {
        size_t sampleSizes = 0, chunkOffsets = 0, stscEntries = 0, stssEntries = 0, sttsEntries = 0;
        uint32_t numSamples = 0, numChunks = 0, sttsRunLength = 1;
        int64_t trackDurationTicks = 0, lastTimestampTicks = 0, lastDurationTicks = 0,
                lastDurationMedia = 0;
    } mCommitted;
};

#endif  // TAVO_MP4WRITER_CMMB_MPEG4_WRITER_H
