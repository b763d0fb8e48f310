// NAL and AAC ingestion into a private shared buffer as a frame start leaves it: fragment
// states, start codes, limits, the ADTS header, and a region rewritten between calls.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "IngestionBench.h"

namespace {

const int START = MBBMSAgent::NAL_FRAGMENT_START;
const int MIDDLE = MBBMSAgent::NAL_FRAGMENT_MIDDLE;
const int END = MBBMSAgent::NAL_FRAGMENT_END;
const int COMPLETE = MBBMSAgent::NAL_FRAGMENT_COMPLETE;
// The pos of the next free NAL record: none open (3), opened by START (2), had a MIDDLE (0).
const uint32_t kNone = 3, kStarted = 2, kMiddle = 0;

// The parts one after the other; the first without its 4-byte start code.
Bytes stored(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin() + (all.empty() ? 4 : 0), part.end());
    return all;
}

class IngestionTest : public testing::Test, public IngestionBench {
protected:
    Bytes payload(uint32_t offset, uint32_t length) const {
        return Bytes(b->data + offset, b->data + offset + length);
    }
    Bytes nalPayload(int unit) const { return payload(b->nal[unit].offset, b->nal[unit].length); }
};

// Every fragment position from every state; an overwritten open unit gives its bytes back.
// Of a position outside 0-3 only bit 1 (begins a unit) and bit 0 (ends one) count.
TEST_F(IngestionTest, FragmentStateTable) {
    struct Step {
        int pos;
        size_t size;
        bool taken;
        uint32_t nalCount, dataLength, open;
    };
    const Step steps[] = {
        {MIDDLE, 30, false, 0, 0, kNone},     // 0: no beginning, dropped
        {END, 30, false, 0, 0, kNone},        // 1: no beginning, dropped
        {COMPLETE, 10, true, 1, 6, kNone},    // 2: unit 0
        {START, 40, true, 1, 42, kStarted},   // 3
        {END, 10, true, 2, 52, kNone},        // 4: unit 1 = 36 + 10
        {START, 20, true, 2, 68, kStarted},   // 5
        {START, 25, true, 2, 73, kStarted},   // 6: overwrites step 5
        {COMPLETE, 12, true, 3, 60, kNone},   // 7: overwrites step 6, unit 2
        {START, 14, true, 3, 70, kStarted},   // 8
        {MIDDLE, 5, true, 3, 75, kMiddle},    // 9
        {MIDDLE, 7, true, 3, 82, kMiddle},    // 10
        {END, 3, true, 4, 85, kNone},         // 11: unit 3 = 10 + 5 + 7 + 3
        {START, 20, true, 4, 101, kStarted},  // 12
        {MIDDLE, 4, true, 4, 105, kMiddle},   // 13
        {START, 9, true, 4, 90, kStarted},    // 14: overwrites steps 12-13
        {MIDDLE, 4, true, 4, 94, kMiddle},    // 15
        {COMPLETE, 11, true, 5, 92, kNone},   // 16: overwrites steps 14-15, unit 4
        {6, 20, true, 5, 108, kStarted},      // 17: begins
        {-64, 10, true, 5, 118, kMiddle},     // 18: no flag bits
        {-63, 5, true, 6, 123, kNone},        // 19: ends, unit 5
        {0x7F, 9, true, 7, 128, kNone},       // 20: begins and ends, unit 6
    };
    std::vector<Bytes> sent;
    for (size_t i = 0; i < sizeof(steps) / sizeof(steps[0]); ++i) {
        const Step& step = steps[i];
        const unsigned char seed = static_cast<unsigned char>(i);
        const bool startsUnit = (step.pos & 2) != 0;
        sent.push_back(startsUnit ? nalUnit(4, 0x41, step.size, seed) : pattern(step.size, seed));
        EXPECT_EQ(step.taken, nal(sent.back(), step.pos, 1000 + i, i)) << "step " << i;
        EXPECT_EQ(step.nalCount, b->nalCount) << "step " << i;
        EXPECT_EQ(step.dataLength, b->dataLength) << "step " << i;
        EXPECT_EQ(step.open, b->nal[b->nalCount].pos) << "step " << i;
    }
    // Units carry the timestamps of their first fragment.
    const uint32_t offsets[] = {0, 6, 52, 60, 85, 92, 123}, lengths[] = {6, 46, 8, 25, 7, 31, 5};
    const unsigned firstStep[] = {2, 3, 7, 8, 16, 17, 20};
    for (int u = 0; u < 7; ++u) {
        const CmmbNalRecord& r = b->nal[u];
        EXPECT_EQ(std::make_tuple(offsets[u], lengths[u], kNone, 1000 + firstStep[u], firstStep[u]),
                  std::make_tuple(r.offset, r.length, r.pos, r.tsBase, r.tsRelative))
            << "unit " << u;
    }
    EXPECT_EQ(stored({sent[8], sent[9], sent[10], sent[11]}), nalPayload(3));
    EXPECT_EQ(stored({sent[16]}), nalPayload(4));
    EXPECT_EQ(stored({sent[17], sent[18], sent[19]}), nalPayload(5));
}

