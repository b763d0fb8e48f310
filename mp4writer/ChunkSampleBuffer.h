// The samples of one track's open chunk, copied out of the caller's buffers until the chunk
// is written. Sample bytes sit back to back in one reusable block, so a recording allocates
// only while the block grows to its largest chunk, never per sample.
// Owned and used by one track on the writer's thread.
#ifndef TAVO_MP4WRITER_CHUNK_SAMPLE_BUFFER_H
#define TAVO_MP4WRITER_CHUNK_SAMPLE_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <vector>

class ChunkSampleBuffer {
public:
    void append(const uint8_t* data, uint32_t length) {
        mBytes.insert(mBytes.end(), data, data + length);
        mLengths.push_back(length);
    }

    // Keeps the capacity for the next chunk.
    void clear() {
        mBytes.clear();
        mLengths.clear();
    }

    bool empty() const { return mLengths.empty(); }
    uint32_t sampleCount() const { return static_cast<uint32_t>(mLengths.size()); }

    // Calls visit(data, length) for every sample in arrival order.
    template <typename Visitor>
    void forEachSample(Visitor visit) const {
        const uint8_t* data = mBytes.data();
        for (uint32_t length : mLengths) {
            visit(data, length);
            data += length;
        }
    }

private:
    std::vector<uint8_t> mBytes;     // sample bytes, back to back
    std::vector<uint32_t> mLengths;  // one entry per sample
};

#endif  // TAVO_MP4WRITER_CHUNK_SAMPLE_BUFFER_H
