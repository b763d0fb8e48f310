// The tuner agent's data: the input is decoded into multiplex frames of agent callbacks
// (frame brackets with withError, NAL fragments with any position value and size up to
// 65,535, AAC frames, any channel id) into two sessions, one of them recording. A play
// engine is emulated in the same process: after every frame it reads both shared buffers by
// the reader contract and checks them; after every input the recording is stopped and the
// file checked like the writer target's.
//
// Checked after every frame: counts at most 256; every record's offset plus length within
// the payload and dataLength; records in ascending, non-overlapping order; complete NAL
// records marked complete, the record being filled marked 2, 0 or 3; AAC records long enough for
// their ADTS header; nothing written outside either shared buffer (guard pages and canary bytes,
// GuardedMappings.h).
//
// Input: one configuration byte (session layout, recording session, ticks: wild or tame,
// the first presentation time), then frames (see decodeFrame). Wild ticks take any 32-bit
// value for tsBase and tsRelative, as a resynchronising tuner hands out; tame ticks only
// increase, in small steps, so that the fuzzer also reaches long, regular recordings.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CmmbSharedBuffer.h"
#include "CmmbSharedSemaphore.h"
#include "FuzzEngine.h"
#include "FuzzScratchFile.h"
#include "GuardedMappings.h"
#include "InputBytes.h"
#include "Mp4BoxReader.h"
#include "Mp4Consistency.h"

