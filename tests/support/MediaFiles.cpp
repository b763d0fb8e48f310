#include "MediaFiles.h"

#include <cstdio>

#include "ElementaryStreams.h"

namespace {

const int kNalSlice = 1;
const int kNalIdrSlice = 5;

bool isSlice(int type) {
    return type == kNalSlice || type == kNalIdrSlice;
}

// first_mb_in_slice is the first ue(v) after the slice NAL header; a picture's first slice
// has it equal to zero, which is coded as the single bit 1.
bool startsNewPicture(const uint8_t* nalUnit, size_t length) {
    return length > 1 && (nalUnit[1] & 0x80) != 0;
}

}  // namespace

std::string testMediaPath(const std::string& fileName) {
    return std::string(TAVO_TEST_MEDIA_DIR) + "/" + fileName;
}

MediaBytes readMediaFile(const std::string& path) {
    MediaBytes bytes;
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return bytes;
    }
    uint8_t block[16384];
    size_t got;
    while ((got = fread(block, 1, sizeof(block), file)) > 0) {
        bytes.insert(bytes.end(), block, block + got);
    }
    fclose(file);
    return bytes;
}

int nalUnitType(const MediaBytes& nalUnit) {
    return nalUnit.empty() ? -1 : (nalUnit[0] & 0x1f);
}

std::vector<H264Picture> splitAnnexBPictures(const MediaBytes& stream) {
    std::vector<H264Picture> pictures;
    H264Picture pending;  // units collected for the picture being assembled
    bool pendingHasSlice = false;

    for (const ByteRange& range : splitAnnexBUnits(stream.data(), stream.size())) {
        // The unit is read in place and copied once, into the picture it belongs to.
        const uint8_t* unit = stream.data() + range.offset;
        const size_t unitLength = range.length;
        int type = unit[0] & 0x1f;
        bool beginsPicture = !isSlice(type) || startsNewPicture(unit, unitLength);
        if (pendingHasSlice && beginsPicture) {
            pictures.push_back(std::move(pending));
            pending = H264Picture();
            pendingHasSlice = false;
        }
        if (isSlice(type)) {
            pendingHasSlice = true;
            pending.isIdr = pending.isIdr || type == kNalIdrSlice;
        }
        pending.nalUnits.emplace_back(unit, unit + unitLength);
    }
    if (pendingHasSlice) {
        pictures.push_back(std::move(pending));
    }
    return pictures;
}

std::vector<H264Picture> readAnnexBPictures(const std::string& path) {
    return splitAnnexBPictures(readMediaFile(path));
}

std::vector<MediaBytes> splitAdtsFrames(const MediaBytes& stream, AdtsStreamInfo* info) {
    static const int kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};
    std::vector<ByteRange> ranges;
    std::vector<size_t> headers;
    if (splitAdtsFrames(stream.data(), stream.size(), &ranges, &headers).status !=
        AdtsSplit::COMPLETE)
        return {};
    if (!headers.empty() && info != nullptr) {
        const uint8_t* h = &stream[headers.front()];
        const int rateIndex = (h[2] >> 2) & 0x0f;
        info->profile = ((h[2] >> 6) & 0x03) + 1;
        info->sampleRate = rateIndex < 13 ? kSampleRates[rateIndex] : 0;
        info->channels = ((h[2] & 0x01) << 2) | (h[3] >> 6);
    }
    std::vector<MediaBytes> frames;
    for (const ByteRange& range : ranges)
        frames.emplace_back(stream.begin() + range.offset,
                            stream.begin() + range.offset + range.length);
    return frames;
}

std::vector<MediaBytes> readAdtsFrames(const std::string& path, AdtsStreamInfo* info) {
    return splitAdtsFrames(readMediaFile(path), info);
}
