// How bytes reach the file: big-endian integers, strings, four-character codes, boxes whose
// sizes are patched in place once their body is written, and the samples themselves.
#define LOG_TAG "CmmbMPEG4Recorder"

#include <sys/types.h>

#include <cstring>

#include "CmmbMPEG4Writer.h"
#include "Log.h"
#include "MutexLock.h"

unsigned long long cmmb_hton64(unsigned long long value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return value;
#else
    uint32_t high = static_cast<uint32_t>(value >> 32);
    uint32_t low = static_cast<uint32_t>(value);
    return (static_cast<unsigned long long>(__builtin_bswap32(low)) << 32) |
           __builtin_bswap32(high);
#endif
}

void CmmbMPEG4Writer::advanceOffset(size_t count) {
    // Positions wrap rather than overflow past 2 GiB; files that large are not supported.
    mOffset = static_cast<int32_t>(static_cast<uint32_t>(mOffset) + static_cast<uint32_t>(count));
}

size_t CmmbMPEG4Writer::writeRaw(const void* data, size_t size) {
    if (!mFile.isOpen() || size == 0) {
        return 0;
    }
    size_t written = mFile.write(data, size);
    advanceOffset(written);
    noteOutputFailure();
    return written;
}

bool CmmbMPEG4Writer::noteOutputFailure() {
    if (mFile.error() == 0) {
        return false;
    }
    if (mWriteError == 0) {
        mWriteError = mFile.error();
        ALOGE("write failed at offset %lld: %s", static_cast<long long>(mFile.position()),
              strerror(mWriteError));
    }
    // Only what reached the file counts from here on.
    mOffset = static_cast<int32_t>(mFile.position());
    return true;
}

size_t CmmbMPEG4Writer::write(const void* data, unsigned int size) {
    return writeRaw(data, size);
}

size_t CmmbMPEG4Writer::writeInt8(signed char value) {
    return writeRaw(&value, 1);
}

size_t CmmbMPEG4Writer::writeInt16(short value) {
    uint16_t bits = static_cast<uint16_t>(value);
    uint8_t bytes[2] = {static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
    return writeRaw(bytes, sizeof(bytes));
}

size_t CmmbMPEG4Writer::writeInt32(int value) {
    uint32_t bits = static_cast<uint32_t>(value);
    uint8_t bytes[4] = {static_cast<uint8_t>(bits >> 24), static_cast<uint8_t>(bits >> 16),
                        static_cast<uint8_t>(bits >> 8), static_cast<uint8_t>(bits)};
    return writeRaw(bytes, sizeof(bytes));
}

size_t CmmbMPEG4Writer::writeInt64(long long value) {
    unsigned long long bigEndian = cmmb_hton64(static_cast<unsigned long long>(value));
    return writeRaw(&bigEndian, sizeof(bigEndian));
}

size_t CmmbMPEG4Writer::writeCString(const char* text) {
    return writeRaw(text, strlen(text) + 1);
}

size_t CmmbMPEG4Writer::writeFourcc(const char* fourcc) {
    TAVO_ASSERT(strlen(fourcc) == 4);
    return writeRaw(fourcc, 4);
}

void CmmbMPEG4Writer::beginBox(const char* fourcc) {
    TAVO_ASSERT(strlen(fourcc) == 4);
    mBoxes.push_back(mOffset);
    writeInt32(0);
    writeFourcc(fourcc);
}

void CmmbMPEG4Writer::endBox() {
    TAVO_ASSERT(!mBoxes.empty());
    int32_t start = mBoxes.back();
    mBoxes.pop_back();
    uint32_t size = static_cast<uint32_t>(mOffset - start);
    uint8_t bytes[4] = {static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16),
                        static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)};
    patchAt(start, bytes, sizeof(bytes));
}

void CmmbMPEG4Writer::patchAt(int32_t position, const void* bytes, size_t size) {
    if (!mFile.isOpen()) {
        return;
    }
    // The next write still goes to the end of the file.
    mFile.patch(position, bytes, size);
    noteOutputFailure();
}

void CmmbMPEG4Writer::writeCompositionMatrix(int degrees) {
    const int one = 0x00010000;                         // 1.0 in 16.16
    const int minusOne = static_cast<int>(0xFFFF0000);  // -1.0 in 16.16
    int p = 0, q = 0, r = 0, s = 0;
    switch (degrees) {
        case 0:
            p = one;
            s = one;
            break;
        case 90:
            q = one;
            r = minusOne;
            break;
        case 180:
            p = minusOne;
            s = minusOne;
            break;
        case 270:
            q = minusOne;
            r = one;
            break;
        default:
            TAVO_ASSERT(!"rotation must be 0, 90, 180 or 270 degrees");
    }
    writeInt32(p);
    writeInt32(q);
    writeInt32(0);
    writeInt32(r);
    writeInt32(s);
    writeInt32(0);
    writeInt32(0);
    writeInt32(0);
    writeInt32(0x40000000);  // 1.0 in 2.30
}

