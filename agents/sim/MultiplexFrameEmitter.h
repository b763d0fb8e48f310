// Turns the next second of a channel's content into the agent's data bracket:
// onOutputAVStart (with a synthetic multiplex-frame header as the raw frame), the video
// NAL units of the second's pictures, then its AAC frames, then onOutputAVEnd.
//
// Large NAL units go out as START, MIDDLE and END fragments of at most kMaxFragment bytes,
// small ones as COMPLETE; parameter sets and IDR slices carry a 4-byte start code, other
// slices a 3-byte one. AAC frames are raw, without ADTS headers. Timestamps are in
// 1/22500 s: tsBase is the time of the multiplex frame's first item and tsRelative the
// item's offset from it; a picture lasts 900 ticks (25 fps), an AAC frame 960 (1024
// samples at 24 kHz).
//
// A second normally travels in one multiplex frame. When it would not fit the engine's
// shared buffer (65,534 payload bytes, 256 NAL units, 256 AAC frames) it is split into
// the fewest frames that fit, each carrying an equal share of the pictures and the audio
// of the same time span (at most 25 frames of one picture each).
//
// Used by the output thread only; allocates nothing after construction.
#ifndef TAVO_SIM_MULTIPLEX_FRAME_EMITTER_H
#define TAVO_SIM_MULTIPLEX_FRAME_EMITTER_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "MBBMSAgent.h"
#include "SimChannel.h"

class MultiplexFrameEmitter {
public:
    static constexpr size_t kMaxFragment = 2048;    // bytes per video fragment, start code included
    static constexpr size_t kPayloadLimit = 65534;  // engine's shared-buffer payload
    static constexpr size_t kRecordLimit = 256;     // NAL and AAC records per buffer
    static constexpr size_t kAdtsHeaderLength = 7;  // added by the engine to every AAC frame
    static constexpr uint32_t kTicksPerSecond = 22500;
    static constexpr uint32_t kPicturesPerSecond = 25;
    static constexpr uint32_t kTicksPerPicture = 900;
    static constexpr uint32_t kTicksPerAudioFrame = 960;
    static constexpr size_t kHeaderLength = 32;

    MultiplexFrameEmitter();

    // Emits the channel's next second and advances its position.
    void emitNextSecond(MBBMSAgentCallback* callback, SimChannel* channel);

private:
    struct Span {
        uint64_t firstPicture, endPicture;  // absolute picture numbers since the channel start
        uint64_t firstAudio, endAudio;      // absolute AAC frame numbers
    };

    struct Totals {
        size_t nalUnits = 0, videoBytes = 0;     // video bytes as stored: without start codes
        size_t audioFrames = 0, audioBytes = 0;  // audio bytes as stored: with ADTS headers
    };

    static Span secondSpan(uint32_t second);
    // Part `index` of `parts` equal shares of a second.
    static Span partOf(const Span& whole, uint32_t parts, uint32_t index);
    static Totals measure(const SimChannel& channel, const Span& span);
    static bool fitsOneBuffer(const Totals& totals);
    void emitFrame(MBBMSAgentCallback* callback, SimChannel* channel, const Span& span);
    void emitNalUnit(MBBMSAgentCallback* callback, const SimChannel& channel,
                     const ServiceContent::Span& nal, uint32_t tsBase, uint32_t tsRelative);
    void buildHeader(const SimChannel& channel, const Totals& totals, uint32_t tsBase);

    std::vector<uint8_t> mFragment;  // start code + fragment bytes handed to the callback
    uint8_t mHeader[kHeaderLength];
};

#endif  // TAVO_SIM_MULTIPLEX_FRAME_EMITTER_H
