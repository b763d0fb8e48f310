// Drives one CmmbMPEG4Writer on a fresh temporary file, owns the track descriptors, feeds
// samples and reads the finished file back.
#ifndef TAVO_TESTS_MP4WRITER_WRITER_HARNESS_H
#define TAVO_TESTS_MP4WRITER_WRITER_HARNESS_H

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "CmmbMPEG4Writer.h"
#include "Env.h"
#include "Mp4BoxReader.h"

inline const char* const kVideoMime = "video/avc";
inline const char* const kAudioMime = "audio/mp4a-latm";
inline const Bytes kTestSps = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5};  // level 3
inline const Bytes kTestPps = {0x68, 0xCE, 0x3C, 0x80};

// `size` bytes counting up from `first`.
inline Bytes patternBytes(size_t size, uint8_t first) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(first + i);
    return bytes;
}

class WriterHarness {
public:
    WriterHarness() : mBuffer(new _CmmbOutBuffer()) {
        const char* dir = getenv("TMPDIR");
        mPath =
            std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/mp4writer-test-XXXXXX";
        mWriter.reset(new CmmbMPEG4Writer(mkstemp(&mPath[0]), Env::current()));
        // The tables and offsets checked here are those of the plain layout; repair records
        // are checked through the recording repair.
        mWriter->setRepairRecords(false);
    }
    ~WriterHarness() {
        mWriter.reset();
        unlink(mPath.c_str());
    }

    CmmbMPEG4Writer& writer() { return *mWriter; }
    const std::string& path() const { return mPath; }

    void addSource(const char* mime, int width, int height, int sampleRate, int timeScale) {
        mSources.emplace_back(new CmmbMediaSource{mime, width, height, sampleRate, timeScale});
        mWriter->addSource(mSources.back().get());
    }
    void addVideo() { addSource(kVideoMime, 320, 240, 25, 22500); }
    void addAudio() { addSource(kAudioMime, 0, 0, 24000, 24000); }
    int start(bool nalLengthFour = true, bool offsets32Bit = true, int timeScale = 24000) {
        _CmmbMetaData meta = {timeScale, nalLengthFour, offsets32Bit};
        return mWriter->start(&meta);
    }

    int feed(const char* mime, long long timestamp, const Bytes& data, bool sync = false) {
        mBuffer->mime = mime;
        mBuffer->timestamp = timestamp;
        mBuffer->length = static_cast<uint32_t>(data.size());
        mBuffer->data = mBuffer->storage;
        std::copy(data.begin(), data.end(), mBuffer->storage);
        mBuffer->isSyncFrame = sync;
        return mWriter->writeout(mBuffer.get());
    }
    // Adds the tracks named and starts; with video, feeds the parameter sets as well.
    int startTracks(bool video, bool audio) {
        if (video)
            addVideo();
        if (audio)
            addAudio();
        const int result = start();
        return result != 0 || !video ? result : feedParameterSets();
    }
    int feedParameterSets() {
        return feed(kVideoMime, 0, kTestSps) | feed(kVideoMime, 0, kTestPps);
    }
    // `count` samples of `size` bytes (sample n is patternBytes(size, n)), `step` ticks apart.
    void feedRun(const char* mime, long long firstTimestamp, long long step, int count, size_t size,
                 bool sync = false) {
        for (int n = 0; n < count; ++n)
            feed(mime, firstTimestamp + n * step, patternBytes(size, static_cast<uint8_t>(n)),
                 sync);
    }

    int stop() { return mWriter->stop(); }
    void destroyWriter() { mWriter.reset(); }
    Mp4File readFile() const { return Mp4File::read(mPath); }

private:
    std::string mPath;
    std::unique_ptr<CmmbMPEG4Writer> mWriter;
    std::vector<std::unique_ptr<CmmbMediaSource>> mSources;
    std::unique_ptr<_CmmbOutBuffer> mBuffer;  // one sample record, reused
};

#endif  // TAVO_TESTS_MP4WRITER_WRITER_HARNESS_H
