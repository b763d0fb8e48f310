#define LOG_TAG "CmmbMPEG4Recorder"

#include "RecordingRepair.h"

#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "CmmbMPEG4Writer.h"
#include "RepairInput.h"
#include "RepairRecordWalker.h"

namespace {

uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

int fail(std::string* message, int code, const char* text) {
    *message = text;
    return code;
}

int inputFailed(std::string* message) {
    return fail(message, RECORDING_REPAIR_INPUT_FAILED,
                "cannot read the recording: it shrank or failed while it was read");
}

// Where the samples start: after the ftyp box and the mdat header, in its 32-bit or
// large-size form.
struct MediaData {
    uint64_t start = 0;
    bool largeSize = false;
};

int findMediaData(RepairInput& input, MediaData* media, std::string* message) {
    uint8_t box[8];
    if (input.size() < 16 || !input.read(0, box, sizeof(box)) || memcmp(box + 4, "ftyp", 4) != 0)
        return input.shrankOrFailed() ? inputFailed(message)
                                      : fail(message, RECORDING_REPAIR_NOT_A_RECORDING,
                                             "not a recording: no ftyp box");
    const uint64_t ftypSize = be32(box);
    if (ftypSize < 8 || ftypSize > input.size() - 8 || !input.read(ftypSize, box, sizeof(box)) ||
        memcmp(box + 4, "mdat", 4) != 0)
        return input.shrankOrFailed() ? inputFailed(message)
                                      : fail(message, RECORDING_REPAIR_NOT_A_RECORDING,
                                             "not a recording: no mdat box after the ftyp box");
    media->largeSize = be32(box) == 1;
    media->start = ftypSize + (media->largeSize ? 16 : 8);
    if (media->start > input.size())
        return fail(message, RECORDING_REPAIR_NOT_A_RECORDING, "not a recording: truncated mdat");
    return 0;
}

// What the first walk over the records found: the configuration in force at the end, and
// how far the records can be used.
struct RecordScan {
    RepairConfig config;
    uint64_t end = 0;
    uint64_t samples = 0;
};

void scanRecords(RepairInput& input, uint64_t start, RecordScan* scan) {
    RepairRecordWalker walker(input, start, input.size());
    for (RepairRecordWalker::Step step; (step = walker.next()) != RepairRecordWalker::kEnd;) {
        if (step == RepairRecordWalker::kConfig)
            scan->config = walker.config();
    }
    scan->end = walker.position();
    scan->samples = walker.samplesAccepted();
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

// The writer that makes the copy, fed one sample at a time from the input.
class CopyWriter {
public:
    enum Fed { kTaken, kRefused, kFull, kWriteFailed, kInputFailed };

    // `config` must outlive the writer (the tracks keep pointers into it).
    CopyWriter(int fd, RepairConfig& config, bool use32BitOffsets, uint64_t sizeLimit, Env* env)
        : mWriter(fd, env), mConfig(config), mUse32BitOffsets(use32BitOffsets) {
        for (RepairTrackConfig& track : config.tracks)
            mWriter.addSource(&track.source);
        mWriter.setMaxFileSize(static_cast<long long>(sizeLimit));
    }

    // Writes the file's start and the H.264 parameter sets.
    int start(std::string* message) {
        _CmmbMetaData meta = {static_cast<int32_t>(mConfig.movieTimeScale), mConfig.nalLengthFour,
                              mUse32BitOffsets};
        if (mWriter.start(&meta) != 0)
            return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot write the repaired copy");
        for (const RepairTrackConfig& track : mConfig.tracks) {
            if (track.kind != REPAIR_TRACK_AVC)
                continue;
            std::vector<uint8_t> sps, pps;
            if (!splitAvcConfig(track.codecData, &sps, &pps) ||
                sps.size() > CMMB_SAMPLE_STORAGE_SIZE || pps.size() > CMMB_SAMPLE_STORAGE_SIZE ||
                feed("video/avc", 0, sps.data(), sps.size(), false) != 0 ||
                feed("video/avc", 0, pps.data(), pps.size(), false) != 0)
                return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                            "not repairable: the video configuration is damaged");
        }
        return 0;
    }

    // Reads the sample from the input and hands it to its track.
    Fed feedSample(RepairInput& input, uint8_t track, const RepairSample& sample) {
        const RepairTrackConfig& config = mConfig.tracks[track];
        uint64_t offset = sample.offset;
        size_t length = sample.size;
        if (config.kind == REPAIR_TRACK_AVC) {
            // The stored sample is one length-prefixed NAL unit.
            const size_t prefixSize = mConfig.nalLengthFour ? 4 : 2;
            uint8_t prefix[4];
            if (length <= prefixSize || !input.read(offset, prefix, prefixSize))
                return input.shrankOrFailed() ? kInputFailed : kRefused;
            const size_t declared = prefixSize == 4 ? be32(prefix) : (prefix[0] << 8 | prefix[1]);
            if (declared != length - prefixSize)
                return kRefused;
            offset += prefixSize;
            length -= prefixSize;
        }
        if (length > CMMB_SAMPLE_STORAGE_SIZE)
            return kRefused;
        if (!input.read(offset, mBuffer->storage, length))
            return input.shrankOrFailed() ? kInputFailed : kRefused;
        const int result =
            feed(config.source.mime, sample.ticks, mBuffer->storage, length, sample.sync);
        if (result == ERROR_WRITE_FAILED)
            return kWriteFailed;
        if (result == ERROR_LIMIT_REACHED)
            return kFull;
        return result == 0 ? kTaken : kRefused;
    }

    int stop() { return mWriter.stop(); }

private:
    int feed(const char* mime, int64_t ticks, const uint8_t* data, size_t length, bool sync) {
        mBuffer->mime = mime;
        mBuffer->timestamp = ticks;
        mBuffer->length = static_cast<uint32_t>(length);
        mBuffer->data = mBuffer->storage;
        if (data != mBuffer->storage)
            memcpy(mBuffer->storage, data, length);
        mBuffer->isSyncFrame = sync;
        return mWriter.writeout(mBuffer.get());
    }

    CmmbMPEG4Writer mWriter;
    RepairConfig& mConfig;
    const bool mUse32BitOffsets;
    std::unique_ptr<_CmmbOutBuffer> mBuffer{new _CmmbOutBuffer};
};

// Replays the samples of the records the scan accepted into the copy, up to the first sample
// that cannot be taken; 0, or a result with its message. The second walk stops where the
// first did. Should the file have changed in between, every record is checked again, and
// one that no longer describes the copy's tracks ends the replay.
int replayRecords(RepairInput& input, uint64_t start, const RecordScan& scan, CopyWriter& copy,
                  uint64_t* recovered, std::string* message) {
    RepairRecordWalker walker(input, start, scan.end);
    for (;;) {
        const RepairRecordWalker::Step step = walker.next();
        if (step == RepairRecordWalker::kEnd || (step == RepairRecordWalker::kConfig &&
                                                 !walker.config().describesSameTracks(scan.config)))
            return 0;
        if (step != RepairRecordWalker::kChunk)
            continue;
        RepairChunk& chunk = walker.chunk();
        RepairSample sample;
        while (chunk.next(&sample)) {
            switch (copy.feedSample(input, chunk.track(), sample)) {
                case CopyWriter::kTaken:
                    ++*recovered;
                    break;
                case CopyWriter::kWriteFailed:
                    return fail(message, RECORDING_REPAIR_OUTPUT_FAILED,
                                "cannot write the repaired copy");
                case CopyWriter::kInputFailed:
                    return inputFailed(message);
                case CopyWriter::kRefused:  // the first damaged sample ends the copy
                case CopyWriter::kFull:     // the rest does not fit the copy
                    return 0;
            }
        }
    }
}

// The copy may grow to the input's size plus a quarter (and a little for tiny files). A
// recording's copy is its own size plus a moov of well under 1 %; the limit keeps the copy's
// index, which the writer counts against it, within the input's size however the records
// were crafted.
uint64_t copySizeLimit(uint64_t inputSize) {
    const uint64_t limit = inputSize + inputSize / 4 + 64 * 1024;
    return limit < kRecordingRepairMaxInputSize ? limit : kRecordingRepairMaxInputSize;
}

}  // namespace

