// Readers for the small media clips in tests/media, for tests that feed real H.264 and AAC
// through the data path, the recorder or the MP4 writer.
//
//   readAnnexBPictures  splits an Annex B H.264 stream into NAL units (start codes removed)
//                       grouped per picture: a group holds the parameter sets and other
//                       non-slice units that precede a picture, then the picture's slices.
//   readAdtsFrames      splits an ADTS stream into raw AAC frames (headers removed).
//
// Both return an empty list when the file cannot be read or is malformed.
#ifndef TAVO_TESTS_SUPPORT_MEDIA_FILES_H
#define TAVO_TESTS_SUPPORT_MEDIA_FILES_H

#include <cstdint>
#include <string>
#include <vector>

using MediaBytes = std::vector<uint8_t>;

struct H264Picture {
    std::vector<MediaBytes> nalUnits;  // each without its start code, in stream order
    bool isIdr = false;                // holds a slice of type 5
};

struct AdtsStreamInfo {
    int sampleRate = 0;  // Hz, from the first header
    int channels = 0;    // channel configuration of the first header
    int profile = 0;     // audio object type (2 = AAC-LC)
};

// The folder holding the committed clips.
std::string testMediaPath(const std::string& fileName);

// Reads a whole file; an empty result when it cannot be read.
MediaBytes readMediaFile(const std::string& path);

std::vector<H264Picture> readAnnexBPictures(const std::string& path);
std::vector<H264Picture> splitAnnexBPictures(const MediaBytes& stream);

// NAL unit type (low five bits of the first byte); -1 for an empty unit.
int nalUnitType(const MediaBytes& nalUnit);

std::vector<MediaBytes> readAdtsFrames(const std::string& path, AdtsStreamInfo* info = nullptr);
std::vector<MediaBytes> splitAdtsFrames(const MediaBytes& stream, AdtsStreamInfo* info = nullptr);

#endif  // TAVO_TESTS_SUPPORT_MEDIA_FILES_H
