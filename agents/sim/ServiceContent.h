// The elementary streams of one service, loaded once and then read-only: H.264 pictures
// as NAL units (start codes removed) and raw AAC frames (ADTS headers removed). Built by
// the agent's control thread at init; read by the output thread afterwards without a lock.
#ifndef TAVO_SIM_SERVICE_CONTENT_H
#define TAVO_SIM_SERVICE_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class ServiceContent {
public:
    // Longest raw AAC frame accepted: the receiving side's 7-byte ADTS header describes
    // frames shorter than 2,048 bytes.
    static constexpr size_t kMaxAudioFrame = 2040;

    struct Span {
        size_t offset;  // into the stream's bytes
        size_t length;
    };
    struct Picture {
        size_t firstNal;  // index into nalUnits()
        size_t nalCount;  // parameter sets and other units that precede the slice, then the slice
        bool isIdr;
    };

    // Loads "<dir>/<serviceID>.h264" and "<dir>/<serviceID>.aac". Returns false, with a
    // reason in *error, when a file is missing or holds no usable stream.
    bool load(const std::string& dir, int serviceID, std::string* error);

    const std::vector<Picture>& pictures() const { return mPictures; }
    const std::vector<Span>& nalUnits() const { return mNalUnits; }
    const std::vector<Span>& audioFrames() const { return mAudioFrames; }
    const uint8_t* videoBytes() const { return mVideo.data(); }
    const uint8_t* audioBytes() const { return mAudio.data(); }

    // NAL unit type of a unit (low five bits of its first byte).
    int nalType(const Span& nal) const { return mVideo[nal.offset] & 0x1F; }

private:
    bool splitAnnexB(std::string* error);
    bool splitAdts(std::string* error);

    std::vector<uint8_t> mVideo;
    std::vector<uint8_t> mAudio;
    std::vector<Span> mNalUnits;
    std::vector<Picture> mPictures;
    std::vector<Span> mAudioFrames;
};

#endif  // TAVO_SIM_SERVICE_CONTENT_H
