#include "ServiceContent.h"

#include <cstdio>

#include "ElementaryStreams.h"
#include "WholeFile.h"

namespace {

bool isSliceType(int type) {
    return type == 1 || type == 5;
}

}  // namespace

bool ServiceContent::load(const std::string& dir, int serviceID, std::string* error) {
    std::string base = dir + "/" + std::to_string(serviceID);
    if (!readWholeFile(base + ".h264", &mVideo)) {
        *error = "cannot read " + base + ".h264";
        return false;
    }
    if (!readWholeFile(base + ".aac", &mAudio)) {
        *error = "cannot read " + base + ".aac";
        return false;
    }
    return splitAnnexB(error) && splitAdts(error);
}

// Splits the Annex B stream at its start codes. A picture collects the units that
// precede its slice; every stream here has one slice per picture, so a slice ends it.
bool ServiceContent::splitAnnexB(std::string* error) {
    mNalUnits.clear();
    mPictures.clear();
    for (const ByteRange& unit : splitAnnexBUnits(mVideo.data(), mVideo.size()))
        mNalUnits.push_back({unit.offset, unit.length});

    size_t first = 0;
    for (size_t n = 0; n < mNalUnits.size(); ++n) {
        int type = nalType(mNalUnits[n]);
        if (!isSliceType(type))
            continue;
        mPictures.push_back({first, n + 1 - first, type == 5});
        first = n + 1;
    }
    if (mPictures.empty() || !mPictures.front().isIdr) {
        *error = "the H.264 stream holds no pictures or does not begin with an IDR picture";
        return false;
    }
    return true;
}

// Splits the ADTS stream into raw frames, dropping each header (7 bytes, 9 with CRC).
bool ServiceContent::splitAdts(std::string* error) {
    mAudioFrames.clear();
    std::vector<ByteRange> frames;
    const AdtsSplit split = splitAdtsFrames(mAudio.data(), mAudio.size(), &frames);
    if (split.status == AdtsSplit::SYNC_LOST) {
        *error = "ADTS sync lost at byte " + std::to_string(split.stoppedAt);
        return false;
    }
    if (split.status == AdtsSplit::TRUNCATED) {
        *error = "truncated ADTS frame at byte " + std::to_string(split.stoppedAt);
        return false;
    }
    for (const ByteRange& frame : frames) {
        if (frame.length == 0) {
            *error = "empty ADTS frame at byte " + std::to_string(frame.offset);
            return false;
        }
        if (frame.length > kMaxAudioFrame) {
            *error = "AAC frame too long at byte " + std::to_string(frame.offset);
            return false;
        }
        mAudioFrames.push_back({frame.offset, frame.length});
    }
    if (mAudioFrames.empty()) {
        *error = "the AAC stream holds no frames";
        return false;
    }
    return true;
}