int repairRecording(int inFd, uint64_t size, int outFd, std::string* message, Env* env) {
    if (size > kRecordingRepairMaxInputSize)
        return fail(message, RECORDING_REPAIR_INPUT_FAILED,
                    "cannot repair the recording: it is larger than 2147483647 bytes");
    RepairInput input(inFd, size);
    MediaData media;
    const int found = findMediaData(input, &media, message);
    if (found != 0)
        return found;

    RecordScan scan;
    scanRecords(input, media.start, &scan);
    if (input.shrankOrFailed())
        return inputFailed(message);
    if (scan.config.tracks.empty())
        return fail(message, RECORDING_REPAIR_NO_RECORDS,
                    "not repairable: the file holds no repair records");
    if (scan.samples == 0)
        return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                    "not repairable: no complete chunk of samples was written");

    const int writerFd = dup(outFd);
    if (writerFd < 0)
        return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot use the output file");
    CopyWriter copy(writerFd, scan.config, !media.largeSize, copySizeLimit(size), env);
    const int started = copy.start(message);
    if (started != 0)
        return started;

    uint64_t recovered = 0;
    const int replayed = replayRecords(input, media.start, scan, copy, &recovered, message);
    if (replayed != 0)
        return replayed;
    if (input.shrankOrFailed())
        return inputFailed(message);
    const int stopped = copy.stop();
    if (stopped == ERROR_NO_SAMPLES)
        return fail(message, RECORDING_REPAIR_NOTHING_RECOVERABLE,
                    "not repairable: a track has no samples, or the video no key frame");
    if (stopped != 0)
        return fail(message, RECORDING_REPAIR_OUTPUT_FAILED, "cannot write the repaired copy");
    *message = "repaired: " + std::to_string(recovered) + " samples recovered";
    return 0;
}
