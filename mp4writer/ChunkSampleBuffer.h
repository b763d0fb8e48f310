// The samples of one track's open chunk, copied out of the caller's buffers until the chunk
// is written: the bytes exactly as they will sit in mdat (H.264 length prefixes included),
// back to back in one reusable block. A recording allocates only while the block grows to
// its largest chunk, never per sample, and a chunk reaches the file in one write.
// Owned and used by one track on the writer's thread.
#ifndef TAVO_MP4WRITER_CHUNK_SAMPLE_BUFFER_H
#define TAVO_MP4WRITER_CHUNK_SAMPLE_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <vector>

class ChunkSampleBuffer {
public:
    // What the repair record of the chunk tells about each sample.
    struct SampleInfo {
        uint32_t size;          // bytes in mdat, length prefix included
        int64_t relativeTicks;  // the sample's time in the track
        bool sync;
    };

    void append(const uint8_t* prefix, size_t prefixSize, const uint8_t* data, uint32_t length,
                int64_t relativeTicks, bool sync) {
        mBytes.insert(mBytes.end(), prefix, prefix + prefixSize);
        mBytes.insert(mBytes.end(), data, data + length);
        mSamples.push_back({static_cast<uint32_t>(prefixSize + length), relativeTicks, sync});
        ++mSampleCount;
    }

    // Keeps the capacity for the next chunk.
    void clear() {
        mBytes.clear();
        mSamples.clear();
        mSampleCount = 0;
    }

    const std::vector<SampleInfo>& samples() const { return mSamples; }

    bool empty() const { return mSampleCount == 0; }
    uint32_t sampleCount() const { return mSampleCount; }
    const uint8_t* bytes() const { return mBytes.data(); }
    size_t byteCount() const { return mBytes.size(); }

private:
    std::vector<uint8_t> mBytes;
    std::vector<SampleInfo> mSamples;
    uint32_t mSampleCount = 0;
};

#endif  // TAVO_MP4WRITER_CHUNK_SAMPLE_BUFFER_H
