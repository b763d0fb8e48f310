// A track's trak box, written at stop: track and media headers, the handler, the sample
// description (avc1, mp4v, s263 or mp4a with their codec boxes) and the sample tables.
#define LOG_TAG "CmmbMPEG4Recorder"

#include <strings.h>

#include <algorithm>
#include <ctime>
#include <iterator>

#include "CmmbMPEG4Writer.h"
#include "Log.h"
#include "MediaTicks.h"

namespace {

// Descriptor lengths are single bytes: 23 + the codec data must stay below 128.
const uint32_t kMaxVideoCodecSpecificDataSize = 104;
const uint32_t kMinAvcConfigurationSize = 5;

// AudioSpecificConfig: AAC LC, 24,000 Hz, two channels.
const uint8_t kAacDecoderSpecificInfo[] = {0x13, 0x10};

const char* visualSampleEntryType(const char* mime) {
    if (strcasecmp(mime, "video/avc") == 0) {
        return "avc1";
    }
    if (strcasecmp(mime, "video/mp4v-es") == 0) {
        return "mp4v";
    }
    if (strcasecmp(mime, "video/3gpp") == 0) {
        return "s263";
    }
    return nullptr;
}

int fixed16(int32_t value) {
    return static_cast<int>(static_cast<uint32_t>(value) << 16);
}

}  // namespace

void CmmbMPEG4Writer::Track::describeForRepair(RepairRecordBuilder& record) const {
    record.u8(mIsAvc ? REPAIR_TRACK_AVC : mIsAudio ? REPAIR_TRACK_AAC : 0);
    record.u16(static_cast<uint16_t>(mSource->width));
    record.u16(static_cast<uint16_t>(mSource->height));
    record.u32(static_cast<uint32_t>(mSource->sampleRate));
    record.u32(static_cast<uint32_t>(mTimeScale));
    // The AAC configuration is fixed and written only into the header at stop.
    const size_t size = mIsAvc ? mCodecSpecificData.size() : 0;
    record.u16(static_cast<uint16_t>(size));
    record.bytes(mCodecSpecificData.data(), size);
}

int CmmbMPEG4Writer::Track::writeTrackHeader(int trackId) {
    uint32_t now = static_cast<uint32_t>(time(nullptr));  // seconds since 1970
    mWriter->beginBox("trak");
    writeTrackHeaderBox(trackId, now);
    mWriter->beginBox("mdia");
    writeMediaHeaderBox(now);
    writeHandlerBox();
    mWriter->beginBox("minf");
    writeMediaInformationHeaderBox();
    writeDataInformationBox();
    mWriter->beginBox("stbl");
    int result = writeSampleDescriptionBox();
    if (result != 0) {
        return result;
    }
    writeSttsBox();
    if (!mIsAudio) {
        writeStssBox();
    }
    writeStszBox();
    writeStscBox();
    result = writeStcoBox();
    if (result != 0) {
        return result;
    }
    mWriter->endBox();  // stbl
    mWriter->endBox();  // minf
    mWriter->endBox();  // mdia
    mWriter->endBox();  // trak
    return 0;
}

