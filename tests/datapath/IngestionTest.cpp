// Video NAL and audio AAC ingestion, observed in the shared buffer as the play engine maps
// it: the fragment state machine, start codes, payload and record limits, the ADTS header.
#include <gtest/gtest.h>

#include <cstring>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

const Pos START = MBBMSAgent::NAL_FRAGMENT_START;
const Pos MIDDLE = MBBMSAgent::NAL_FRAGMENT_MIDDLE;
const Pos END = MBBMSAgent::NAL_FRAGMENT_END;
const Pos COMPLETE = MBBMSAgent::NAL_FRAGMENT_COMPLETE;
// The pos of the next free NAL record: none open (3), opened by START (2), had a MIDDLE (0).
const uint32_t kNone = 3, kStarted = 2, kMiddle = 0;
const int kChannel = 40;

Bytes payload(CmmbSharedBuffer* b, uint32_t offset, uint32_t length) {
    return Bytes(b->data + offset, b->data + offset + length);
}

// An engine with session 0 showing a service on kChannel, inside an open frame.
#define WITH_OPEN_FRAME(bench)      \
    SERVING_BENCH(bench, kChannel); \
    bench.frameStart(kChannel);     \
    [[maybe_unused]] CmmbSharedBuffer* b = bench.buffer(0)

// Every fragment position from every state. START and COMPLETE fragments carry a 4-byte
// start code that is not stored; an overwritten open unit gives its bytes back.
TEST(NalIngestion, FragmentStateTableAndStartCodes) {
    struct Step {
        Pos pos;
        size_t size;
        uint32_t nalCount, dataLength, open;
    };
    const Step steps[] = {
        {MIDDLE, 30, 0, 0, kNone},      // 0: no beginning, dropped
        {END, 30, 0, 0, kNone},         // 1: no beginning, dropped
        {COMPLETE, 10, 1, 6, kNone},    // 2: unit 0
        {START, 40, 1, 42, kStarted},   // 3
        {END, 10, 2, 52, kNone},        // 4: unit 1 = 36 + 10
        {START, 20, 2, 68, kStarted},   // 5
        {START, 25, 2, 73, kStarted},   // 6: overwrites step 5
        {COMPLETE, 12, 3, 60, kNone},   // 7: overwrites step 6, unit 2
        {START, 14, 3, 70, kStarted},   // 8
        {MIDDLE, 5, 3, 75, kMiddle},    // 9
        {MIDDLE, 7, 3, 82, kMiddle},    // 10
        {END, 3, 4, 85, kNone},         // 11: unit 3 = 10 + 5 + 7 + 3
        {START, 20, 4, 101, kStarted},  // 12
        {MIDDLE, 4, 4, 105, kMiddle},   // 13
        {START, 9, 4, 90, kStarted},    // 14: overwrites steps 12-13
        {MIDDLE, 4, 4, 94, kMiddle},    // 15
        {COMPLETE, 11, 5, 92, kNone},   // 16: overwrites steps 14-15, unit 4
    };
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        std::vector<Bytes> sent;
        for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
            const Step& step = steps[i];
            const unsigned char seed = static_cast<unsigned char>(i);
            bool startsUnit = step.pos == START || step.pos == COMPLETE;
            sent.push_back(startsUnit ? nalUnit(4, 0x41, step.size, seed)
                                      : pattern(step.size, seed));
            bench.nal(kChannel, sent.back(), step.pos, 1000 + i, i);
            EXPECT_EQ(step.nalCount, b->nalCount) << "step " << i;
            EXPECT_EQ(step.dataLength, b->dataLength) << "step " << i;
            EXPECT_EQ(step.open, b->nal[b->nalCount].pos) << "step " << i;
        }
        // Unit 3 is steps 8-11 joined, with the timestamps of its first fragment.
        Bytes unit3(sent[8].begin() + 4, sent[8].end());
        for (int i = 9; i <= 11; ++i)
            unit3.insert(unit3.end(), sent[i].begin(), sent[i].end());
        const uint32_t offsets[] = {0, 6, 52, 60, 85}, lengths[] = {6, 46, 8, 25, 7};
        const unsigned firstStep[] = {2, 3, 7, 8, 16};
        for (int u = 0; u < 5; ++u) {
            EXPECT_EQ(offsets[u], b->nal[u].offset) << "unit " << u;
            EXPECT_EQ(lengths[u], b->nal[u].length) << "unit " << u;
            EXPECT_EQ(kNone, b->nal[u].pos) << "unit " << u;
            EXPECT_EQ(1000 + firstStep[u], b->nal[u].tsBase) << "unit " << u;
            EXPECT_EQ(firstStep[u], b->nal[u].tsRelative) << "unit " << u;
        }
        EXPECT_EQ(unit3, payload(b, 60, 25));
        EXPECT_EQ(Bytes(sent[16].begin() + 4, sent[16].end()), payload(b, 85, 7));
        EXPECT_EQ(2, bench.root.countLog("current NAL has no beginning, drop it!"));
        EXPECT_EQ(4, bench.root.countLog("last NAL is not ended, overwrite it!"));

        // A first fragment without a 3- or 4-byte start code is dropped; an open unit is
        // released before the start code is looked at.
        bench.frameEnd(kChannel);
        bench.frameStart(kChannel);
        bench.nal(kChannel, Bytes{0, 0}, COMPLETE);
        bench.nal(kChannel, Bytes{0, 0, 2, 0x65, 1, 2}, START);
        bench.nal(kChannel, Bytes{0, 0, 0}, COMPLETE);
        bench.nal(kChannel, Bytes{0, 0, 0, 0, 1, 0x65}, COMPLETE);
        EXPECT_EQ(0u, b->nalCount + b->dataLength);
        bench.nal(kChannel, nalUnit(3, 0x65, 10), COMPLETE);
        EXPECT_EQ(1u, b->nalCount);
        EXPECT_EQ(7u, b->nal[0].length);
        bench.nal(kChannel, nalUnit(4, 0x41, 40), START);
        EXPECT_EQ(43u, b->dataLength);
        bench.nal(kChannel, Bytes{1, 2, 3, 4}, START);
        EXPECT_EQ(7u, b->dataLength);
        EXPECT_EQ(kNone, b->nal[1].pos);
        EXPECT_EQ(5, bench.root.countLog("H264 NAL has no start code, drop it!"));
    });
}

