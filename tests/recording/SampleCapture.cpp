#include "SampleCapture.h"

#include <cstring>

#include "LogSink.h"

SharedBufferImage::SharedBufferImage() : mBuffer(new CmmbSharedBuffer()) {
    memset(mBuffer.get(), 0, sizeof(CmmbSharedBuffer));
    for (CmmbNalRecord& record : mBuffer->nal)
        record.pos = CMMB_NAL_POS_NONE_OPEN;
}

void SharedBufferImage::addNal(uint32_t tsBase, uint32_t tsRelative, const Bytes& unit) {
    CmmbSharedBuffer& b = *mBuffer;
    CmmbNalRecord& record = b.nal[b.nalCount++];
    record = {tsBase, tsRelative, static_cast<uint32_t>(unit.size()), b.dataLength,
              CMMB_NAL_POS_NONE_OPEN};
    memcpy(b.data + b.dataLength, unit.data(), unit.size());
    b.dataLength += unit.size();
}

void SharedBufferImage::addAac(uint32_t tsBase, uint32_t tsRelative, const Bytes& rawFrame) {
    CmmbSharedBuffer& b = *mBuffer;
    const uint32_t length = rawFrame.size() + CMMB_ADTS_HEADER_SIZE;
    b.aac[b.aacCount++] = {tsBase, tsRelative, length, b.dataLength};
    const uint8_t header[CMMB_ADTS_HEADER_SIZE] = {0xFF,
                                                   0xF9,
                                                   0x58,
                                                   0x80,
                                                   static_cast<uint8_t>(length >> 3),
                                                   static_cast<uint8_t>(((length & 7) << 5) | 0x1F),
                                                   0xFC};
    memcpy(b.data + b.dataLength, header, sizeof(header));
    memcpy(b.data + b.dataLength + sizeof(header), rawFrame.data(), rawFrame.size());
    b.dataLength += length;
}

int CapturingRecorder::LockRecorder() {
    int result = CmmbRecorder::LockRecorder();
    ++lockDepth;
    return result;
}

int CapturingRecorder::UnlockRecorder() {
    --lockDepth;
    return CmmbRecorder::UnlockRecorder();
}

int CapturingRecorder::writeout(_CmmbOutBuffer* buffer) {
    if (lockDepth != 1)
        ++writeoutsOutsideLock;
    ++mWriteouts;
    if (mWriteouts == mFailAt)
        return mFailure;
    samples.push_back({buffer->mime, buffer->timestamp,
                       Bytes(buffer->data, buffer->data + buffer->length), buffer->isSyncFrame});
    return 0;
}

Bytes nalUnit(uint8_t header, size_t length, uint8_t fill) {
    Bytes unit(length, fill);
    unit[0] = header;
    return unit;
}

Bytes joinWithStartCodes(const std::vector<Bytes>& parts,
                         const std::vector<int>& startCodeLengths) {
    Bytes joined;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) {
            if (startCodeLengths[i - 1] == 4)
                joined.push_back(0);
            joined.insert(joined.end(), {0, 0, 1});
        }
        joined.insert(joined.end(), parts[i].begin(), parts[i].end());
    }
    return joined;
}

Bytes concat(const Bytes& a, const Bytes& b) {
    Bytes joined(a);
    joined.insert(joined.end(), b.begin(), b.end());
    return joined;
}

CapturedLog::CapturedLog() {
    tavo_log_set_sink(&CapturedLog::receive, this);
}

CapturedLog::~CapturedLog() {
    tavo_log_set_sink(nullptr, nullptr);
}

int CapturedLog::count(const std::string& text) {
    std::lock_guard<std::mutex> guard(mLock);
    int n = 0;
    for (const std::string& line : mLines)
        n += line.find(text) != std::string::npos;
    return n;
}

void CapturedLog::receive(void* context, int priority, const char* tag, const char* message) {
    CapturedLog* self = static_cast<CapturedLog*>(context);
    std::lock_guard<std::mutex> guard(self->mLock);
    self->mLines.push_back(std::to_string(priority) + " " + tag + " " + message);
}
