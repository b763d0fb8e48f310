#define LOG_TAG "MBBMSRecManager"

#include "MBBMSRecManager.h"

#include <cinttypes>
#include <cstring>

#include "CmmbFrameCopy.h"
#include "CmmbRecorder.h"
#include "CmmbSharedBuffer.h"
#include "Env.h"
#include "Log.h"

namespace {

const char kVideoMime[] = "video/avc";
const char kAudioMime[] = "audio/mp4a-latm";
// The public operation the per-frame helpers log for.
const char kDataRecording[] = "dataRecording";

enum {
    NAL_TYPE_SLICE_FIRST = 1,  // non-IDR slice and data partitions A to C: types 1 to 4
    NAL_TYPE_SLICE_LAST = 4,
    NAL_TYPE_IDR = 5,
    NAL_TYPE_SPS = 7,
    NAL_TYPE_PPS = 8,
};

// An Annex B start code inside a NAL record: where it begins and how long it is.
struct StartCode {
    bool found;
    uint32_t position;
    uint32_t length;
};

// Looks for 00 00 01 at every position up to length - 4; a preceding 00 makes it the 4-byte
// form. A pattern ending on the last byte of the range is not taken.
StartCode findStartCode(const unsigned char* bytes, uint32_t length) {
    if (length < 4)
        return {false, 0, 0};
    for (uint32_t k = 0; k + 4 <= length; ++k) {
        if (bytes[k] == 0 && bytes[k + 1] == 0 && bytes[k + 2] == 1) {
            if (k > 0 && bytes[k - 1] == 0)
                return {true, k - 1, 4};
            return {true, k, 3};
        }
    }
    return {false, 0, 0};
}

bool isInside(uint32_t offset, uint32_t length, uint32_t limit) {
    return offset <= limit && length <= limit - offset;
}

}  // namespace

MBBMSRecManager* MBBMSRecManager::getInstance() {
    // Created on first use and kept for the life of the process.
    static MBBMSRecManager* const instance = new MBBMSRecManager(Env::platform());
    return instance;
}

MBBMSRecManager::MBBMSRecManager(Env* env) : mEnv(env) {}

MBBMSRecManager::~MBBMSRecManager() = default;

CmmbRecorder* MBBMSRecManager::getRecorder(int session) {
    if (!isEngineSession(session))
        return nullptr;
    return mRecorder[session].get();
}

int MBBMSRecManager::startRecording(int session, int fd) {
    logStart(session, __func__);
    if (!isEngineSession(session))
        return -1;
    std::unique_ptr<CmmbRecorder> leftover = detachLeftover(session, __func__);
    if (leftover != nullptr && stopAndDelete(leftover, __func__) != 0) {
        keepFailedRecorder(session, std::move(leftover));
        return -1;
    }
    std::unique_ptr<CmmbRecorder> recorder = createRecorder(fd, __func__, mEnv);
    if (recorder == nullptr)
        return -1;
    installRecorder(session, std::move(recorder), __func__);
    return 0;
}

int MBBMSRecManager::stopRecording(int session) {
    logStop(__func__);
    if (!isEngineSession(session))
        return -1;
    std::unique_ptr<CmmbRecorder> recorder = detachRecorder(session);
    if (recorder != nullptr && stopAndDelete(recorder, __func__) != 0) {
        keepFailedRecorder(session, std::move(recorder));
        return -1;
    }
    logStopped(__func__);
    return 0;
}

void MBBMSRecManager::logStart(int session, const char* operation) {
    TLOG_FOR(operation, RECORD, "session=%d", session);
}

void MBBMSRecManager::logStop(const char* operation) {
    TLOG_FOR(operation, RECORD, "%s()", "stopRecording");
}

void MBBMSRecManager::logStopped(const char* operation) {
    TLOG_FOR(operation, RECORD, "exit successfully");
}

std::unique_ptr<CmmbRecorder> MBBMSRecManager::detachRecorder(int session) {
    if (!isEngineSession(session))
        return nullptr;
    return std::move(mRecorder[session]);
}

std::unique_ptr<CmmbRecorder> MBBMSRecManager::detachLeftover(int session, const char* operation) {
    std::unique_ptr<CmmbRecorder> leftover = detachRecorder(session);
    if (leftover != nullptr)
        TLOG_FOR(operation, WARNING, "leftover of pRecorder");
    return leftover;
}

int MBBMSRecManager::stopAndDelete(std::unique_ptr<CmmbRecorder>& recorder, const char* operation) {
    if (recorder->stop() != 0) {
        TLOG_FOR(operation, ERROR, "cannot stop the pRecorder!");
        return -1;
    }
    recorder.reset();
    return 0;
}

