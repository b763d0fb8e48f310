#include "WriterHarness.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "AndroidLog.h"
#include "LogSink.h"

const char* const kVideoMime = "video/avc";
const char* const kAudioMime = "audio/mp4a-latm";
const Bytes kTestSps = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5};
const Bytes kTestPps = {0x68, 0xCE, 0x3C, 0x80};

LogCapture::LogCapture() {
    tavo_log_set_sink(
        [](void* context, int prio, const char* tag, const char* message) {
            static const char kLetters[] = "??VDIWEF?";
            char letter = kLetters[prio >= 0 && prio <= ANDROID_LOG_SILENT ? prio : 0];
            static_cast<LogCapture*>(context)->mLines.push_back(std::string(1, letter) + "/" + tag +
                                                                ": " + message);
        },
        this);
}

LogCapture::~LogCapture() {
    tavo_log_set_sink(nullptr, nullptr);
}

int LogCapture::count(const std::string& fragment) const {
    int n = 0;
    for (const std::string& line : mLines) {
        n += line.find(fragment) != std::string::npos ? 1 : 0;
    }
    return n;
}

WriterHarness::WriterHarness() : mBuffer(new _CmmbOutBuffer()) {
    const char* dir = getenv("TMPDIR");
    std::string name =
        std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/mp4writer-test-XXXXXX";
    int fd = mkstemp(&name[0]);
    mPath = name;
    mWriter.reset(new CmmbMPEG4Writer(fd));
}

WriterHarness::~WriterHarness() {
    mWriter.reset();
    unlink(mPath.c_str());
}

void WriterHarness::addSource(const char* mime, int width, int height, int sampleRate,
                              int timeScale) {
    mSources.emplace_back(new CmmbMediaSource{mime, width, height, sampleRate, timeScale});
    mWriter->addSource(mSources.back().get());
}

int WriterHarness::start(bool nalLengthFour, bool offsets32Bit, int timeScale) {
    _CmmbMetaData meta = {timeScale, nalLengthFour, offsets32Bit};
    return mWriter->start(&meta);
}

int WriterHarness::feed(const char* mime, long long timestamp, const Bytes& data, bool sync) {
    mBuffer->mime = mime;
    mBuffer->timestamp = timestamp;
    mBuffer->length = static_cast<uint32_t>(data.size());
    mBuffer->data = mBuffer->storage;
    std::copy(data.begin(), data.end(), mBuffer->storage);
    mBuffer->isSyncFrame = sync;
    return mWriter->writeout(mBuffer.get());
}

void WriterHarness::feedRun(const char* mime, long long firstTimestamp, long long step, int count,
                            size_t size, bool sync) {
    for (int n = 0; n < count; ++n) {
        feed(mime, firstTimestamp + n * step, patternBytes(size, static_cast<uint8_t>(n)), sync);
    }
}

Bytes patternBytes(size_t size, uint8_t first) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}
