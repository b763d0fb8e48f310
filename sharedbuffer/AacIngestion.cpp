// Audio ingestion: AAC frames behind an ADTS header, in one shared buffer.
#define LOG_TAG "TavoMBBMSEngine"
#include "AacIngestion.h"

#include <cstring>

#include "Log.h"

namespace {

// The frame's own bytes may take the payload up to this, leaving room for the header.
const uint32_t kAacFrameLimit = CMMB_PAYLOAD_LIMIT - CMMB_ADTS_HEADER_SIZE;

}  // namespace

void writeAdtsHeader(unsigned char* out, uint32_t frameLength) {
    // syncword 0xFFF, MPEG-2, layer 0, no CRC; AAC LC, 24,000 Hz (index 6), private bit 0,
    // two channels; frame length in 13 bits (the top two always 0); buffer fullness 0x7FF;
    // one raw data block.
    out[0] = 0xFF;
    out[1] = 0xF9;
    out[2] = 0x58;
    out[3] = 0x80;
    out[4] = static_cast<unsigned char>((frameLength >> 3) & 0xFF);
    out[5] = static_cast<unsigned char>(((frameLength & 0x07) << 5) | 0x1F);
    out[6] = 0xFC;
}

namespace {

// The append itself, inlined into both entry points so that the per-target loop of a frame
// costs no call per session.
inline bool appendFrame(CmmbSharedBuffer* buffer, BufferWriteState& state, int session,
                        unsigned long tsBase, unsigned long tsRelative, const unsigned char* data,
                        unsigned short length, const char* caller) {
    TLOG_FOR(caller, DATA_AAC, "+Raw audio AAC,session=%d, count=%d, ts=%lu+%lu , len=%lu\n",
             session, static_cast<int>(state.aacCount), tsBase, tsRelative,
             static_cast<unsigned long>(length));

    // Both terms are bounded (the payload limit, 16 bits): no overflow.
    const uint32_t needed = state.dataLength + length;
    if (needed > kAacFrameLimit) {
        TLOG_FOR(caller, DATA_AAC, "SharedBuffer have no enough space for AAC, %d > %d, DATA drop!",
                 static_cast<int>(needed), 65535);
        return false;
    }
    if (state.aacCount >= CMMB_AAC_RECORD_SLOTS) {
        TLOG_FOR(caller, WARNING, "SharedBuffer have no free AAC record, aacCount=%d, DATA drop!",
                 static_cast<int>(state.aacCount));
        return false;
    }

    CmmbAacRecord& record = buffer->aac[state.aacCount];
    const uint32_t frameLength = static_cast<uint32_t>(length) + CMMB_ADTS_HEADER_SIZE;
    unsigned char* header = buffer->data + state.dataLength;
    record.tsBase = static_cast<uint32_t>(tsBase);
    record.tsRelative = static_cast<uint32_t>(tsRelative);
    record.length = frameLength;
    record.offset = state.dataLength;
    state.dataLength += frameLength;
    buffer->dataLength = state.dataLength;

    writeAdtsHeader(header, frameLength);
    if (length > 0)
        memcpy(header + CMMB_ADTS_HEADER_SIZE, data, length);
    if (state.aacCount == 0)
        state.firstAacTsBase = static_cast<uint32_t>(tsBase);
    state.aacCount += 1;
    buffer->aacCount = state.aacCount;
    return true;
}

}  // namespace

bool appendAacFrame(CmmbSharedBuffer* buffer, BufferWriteState& state, int session,
                    unsigned long tsBase, unsigned long tsRelative, const unsigned char* data,
                    unsigned short length, const char* caller) {
    return appendFrame(buffer, state, session, tsBase, tsRelative, data, length, caller);
}

void appendAacFrameToTargets(const FrameTarget* targets, int count, unsigned long tsBase,
                             unsigned long tsRelative, const unsigned char* data,
                             unsigned short length, const char* caller) {
    for (int i = 0; i < count; ++i) {
        const FrameTarget& target = targets[i];
        if (!appendFrame(target.buffer, *target.state, target.session, tsBase, tsRelative, data,
                         length, caller)) {
            return;
        }
    }
}