bool MBBMSRecManager::restoreRecorder(int session, std::unique_ptr<CmmbRecorder>& recorder) {
    if (!isEngineSession(session) || mRecorder[session] != nullptr)
        return false;
    mRecorder[session] = std::move(recorder);
    return true;
}

void MBBMSRecManager::keepFailedRecorder(int session, std::unique_ptr<CmmbRecorder> recorder) {
    // The slot was emptied by the same call: nothing else fills it here. A recorder the slot
    // does not take goes with `recorder`.
    restoreRecorder(session, recorder);
}

std::unique_ptr<CmmbRecorder> MBBMSRecManager::createRecorder(int fd, const char* operation,
                                                              Env* env) {
    std::unique_ptr<CmmbRecorder> recorder(new CmmbRecorder(env));
    recorder->init();
    if (recorder->setOutputFile(fd, 0, 0) != 0) {
        TLOG_FOR(operation, ERROR, "pRecorder->setOutputFile failed!");
        return nullptr;
    }
    if (recorder->start() != 0) {
        TLOG_FOR(operation, ERROR, "pRecorder->start() failed!");
        return nullptr;
    }
    return recorder;
}

void MBBMSRecManager::installRecorder(int session, std::unique_ptr<CmmbRecorder> recorder,
                                      const char* operation) {
    TAVO_ASSERT(isEngineSession(session) && mRecorder[session] == nullptr);
    mRecorder[session] = std::move(recorder);
    TLOG_FOR(operation, RECORD, "pRecorder->start() Done!");
}

int MBBMSRecManager::setMaxFileSize(int session, long long bytes) {
    CmmbRecorder* recorder = getRecorder(session);
    if (recorder == nullptr)
        return -1;
    return recorder->setMaxFileSize(bytes);
}

long long MBBMSRecManager::queryCurrentMoovLength(int session) {
    CmmbRecorder* recorder = getRecorder(session);
    if (recorder == nullptr)
        return -1;
    return recorder->queryCurrentMoovLength();
}

int MBBMSRecManager::read_to_new_sharedbuf(unsigned char* copy, unsigned char* sharedBuffer) {
    const CmmbSharedBuffer* buffer = reinterpret_cast<const CmmbSharedBuffer*>(sharedBuffer);
    // The buffer is mapped read-write by the play engine as well: every field is read once
    // into a local, and only the checked local is used. The counts are clamped to the record
    // tables, so the entries fit the copy area.
    uint32_t nalCount = cmmbReadSharedField(buffer->nalCount);
    uint32_t aacCount = cmmbReadSharedField(buffer->aacCount);
    if (nalCount > CMMB_NAL_RECORD_SLOTS)
        nalCount = CMMB_NAL_RECORD_SLOTS;
    if (aacCount > CMMB_AAC_RECORD_SLOTS)
        aacCount = CMMB_AAC_RECORD_SLOTS;

    // The items are gathered by their offsets, NAL units first, so that the copy's payload
    // is in the order its entries describe even when audio and video arrived interleaved or
    // an unfinished NAL unit was left in the buffer. A record that points outside the
    // payload area, or that would take the copy's payload past the payload limit, is copied
    // as empty.
    unsigned char* payload = copy + cmmbFrameCopyPayloadOffset(nalCount, aacCount);
    uint32_t dataLength = 0;
    auto gather = [&](uint32_t offset, uint32_t length) -> uint32_t {
        if (!isInside(offset, length, CMMB_PAYLOAD_SIZE) ||
            !isInside(dataLength, length, CMMB_PAYLOAD_LIMIT))
            return 0;
        memcpy(payload + dataLength, buffer->data + offset, length);
        dataLength += length;
        return length;
    };
    for (uint32_t i = 0; i < nalCount; ++i) {
        const CmmbNalRecord& record = buffer->nal[i];
        CmmbFrameCopyNalEntry entry;
        entry.tsBase = cmmbReadSharedField(record.tsBase);
        entry.tsRelative = cmmbReadSharedField(record.tsRelative);
        const uint32_t length = cmmbReadSharedField(record.length);
        const uint32_t offset = cmmbReadSharedField(record.offset);
        entry.pos = cmmbReadSharedField(record.pos);
        entry.length = gather(offset, length);
        memcpy(copy + cmmbFrameCopyNalEntryOffset(i), &entry, sizeof(entry));
    }
    for (uint32_t j = 0; j < aacCount; ++j) {
        const CmmbAacRecord& record = buffer->aac[j];
        CmmbFrameCopyAacEntry entry;
        entry.tsBase = cmmbReadSharedField(record.tsBase);
        entry.tsRelative = cmmbReadSharedField(record.tsRelative);
        const uint32_t length = cmmbReadSharedField(record.length);
        const uint32_t offset = cmmbReadSharedField(record.offset);
        entry.length = gather(offset, length);
        memcpy(copy + cmmbFrameCopyAacEntryOffset(nalCount, j), &entry, sizeof(entry));
    }

    CmmbFrameCopyCounts counts = {nalCount, aacCount, dataLength};
    memcpy(copy, &counts, sizeof(counts));
    return 0;
}

