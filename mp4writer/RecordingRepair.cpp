#define LOG_TAG "CmmbMPEG4Recorder"

#include "RecordingRepair.h"

#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "CmmbMPEG4Writer.h"
#include "RepairRecord.h"

namespace {

const size_t kMaxTracks = 8;
const uint64_t kMaxSamplesPerChunk = 1 << 20;

struct TrackConfig {
    uint8_t kind;
    CmmbMediaSource source;
    std::vector<uint8_t> codecData;
};

struct RecoveredSample {
    uint8_t track;
    size_t offset;
    uint32_t size;
    int64_t ticks;
    bool sync;
};

uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

bool parseConfig(const RepairRecordView& record, uint32_t* movieTimeScale, bool* nalLengthFour,
                 std::vector<TrackConfig>* tracks) {
    RepairRecordReader in(record.body, record.bodySize);
    uint8_t four = 0, count = 0;
    if (!in.u32(movieTimeScale) || !in.u8(&four) || !in.u8(&count) || count == 0 ||
        count > kMaxTracks || *movieTimeScale == 0 || *movieTimeScale > 0x7FFFFFFF)
        return false;
    *nalLengthFour = four != 0;
    std::vector<TrackConfig> parsed(count);
    for (TrackConfig& track : parsed) {
        uint16_t width = 0, height = 0, codecSize = 0;
        uint32_t sampleRate = 0, timeScale = 0;
        const uint8_t* codec = nullptr;
        if (!in.u8(&track.kind) || !in.u16(&width) || !in.u16(&height) || !in.u32(&sampleRate) ||
            !in.u32(&timeScale) || !in.u16(&codecSize) || !in.bytes(codecSize, &codec))
            return false;
        if ((track.kind != REPAIR_TRACK_AVC && track.kind != REPAIR_TRACK_AAC) || timeScale == 0 ||
            timeScale > 0x7FFFFFFF || sampleRate > 0x7FFFFFFF)
            return false;
        track.source = {track.kind == REPAIR_TRACK_AVC ? "video/avc" : "audio/mp4a-latm", width,
                        height, static_cast<int32_t>(sampleRate), static_cast<int32_t>(timeScale)};
        track.codecData.assign(codec, codec + codecSize);
    }
    tracks->swap(parsed);
    return true;
}

// Appends the samples of a chunk record whose bytes start at `chunkStart`; false when the
// record is malformed or its chunk is not wholly in the file.
bool parseChunk(const RepairRecordView& record, size_t chunkStart, size_t fileSize,
                size_t trackCount, std::vector<RecoveredSample>* samples, size_t* chunkEnd) {
    RepairRecordReader in(record.body, record.bodySize);
    uint8_t track = 0;
    uint64_t ticks = 0, count = 0;
    if (!in.u8(&track) || track >= trackCount || !in.varint(&ticks) || !in.varint(&count) ||
        count > kMaxSamplesPerChunk)
        return false;
    const size_t before = samples->size();
    size_t offset = chunkStart;
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t sizeAndSync = 0, next = 0;
        if (!in.varint(&sizeAndSync) || !in.varint(&next))
            break;
        const uint64_t size = sizeAndSync >> 1;
        if (size > CMMB_SAMPLE_STORAGE_SIZE + 4 || size > fileSize - offset)
            break;
        samples->push_back({track, offset, static_cast<uint32_t>(size),
                            static_cast<int64_t>(ticks & 0x7FFFFFFFFFFFFFFFull),
                            (sizeAndSync & 1) != 0});
        offset += static_cast<size_t>(size);
        ticks += next;
    }
    if (samples->size() - before != count) {
        samples->resize(before);
        return false;
    }
    *chunkEnd = offset;
    return true;
}

// Splits an avcC body into its SPS and PPS; false when it holds no such pair.
bool splitAvcConfig(const std::vector<uint8_t>& avcc, std::vector<uint8_t>* sps,
                    std::vector<uint8_t>* pps) {
    if (avcc.size() < 8)
        return false;
    const size_t spsSize = static_cast<size_t>(avcc[6] << 8 | avcc[7]);
    if (spsSize < 4 || 8 + spsSize + 3 > avcc.size())
        return false;
    const size_t ppsAt = 8 + spsSize;
    const size_t ppsSize = static_cast<size_t>(avcc[ppsAt + 1] << 8 | avcc[ppsAt + 2]);
    if (ppsSize == 0 || ppsAt + 3 + ppsSize > avcc.size())
        return false;
    sps->assign(avcc.begin() + 8, avcc.begin() + static_cast<long>(ppsAt));
    pps->assign(avcc.begin() + static_cast<long>(ppsAt + 3),
                avcc.begin() + static_cast<long>(ppsAt + 3 + ppsSize));
    return true;
}

int fail(std::string* message, int code, const char* text) {
    *message = text;
    return code;
}

}  // namespace

