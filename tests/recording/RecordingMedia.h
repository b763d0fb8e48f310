// The test clips as multiplex frames the way an agent delivers them, and examination of the
// recorded files with ffprobe and ffmpeg.
#ifndef TAVO_TESTS_RECORDING_RECORDING_MEDIA_H
#define TAVO_TESTS_RECORDING_RECORDING_MEDIA_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "MediaFiles.h"

// One multiplex frame: video NAL units (each behind a 4-byte start code), then raw AAC frames.
struct MultiplexFrame {
    struct Video {
        uint32_t tsBase, tsRelative;
        MediaBytes annexB;
    };
    struct Audio {
        uint32_t tsBase, tsRelative;
        MediaBytes raw;
    };
    std::vector<Video> video;
    std::vector<Audio> audio;
};

// The clips cut into one-second multiplex frames, looped. Fed picture n is presented at
// kFirstTick + 900 n (25 per second at 22,500 ticks per second), audio frame m at
// kFirstTick + 960 m (1,024 samples at 24,000 Hz).
class ClipFeed {
public:
    // startPicture: the clip picture the feed begins with.
    explicit ClipFeed(size_t startPicture = 0);
    MultiplexFrame nextSecond();
    size_t picturesFed() const { return mPicture - mStartPicture; }
    // Whether fed picture i (0 = the first fed) holds an SPS.
    bool pictureHasSps(size_t i) const;
    size_t audioFrameSize(size_t m) const { return mAudio[m % mAudio.size()].size(); }

    static const uint32_t kFirstTick = 45000;
    static const uint32_t kTicksPerSecond = 22500;
    static const uint32_t kPictureTicks = 900;
    static const uint32_t kAudioFrameTicks = 960;

private:
    std::vector<H264Picture> mPictures;
    std::vector<MediaBytes> mAudio;
    size_t mStartPicture;
    size_t mPicture = 0;     // next picture, counted from the clip's start
    size_t mAudioFrame = 0;  // next audio frame
    uint32_t mSecond = 0;    // next multiplex frame
};

struct ProbedPacket {
    long long pts;
    int size;
    bool key;
};

// Fails the test unless ffprobe -v error and ffmpeg -xerror read the whole file silently.
void expectCleanFile(const std::string& path);
std::vector<ProbedPacket> probePackets(const std::string& path, int stream);
// A stream's duration in seconds as ffprobe reports it; negative when unknown.
double probeStreamDuration(const std::string& path, int stream);
bool fileHasMoov(const std::string& path);
// Types of the top-level boxes, walked by their headers only (large sizes included); a box
// running past the end of the file is listed as "truncated".
std::vector<std::string> topLevelBoxes(const std::string& path);

#endif  // TAVO_TESTS_RECORDING_RECORDING_MEDIA_H