int MBBMSRecManager::dataRecording(CmmbRecorder* recorder, unsigned char* copy) {
    TLOG(RECORD, "data recording ...");
    if (recorder == nullptr) {
        TLOG(ERROR, "no recorder!!");
        return NO_RECORDER;
    }

    // Only copies that read_to_new_sharedbuf could have written are walked.
    CmmbFrameCopyCounts counts = cmmbFrameCopyReadCounts(copy);
    if (counts.nalCount > CMMB_NAL_RECORD_SLOTS || counts.aacCount > CMMB_AAC_RECORD_SLOTS ||
        counts.dataLength > CMMB_PAYLOAD_LIMIT) {
        TLOG(ERROR, "malformed frame copy (nalCount=%u, aacCount=%u, dataLength=%u), skipped",
             counts.nalCount, counts.aacCount, counts.dataLength);
        return 0;
    }

    recorder->LockRecorder();
    uint32_t resumeTimestamp = 0;
    int result = recordVideo(recorder, copy, &resumeTimestamp);
    if (result == 0) {
        if (!recorder->mGotSps || !recorder->mGotPps) {
            TLOG(WARNING, "on SPS or PPS in this second!");
        } else if (recorder->mWaitForIdr) {
            TLOG(WARNING, "on resumed, haven't found IDR frame yet, skip AAC frames!!!");
        } else {
            result = recordAudio(recorder, copy, resumeTimestamp);
        }
    }
    recorder->UnlockRecorder();
    return result;
}

int MBBMSRecManager::recordVideo(CmmbRecorder* recorder, const unsigned char* copy,
                                 uint32_t* resumeTimestamp) {
    CmmbFrameCopyCounts counts = cmmbFrameCopyReadCounts(copy);
    const unsigned char* payload =
        copy + cmmbFrameCopyPayloadOffset(counts.nalCount, counts.aacCount);
    _CmmbOutBuffer& sample = recorder->sampleScratch();
    sample.mime = kVideoMime;
    sample.data = sample.storage;

    uint32_t walked = 0;
    for (uint32_t i = 0; i < counts.nalCount; ++i) {
        CmmbFrameCopyNalEntry entry = cmmbFrameCopyReadNal(copy, i);
        if (!isInside(walked, entry.length, counts.dataLength)) {
            TLOG_FOR(kDataRecording, ERROR,
                     "NAL entry %u runs past the payload, rest of the frame skipped", i);
            return 0;
        }
        const unsigned char* unit = payload + walked;
        walked += entry.length;
        TLOG_FOR(kDataRecording, RECORD,
                 "recording NAL: length=%u, tsBase=%lu, tsRelative=%lu, pointer =%ld", entry.length,
                 static_cast<unsigned long>(entry.tsBase),
                 static_cast<unsigned long>(entry.tsRelative),
                 static_cast<long>(reinterpret_cast<intptr_t>(unit)));

        const uint32_t presentation = entry.tsBase + entry.tsRelative;
        uint32_t sampleLength = 0;
        const unsigned char* q = unit;
        uint32_t remaining = entry.length;
        while (remaining > 0) {
            StartCode startCode = findStartCode(q, remaining);
            const uint32_t partLength = startCode.found ? startCode.position : remaining;
            const int type = q[0] & 0x1F;

            if (!recorder->mGotSps || !recorder->mGotPps) {
                if (type == NAL_TYPE_SPS && !recorder->mGotSps) {
                    writeParameterSet(recorder, q, partLength);
                    recorder->mGotSps = 1;
                    recorder->mBaseTimestamp = presentation;
                } else if (type == NAL_TYPE_PPS && recorder->mGotSps) {
                    writeParameterSet(recorder, q, partLength);
                    recorder->mGotPps = 1;
                }
            } else if ((type >= NAL_TYPE_SLICE_FIRST && type <= NAL_TYPE_SLICE_LAST &&
                        !recorder->mWaitForIdr) ||
                       type == NAL_TYPE_IDR) {
                memcpy(sample.storage + sampleLength, q, partLength);
                sampleLength += partLength;
                sample.isSyncFrame = type == NAL_TYPE_IDR;
            }

            if (startCode.found) {
                const uint32_t skipped = startCode.position + startCode.length;
                q += skipped;
                remaining -= skipped;
            } else {
                remaining = 0;
            }
        }

        if (sampleLength > 0) {
            sample.length = sampleLength;
            const uint32_t timestamp = presentation - recorder->mBaseTimestamp;
            sample.timestamp = static_cast<int64_t>(timestamp);
            if (recorder->mWaitForIdr) {
                recorder->mWaitForIdr = false;
                *resumeTimestamp = timestamp;
            }
            int result = recorder->writeout(&sample);
            if (result != 0)
                return result;
        }
    }
    return 0;
}

