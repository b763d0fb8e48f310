#include "ServiceContent.h"

#include <cstdio>

namespace {

bool readWholeFile(const std::string& path, std::vector<uint8_t>* bytes) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return false;
    bytes->clear();
    uint8_t chunk[16384];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), file)) > 0)
        bytes->insert(bytes->end(), chunk, chunk + n);
    bool ok = ferror(file) == 0;
    fclose(file);
    return ok;
}

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
    const size_t size = mVideo.size();
    size_t i = 0;
    size_t nalStart = 0;
    bool inNal = false;
    auto closeNal = [&](size_t end) {
        while (end > nalStart && mVideo[end - 1] == 0)
            --end;  // zero byte of a 4-byte code
        if (end > nalStart)
            mNalUnits.push_back({nalStart, end - nalStart});
    };
    while (i + 3 <= size) {
        if (mVideo[i] == 0 && mVideo[i + 1] == 0 && mVideo[i + 2] == 1) {
            if (inNal)
                closeNal(i);
            nalStart = i + 3;
            inNal = true;
            i += 3;
        } else {
            ++i;
        }
    }
    if (inNal)
        closeNal(size);

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
    size_t i = 0;
    while (i + 7 <= mAudio.size()) {
        const uint8_t* header = &mAudio[i];
        if (header[0] != 0xFF || (header[1] & 0xF0) != 0xF0) {
            *error = "ADTS sync lost at byte " + std::to_string(i);
            return false;
        }
        size_t headerLength = (header[1] & 0x01) ? 7 : 9;
        size_t frameLength = (static_cast<size_t>(header[3] & 0x03) << 11) |
                             (static_cast<size_t>(header[4]) << 3) | (header[5] >> 5);
        if (frameLength <= headerLength || i + frameLength > mAudio.size()) {
            *error = "truncated ADTS frame at byte " + std::to_string(i);
            return false;
        }
        if (frameLength - headerLength > kMaxAudioFrame) {
            *error = "AAC frame too long at byte " + std::to_string(i);
            return false;
        }
        mAudioFrames.push_back({i + headerLength, frameLength - headerLength});
        i += frameLength;
    }
    if (mAudioFrames.empty()) {
        *error = "the AAC stream holds no frames";
        return false;
    }
    return true;
}
