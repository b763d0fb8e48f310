// Video ingestion: reassembly of fragmented NAL units in one shared buffer.
#define LOG_TAG "TavoMBBMSEngine"
#include "NalIngestion.h"

#include <cstdio>
#include <cstring>

#include "Log.h"
#include "MBBMSAgent.h"

namespace {

const int kBeginsUnit = MBBMSAgent::NAL_FRAGMENT_START;  // bit 1
const int kEndsUnit = MBBMSAgent::NAL_FRAGMENT_END;      // bit 0

// Logs one delivered fragment with up to its first six bytes, never reading past its end.
void logRawFragment(uint32_t nalCount, int session, unsigned long tsBase, unsigned long tsRelative,
                    const unsigned char* data, unsigned short length, int pos, const char* caller) {
    char bytes[6 * 3 + 1];
    int used = 0;
    for (int i = 0; i < 6 && i < length; ++i) {
        used += snprintf(bytes + used, sizeof(bytes) - static_cast<size_t>(used), "%02x ", data[i]);
    }
    bytes[used] = '\0';
    TLOG_FOR(caller, DATA_NAL,
             "+Raw video NAL, session=%d, count=%d, ts=%lu + %lu, len=%lu, pos=%d, %s\n", session,
             static_cast<int>(nalCount), tsBase, tsRelative, static_cast<unsigned long>(length),
             pos, bytes);
}

}  // namespace

int getStartCodeLength(const unsigned char* data, int length) {
    if (length < 3 || data[0] != 0 || data[1] != 0)
        return 0;
    if (data[2] == 1)
        return 3;
    if (data[2] != 0 || length == 3)
        return 0;
    return data[3] == 1 ? 4 : 0;
}

namespace {

// The append itself, inlined into both entry points so that the per-target loop of a frame
// costs no call per session.
inline bool appendFragment(CmmbSharedBuffer* buffer, BufferWriteState& state, int session,
                           unsigned long tsBase, unsigned long tsRelative,
                           const unsigned char* data, unsigned short length, int pos,
                           const char* caller) {
    if (TLOG_ENABLED(DATA_NAL))
        logRawFragment(state.nalCount, session, tsBase, tsRelative, data, length, pos, caller);
    // Only the two flags count: other bits of an agent's value would otherwise reach the
    // record's pos, where 2 and 0 mean an open unit and 3 none.
    pos &= kBeginsUnit | kEndsUnit;

    // The whole fragment, start code included, must fit before anything is rewound. Both
    // terms are bounded (dataLength by the payload limit, length by 16 bits): no overflow.
    const uint32_t needed = state.dataLength + length;
    if (needed > CMMB_PAYLOAD_LIMIT) {
        TLOG_FOR(caller, WARNING, "SharedBuffer have no enough space for NAL, %d > %d, DATA drop!",
                 static_cast<int>(needed), 65535);
        return false;
    }
    if (state.nalCount >= CMMB_NAL_RECORD_SLOTS) {
        TLOG_FOR(caller, WARNING, "SharedBuffer have no free NAL record, nalCount=%d, DATA drop!",
                 static_cast<int>(state.nalCount));
        return false;
    }

    CmmbNalRecord& record = buffer->nal[state.nalCount];
    const unsigned char* bytes = data;
    uint32_t count = length;
    if ((pos & kBeginsUnit) != 0) {
        if (state.unitOpen()) {
            TLOG_FOR(caller, WARNING, "last NAL is not ended, overwrite it!");
            // Its bytes are given back only when nothing was appended after them: an AAC
            // frame behind them is still counted.
            if (state.openOffset + state.openLength == state.dataLength)
                state.dataLength = state.openOffset;
            state.openPos = CMMB_NAL_POS_NONE_OPEN;
            state.openLength = 0;
            record.length = 0;
            buffer->dataLength = state.dataLength;
            record.pos = CMMB_NAL_POS_NONE_OPEN;
        }
        const int startCode = getStartCodeLength(data, length);
        if (startCode == 0) {
            TLOG_FOR(caller, ERROR, "H264 NAL has no start code, drop it!");
            return false;
        }
        bytes += startCode;
        count -= static_cast<uint32_t>(startCode);
        state.openOffset = state.dataLength;
        state.openLength = 0;
        record.tsBase = static_cast<uint32_t>(tsBase);
        record.tsRelative = static_cast<uint32_t>(tsRelative);
        record.length = 0;
        record.offset = state.openOffset;
    } else if (!state.unitOpen()) {
        TLOG_FOR(caller, WARNING, "current NAL has no beginning, drop it!");
        return false;
    } else if (state.openOffset + state.openLength != state.dataLength) {
        // An AAC frame was appended after the unit's earlier fragments: the unit moves
        // behind it, so that its bytes stay contiguous and no item overlaps another.
        if (needed + state.openLength > CMMB_PAYLOAD_LIMIT) {
            TLOG_FOR(caller, WARNING,
                     "SharedBuffer have no enough space for NAL, %d > %d, DATA drop!",
                     static_cast<int>(needed + state.openLength), 65535);
            return false;
        }
        memcpy(buffer->data + state.dataLength, buffer->data + state.openOffset, state.openLength);
        state.openOffset = state.dataLength;
        state.dataLength += state.openLength;
        record.offset = state.openOffset;
    }

    if (count > 0)
        memcpy(buffer->data + state.dataLength, bytes, count);
    state.openLength += count;
    state.dataLength += count;
    record.length = state.openLength;
    buffer->dataLength = state.dataLength;
    if ((pos & kEndsUnit) != 0) {
        state.openPos = CMMB_NAL_POS_NONE_OPEN;
        state.nalCount += 1;
        record.pos = CMMB_NAL_POS_NONE_OPEN;
        buffer->nalCount = state.nalCount;
    } else {
        state.openPos = static_cast<uint32_t>(pos);
        record.pos = state.openPos;
    }
    return true;
}

}  // namespace

bool appendNalFragment(CmmbSharedBuffer* buffer, BufferWriteState& state, int session,
                       unsigned long tsBase, unsigned long tsRelative, const unsigned char* data,
                       unsigned short length, int pos, const char* caller) {
    return appendFragment(buffer, state, session, tsBase, tsRelative, data, length, pos, caller);
}

void appendNalFragmentToTargets(const FrameTarget* targets, int count, unsigned long tsBase,
                                unsigned long tsRelative, const unsigned char* data,
                                unsigned short length, int pos, const char* caller) {
    for (int i = 0; i < count; ++i) {
        const FrameTarget& target = targets[i];
        if (!appendFragment(target.buffer, *target.state, target.session, tsBase, tsRelative, data,
                            length, pos, caller)) {
            return;
        }
    }
}
