// What the engine has written into one session's shared buffer during the current multiplex
// frame, kept in the engine's own memory.
//
// The play engine maps the buffer read-write, so anything in the region may change under the
// engine at any moment. The engine therefore never decides from a value it reads back from
// the region: the counts, the payload length and the NAL unit being assembled live here,
// and the region only receives copies of them (published with the layout's fields and
// meaning, so a reader that keeps to its contract sees exactly the same bytes). The one
// value the reader contract asks the engine to read is the reader's "fetched" answer (both
// counts 0) at frame start; it is read once into locals with readFromRegion.
//
// Threads: the agent's thread inside the frame bracket only (the frame hand-off and the
// ingestion callbacks), while the session's buffer lock is held; nothing else touches it.
#ifndef TAVO_SHAREDBUFFER_BUFFER_WRITE_STATE_H
#define TAVO_SHAREDBUFFER_BUFFER_WRITE_STATE_H

#include <cstdint>

#include "CmmbSharedBuffer.h"

// Reads a 32-bit field of a shared region exactly once: the compiler may neither repeat the
// load nor replace the local with a second load later, which it could do for a plain read.
inline uint32_t readFromRegion(const uint32_t& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

struct BufferWriteState {
    // Complete NAL units and AAC frames; both index the record being filled next.
    uint32_t nalCount = 0;
    uint32_t aacCount = 0;
    // Payload bytes used; never above CMMB_PAYLOAD_LIMIT.
    uint32_t dataLength = 0;
    // The NAL unit being assembled in record nalCount: its fragment state
    // (CMMB_NAL_POS_NONE_OPEN when none is open, 2 after its first fragment, 0 after a middle
    // one), its first payload byte and its bytes so far. openOffset + openLength never
    // exceeds dataLength.
    uint32_t openPos = CMMB_NAL_POS_NONE_OPEN;
    uint32_t openOffset = 0;
    uint32_t openLength = 0;
    // tsBase of the frame's first AAC frame, for the frame-end log line.
    uint32_t firstAacTsBase = 0;

    bool unitOpen() const { return openPos != CMMB_NAL_POS_NONE_OPEN; }

    // An empty buffer, as at frame start.
    void clear() { *this = BufferWriteState(); }

    // Writes the counts and the payload length into the region.
    void publishCounts(CmmbSharedBuffer* buffer) const {
        buffer->nalCount = nalCount;
        buffer->aacCount = aacCount;
        buffer->dataLength = dataLength;
    }
};

// Marks a buffer empty in the region: both counts and the payload length 0. The one way the
// engine empties a buffer, whether it was just created, is reset or starts a frame.
inline void publishEmpty(CmmbSharedBuffer* buffer) {
    BufferWriteState().publishCounts(buffer);
}

// One session whose buffer the frame in progress holds: where a NAL or AAC call writes for
// it. The frame start resolves these once; each call of the frame then goes through them.
struct FrameTarget {
    CmmbSharedBuffer* buffer;
    BufferWriteState* state;
    int session;
};

#endif  // TAVO_SHAREDBUFFER_BUFFER_WRITE_STATE_H
