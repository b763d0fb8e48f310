#include "MediaFiles.h"

#include <cstdio>

namespace {

const int kNalSlice = 1;
const int kNalIdrSlice = 5;

// Position of the next 00 00 01 at or after `from`; stream.size() when there is none.
size_t findStartCode(const MediaBytes& stream, size_t from) {
    for (size_t i = from; i + 2 < stream.size(); ++i) {
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            return i;
        }
    }
    return stream.size();
}

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

    size_t start = findStartCode(stream, 0);
    while (start < stream.size()) {
        size_t payload = start + 3;
        size_t next = findStartCode(stream, payload);
        size_t end = next;
        // A four-byte start code leaves one zero byte at the end of the previous unit;
        // trailing zero bytes never belong to a NAL unit.
        while (end > payload && stream[end - 1] == 0) {
            --end;
        }
        start = next;
        if (end == payload) {
            continue;
        }
        // The unit is read in place and copied once, into the picture it belongs to.
        const uint8_t* unit = stream.data() + payload;
        const size_t unitLength = end - payload;
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
    std::vector<MediaBytes> frames;
    size_t pos = 0;
    while (pos + 7 <= stream.size()) {
        const uint8_t* h = &stream[pos];
        if (h[0] != 0xff || (h[1] & 0xf0) != 0xf0) {
            return {};
        }
        bool hasCrc = (h[1] & 0x01) == 0;
        size_t headerLength = hasCrc ? 9 : 7;
        size_t frameLength = ((h[3] & 0x03) << 11) | (h[4] << 3) | (h[5] >> 5);
        if (frameLength < headerLength || pos + frameLength > stream.size()) {
            return {};
        }
        if (frames.empty() && info != nullptr) {
            int rateIndex = (h[2] >> 2) & 0x0f;
            info->profile = ((h[2] >> 6) & 0x03) + 1;
            info->sampleRate = rateIndex < 13 ? kSampleRates[rateIndex] : 0;
            info->channels = ((h[2] & 0x01) << 2) | (h[3] >> 6);
        }
        frames.emplace_back(stream.begin() + pos + headerLength,
                            stream.begin() + pos + frameLength);
        pos += frameLength;
    }
    return pos == stream.size() ? frames : std::vector<MediaBytes>();
}

std::vector<MediaBytes> readAdtsFrames(const std::string& path, AdtsStreamInfo* info) {
    return splitAdtsFrames(readMediaFile(path), info);
}
