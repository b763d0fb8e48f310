// Readers for the small media clips in tests/media, for tests that feed real H.264 and AAC
// through the data path, the recorder or the MP4 writer.
//
//   readAnnexBPictures  splits an Annex B H.264 stream into NAL units (start codes removed)
//                       grouped per picture: a group holds the parameter sets and other
//                       non-slice units that precede a picture, then the picture's slices.
//   readAdtsFrames      splits an ADTS stream into raw AAC frames (headers removed).
//
// Both return an empty list when the file cannot be read or is malformed.
//
//   expectPlaysInGStreamer  the fourth outside parser of recorded files, beside ffprobe,
//                           ffmpeg and mediainfo: GStreamer's qtdemux, parsers and decoders.
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

// The tracks a recorded file holds, for the GStreamer pipeline that plays it.
enum class RecordedTracks { VIDEO_AND_AUDIO, VIDEO, AUDIO };

// What is missing for playing recordings through GStreamer (gst-launch-1.0, or one of the
// elements qtdemux, h264parse, avdec_h264, aacparse, avdec_aac, fakesink); "" when nothing.
std::string gstreamerMissing();

// The lines GStreamer printed while playing `path` to its end (gst-launch-1.0 -q, with the
// warnings of its elements on: GST_DEBUG=*:2) that are errors or warnings, apart from the
// known notices it prints for any plain file and the one about the compressor name, plus
// the exit status when it is not 0. "" when the file played cleanly.
std::string gstreamerPlaybackProblems(const std::string& path, RecordedTracks tracks);

// Adds a test failure unless `path` plays through GStreamer cleanly. When GStreamer is
// missing: a failure in CI (environment variable CI=true, where install_dependencies.sh
// installs it), elsewhere a skip that names the packages to install. In a test body that
// runs in a forked child (EXPECT_IN_CHILD) the skip reaches only the child's output.
void expectPlaysInGStreamer(const std::string& path,
                            RecordedTracks tracks = RecordedTracks::VIDEO_AND_AUDIO);

#endif  // TAVO_TESTS_SUPPORT_MEDIA_FILES_H
