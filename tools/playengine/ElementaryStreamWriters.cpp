#include "ElementaryStreamWriters.h"

#include <cstring>

namespace {

const unsigned char kStartCode[4] = {0, 0, 0, 1};
const size_t kAnnexBCapacity = CMMB_PAYLOAD_SIZE + sizeof(kStartCode) * CMMB_NAL_RECORD_SLOTS;

}  // namespace

const unsigned char* payloadItem(const CmmbSharedBuffer& frame, uint32_t offset, uint32_t length) {
    uint64_t end = static_cast<uint64_t>(offset) + length;
    if (length == 0 || end > frame.dataLength)
        return nullptr;
    return frame.data + offset;
}

AnnexBWriter::AnnexBWriter(StreamOutput* output)
    : mOutput(output), mBuffer(new unsigned char[kAnnexBCapacity]) {}

int AnnexBWriter::writeFrame(const CmmbSharedBuffer& frame) {
    size_t used = 0;
    int valid = 0;
    for (uint32_t i = 0; i < frame.nalCount; ++i) {
        const CmmbNalRecord& record = frame.nal[i];
        const unsigned char* nal = payloadItem(frame, record.offset, record.length);
        if (nal == nullptr)
            continue;
        if (used + sizeof(kStartCode) + record.length > kAnnexBCapacity)
            break;  // overlapping records
        memcpy(mBuffer.get() + used, kStartCode, sizeof(kStartCode));
        memcpy(mBuffer.get() + used + sizeof(kStartCode), nal, record.length);
        used += sizeof(kStartCode) + record.length;
        ++valid;
    }
    mOutput->write(mBuffer.get(), used);
    return valid;
}

AdtsWriter::AdtsWriter(StreamOutput* output)
    : mOutput(output), mBuffer(new unsigned char[CMMB_PAYLOAD_SIZE]) {}

int AdtsWriter::writeFrame(const CmmbSharedBuffer& frame) {
    size_t used = 0;
    int valid = 0;
    for (uint32_t i = 0; i < frame.aacCount; ++i) {
        const CmmbAacRecord& record = frame.aac[i];
        const unsigned char* aac = payloadItem(frame, record.offset, record.length);
        if (aac == nullptr || record.length < CMMB_ADTS_HEADER_SIZE)
            continue;
        if (used + record.length > CMMB_PAYLOAD_SIZE)
            break;  // overlapping records
        memcpy(mBuffer.get() + used, aac, record.length);
        used += record.length;
        ++valid;
    }
    mOutput->write(mBuffer.get(), used);
    return valid;
}
