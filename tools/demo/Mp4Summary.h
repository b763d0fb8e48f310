// What a recorded ISO base media file holds, read from its boxes: the major brand, the
// movie's duration and, per track, its handler, codec, time scale, duration and sample
// count. Enough to print a recording's track list without any media library.
#ifndef TAVO_DEMO_MP4_SUMMARY_H
#define TAVO_DEMO_MP4_SUMMARY_H

#include <cstdint>
#include <string>
#include <vector>

struct Mp4Track {
    uint32_t trackID = 0;
    std::string handler;  // "vide", "soun", ...
    std::string codec;    // sample entry type: "avc1", "mp4a", ...
    uint32_t timescale = 0;
    uint64_t duration = 0;  // in timescale units
    uint32_t samples = 0;
    uint16_t width = 0, height = 0;  // visual entries
    uint16_t channels = 0;           // audio entries
    uint32_t sampleRate = 0;         // audio entries, Hz

    double seconds() const {
        return timescale != 0 ? static_cast<double>(duration) / timescale : 0.0;
    }
};

struct Mp4Summary {
    bool valid = false;
    std::string error;  // why it is not valid
    std::string majorBrand;
    uint32_t timescale = 0;
    uint64_t duration = 0;
    std::vector<Mp4Track> tracks;

    double seconds() const {
        return timescale != 0 ? static_cast<double>(duration) / timescale : 0.0;
    }

    static Mp4Summary read(const std::string& path);
};

#endif  // TAVO_DEMO_MP4_SUMMARY_H
