#include "ClipFeed.h"

#include <gtest/gtest.h>

namespace {

const uint32_t kTicksPerSecond = 22500;

MediaBytes withStartCode(const MediaBytes& unit) {
    MediaBytes annexB = {0, 0, 0, 1};
    annexB.insert(annexB.end(), unit.begin(), unit.end());
    return annexB;
}

}  // namespace

ClipFeed::ClipFeed(size_t startPicture, bool oneUnitPerPicture)
    : mPictures(readAnnexBPictures(testMediaPath("clip_320x240_25fps.h264"))),
      mAudio(readAdtsFrames(testMediaPath("clip_24k_stereo.aac"))),
      mStartPicture(startPicture),
      mOneUnitPerPicture(oneUnitPerPicture),
      mPicture(startPicture),
      mAudioFrame(0),
      mSecond(0) {
    EXPECT_FALSE(mPictures.empty()) << "cannot read the H.264 clip";
    EXPECT_FALSE(mAudio.empty()) << "cannot read the AAC clip";
}

bool ClipFeed::pictureHasSps(size_t i) const {
    const H264Picture& picture = mPictures[(mStartPicture + i) % mPictures.size()];
    for (const MediaBytes& unit : picture.nalUnits)
        if (nalUnitType(unit) == 7)
            return true;
    return false;
}

MultiplexFrame ClipFeed::nextSecond() {
    MultiplexFrame frame;
    if (mPictures.empty() || mAudio.empty())
        return frame;
    const uint32_t tsBase = kFirstTick + kTicksPerSecond * mSecond;
    const uint32_t secondStart = kTicksPerSecond * mSecond;
    const uint32_t secondEnd = secondStart + kTicksPerSecond;
    ++mSecond;

    for (;;) {
        const uint32_t at = kPictureTicks * static_cast<uint32_t>(mPicture - mStartPicture);
        if (at >= secondEnd)
            break;
        const H264Picture& picture = mPictures[mPicture % mPictures.size()];
        if (mOneUnitPerPicture) {
            MediaBytes joined;
            for (const MediaBytes& unit : picture.nalUnits) {
                MediaBytes annexB = withStartCode(unit);
                joined.insert(joined.end(), annexB.begin(), annexB.end());
            }
            frame.video.push_back({tsBase, at - secondStart, joined});
        } else {
            for (const MediaBytes& unit : picture.nalUnits)
                frame.video.push_back({tsBase, at - secondStart, withStartCode(unit)});
        }
        ++mPicture;
    }
    for (;;) {
        const uint32_t at = kAudioFrameTicks * static_cast<uint32_t>(mAudioFrame);
        if (at >= secondEnd)
            break;
        frame.audio.push_back({tsBase, at - secondStart, mAudio[mAudioFrame % mAudio.size()]});
        ++mAudioFrame;
    }
    return frame;
}