void CmmbMPEG4Writer::Track::writeTrackHeaderBox(int trackId, uint32_t now) {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("tkhd");
    out.writeInt32(0x00000007);  // enabled, in movie, in preview
    out.writeInt32(static_cast<int>(now));
    out.writeInt32(static_cast<int>(now));
    out.writeInt32(trackId);
    out.writeInt32(0);
    out.writeInt32(ticksToHeaderDuration(getDurationUs(), out.mTimeScale));
    out.writeInt32(0);
    out.writeInt32(0);
    out.writeInt16(0);                      // layer
    out.writeInt16(0);                      // alternate group
    out.writeInt16(mIsAudio ? 0x0100 : 0);  // volume
    out.writeInt16(0);
    out.writeCompositionMatrix(0);
    out.writeInt32(mIsAudio ? 0 : fixed16(mSource->width));
    out.writeInt32(mIsAudio ? 0 : fixed16(mSource->height));
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeMediaHeaderBox(uint32_t now) {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("mdhd");
    out.writeInt32(0);
    out.writeInt32(static_cast<int>(now));
    out.writeInt32(static_cast<int>(now));
    out.writeInt32(mTimeScale);
    out.writeInt32(ticksToHeaderDuration(getDurationUs(), mTimeScale));
    out.writeInt16(0);  // language
    out.writeInt16(0);  // quality
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeHandlerBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("hdlr");
    out.writeInt32(0);
    out.writeInt32(0);  // pre-defined
    out.writeFourcc(mIsAudio ? "soun" : "vide");
    out.writeInt32(0);
    out.writeInt32(0);
    out.writeInt32(0);
    out.writeCString(mIsAudio ? "SoundHandle" : "VideoHandle");
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeMediaInformationHeaderBox() {
    CmmbMPEG4Writer& out = *mWriter;
    if (mIsAudio) {
        out.beginBox("smhd");
        out.writeInt32(0);
        out.writeInt16(0);  // balance
        out.writeInt16(0);
    } else {
        out.beginBox("vmhd");
        out.writeInt32(0x00000001);
        out.writeInt16(0);  // graphics mode
        out.writeInt16(0);  // op-colour
        out.writeInt16(0);
        out.writeInt16(0);
    }
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeDataInformationBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("dinf");
    out.beginBox("dref");
    out.writeInt32(0);
    out.writeInt32(1);  // entry count
    out.beginBox("url ");
    out.writeInt32(0x00000001);  // media data in this file
    out.endBox();
    out.endBox();
    out.endBox();
}

int CmmbMPEG4Writer::Track::writeSampleDescriptionBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("stsd");
    out.writeInt32(0);
    out.writeInt32(1);  // entry count
    int result = mIsAudio ? writeAudioSampleEntry() : writeVideoSampleEntry();
    if (result != 0) {
        return result;
    }
    out.endBox();
    return 0;
}

int CmmbMPEG4Writer::Track::writeAudioSampleEntry() {
    CmmbMPEG4Writer& out = *mWriter;
    if (strcasecmp(mSource->mime, "audio/mp4a-latm") != 0) {
        ALOGE("Unknown mime type '%s'.", mSource->mime);
        return ERROR_INVALID;
    }
    out.beginBox("mp4a");
    out.writeInt32(0);
    out.writeInt16(0);
    out.writeInt16(1);  // data-reference index
    out.writeInt32(0);
    out.writeInt32(0);
    out.writeInt16(2);   // channel count
    out.writeInt16(16);  // sample size
    out.writeInt16(0);
    out.writeInt16(0);
    out.writeInt32(fixed16(mSource->sampleRate));
    writeAudioEsdsBox();
    out.endBox();
    return 0;
}

void CmmbMPEG4Writer::Track::writeAudioEsdsBox() {
    TAVO_ASSERT(mCodecSpecificData.empty());
    mCodecSpecificData.assign(std::begin(kAacDecoderSpecificInfo),
                              std::end(kAacDecoderSpecificInfo));
    // ISO/IEC 14496-3 audio, audio stream, buffer 0x000300, 96,000 bit/s.
    writeEsdsBox(EsDescriptor{0x00, 0x40, 0x15, 0x000300, 96000, 96000});
}

void CmmbMPEG4Writer::Track::writeEsdsBox(const EsDescriptor& descriptor) {
    CmmbMPEG4Writer& out = *mWriter;
    auto size = static_cast<signed char>(mCodecSpecificData.size());
    out.beginBox("esds");
    out.writeInt32(0);
    out.writeInt8(0x03);  // ES descriptor
    out.writeInt8(static_cast<signed char>(23 + size));
    out.writeInt16(0);  // ES id
    out.writeInt8(static_cast<signed char>(descriptor.flags));
    out.writeInt8(0x04);  // decoder config descriptor
    out.writeInt8(static_cast<signed char>(15 + size));
    out.writeInt8(static_cast<signed char>(descriptor.objectType));
    out.writeInt8(static_cast<signed char>(descriptor.streamType));
    out.writeInt16(static_cast<short>(descriptor.bufferSize >> 8));  // 24 bits
    out.writeInt8(static_cast<signed char>(descriptor.bufferSize & 0xFF));
    out.writeInt32(static_cast<int>(descriptor.maxBitrate));
    out.writeInt32(static_cast<int>(descriptor.averageBitrate));
    out.writeInt8(0x05);  // decoder specific info
    out.writeInt8(size);
    out.write(mCodecSpecificData.data(), static_cast<unsigned int>(mCodecSpecificData.size()));
    static const uint8_t kSlConfig[] = {0x06, 0x01, 0x02};  // SL config, predefined 2
    out.write(kSlConfig, sizeof(kSlConfig));
    out.endBox();
}

int CmmbMPEG4Writer::Track::writeVideoSampleEntry() {
    CmmbMPEG4Writer& out = *mWriter;
    const char* entryType = visualSampleEntryType(mSource->mime);
    if (entryType == nullptr) {
        ALOGE("Unknown mime type '%s'.", mSource->mime);
        return ERROR_INVALID;
    }
    if (mCodecSpecificData.size() > kMaxVideoCodecSpecificDataSize) {
        ALOGE("codec specific data of %u bytes does not fit the sample description",
              static_cast<unsigned>(mCodecSpecificData.size()));
        return ERROR_INVALID;
    }
    if (mIsAvc && mCodecSpecificData.size() < kMinAvcConfigurationSize) {
        ALOGE("no AVC configuration: the parameter sets were not received");
        return ERROR_INVALID;
    }
    out.beginBox(entryType);
    out.writeInt32(0);
    out.writeInt16(0);
    out.writeInt16(0);  // data-reference index
    out.writeInt16(0);
    out.writeInt16(0);
    out.writeInt32(0);
    out.writeInt32(0);
    out.writeInt32(0);
    out.writeInt16(static_cast<short>(mSource->width));
    out.writeInt16(static_cast<short>(mSource->height));
    out.writeInt32(0x00480000);  // 72 dpi
    out.writeInt32(0x00480000);
    out.writeInt32(0);
    out.writeInt16(1);  // frame count
    char compressorName[32];
    std::fill(std::begin(compressorName), std::end(compressorName), ' ');
    out.write(compressorName, sizeof(compressorName));
    out.writeInt16(0x0018);  // depth
    out.writeInt16(-1);
    if (mIsAvc) {
        writeAvccBox();
    } else if (mIsMpeg4Video) {
        writeVideoEsdsBox();
    } else {
        writeD263Box();
    }
    out.beginBox("pasp");
    out.writeInt32(0x00010000);  // square pixels
    out.writeInt32(0x00010000);
    out.endBox();
    out.endBox();
    return 0;
}

void CmmbMPEG4Writer::Track::writeAvccBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("avcC");
    out.write(mCodecSpecificData.data(), static_cast<unsigned int>(mCodecSpecificData.size()));
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeVideoEsdsBox() {
    // ISO/IEC 14496-2 visual, visual stream, stream priority 0x1F, buffer 0x017700,
    // 0x3E800 bit/s.
    writeEsdsBox(EsDescriptor{0x1F, 0x20, 0x11, 0x017700, 0x0003E800, 0x0003E800});
}

void CmmbMPEG4Writer::Track::writeD263Box() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("d263");
    out.writeInt32(0);  // vendor
    out.writeInt8(0);   // decoder version
    out.writeInt8(10);  // level
    out.writeInt8(0);   // profile
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeSttsBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("stts");
    out.writeInt32(0);
    out.writeInt32(static_cast<int>(mSttsTableEntries.size()));
    // Durations are kept in ticks; converting the running time, not each duration, keeps
    // the rounding from drifting.
    int64_t elapsedTicks = 0;
    for (const SttsTableEntry& entry : mSttsTableEntries) {
        int64_t delta =
            toMediaTime(elapsedTicks + entry.sampleDuration) - toMediaTime(elapsedTicks);
        out.writeInt32(static_cast<int>(entry.sampleCount));
        out.writeInt32(static_cast<int>(delta));
        elapsedTicks += static_cast<uint32_t>(entry.sampleCount * entry.sampleDuration);
    }
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeStssBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("stss");
    out.writeInt32(0);
    out.writeInt32(static_cast<int>(mStssTableEntries.size()));
    for (int32_t sampleNumber : mStssTableEntries) {
        out.writeInt32(sampleNumber);
    }
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeStszBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("stsz");
    out.writeInt32(0);
    out.writeInt32(0);  // sizes vary
    out.writeInt32(static_cast<int>(mSampleSizes.size()));
    for (uint32_t size : mSampleSizes) {
        out.writeInt32(static_cast<int>(size));
    }
    out.endBox();
}

void CmmbMPEG4Writer::Track::writeStscBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("stsc");
    out.writeInt32(0);
    out.writeInt32(static_cast<int>(mStscTableEntries.size()));
    for (const StscTableEntry& entry : mStscTableEntries) {
        out.writeInt32(static_cast<int>(entry.firstChunk));
        out.writeInt32(static_cast<int>(entry.samplesPerChunk));
        out.writeInt32(static_cast<int>(entry.sampleDescriptionId));
    }
    out.endBox();
}

int CmmbMPEG4Writer::Track::writeStcoBox() {
    CmmbMPEG4Writer& out = *mWriter;
    out.beginBox("stco");
    out.writeInt32(0);
    out.writeInt32(static_cast<int>(mChunkOffsets.size()));
    for (int32_t offset : mChunkOffsets) {
        if (out.writeInt32(offset) != 4) {
            return ERROR_WRITE_FAILED;
        }
    }
    out.endBox();
    return 0;
}