int repairRecording(const uint8_t* file, size_t size, int outFd, std::string* message) {
    // ftyp, then mdat in its 32-bit or large-size form.
    if (size < 16 || memcmp(file + 4, "ftyp", 4) != 0)
        return fail(message, RECORDING_REPAIR_NOT_A_RECORDING, "not a recording: no ftyp box");
    const size_t ftypSize = be32(file);
    if (ftypSize < 8 || ftypSize > size - 8 || memcmp(file + ftypSize + 4, "mdat", 4) != 0)
        return fail(message, RECORDING_REPAIR_NOT_A_RECORDING,
                    "not a recording: no mdat box after the ftyp box");
    const bool largeSize = be32(file + ftypSize) == 1;
    const size_t dataStart = ftypSize + (largeSize ? 16 : 8);
    if (dataStart > size)
        return fail(message, RECORDING_REPAIR_NOT_A_RECORDING, "not a recording: truncated mdat");

    uint32_t movieTimeScale = 0;
    bool nalLengthFour = true;
    std::vector<TrackConfig> tracks;
    std::vector<RecoveredSample> samples;
    size_t position = dataStart;
    RepairRecordView record;
    while (findRepairRecord(file, size, position, &record)) {
        if (record.type == REPAIR_RECORD_CONFIG) {
            if (!parseConfig(record, &movieTimeScale, &nalLengthFour, &tracks))
                break;
            position = record.end;
        } else if (record.type == REPAIR_RECORD_CHUNK && !tracks.empty()) {
            size_t chunkEnd = 0;
            if (!parseChunk(record, record.end, size, tracks.size(), &samples, &chunkEnd))
                break;
            position = chunkEnd;
        } else {
            break;
        }
    }
    if (tracks.empty())
        return fail(message, RECORDING_REPAIR_NO_RECORDS,
                    "not repairable: the file holds no repair records");
    if (samples.empty())
        return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                    "not repairable: no complete chunk of samples was written");

    const int writerFd = dup(outFd);
    if (writerFd < 0)
        return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot use the output file");
    CmmbMPEG4Writer writer(writerFd);
    for (TrackConfig& track : tracks)
        writer.addSource(&track.source);
    _CmmbMetaData meta = {static_cast<int32_t>(movieTimeScale), nalLengthFour, !largeSize};
    if (writer.start(&meta) != 0)
        return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot write the repaired copy");

    std::unique_ptr<_CmmbOutBuffer> buffer(new _CmmbOutBuffer);
    auto feed = [&](const char* mime, int64_t ticks, const uint8_t* data, size_t length,
                    bool sync) {
        buffer->mime = mime;
        buffer->timestamp = ticks;
        buffer->length = static_cast<uint32_t>(length);
        buffer->data = buffer->storage;
        memcpy(buffer->storage, data, length);
        buffer->isSyncFrame = sync;
        return writer.writeout(buffer.get());
    };
    for (const TrackConfig& track : tracks) {
        if (track.kind != REPAIR_TRACK_AVC)
            continue;
        std::vector<uint8_t> sps, pps;
        if (!splitAvcConfig(track.codecData, &sps, &pps))
            return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                        "not repairable: the video configuration is damaged");
        if (sps.size() > CMMB_SAMPLE_STORAGE_SIZE || pps.size() > CMMB_SAMPLE_STORAGE_SIZE ||
            feed("video/avc", 0, sps.data(), sps.size(), false) != 0 ||
            feed("video/avc", 0, pps.data(), pps.size(), false) != 0)
            return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                        "not repairable: the video configuration is damaged");
    }

    const size_t prefixSize = nalLengthFour ? 4 : 2;
    size_t recovered = 0;
    for (const RecoveredSample& sample : samples) {
        const TrackConfig& track = tracks[sample.track];
        const uint8_t* data = file + sample.offset;
        size_t length = sample.size;
        if (track.kind == REPAIR_TRACK_AVC) {
            // The stored sample is one length-prefixed NAL unit.
            if (length < prefixSize)
                break;
            const size_t declared = prefixSize == 4 ? be32(data) : (data[0] << 8 | data[1]);
            if (declared != length - prefixSize)
                break;
            data += prefixSize;
            length -= prefixSize;
        }
        if (length > CMMB_SAMPLE_STORAGE_SIZE)
            break;
        const int result = feed(track.source.mime, sample.ticks, data, length, sample.sync);
        if (result == ERROR_WRITE_FAILED)
            return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot write the repaired copy");
        if (result != 0)
            break;  // the rest does not fit the copy
        ++recovered;
    }
    const int stopped = writer.stop();
    if (stopped == ERROR_NO_SAMPLES)
        return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                    "not repairable: a track has no samples, or the video no key frame");
    if (stopped != 0)
        return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot write the repaired copy");
    *message = "repaired: " + std::to_string(recovered) + " samples recovered";
    return 0;
}