int MBBMSRecManager::recordAudio(CmmbRecorder* recorder, const unsigned char* copy,
                                 uint32_t resumeTimestamp) {
    CmmbFrameCopyCounts counts = cmmbFrameCopyReadCounts(copy);
    const unsigned char* payload =
        copy + cmmbFrameCopyPayloadOffset(counts.nalCount, counts.aacCount);
    uint32_t walked = 0;
    for (uint32_t i = 0; i < counts.nalCount; ++i)
        walked += cmmbFrameCopyReadNal(copy, i).length;

    _CmmbOutBuffer& sample = recorder->sampleScratch();
    sample.mime = kAudioMime;
    sample.data = sample.storage;
    sample.isSyncFrame = false;

    for (uint32_t j = 0; j < counts.aacCount; ++j) {
        CmmbFrameCopyAacEntry entry = cmmbFrameCopyReadAac(copy, counts.nalCount, j);
        if (!isInside(walked, entry.length, counts.dataLength)) {
            TLOG_FOR(kDataRecording, ERROR,
                     "AAC entry %u runs past the payload, rest of the frame skipped", j);
            return 0;
        }
        const unsigned char* frame = payload + walked;
        walked += entry.length;
        if (entry.length < CMMB_ADTS_HEADER_SIZE)
            continue;  // no header: nothing to record

        if (TLOG_ENABLED(RECORD)) {
            uint32_t words[3] = {0, 0, 0};
            memcpy(words, frame, entry.length < sizeof(words) ? entry.length : sizeof(words));
            TLOG_FOR(kDataRecording, RECORD, "recording AAC: ADTS header is %X,+ %X+%X", words[0],
                     words[1], words[2]);
        }

        // Times are taken modulo 2^32 like the clock itself, so that a recording carries on
        // across the clock's wrap. Audio from before the first SPS is left out only until
        // the recording's audio has begun: afterwards a clock that jumps back is a
        // discontinuity for the writer to bridge, not a reason to drop the sound.
        const uint32_t presentation = entry.tsBase + entry.tsRelative;
        const uint32_t sinceBase = presentation - recorder->mBaseTimestamp;
        if (!recorder->mAudioStarted && static_cast<int32_t>(sinceBase) < 0)
            continue;
        if (resumeTimestamp != 0 && static_cast<int32_t>(sinceBase - resumeTimestamp) < 0)
            continue;

        sample.timestamp = static_cast<int64_t>(sinceBase);
        sample.length = entry.length - CMMB_ADTS_HEADER_SIZE;
        memcpy(sample.storage, frame + CMMB_ADTS_HEADER_SIZE, sample.length);
        int result = recorder->writeout(&sample);
        if (result != 0)
            return result;
        recorder->mAudioStarted = true;
        TLOG_FOR(kDataRecording, RECORD,
                 "recording AAC: frame length=%u, timestamp=%lu,pointer=%lld", sample.length,
                 static_cast<unsigned long>(sample.timestamp),
                 static_cast<long long>(reinterpret_cast<intptr_t>(frame)));
    }
    return 0;
}

void MBBMSRecManager::writeParameterSet(CmmbRecorder* recorder, const unsigned char* part,
                                        uint32_t length) {
    _CmmbOutBuffer& parameterSet = recorder->parameterSetScratch();
    parameterSet.mime = kVideoMime;
    parameterSet.timestamp = 0;  // the writer takes the first two video buffers as SPS and PPS
    parameterSet.isSyncFrame = false;
    parameterSet.length = length;
    parameterSet.data = parameterSet.storage;
    memcpy(parameterSet.storage, part, length);
    // Its result is not examined.
    recorder->writeout(&parameterSet);
}