// A first fragment without a start code is dropped, after releasing an open unit.
TEST_F(IngestionTest, StartCodes) {
    EXPECT_FALSE(nal(Bytes{0, 0}, COMPLETE));
    EXPECT_FALSE(nal(Bytes{0, 0, 2, 0x65, 1, 2}, START));
    EXPECT_FALSE(nal(Bytes{0, 0, 0}, COMPLETE));
    EXPECT_FALSE(nal(Bytes{0, 0, 0, 0, 1, 0x65}, COMPLETE));
    EXPECT_EQ(0u, b->nalCount + b->dataLength);
    EXPECT_TRUE(nal(nalUnit(3, 0x65, 10), COMPLETE));
    EXPECT_EQ(1u, b->nalCount);
    EXPECT_EQ(7u, b->nal[0].length);
    EXPECT_TRUE(nal(nalUnit(4, 0x41, 40), START));
    EXPECT_FALSE(nal(Bytes{1, 2, 3, 4}, START));
    EXPECT_EQ(7u, b->dataLength);
    EXPECT_EQ(kNone, b->nal[1].pos);
}

// An open unit overwritten with an AAC frame behind it: the frame is kept, the next unit
// goes behind it.
TEST_F(IngestionTest, AnOpenUnitOverwrittenWithAudioBehindItKeepsTheAudio) {
    const Bytes audio = pattern(30, 50), next = nalUnit(4, 0x65, 60);
    nal(nalUnit(4, 0x41, 20), START);
    aac(audio);
    nal(next, COMPLETE);

    ASSERT_EQ(1u, b->nalCount);
    EXPECT_EQ(stored({next}), nalPayload(0));
    ASSERT_EQ(1u, b->aacCount);
    ASSERT_EQ(7 + audio.size(), b->aac[0].length);
    EXPECT_EQ(audio, payload(b->aac[0].offset + 7, 30));
    EXPECT_EQ(16u, b->aac[0].offset);
    EXPECT_EQ(16u + 37, b->nal[0].offset);
    EXPECT_EQ(b->nal[0].offset + b->nal[0].length, b->dataLength);
}

// A NAL fragment (start code included) or an AAC frame fits while the payload stays within
// 65,534 bytes; a dropped fragment leaves its unit open.
TEST_F(IngestionTest, PayloadLimitOf65534Bytes) {
    fillPayload(65000);
    const uint32_t units = b->nalCount;
    EXPECT_FALSE(nal(nalUnit(4, 0x41, 535), START));
    EXPECT_EQ(kNone, b->nal[units].pos);
    EXPECT_TRUE(nal(nalUnit(4, 0x41, 534), START));
    EXPECT_EQ(65530u, b->dataLength);
    EXPECT_FALSE(nal(pattern(5), MIDDLE));
    EXPECT_EQ(kStarted, b->nal[units].pos);
    EXPECT_TRUE(nal(pattern(4), END));
    EXPECT_EQ(65534u, b->dataLength);
    EXPECT_EQ(units + 1, b->nalCount);

    frameStart();
    fillPayload(65000);
    EXPECT_FALSE(aac(pattern(528)));
    EXPECT_TRUE(aac(pattern(527)));
    EXPECT_EQ(65534u, b->dataLength);
    EXPECT_EQ(1u, b->aacCount);
}

