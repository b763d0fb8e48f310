// Layout of one session's shared A/V buffer, shared between the engine (sole writer) and a
// play engine in another process (reader). Every offset and size here is part of the
// cross-process format; the static_asserts below pin them.
//
// Reader contract, per multiplex frame:
//   1. wait on mutexDataAvailable;
//   2. wait on mutexDataAccessable;
//   3. read nalCount NAL records and aacCount AAC records, each item's length bytes at
//      data + offset (NAL units without start code, AAC frames with a 7-byte ADTS header);
//   4. set nalCount and aacCount to 0 (tells the engine the frame was fetched);
//   5. post mutexDataAccessable.
//
// Compiles as C (C11) and as C++.
#ifndef CMMB_SHARED_BUFFER_H
#define CMMB_SHARED_BUFFER_H

#include <stddef.h>
#include <stdint.h>

#include "CmmbSharedSemaphore.h"

#ifdef __cplusplus
enum : uint32_t {
#else
enum {
#endif
    CMMB_SHARED_BUFFER_COUNT = 2,     // one buffer per session, sessions 0 and 1
    CMMB_SHARED_BUFFER_SIZE = 74772,  // size of each region and each mapping
    CMMB_NAL_RECORD_SLOTS = 256,
    CMMB_AAC_RECORD_SLOTS = 256,
    CMMB_PAYLOAD_SIZE = 65536,
    CMMB_PAYLOAD_LIMIT = 65534,  // dataLength never exceeds this
    CMMB_ADTS_HEADER_SIZE = 7,
    CMMB_NAL_POS_NONE_OPEN = 3,  // record pos when no NAL unit is open in it
};

// Name of each region, formatted with the session number.
#define CMMB_SHARED_REGION_NAME_FORMAT "cmmb_shared_memory_%d"

typedef struct CmmbNalRecord {
    uint32_t tsBase;      // timestamp base of the NAL unit's first fragment
    uint32_t tsRelative;  // presentation time = tsBase + tsRelative (1/22500 s)
    uint32_t length;      // bytes in the payload area, start code excluded
    uint32_t offset;      // first byte, relative to data
    uint32_t pos;         // 3 = complete or none open; 2/0 = unit being assembled
} CmmbNalRecord;

typedef struct CmmbAacRecord {
    uint32_t tsBase;
    uint32_t tsRelative;
    uint32_t length;  // bytes in the payload area, 7-byte ADTS header included
    uint32_t offset;  // first (header) byte, relative to data
} CmmbAacRecord;

typedef struct CmmbSharedBuffer {
    CmmbSharedSemaphore mutexDataAvailable;   // posted once per frame; the reader waits on it
    CmmbSharedSemaphore mutexDataAccessable;  // lock over everything below
    uint32_t nalCount;
    uint32_t aacCount;
    uint32_t dataLength;
    CmmbNalRecord nal[CMMB_NAL_RECORD_SLOTS];
    CmmbAacRecord aac[CMMB_AAC_RECORD_SLOTS];
    unsigned char data[CMMB_PAYLOAD_SIZE];
} CmmbSharedBuffer;

CMMB_STATIC_ASSERT(sizeof(CmmbNalRecord) == 20, "NAL record is 20 bytes");
CMMB_STATIC_ASSERT(sizeof(CmmbAacRecord) == 16, "AAC record is 16 bytes");
CMMB_STATIC_ASSERT(offsetof(CmmbNalRecord, tsBase) == 0 &&
                       offsetof(CmmbNalRecord, tsRelative) == 4 &&
                       offsetof(CmmbNalRecord, length) == 8 &&
                       offsetof(CmmbNalRecord, offset) == 12 && offsetof(CmmbNalRecord, pos) == 16,
                   "NAL record field offsets");
CMMB_STATIC_ASSERT(offsetof(CmmbAacRecord, tsBase) == 0 &&
                       offsetof(CmmbAacRecord, tsRelative) == 4 &&
                       offsetof(CmmbAacRecord, length) == 8 &&
                       offsetof(CmmbAacRecord, offset) == 12,
                   "AAC record field offsets");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, mutexDataAvailable) == 0, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, mutexDataAccessable) == 4, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, nalCount) == 8, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, aacCount) == 12, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, dataLength) == 16, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, nal) == 20, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, aac) == 5140, "layout");
CMMB_STATIC_ASSERT(offsetof(CmmbSharedBuffer, data) == 9236, "layout");
CMMB_STATIC_ASSERT(sizeof(CmmbSharedBuffer) == CMMB_SHARED_BUFFER_SIZE,
                   "region size is 74,772 bytes");

#endif  // CMMB_SHARED_BUFFER_H