// Fragment position values outside 0-3, as an agent may pass them (found by fuzzing the
// tuner data): only bit 1 (begins a unit) and bit 0 (ends one) count, and the record being
// filled only ever shows 2, 0 or 3 to the play engine.
TEST(NalIngestion, ExtraBitsOfTheFragmentPositionAreIgnored) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        bench.nal(kChannel, nalUnit(4, 0x65, 20), static_cast<Pos>(6));  // begins: 16 bytes kept
        EXPECT_EQ(kStarted, b->nal[0].pos);
        bench.nal(kChannel, pattern(10), static_cast<Pos>(-64));  // middle (no flag bits)
        EXPECT_EQ(kMiddle, b->nal[0].pos);
        EXPECT_EQ(0u, b->nalCount);
        bench.nal(kChannel, pattern(5), static_cast<Pos>(-63));  // ends
        EXPECT_EQ(1u, b->nalCount);
        EXPECT_EQ(31u, b->nal[0].length);
        EXPECT_EQ(kNone, b->nal[1].pos);
        bench.nal(kChannel, nalUnit(3, 0x41, 9), static_cast<Pos>(0x7F));  // begins and ends
        EXPECT_EQ(2u, b->nalCount);
        EXPECT_EQ(6u, b->nal[1].length);
        bench.frameEnd(kChannel);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        ASSERT_EQ(2u, frame.nals.size());
        EXPECT_EQ(0x65, frame.nals[0][0]);
        EXPECT_EQ(0x41, frame.nals[1][0]);
    });
}

// AAC frames delivered between the fragments of a NAL unit (found by fuzzing the tuner
// data): the unit stays contiguous and neither item overlaps the other, also when the open
// unit is overwritten by the next one.
TEST(NalIngestion, AudioBetweenFragmentsKeepsBothItemsWhole) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        const Bytes first = nalUnit(4, 0x65, 20), middle = pattern(10, 100), last = pattern(5, 200);
        const Bytes audio = pattern(30, 50);
        bench.nal(kChannel, first, START);
        bench.aac(kChannel, audio);
        bench.nal(kChannel, middle, MIDDLE);
        bench.nal(kChannel, last, END);
        // Overwritten while an AAC frame lies behind it: the frame is kept.
        bench.nal(kChannel, nalUnit(4, 0x41, 20), START);
        bench.aac(kChannel, audio);
        const Bytes next = nalUnit(4, 0x65, 60);
        bench.nal(kChannel, next, COMPLETE);
        bench.frameEnd(kChannel);

        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        ASSERT_EQ(2u, frame.nals.size());
        Bytes whole(first.begin() + 4, first.end());
        whole.insert(whole.end(), middle.begin(), middle.end());
        whole.insert(whole.end(), last.begin(), last.end());
        EXPECT_EQ(whole, frame.nals[0]);
        EXPECT_EQ(Bytes(next.begin() + 4, next.end()), frame.nals[1]);
        ASSERT_EQ(2u, frame.aacs.size());
        for (const Bytes& aac : frame.aacs) {
            ASSERT_EQ(7 + audio.size(), aac.size());
            EXPECT_EQ(audio, Bytes(aac.begin() + 7, aac.end()));
        }
    });
}