// The 257th unit or audio frame finds no record; nothing is written past the tables.
TEST_F(IngestionTest, RecordTablesOf256Items) {
    for (int i = 0; i < 256; ++i)
        ASSERT_TRUE(nal(nalUnit(4, 0x65, 6), COMPLETE));
    const CmmbAacRecord aacBefore = b->aac[0];
    EXPECT_FALSE(nal(nalUnit(4, 0x65, 6), COMPLETE));
    EXPECT_FALSE(nal(nalUnit(4, 0x41, 6), START));
    EXPECT_FALSE(nal(pattern(6), END));
    EXPECT_EQ(256u, b->nalCount);
    EXPECT_EQ(512u, b->dataLength);
    EXPECT_EQ(0, memcmp(&aacBefore, &b->aac[0], sizeof(aacBefore))) << "written past the NAL table";
    for (int i = 0; i < 256; ++i)
        ASSERT_TRUE(aac(pattern(3)));
    const uint8_t afterTable = b->data[0];
    EXPECT_FALSE(aac(pattern(3)));
    EXPECT_EQ(256u, b->aacCount);
    EXPECT_EQ(512u + 256u * 10u, b->dataLength);
    EXPECT_EQ(afterTable, b->data[0]) << "written past the AAC table";
}

// Each AAC frame is stored behind a 7-byte ADTS header carrying its length.
TEST_F(IngestionTest, AdtsHeaderBytes) {
    ASSERT_TRUE(aac(pattern(200, 9), 4321));
    EXPECT_EQ(Bytes({0xFF, 0xF9, 0x58, 0x80, 0x19, 0xFF, 0xFC}), payload(0, 7));
    EXPECT_EQ(pattern(200, 9), payload(7, 200));
    EXPECT_EQ(4321u, b->aac[0].tsBase);
    EXPECT_EQ(207u, b->aac[0].length);
    for (unsigned length : {0u, 2040u}) {  // the 13-bit length field at both ends
        ASSERT_TRUE(aac(pattern(length, 5)));
        const CmmbAacRecord& r = b->aac[b->aacCount - 1];
        const unsigned char* h = b->data + r.offset;
        EXPECT_EQ(length + 7, r.length);
        EXPECT_EQ(length + 7, ((h[3] & 0x03u) << 11) | (h[4] << 3) | (h[5] >> 5));
        EXPECT_EQ(pattern(length, 5), payload(r.offset + 7, length));
    }
    unsigned char header[7];
    writeAdtsHeader(header, 2047);
    EXPECT_EQ(Bytes({0xFF, 0xF9, 0x58, 0x80, 0xFF, 0xFF, 0xFC}), Bytes(header, header + 7));
}

// Counts, length and records rewritten between the fragments of a unit steer nothing: the
// engine appends where its own state says and republishes it.
TEST_F(IngestionTest, RegionRewrittenBetweenFragmentsIsIgnored) {
    const Bytes first = nalUnit(4, 0x65, 40), middle = pattern(30, 9), last = pattern(20, 77);
    const Bytes audio = pattern(50, 3);
    auto rewrite = [&](uint32_t count, uint32_t length, uint32_t offset) {
        b->nalCount = count;
        b->aacCount = count;
        b->dataLength = length;
        for (CmmbNalRecord& record : b->nal)
            record = CmmbNalRecord{0, 0, length, offset, kNone};
        for (CmmbAacRecord& record : b->aac)
            record = CmmbAacRecord{0, 0, length, offset};
    };
    ASSERT_TRUE(nal(first, START, 1000, 1));
    rewrite(0xFFFFFFF0u, 0x7FFFFFFFu, 0xFFFFFF00u);  // far past the table and the payload
    ASSERT_TRUE(nal(middle, MIDDLE));
    rewrite(255, 65000, 60000);  // in range, but not what the engine wrote
    ASSERT_TRUE(aac(audio, 2000));
    rewrite(0, 0, 0);
    ASSERT_TRUE(nal(last, END));  // the unit moves behind the audio frame at 66
    const uint32_t unitLength = 36 + 30 + 20, unitOffset = 66 + 57;
    EXPECT_EQ(1u, b->nalCount);
    EXPECT_EQ(unitOffset + unitLength, b->dataLength);
    EXPECT_EQ(unitOffset, b->nal[0].offset);
    EXPECT_EQ(unitLength, b->nal[0].length);
    EXPECT_EQ(kNone, b->nal[0].pos);
    EXPECT_EQ(stored({first, middle, last}), nalPayload(0));
    EXPECT_EQ(audio, payload(66 + 7, 50));
}

}  // namespace