namespace {

const int kChannels[2] = {10, 11};
const int kMaxFramesPerInput = 64;
const int kMaxItemsPerFrame = 300;  // more than the 256 record slots

// Which sessions watch which channel; changed only when an input asks for another layout.
struct SessionLayout {
    bool shareChannel;  // both sessions on kChannels[0], else session s on kChannels[s]
    int recordingSession;
};

void applyLayout(const SessionLayout& layout) {
    static bool started = false;
    static bool shareChannel = false;
    FuzzEngine& fuzz = FuzzEngine::instance();
    if (started && shareChannel == layout.shareChannel)
        return;
    if (started) {
        fuzz.engine()->stopTVService(0);
        fuzz.engine()->stopTVService(1);
    }
    fuzz.startService(0, kChannels[0]);
    fuzz.startService(1, kChannels[layout.shareChannel ? 0 : 1]);
    started = true;
    shareChannel = layout.shareChannel;
}

void checkRecords(int session, const CmmbSharedBuffer* b) {
    const std::string where = "session " + std::to_string(session) + ": ";
    if (b->nalCount > CMMB_NAL_RECORD_SLOTS || b->aacCount > CMMB_AAC_RECORD_SLOTS)
        fuzzFailure(where + "counts " + std::to_string(b->nalCount) + " and " +
                    std::to_string(b->aacCount) + " exceed the record slots");
    if (b->dataLength > CMMB_PAYLOAD_LIMIT)
        fuzzFailure(where + "dataLength " + std::to_string(b->dataLength) + " exceeds the limit");
    if (b->nalCount < CMMB_NAL_RECORD_SLOTS) {
        const uint32_t open = b->nal[b->nalCount].pos;
        if (open != CMMB_NAL_POS_NONE_OPEN && open != MBBMSAgent::NAL_FRAGMENT_START &&
            open != MBBMSAgent::NAL_FRAGMENT_MIDDLE)
            fuzzFailure(where + "the record being filled has pos " + std::to_string(open));
    }
    // All items of the frame, NAL units and AAC frames merged by offset, must lie within
    // dataLength without overlapping.
    uint64_t end = 0;
    uint32_t n = 0, a = 0;
    while (n < b->nalCount || a < b->aacCount) {
        const bool takeNal =
            a >= b->aacCount || (n < b->nalCount && b->nal[n].offset <= b->aac[a].offset);
        uint64_t offset, length;
        if (takeNal) {
            const CmmbNalRecord& r = b->nal[n++];
            if (r.pos != CMMB_NAL_POS_NONE_OPEN)
                fuzzFailure(where + "a counted NAL record is not complete");
            offset = r.offset;
            length = r.length;
        } else {
            const CmmbAacRecord& r = b->aac[a++];
            if (r.length < CMMB_ADTS_HEADER_SIZE)
                fuzzFailure(where + "an AAC record is shorter than its ADTS header");
            offset = r.offset;
            length = r.length;
        }
        if (offset < end || offset + length > b->dataLength)
            fuzzFailure(where + "an item at " + std::to_string(offset) + " of " +
                        std::to_string(length) + " bytes overlaps another or lies beyond " +
                        "dataLength " + std::to_string(b->dataLength));
        end = offset + length;
    }
}

// The play engine's turn: for every signalled frame, lock, check, mark fetched, unlock.
void readBuffers() {
    FuzzEngine& fuzz = FuzzEngine::instance();
    for (int s = 0; s < 2; ++s) {
        CmmbSharedBuffer* b = fuzz.engine()->sharedBuffer(s);
        while (cmmb_sem_trywait(&b->mutexDataAvailable) == 0) {
            if (cmmb_sem_timedwait(&b->mutexDataAccessable, 20000) != 0)
                fuzzFailure("the shared buffer stays locked after the frame end");
            checkRecords(s, b);
            b->nalCount = 0;
            b->aacCount = 0;
            cmmb_sem_post(&b->mutexDataAccessable);
        }
    }
    std::string outside = guardedMappingsIntact();
    if (!outside.empty())
        fuzzFailure(outside);
}

// Presentation times: any 32-bit values (wild), or small, never decreasing steps from an
// input-chosen start, carried by tsBase or tsRelative as the input chooses.
struct TickClock {
    bool wild = false;
    uint32_t base = 0;
    void next(InputBytes& in, unsigned long* tsBase, unsigned long* tsRelative) {
        if (wild) {
            *tsBase = in.u32();
            *tsRelative = in.u32();
        } else {
            const uint8_t step = in.u8(), split = in.u8();
            base += step;
            *tsRelative = split <= base ? split : base;
            *tsBase = base - *tsRelative;
        }
    }
};

// One frame: a header byte (channel, withError, item count), an optional explicit channel
// id, then items: a kind byte (NAL with its position value, or AAC), times, size, bytes.
void decodeFrame(InputBytes& in, TickClock& clock, uint8_t* payload) {
    MBBMSAgentCallback* agent = FuzzEngine::instance().agent()->callback();
    const uint8_t header = in.u8();
    int channel = kChannels[header & 1];
    if ((header & 6) == 6)
        channel = static_cast<int>(in.u32());  // any id, mostly unknown to the engine
    const bool withError = (header & 8) != 0;
    int items = header >> 4;
    if (items == 15)
        items = in.u16() % (kMaxItemsPerFrame + 1);

    agent->onOutputAVStart(channel, payload, header & 0x7);
    for (int i = 0; i < items && !in.empty(); ++i) {
        const uint8_t kind = in.u8();
        unsigned long tsBase, tsRelative;
        clock.next(in, &tsBase, &tsRelative);
        uint16_t size = (kind & 0x80) ? in.u16() : in.u8();
        in.bytes(payload, size);
        if (kind & 1) {
            agent->onClearAudioAacFrame(channel, tsBase, tsRelative, payload, size);
        } else {
            // Position values beyond 0-3 included.
            int pos = static_cast<int8_t>(kind) >> 1;
            if ((kind & 0x80) == 0)
                pos &= 3;
            agent->onClearVideoNalData(channel, tsBase, tsRelative, payload, size,
                                       static_cast<MBBMSAgent::NAL_FRAGMENT_POS_IND>(pos));
        }
    }
    agent->onOutputAVEnd(channel, withError);
}

void checkRecording(const FuzzScratchFile& file) {
    Mp4File recorded = Mp4File::read(file.path());
    if (recorded.find("moov") == nullptr)
        return;  // nothing was recorded (no SPS, or no sample in some track)
    std::string problem = checkMp4Consistency(recorded, Mp4ConsistencyOptions());
    if (!problem.empty())
        fuzzFailure("inconsistent recording: " + problem);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzScratchFile file("tuner-data");
    static uint8_t* payload = new uint8_t[65536];
    FuzzEngine& fuzz = FuzzEngine::instance();
    if (guardedMappingCount() != 2)
        fuzzFailure("the shared buffers are not guarded (is mmap wrapped?)");
    InputBytes in(data, size, 0x5A);

    const uint8_t config = in.u8();
    const SessionLayout layout = {(config & 1) != 0, (config >> 1) & 1};
    applyLayout(layout);
    const bool recording =
        fuzz.engine()->startRecording(layout.recordingSession, file.openEmpty().get()) == 0;
    // The recorder works on its own duplicate: the descriptor handed in is closed already.

    TickClock clock;
    clock.wild = (config & 0x80) != 0;
    clock.base = static_cast<uint32_t>((config >> 2) & 0x1F) * 22500;
    for (int frames = 0; frames < kMaxFramesPerInput && !in.empty(); ++frames) {
        decodeFrame(in, clock, payload);
        readBuffers();
    }
    if (recording) {
        fuzz.engine()->stopRecording(layout.recordingSession);
        checkRecording(file);
    }
    return 0;
}
