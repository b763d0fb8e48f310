#include "MultiplexFrameEmitter.h"

#include <cstring>

namespace {

void putBig16(uint8_t* at, uint32_t value) {
    at[0] = static_cast<uint8_t>(value >> 8);
    at[1] = static_cast<uint8_t>(value);
}

void putBig32(uint8_t* at, uint32_t value) {
    putBig16(at, value >> 16);
    putBig16(at + 2, value & 0xFFFF);
}

// Parameter sets, IDR slices and access unit delimiters get the long start code that
// encoders put at the beginning of an access unit; everything else the short one.
size_t startCodeLengthFor(int nalType) {
    return (nalType == 5 || nalType == 7 || nalType == 8 || nalType == 9) ? 4 : 3;
}

// First AAC frame whose time is at or after `ticks`.
uint64_t firstAudioFrameAt(uint64_t ticks) {
    const uint64_t perFrame = MultiplexFrameEmitter::kTicksPerAudioFrame;
    return (ticks + perFrame - 1) / perFrame;
}

}  // namespace

MultiplexFrameEmitter::MultiplexFrameEmitter() : mFragment(kMaxFragment), mHeader() {}

MultiplexFrameEmitter::Span MultiplexFrameEmitter::secondSpan(uint32_t second) {
    Span span;
    span.firstPicture = static_cast<uint64_t>(second) * kPicturesPerSecond;
    span.endPicture = span.firstPicture + kPicturesPerSecond;
    span.firstAudio = firstAudioFrameAt(static_cast<uint64_t>(second) * kTicksPerSecond);
    span.endAudio = firstAudioFrameAt((static_cast<uint64_t>(second) + 1) * kTicksPerSecond);
    return span;
}

MultiplexFrameEmitter::Totals MultiplexFrameEmitter::measure(const SimChannel& channel,
                                                             const Span& span) {
    const ServiceContent& content = *channel.content;
    Totals totals;
    for (uint64_t p = span.firstPicture; p < span.endPicture; ++p) {
        const ServiceContent::Picture& picture = content.pictures()[p % content.pictures().size()];
        for (size_t n = 0; n < picture.nalCount; ++n) {
            totals.nalUnits += 1;
            totals.videoBytes += content.nalUnits()[picture.firstNal + n].length;
        }
    }
    for (uint64_t a = span.firstAudio; a < span.endAudio; ++a) {
        totals.audioFrames += 1;
        totals.audioBytes +=
            content.audioFrames()[a % content.audioFrames().size()].length + kAdtsHeaderLength;
    }
    return totals;
}

bool MultiplexFrameEmitter::fitsOneBuffer(const Totals& totals) {
    return totals.videoBytes + totals.audioBytes <= kPayloadLimit &&
           totals.nalUnits <= kRecordLimit && totals.audioFrames <= kRecordLimit;
}

MultiplexFrameEmitter::Span MultiplexFrameEmitter::partOf(const Span& whole, uint32_t parts,
                                                          uint32_t index) {
    Span part;
    part.firstPicture = whole.firstPicture + kPicturesPerSecond * index / parts;
    part.endPicture = whole.firstPicture + kPicturesPerSecond * (index + 1) / parts;
    part.firstAudio = firstAudioFrameAt(part.firstPicture * kTicksPerPicture);
    part.endAudio = firstAudioFrameAt(part.endPicture * kTicksPerPicture);
    return part;
}

void MultiplexFrameEmitter::emitNextSecond(MBBMSAgentCallback* callback, SimChannel* channel) {
    const Span whole = secondSpan(channel->secondsDelivered);
    // The fewest multiplex frames that each fit; one picture per frame at most.
    uint32_t parts = 1;
    for (; parts < kPicturesPerSecond; ++parts) {
        bool allFit = true;
        for (uint32_t index = 0; index < parts && allFit; ++index) {
            allFit = fitsOneBuffer(measure(*channel, partOf(whole, parts, index)));
        }
        if (allFit)
            break;
    }
    for (uint32_t index = 0; index < parts; ++index) {
        emitFrame(callback, channel, partOf(whole, parts, index));
    }
    channel->secondsDelivered += 1;
}