int32_t CmmbMPEG4Writer::writeSampleBytes(const uint8_t* data, uint32_t length) {
    int32_t start = mOffset;
    if (mFile.isOpen() && length > 0) {
        mFile.write(data, length);
    }
    advanceOffset(length);
    noteOutputFailure();
    return start;
}

size_t CmmbMPEG4Writer::nalLengthPrefix(uint32_t length, uint8_t* prefix) const {
    if (mUseNalLengthFour) {
        prefix[0] = static_cast<uint8_t>(length >> 24);
        prefix[1] = static_cast<uint8_t>(length >> 16);
        prefix[2] = static_cast<uint8_t>(length >> 8);
        prefix[3] = static_cast<uint8_t>(length);
        return 4;
    }
    TAVO_ASSERT(length < 65536);
    prefix[0] = static_cast<uint8_t>(length >> 8);
    prefix[1] = static_cast<uint8_t>(length);
    return 2;
}

int32_t CmmbMPEG4Writer::writeLengthPrefixedSampleBytes(const uint8_t* data, uint32_t length) {
    uint8_t prefix[4];
    size_t prefixSize = nalLengthPrefix(length, prefix);
    int32_t start = writeSampleBytes(prefix, static_cast<uint32_t>(prefixSize));
    writeSampleBytes(data, length);
    return start;
}

int32_t CmmbMPEG4Writer::addSample(_CmmbOutBuffer* buffer) {
    return writeSampleBytes(buffer->data, buffer->length);
}

int32_t CmmbMPEG4Writer::addLengthPrefixedSample(_CmmbOutBuffer* buffer) {
    return writeLengthPrefixedSampleBytes(buffer->data, buffer->length);
}

bool CmmbMPEG4Writer::writeOneChunk(const Chunk& chunk) {
    MutexLock guard(mLock);
    if (mRepairRecords) {
        mRecordBytes.clear();
        buildRepairRecords(chunk);
        if (!mFile.writeThrough(mRecordBytes.data(), mRecordBytes.size())) {
            noteOutputFailure();
            return false;
        }
        advanceOffset(mRecordBytes.size());
    }
    const int32_t offset = mOffset;
    const size_t size = chunk.mSamples->byteCount();
    if (!mFile.writeThrough(chunk.mSamples->bytes(), size)) {
        noteOutputFailure();
        return false;
    }
    advanceOffset(size);
    chunk.mTrack->addChunkOffset(offset);
    return true;
}

void CmmbMPEG4Writer::buildRepairRecords(const Chunk& chunk) {
    RepairRecordBuilder record;
    // The configuration goes first, and again once a track's codec data has changed (the
    // H.264 parameter sets arrive with the first video buffers).
    size_t configSize = 0;
    for (const std::unique_ptr<Track>& track : mTracks) {
        configSize += track->codecSpecificDataSize();
    }
    if (mDescribedConfigSize == 0 || configSize != mDescribedConfigSize) {
        record.begin(&mRecordBytes, REPAIR_RECORD_CONFIG);
        record.u32(static_cast<uint32_t>(mTimeScale));
        record.u8(mUseNalLengthFour ? 1 : 0);
        record.u8(static_cast<uint8_t>(mTracks.size()));
        for (const std::unique_ptr<Track>& track : mTracks) {
            track->describeForRepair(record);
        }
        record.end();
        mDescribedConfigSize = configSize == 0 ? 1 : configSize;
    }

    uint8_t trackIndex = 0;
    while (trackIndex < mTracks.size() && mTracks[trackIndex].get() != chunk.mTrack) {
        ++trackIndex;
    }
    const std::vector<ChunkSampleBuffer::SampleInfo>& samples = chunk.mSamples->samples();
    record.begin(&mRecordBytes, REPAIR_RECORD_CHUNK);
    record.u8(trackIndex);
    record.varint(samples.empty() ? 0 : static_cast<uint64_t>(samples.front().relativeTicks));
    record.varint(samples.size());
    for (size_t i = 0; i < samples.size(); ++i) {
        record.varint(static_cast<uint64_t>(samples[i].size) << 1 | (samples[i].sync ? 1 : 0));
        const int64_t next =
            i + 1 < samples.size() ? samples[i + 1].relativeTicks - samples[i].relativeTicks : 0;
        record.varint(static_cast<uint64_t>(next < 0 ? 0 : next));
    }
    record.end();
}

void CmmbMPEG4Writer::lock() {
    mLock.lock();
}

void CmmbMPEG4Writer::unlock() {
    mLock.unlock();
}

int CmmbMPEG4Writer::numTracks() {
    MutexLock guard(mLock);
    return static_cast<int>(mTracks.size());
}
