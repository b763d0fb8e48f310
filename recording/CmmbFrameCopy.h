// The recording copy of one multiplex frame: what the engine copies out of a session's shared
// buffer while the buffer is locked, and what the recording manager splits into samples
// afterwards. A compact image of the shared buffer without semaphores and without offsets:
//
//   offset 0                       nalCount
//   offset 4                       aacCount
//   offset 8                       dataLength
//   offset 12                      nalCount NAL entries of 16 bytes
//                                  (tsBase, tsRelative, length, pos)
//   12 + 16 * nalCount             aacCount AAC entries of 12 bytes (tsBase, tsRelative, length)
//   12 + 16 * nalCount
//      + 12 * aacCount             dataLength payload bytes: every NAL unit in record order,
//                                  then every AAC frame (with its 7-byte ADTS header) in order
//
// Integers are 32-bit in native byte order. Because the items are located by walking the
// payload with their lengths, the copy always holds the NAL bytes first and the AAC bytes
// after them, whatever order the agent delivered them in.
#ifndef TAVO_RECORDING_CMMB_FRAME_COPY_H
#define TAVO_RECORDING_CMMB_FRAME_COPY_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "CmmbSharedBuffer.h"

struct CmmbFrameCopyNalEntry {
    uint32_t tsBase;
    uint32_t tsRelative;
    uint32_t length;  // NAL unit bytes in the payload, without start code
    uint32_t pos;     // fragment state of the shared-buffer record (3 for a complete unit)
};

struct CmmbFrameCopyAacEntry {
    uint32_t tsBase;
    uint32_t tsRelative;
    uint32_t length;  // frame bytes in the payload, 7-byte ADTS header included
};

enum : uint32_t {
    CMMB_FRAME_COPY_HEADER_SIZE = 12,
    // 256 NAL entries, 256 AAC entries and the largest payload of a shared buffer.
    CMMB_FRAME_COPY_MAX_SIZE =
        CMMB_FRAME_COPY_HEADER_SIZE + CMMB_NAL_RECORD_SLOTS * sizeof(CmmbFrameCopyNalEntry) +
        CMMB_AAC_RECORD_SLOTS * sizeof(CmmbFrameCopyAacEntry) + CMMB_PAYLOAD_LIMIT,
};

// A copy area of the largest size a frame can take. Entries and payload follow the three
// counters in `body`; they are read and written with memcpy through the helpers below, so
// the area may be any byte buffer of CMMB_FRAME_COPY_MAX_SIZE bytes.
struct CmmbFrameCopy {
    uint32_t nalCount;
    uint32_t aacCount;
    uint32_t dataLength;
    unsigned char body[CMMB_FRAME_COPY_MAX_SIZE - CMMB_FRAME_COPY_HEADER_SIZE];
};

static_assert(sizeof(CmmbFrameCopyNalEntry) == 16, "NAL entry is 16 bytes");
static_assert(sizeof(CmmbFrameCopyAacEntry) == 12, "AAC entry is 12 bytes");
static_assert(offsetof(CmmbFrameCopy, nalCount) == 0, "frame copy layout");
static_assert(offsetof(CmmbFrameCopy, aacCount) == 4, "frame copy layout");
static_assert(offsetof(CmmbFrameCopy, dataLength) == 8, "frame copy layout");
static_assert(offsetof(CmmbFrameCopy, body) == CMMB_FRAME_COPY_HEADER_SIZE, "frame copy layout");
static_assert(CMMB_FRAME_COPY_MAX_SIZE == 72714, "a frame copy takes at most 72,714 bytes");
static_assert(sizeof(CmmbFrameCopy) >= CMMB_FRAME_COPY_MAX_SIZE,
              "a frame copy area holds any frame");

// Reads a 32-bit field of a shared buffer exactly once. The play engine maps the buffer
// read-write, so a field may change between two reads; the copy reads each field once into
// a local, checks the local and uses only it. The compiler may neither repeat this load nor
// replace the local by a second load, which it could do for a plain read.
inline uint32_t cmmbReadSharedField(const uint32_t& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

// Byte positions inside a copy that starts at `copy`.
inline size_t cmmbFrameCopyNalEntryOffset(uint32_t index) {
    return CMMB_FRAME_COPY_HEADER_SIZE + index * sizeof(CmmbFrameCopyNalEntry);
}
inline size_t cmmbFrameCopyAacEntryOffset(uint32_t nalCount, uint32_t index) {
    return cmmbFrameCopyNalEntryOffset(nalCount) + index * sizeof(CmmbFrameCopyAacEntry);
}
inline size_t cmmbFrameCopyPayloadOffset(uint32_t nalCount, uint32_t aacCount) {
    return cmmbFrameCopyAacEntryOffset(nalCount, aacCount);
}

// The three counters at the start of a copy.
struct CmmbFrameCopyCounts {
    uint32_t nalCount;
    uint32_t aacCount;
    uint32_t dataLength;
};

static_assert(sizeof(CmmbFrameCopyCounts) == CMMB_FRAME_COPY_HEADER_SIZE, "frame copy counters");

inline CmmbFrameCopyCounts cmmbFrameCopyReadCounts(const unsigned char* copy) {
    CmmbFrameCopyCounts counts;
    memcpy(&counts, copy, sizeof(counts));
    return counts;
}

inline CmmbFrameCopyNalEntry cmmbFrameCopyReadNal(const unsigned char* copy, uint32_t index) {
    CmmbFrameCopyNalEntry entry;
    memcpy(&entry, copy + cmmbFrameCopyNalEntryOffset(index), sizeof(entry));
    return entry;
}

inline CmmbFrameCopyAacEntry cmmbFrameCopyReadAac(const unsigned char* copy, uint32_t nalCount,
                                                  uint32_t index) {
    CmmbFrameCopyAacEntry entry;
    memcpy(&entry, copy + cmmbFrameCopyAacEntryOffset(nalCount, index), sizeof(entry));
    return entry;
}

#endif  // TAVO_RECORDING_CMMB_FRAME_COPY_H
