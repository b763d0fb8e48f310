#include "MediaFiles.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ChildProcess.h"
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

namespace {

const char* const kGStreamerElements[] = {"filesrc",    "qtdemux",  "queue",     "h264parse",
                                          "avdec_h264", "aacparse", "avdec_aac", "fakesink"};
const char kGStreamerPackages[] =
    "gstreamer1.0-tools gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-libav";
// Warnings GStreamer's elements print for recordings that are in order, which the gate lets
// pass: qtdemux's notice about the compressor name (the writer fills that 32-byte field with
// spaces, so its first byte, read as a length, says 32, one more than fits), and two notices
// qtdemux and filesrc print for any plain (unfragmented) file, whoever wrote it.
const char* const kKnownNotices[] = {
    "compressorname length too big",
    "failed to find fragment defaults",
    "pad not activated yet",
};

std::string shellQuoted(const std::string& text) {
    std::string quoted = "'";
    for (char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

bool isProblemLine(const std::string& line) {
    const bool problem = line.find("ERROR") != std::string::npos ||
                         line.find("WARN") != std::string::npos ||
                         line.find("CRITICAL") != std::string::npos;
    if (!problem)
        return false;
    for (const char* notice : kKnownNotices) {
        if (line.find(notice) != std::string::npos)
            return false;
    }
    return true;
}

}  // namespace

std::string gstreamerMissing() {
    std::string output;
    if (runCommand("command -v gst-launch-1.0 && command -v gst-inspect-1.0", &output) != 0)
        return "gst-launch-1.0";
    std::string missing;
    for (const char* element : kGStreamerElements) {
        if (runCommand(std::string("gst-inspect-1.0 --exists ") + element, &output) != 0)
            missing += (missing.empty() ? "" : " ") + std::string(element);
    }
    return missing.empty() ? "" : "GStreamer elements " + missing;
}

std::string gstreamerPlaybackProblems(const std::string& path, RecordedTracks tracks) {
    std::string pipeline = "filesrc location=" + shellQuoted(path) + " ! qtdemux name=d";
    if (tracks != RecordedTracks::AUDIO)
        pipeline += " d.video_0 ! queue ! h264parse ! avdec_h264 ! fakesink";
    if (tracks != RecordedTracks::VIDEO)
        pipeline += " d.audio_0 ! queue ! aacparse ! avdec_aac ! fakesink";
    // Warnings of the elements themselves, not only those posted on the bus.
    std::string output;
    const int status = runCommand(
        "GST_DEBUG='*:2' GST_DEBUG_NO_COLOR=1 gst-launch-1.0 -q " + pipeline + " </dev/null",
        &output);
    std::string problems;
    size_t start = 0;
    while (start < output.size()) {
        size_t end = output.find('\n', start);
        if (end == std::string::npos)
            end = output.size();
        const std::string line = output.substr(start, end - start);
        if (isProblemLine(line))
            problems += line + "\n";
        start = end + 1;
    }
    if (status != 0)
        problems += "gst-launch-1.0 exit status " + std::to_string(status) + "\n";
    return problems;
}

void expectPlaysInGStreamer(const std::string& path, RecordedTracks tracks) {
    const std::string missing = gstreamerMissing();
    if (!missing.empty()) {
        const char* ci = getenv("CI");
        if (ci != nullptr && strcmp(ci, "true") == 0) {
            ADD_FAILURE() << missing << " missing in CI: scripts/install_dependencies.sh installs "
                          << kGStreamerPackages;
        } else {
            GTEST_SKIP() << "recordings not played through GStreamer: " << missing
                         << " missing; install " << kGStreamerPackages;
        }
        return;
    }
    EXPECT_EQ("", gstreamerPlaybackProblems(path, tracks)) << path;
}