// Fills the payload of the open frame to `length` bytes with complete units.
void fillPayload(EngineDataPath& bench, uint32_t length) {
    while (bench.buffer(0)->dataLength < length) {
        uint32_t missing = length - bench.buffer(0)->dataLength;
        bench.nal(kChannel, nalUnit(4, 0x65, (missing > 60000 ? 60000 : missing) + 4), COMPLETE);
    }
}

// A NAL fragment (start code included) fits while the payload stays within 65,534 bytes,
// an AAC frame while its own bytes (header included) do.
TEST(Ingestion, PayloadLimits) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        fillPayload(bench, 65000);
        const uint32_t units = b->nalCount;
        bench.nal(kChannel, nalUnit(4, 0x41, 535), START);
        EXPECT_EQ(65000u, b->dataLength);
        EXPECT_EQ(kNone, b->nal[units].pos);
        bench.nal(kChannel, nalUnit(4, 0x41, 534), START);
        EXPECT_EQ(65530u, b->dataLength);
        bench.nal(kChannel, pattern(5), MIDDLE);
        EXPECT_EQ(65530u, b->dataLength);
        EXPECT_EQ(kStarted, b->nal[units].pos) << "a dropped fragment leaves the unit open";
        bench.nal(kChannel, pattern(4), END);
        EXPECT_EQ(65534u, b->dataLength);
        EXPECT_EQ(units + 1, b->nalCount);
        EXPECT_EQ(2, bench.root.countLog(
                         "SharedBuffer have no enough space for NAL, 65535 > 65535, DATA drop!"));

        bench.frameEnd(kChannel);
        bench.frameStart(kChannel);
        fillPayload(bench, 65000);
        bench.aac(kChannel, pattern(528));
        EXPECT_EQ(65000u, b->dataLength);
        EXPECT_EQ(0u, b->aacCount);
        EXPECT_EQ(1, bench.root.countLog(
                         "SharedBuffer have no enough space for AAC, 65528 > 65535, DATA drop!"));
        bench.aac(kChannel, pattern(527));
        EXPECT_EQ(65534u, b->dataLength);
        EXPECT_EQ(1u, b->aacCount);
    });
}

// Each AAC frame is stored behind a 7-byte ADTS header carrying its length, header included
// (its exact bytes are checked by the frame hand-off test). The 257th unit or audio frame of one
// frame finds no record and is dropped.
TEST(Ingestion, AdtsHeaderAndRecordTablesOf256Items) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        bench.nal(kChannel, nalUnit(4, 0x65, 14), COMPLETE);
        for (unsigned length : {0u, 2040u}) {  // the 13-bit length field at both ends
            bench.aac(kChannel, pattern(length, 5));
            const CmmbAacRecord& r = b->aac[b->aacCount - 1];
            const unsigned char* h = b->data + r.offset;
            EXPECT_EQ(length + 7, r.length);
            EXPECT_EQ(length + 7, ((h[3] & 0x03u) << 11) | (h[4] << 3) | (h[5] >> 5));
            EXPECT_EQ(pattern(length, 5), payload(b, r.offset + 7, length));
        }
        EXPECT_EQ(10u + 7 + 2047, b->dataLength);
        bench.frameEnd(kChannel);
        bench.frameStart(kChannel);

        for (int i = 0; i < 256; ++i)
            bench.nal(kChannel, nalUnit(4, 0x65, 6), COMPLETE);
        const CmmbAacRecord aacBefore = b->aac[0];
        bench.nal(kChannel, nalUnit(4, 0x65, 6), COMPLETE);
        bench.nal(kChannel, nalUnit(4, 0x41, 6), START);
        bench.nal(kChannel, pattern(6), END);
        EXPECT_EQ(256u, b->nalCount);
        EXPECT_EQ(512u, b->dataLength);
        EXPECT_EQ(0, memcmp(&aacBefore, &b->aac[0], sizeof(aacBefore)))
            << "written past the NAL records";
        EXPECT_EQ(3, bench.root.countLog("no free NAL record"));
        for (int i = 0; i < 257; ++i)
            bench.aac(kChannel, pattern(3));
        EXPECT_EQ(256u, b->aacCount);
        EXPECT_EQ(512u + 256u * 10u, b->dataLength);
        EXPECT_EQ(1, bench.root.countLog("no free AAC record"));
    });
}

