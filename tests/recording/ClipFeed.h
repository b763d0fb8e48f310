// The test clips as multiplex frames the way an agent delivers them.
#ifndef TAVO_TESTS_RECORDING_CLIP_FEED_H
#define TAVO_TESTS_RECORDING_CLIP_FEED_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "MediaFiles.h"

// One multiplex frame as the agent delivers it: video NAL units first, then AAC frames.
struct MultiplexFrame {
    struct Video {
        uint32_t tsBase;
        uint32_t tsRelative;
        MediaBytes annexB;  // one or more NAL units, each behind a 4-byte start code
    };
    struct Audio {
        uint32_t tsBase;
        uint32_t tsRelative;
        MediaBytes raw;  // without ADTS header
    };
    std::vector<Video> video;
    std::vector<Audio> audio;
};

// The test clips cut into one-second multiplex frames, looped as often as asked for. Picture
// n is presented at kFirstTick + 900 n (25 per second at 22,500 ticks per second), audio
// frame m at kFirstTick + 960 m (1,024 samples at 24,000 Hz).
class ClipFeed {
public:
    // startPicture: index of the clip picture the feed begins with. oneUnitPerPicture: all
    // NAL units of a picture (parameter sets included) are delivered as one unit.
    explicit ClipFeed(size_t startPicture = 0, bool oneUnitPerPicture = false);

    MultiplexFrame nextSecond();
    // Pictures and audio frames handed out so far, and the presentation time of the next.
    size_t picturesFed() const { return mPicture - mStartPicture; }
    uint32_t nextPictureTick() const { return kFirstTick + 900 * picturesFed(); }
    // Whether the clip picture with feed index `i` (0 = the first picture fed) holds an SPS.
    bool pictureHasSps(size_t i) const;

    // Raw size of the audio frame with feed index m.
    size_t audioFrameSize(size_t m) const { return mAudio[m % mAudio.size()].size(); }

    static const uint32_t kFirstTick = 45000;
    static const uint32_t kPictureTicks = 900;
    static const uint32_t kAudioFrameTicks = 960;

private:
    std::vector<H264Picture> mPictures;
    std::vector<MediaBytes> mAudio;
    size_t mStartPicture;
    bool mOneUnitPerPicture;
    size_t mPicture;     // next picture, counted from the clip's start
    size_t mAudioFrame;  // next audio frame
    uint32_t mSecond;    // next multiplex frame
};

#endif  // TAVO_TESTS_RECORDING_CLIP_FEED_H
