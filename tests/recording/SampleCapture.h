// White-box helpers for the recording manager: a shared buffer filled the way the data path
// fills it, and a recorder that captures the samples handed to it instead of writing a file.
#ifndef TAVO_TESTS_RECORDING_SAMPLE_CAPTURE_H
#define TAVO_TESTS_RECORDING_SAMPLE_CAPTURE_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CmmbRecorder.h"
#include "CmmbSharedBuffer.h"

using Bytes = std::vector<uint8_t>;

// A shared buffer as the frame hand-off leaves it at the end of a frame: NAL units without
// start code, AAC frames behind a 7-byte ADTS header, appended in call order.
class SharedBufferImage {
public:
    SharedBufferImage();
    void addNal(uint32_t tsBase, uint32_t tsRelative, const Bytes& unit);
    void addAac(uint32_t tsBase, uint32_t tsRelative, const Bytes& rawFrame);
    CmmbSharedBuffer& buffer() { return *mBuffer; }
    unsigned char* bytes() { return reinterpret_cast<unsigned char*>(mBuffer.get()); }

private:
    std::unique_ptr<CmmbSharedBuffer> mBuffer;
};

struct CapturedSample {
    std::string mime;
    int64_t timestamp;
    Bytes bytes;
    bool isSyncFrame;
};

// Captures every writeout. failWriteout(n, failure) makes the n-th writeout from then on
// fail with `failure`. Also checks that writeout is only called while LockRecorder() is held.
class CapturingRecorder : public CmmbRecorder {
public:
    int LockRecorder() override;
    int UnlockRecorder() override;
    int writeout(_CmmbOutBuffer* buffer) override;

    void failWriteout(int failAt, int failure) {
        mFailAt = mWriteouts + failAt;
        mFailure = failure;
    }

    std::vector<CapturedSample> samples;
    int writeoutsOutsideLock = 0;
    int lockDepth = 0;

private:
    int mWriteouts = 0;
    int mFailAt = 0;
    int mFailure = 0;
};

// Captures the log lines written while it lives, as "<priority> <tag> <message>"
// (priority 6 is ERROR).
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;
    // Number of lines containing `text`.
    int count(const std::string& text);

private:
    static void receive(void* context, int priority, const char* tag, const char* message);

    std::mutex mLock;
    std::vector<std::string> mLines;  // guarded by mLock
};

// Byte sequences used as H.264 units (first byte = NAL header) and AAC frames.
Bytes nalUnit(uint8_t header, size_t length, uint8_t fill);
Bytes joinWithStartCodes(const std::vector<Bytes>& parts, const std::vector<int>& startCodeLengths);
Bytes concat(const Bytes& a, const Bytes& b);

#endif  // TAVO_TESTS_RECORDING_SAMPLE_CAPTURE_H
