// Drives one CmmbMPEG4Writer on a fresh temporary file, owns the track descriptors, feeds
// samples and reads the finished file back; captures the writer's log lines in-process.
#ifndef TAVO_TESTS_MP4WRITER_WRITER_HARNESS_H
#define TAVO_TESTS_MP4WRITER_WRITER_HARNESS_H

#include <memory>
#include <string>
#include <vector>

#include "CmmbMPEG4Writer.h"
#include "Mp4BoxReader.h"

extern const char* const kVideoMime;
extern const char* const kAudioMime;
extern const Bytes kTestSps;  // baseline profile, level 3.0
extern const Bytes kTestPps;

// Collects "P/tag: message" lines for as long as it exists (one at a time).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    int count(const std::string& fragment) const;

private:
    std::vector<std::string> mLines;
};

class WriterHarness {
public:
    WriterHarness();
    ~WriterHarness();

    CmmbMPEG4Writer& writer() { return *mWriter; }
    const std::string& path() const { return mPath; }

    void addSource(const char* mime, int width, int height, int sampleRate, int timeScale);
    void addVideo() { addSource(kVideoMime, 320, 240, 25, 22500); }
    void addAudio() { addSource(kAudioMime, 0, 0, 24000, 24000); }
    int start(bool nalLengthFour = true, bool offsets32Bit = true, int timeScale = 24000);

    int feed(const char* mime, long long timestamp, const Bytes& data, bool sync = false);
    int feedParameterSets() {
        return feed(kVideoMime, 0, kTestSps) | feed(kVideoMime, 0, kTestPps);
    }
    // `count` samples of `size` bytes (byte i of sample n is n + i), `step` ticks apart.
    void feedRun(const char* mime, long long firstTimestamp, long long step, int count, size_t size,
                 bool sync = false);

    int stop() { return mWriter->stop(); }
    void destroyWriter() { mWriter.reset(); }
    Mp4File readFile() const { return Mp4File::read(mPath); }

private:
    std::string mPath;
    std::unique_ptr<CmmbMPEG4Writer> mWriter;
    std::vector<std::unique_ptr<CmmbMediaSource>> mSources;
    std::unique_ptr<_CmmbOutBuffer> mBuffer;  // one sample record, reused
};

Bytes patternBytes(size_t size, uint8_t first);

#endif  // TAVO_TESTS_MP4WRITER_WRITER_HARNESS_H