void MultiplexFrameEmitter::emitFrame(MBBMSAgentCallback* callback, SimChannel* channel,
                                      const Span& span) {
    const ServiceContent& content = *channel->content;
    // 32-bit broadcast clock: wraps like the real one.
    const uint32_t frameTicks = static_cast<uint32_t>(span.firstPicture * kTicksPerPicture);
    const uint32_t tsBase = channel->tsOrigin + frameTicks;

    buildHeader(*channel, measure(*channel, span), tsBase);
    callback->onOutputAVStart(channel->channelID, mHeader, static_cast<int>(kHeaderLength));

    for (uint64_t p = span.firstPicture; p < span.endPicture; ++p) {
        const ServiceContent::Picture& picture = content.pictures()[p % content.pictures().size()];
        uint32_t tsRelative = static_cast<uint32_t>(p * kTicksPerPicture) - frameTicks;
        for (size_t n = 0; n < picture.nalCount; ++n) {
            emitNalUnit(callback, *channel, content.nalUnits()[picture.firstNal + n], tsBase,
                        tsRelative);
        }
    }
    for (uint64_t a = span.firstAudio; a < span.endAudio; ++a) {
        const ServiceContent::Span& frame = content.audioFrames()[a % content.audioFrames().size()];
        uint32_t tsRelative = static_cast<uint32_t>(a * kTicksPerAudioFrame) - frameTicks;
        std::memcpy(mFragment.data(), content.audioBytes() + frame.offset, frame.length);
        callback->onClearAudioAacFrame(channel->channelID, tsBase, tsRelative, mFragment.data(),
                                       static_cast<unsigned short>(frame.length));
    }

    callback->onOutputAVEnd(channel->channelID, false);
    channel->frameSequence = static_cast<uint16_t>(channel->frameSequence + 1);
}

void MultiplexFrameEmitter::emitNalUnit(MBBMSAgentCallback* callback, const SimChannel& channel,
                                        const ServiceContent::Span& nal, uint32_t tsBase,
                                        uint32_t tsRelative) {
    const uint8_t* bytes = channel.content->videoBytes() + nal.offset;
    const size_t startCode = startCodeLengthFor(bytes[0] & 0x1F);
    uint8_t* out = mFragment.data();
    std::memset(out, 0, startCode - 1);
    out[startCode - 1] = 1;

    size_t taken = nal.length < kMaxFragment - startCode ? nal.length : kMaxFragment - startCode;
    std::memcpy(out + startCode, bytes, taken);
    MBBMSAgent::NAL_FRAGMENT_POS_IND pos =
        taken == nal.length ? MBBMSAgent::NAL_FRAGMENT_COMPLETE : MBBMSAgent::NAL_FRAGMENT_START;
    callback->onClearVideoNalData(channel.channelID, tsBase, tsRelative, out,
                                  static_cast<unsigned short>(startCode + taken), pos);

    while (taken < nal.length) {
        size_t piece = nal.length - taken < kMaxFragment ? nal.length - taken : kMaxFragment;
        std::memcpy(out, bytes + taken, piece);
        taken += piece;
        pos = taken == nal.length ? MBBMSAgent::NAL_FRAGMENT_END : MBBMSAgent::NAL_FRAGMENT_MIDDLE;
        callback->onClearVideoNalData(channel.channelID, tsBase, tsRelative, out,
                                      static_cast<unsigned short>(piece), pos);
    }
}

// Synthetic multiplex-frame header, big-endian like the broadcast one:
//   0  start code 00 00 00 01        14  video bytes (u32)
//   4  header length (u8)            18  audio bytes with ADTS headers (u32)
//   5  multiplex frame ID (u8)       22  tsBase (u32)
//   6  frame sequence number (u16)   26  time slot start, time slot count (u8 each)
//   8  service identifier (u16)      28  modulation (u8), reserved (3 bytes of 0)
//  10  video units (u16)
//  12  audio units (u16)
void MultiplexFrameEmitter::buildHeader(const SimChannel& channel, const Totals& totals,
                                        uint32_t tsBase) {
    std::memset(mHeader, 0, sizeof(mHeader));
    putBig32(mHeader, 1);
    mHeader[4] = static_cast<uint8_t>(kHeaderLength);
    mHeader[5] = static_cast<uint8_t>(channel.channelID & 0x3F);
    putBig16(mHeader + 6, channel.frameSequence);
    putBig16(mHeader + 8, static_cast<uint32_t>(channel.service->serviceID));
    putBig16(mHeader + 10, static_cast<uint32_t>(totals.nalUnits));
    putBig16(mHeader + 12, static_cast<uint32_t>(totals.audioFrames));
    putBig32(mHeader + 14, static_cast<uint32_t>(totals.videoBytes));
    putBig32(mHeader + 18, static_cast<uint32_t>(totals.audioBytes));
    putBig32(mHeader + 22, tsBase);
    mHeader[26] = static_cast<uint8_t>(channel.service->timeSlotStart);
    mHeader[27] = static_cast<uint8_t>(channel.service->timeSlotCount);
    mHeader[28] = static_cast<uint8_t>(channel.service->modulation);
}