// A reader that rewrites the counts, the payload length and the open record between the
// fragments of one NAL unit, and again before the frame ends, steers nothing: the engine
// appends where its own state says, republishes that state, and hands on the frame it wrote.
TEST(Ingestion, RegionRewrittenBetweenFragmentsIsIgnored) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        const Bytes first = nalUnit(4, 0x65, 40), middle = pattern(30, 9), last = pattern(20, 77);
        const Bytes audio = pattern(50, 3);
        auto rewrite = [&](uint32_t count, uint32_t length, uint32_t offset) {
            b->nalCount = count;
            b->aacCount = count;
            b->dataLength = length;
            for (CmmbNalRecord& record : b->nal) {
                record.offset = offset;
                record.length = length;
                record.pos = kNone;
            }
            for (CmmbAacRecord& record : b->aac) {
                record.offset = offset;
                record.length = length;
            }
        };
        bench.nal(kChannel, first, START, 1000, 1);
        rewrite(0xFFFFFFF0u, 0x7FFFFFFFu, 0xFFFFFF00u);  // far past the table and the payload
        bench.nal(kChannel, middle, MIDDLE);
        rewrite(255, 65000, 60000);  // in range, but not what the engine wrote
        bench.aac(kChannel, audio, 2000);
        rewrite(0, 0, 0);
        bench.nal(kChannel, last, END);  // the unit moves behind the audio frame at 66
        const uint32_t unitLength = 36 + 30 + 20, unitOffset = 66 + 57;
        EXPECT_EQ(1u, b->nalCount);
        EXPECT_EQ(unitOffset + unitLength, b->dataLength);
        EXPECT_EQ(unitOffset, b->nal[0].offset);
        EXPECT_EQ(unitLength, b->nal[0].length);
        EXPECT_EQ(kNone, b->nal[0].pos);
        EXPECT_EQ(1000u, b->nal[0].tsBase);
        rewrite(200, 3, 65530);
        bench.frameEnd(kChannel);

        // The reader sees the frame as written (the records it rewrote itself stay rewritten,
        // so they are put back here the way the engine wrote them).
        EXPECT_EQ(1u, b->nalCount);
        EXPECT_EQ(1u, b->aacCount);
        EXPECT_EQ(unitOffset + unitLength, b->dataLength);
        b->nal[0] = CmmbNalRecord{1000, 1, unitLength, unitOffset, kNone};
        b->aac[0] = CmmbAacRecord{2000, 0, 57, 66};
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame));
        Bytes whole(first.begin() + 4, first.end());
        whole.insert(whole.end(), middle.begin(), middle.end());
        whole.insert(whole.end(), last.begin(), last.end());
        ASSERT_EQ(1u, frame.nals.size());
        EXPECT_EQ(whole, frame.nals[0]);
        ASSERT_EQ(1u, frame.aacs.size());
        EXPECT_EQ(audio, Bytes(frame.aacs[0].begin() + 7, frame.aacs[0].end()));
        EXPECT_EQ(0, bench.root.countLog("DATA drop!"));
        EXPECT_EQ(0, bench.root.countLog("has no beginning"));
    });
}

}  // namespace

// The lines of the data path name the operation the application or the agent called, not
// the helper that printed them.
TEST(DataPathLog, LinesNameThePublicOperation) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        bench.nal(kChannel, pattern(10), MIDDLE);
        bench.nal(kChannel, pattern(10), COMPLETE);
        bench.aac(kChannel, pattern(20));
        bench.frameEnd(kChannel);
        EXPECT_EQ(0, bench.engine->stopTVService(0));
        EXPECT_EQ(1, bench.root.countLogLine("WARNING", "onClearVideoNalData",
                                             "current NAL has no beginning, drop it!"));
        EXPECT_EQ(1, bench.root.countLogLine("ERROR", "onClearVideoNalData",
                                             "H264 NAL has no start code, drop it!"));
        EXPECT_EQ(1, bench.root.countLogLine("DATA_AAC", "onClearAudioAacFrame",
                                             "+Raw audio AAC,session=0"));
        EXPECT_EQ(
            1, bench.root.countLogLine("SEMAPHORE", "start", "sem_wait mutexSessionChangable ..."));
        EXPECT_EQ(1, bench.root.countLogLine("SEMAPHORE", "stop", "mutexSessionChangable++"));
        EXPECT_EQ(
            1, bench.root.countLogLine("SEMAPHORE", "onOutputAVStart", "mutexSessionChangable--"));
        EXPECT_EQ(1,
                  bench.root.countLogLine("SEMAPHORE", "onOutputAVEnd", "mutexSessionChangable++"));
        EXPECT_EQ(2,
                  bench.root.countLogLine("ENGINE", "initSharedBuffers", "mmap is ok, size=74772"));
    });
}
