// Video NAL and audio AAC ingestion, observed in the shared buffer as the play engine maps
// it: the fragment state machine, the start code, the payload and record limits, and the
// ADTS header. Each test runs a fresh engine in a child process.
#include <gtest/gtest.h>

#include <cstring>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

using Pos = MBBMSAgent::NAL_FRAGMENT_POS_IND;
const Pos START = MBBMSAgent::NAL_FRAGMENT_START;
const Pos MIDDLE = MBBMSAgent::NAL_FRAGMENT_MIDDLE;
const Pos END = MBBMSAgent::NAL_FRAGMENT_END;
const Pos COMPLETE = MBBMSAgent::NAL_FRAGMENT_COMPLETE;

const int kChannel = 40;

Bytes payload(CmmbSharedBuffer* buffer, uint32_t offset, uint32_t length) {
    return Bytes(buffer->data + offset, buffer->data + offset + length);
}

Bytes tail(const Bytes& bytes, size_t from) {
    return Bytes(bytes.begin() + from, bytes.end());
}

// An engine with session 0 showing a service on kChannel, inside an open frame.
#define WITH_OPEN_FRAME(bench)                        \
    EngineDataPath bench;                             \
    ASSERT_EQ("", bench.setUpError());                \
    ASSERT_EQ(0, bench.startService(0, 7, kChannel)); \
    bench.frameStart(kChannel)

TEST(NalIngestion, CompleteUnitIsStoredWithoutItsStartCode) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.aac(kChannel, pattern(10));  // so that the unit does not start at offset 0
        Bytes unit = nalUnit(4, 0x65, 100, 3);
        bench.nal(kChannel, unit, COMPLETE, 1000, 20);

        ASSERT_EQ(1u, b->nalCount);
        EXPECT_EQ(17u, b->nal[0].offset);
        EXPECT_EQ(96u, b->nal[0].length);
        EXPECT_EQ(3u, b->nal[0].pos);
        EXPECT_EQ(1000u, b->nal[0].tsBase);
        EXPECT_EQ(20u, b->nal[0].tsRelative);
        EXPECT_EQ(3u, b->nal[1].pos) << "the next record is free";
        EXPECT_EQ(17u + 96u, b->dataLength);
        EXPECT_EQ(tail(unit, 4), payload(b, 17, 96));
    });
}

TEST(NalIngestion, StartMiddleEndAssembleOneUnitWithTheStartTimestamps) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        Bytes first = nalUnit(3, 0x41, 50, 1), middle = pattern(30, 2), last = pattern(20, 3);

        bench.nal(kChannel, first, START, 500, 5);
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(2u, b->nal[0].pos) << "a unit is open after its first fragment";
        bench.nal(kChannel, middle, MIDDLE, 900, 9);
        EXPECT_EQ(0u, b->nal[0].pos) << "still open after a middle fragment";
        EXPECT_EQ(0u, b->nalCount);
        bench.nal(kChannel, last, END, 901, 10);

        ASSERT_EQ(1u, b->nalCount);
        EXPECT_EQ(3u, b->nal[0].pos);
        EXPECT_EQ(50u + 30u + 20u - 3u, b->nal[0].length);
        EXPECT_EQ(500u, b->nal[0].tsBase);
        EXPECT_EQ(5u, b->nal[0].tsRelative);
        Bytes expected = tail(first, 3);
        expected.insert(expected.end(), middle.begin(), middle.end());
        expected.insert(expected.end(), last.begin(), last.end());
        EXPECT_EQ(expected, payload(b, b->nal[0].offset, b->nal[0].length));
    });
}

TEST(NalIngestion, MiddleOrEndWithoutAnOpenUnitIsDropped) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.nal(kChannel, pattern(30), MIDDLE);
        bench.nal(kChannel, pattern(30), END);
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(0u, b->dataLength);
        EXPECT_EQ(3u, b->nal[0].pos);
        // A completed unit leaves nothing open either.
        bench.nal(kChannel, nalUnit(4, 0x65, 10), COMPLETE);
        bench.nal(kChannel, pattern(30), END);
        EXPECT_EQ(1u, b->nalCount);
        EXPECT_EQ(6u, b->dataLength);
        EXPECT_EQ(3, bench.root.countLog("current NAL has no beginning, drop it!"));
    });
}

TEST(NalIngestion, NewUnitOverAnOpenOneReleasesItsBytes) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.nal(kChannel, nalUnit(4, 0x65, 10), COMPLETE);  // unit 0, 6 bytes
        // From state 2: a START over an open START.
        bench.nal(kChannel, nalUnit(4, 0x41, 40), START, 1, 1);
        const uint32_t released = b->nal[1].offset;
        Bytes second = nalUnit(3, 0x41, 25, 9);
        bench.nal(kChannel, second, START, 2, 2);
        EXPECT_EQ(released, b->nal[1].offset);
        EXPECT_EQ(22u, b->nal[1].length);
        EXPECT_EQ(2u, b->nal[1].tsBase);
        EXPECT_EQ(released + 22u, b->dataLength);
        // From state 0: a COMPLETE over a unit that had a middle fragment.
        bench.nal(kChannel, pattern(15), MIDDLE);
        Bytes third = nalUnit(4, 0x65, 12, 4);
        bench.nal(kChannel, third, COMPLETE, 3, 3);

        ASSERT_EQ(2u, b->nalCount);
        EXPECT_EQ(released, b->nal[1].offset);
        EXPECT_EQ(8u, b->nal[1].length);
        EXPECT_EQ(3u, b->nal[1].tsBase);
        EXPECT_EQ(released + 8u, b->dataLength);
        EXPECT_EQ(tail(third, 4), payload(b, released, 8));
        EXPECT_EQ(2, bench.root.countLog("last NAL is not ended, overwrite it!"));
    });
}

TEST(NalIngestion, FirstFragmentWithoutStartCodeIsDropped) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.nal(kChannel, Bytes{0, 0}, COMPLETE);
        bench.nal(kChannel, Bytes{0, 0, 2, 0x65, 1, 2}, START);
        bench.nal(kChannel, Bytes{0, 0, 0}, COMPLETE);
        bench.nal(kChannel, Bytes{0, 0, 0, 0, 1, 0x65}, COMPLETE);
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(0u, b->dataLength);
        // An open unit is released before the start code is looked at.
        bench.nal(kChannel, nalUnit(4, 0x41, 40), START);
        EXPECT_EQ(36u, b->dataLength);
        bench.nal(kChannel, Bytes{1, 2, 3, 4}, START);
        EXPECT_EQ(0u, b->dataLength);
        EXPECT_EQ(3u, b->nal[0].pos);
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(5, bench.root.countLog("H264 NAL has no start code, drop it!"));
    });
}

// Fills the payload of an open frame to `length` bytes with complete units.
void fillPayload(EngineDataPath& bench, uint32_t length) {
    while (bench.buffer(0)->dataLength < length) {
        uint32_t missing = length - bench.buffer(0)->dataLength;
        uint32_t chunk = missing > 60000 ? 60000 : missing;
        bench.nal(kChannel, nalUnit(4, 0x65, chunk + 4), COMPLETE);
    }
}

TEST(NalIngestion, FragmentIsAcceptedUpTo65534PayloadBytes) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        fillPayload(bench, 65000);
        ASSERT_EQ(65000u, b->dataLength);
        // The whole fragment, start code included, counts against the limit.
        bench.nal(kChannel, nalUnit(4, 0x41, 534), START);
        EXPECT_EQ(65530u, b->dataLength);
        EXPECT_EQ(2u, b->nal[b->nalCount].pos);
        bench.nal(kChannel, pattern(4), END);
        EXPECT_EQ(65534u, b->dataLength);
        EXPECT_EQ(0, bench.root.countLog("no enough space"));
    });
}

TEST(NalIngestion, FragmentBeyond65534PayloadBytesIsDroppedAndTheOpenUnitStaysOpen) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        fillPayload(bench, 65000);
        const uint32_t units = b->nalCount;
        bench.nal(kChannel, nalUnit(4, 0x41, 535), START);
        EXPECT_EQ(65000u, b->dataLength);
        EXPECT_EQ(3u, b->nal[units].pos);
        EXPECT_EQ(1, bench.root.countLog(
                         "SharedBuffer have no enough space for NAL, 65535 > 65535, DATA drop!"));

        bench.nal(kChannel, nalUnit(4, 0x41, 100), START);
        bench.nal(kChannel, pattern(500), MIDDLE);  // 65096 + 500 does not fit
        EXPECT_EQ(65096u, b->dataLength);
        EXPECT_EQ(2u, b->nal[units].pos) << "a dropped fragment leaves the unit open";
        bench.nal(kChannel, pattern(10), END);
        EXPECT_EQ(units + 1, b->nalCount);
        EXPECT_EQ(106u, b->nal[units].length);
    });
}

TEST(NalIngestion, Unit257InOneFrameIsDropped) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        for (int i = 0; i < 256; ++i)
            bench.nal(kChannel, nalUnit(4, 0x65, 6), COMPLETE);
        ASSERT_EQ(256u, b->nalCount);
        const uint32_t used = b->dataLength;
        const CmmbAacRecord aacBefore = b->aac[0];
        bench.nal(kChannel, nalUnit(4, 0x65, 6), COMPLETE);
        bench.nal(kChannel, nalUnit(4, 0x41, 6), START);
        bench.nal(kChannel, pattern(6), END);
        EXPECT_EQ(256u, b->nalCount);
        EXPECT_EQ(used, b->dataLength);
        EXPECT_EQ(0, memcmp(&aacBefore, &b->aac[0], sizeof(aacBefore)))
            << "nothing is written past the NAL record table";
        EXPECT_EQ(3, bench.root.countLog("no free NAL record"));
    });
}

TEST(AacIngestion, FrameIsStoredBehindAnAdtsHeader) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.nal(kChannel, nalUnit(4, 0x65, 14), COMPLETE);  // 10 payload bytes first
        Bytes frame = pattern(200, 5);
        bench.aac(kChannel, frame, 4000, 40);

        ASSERT_EQ(1u, b->aacCount);
        EXPECT_EQ(10u, b->aac[0].offset);
        EXPECT_EQ(207u, b->aac[0].length);
        EXPECT_EQ(4000u, b->aac[0].tsBase);
        EXPECT_EQ(40u, b->aac[0].tsRelative);
        EXPECT_EQ(217u, b->dataLength);
        Bytes expected{0xFF, 0xF9, 0x58, 0x80, 0x19, 0xFF, 0xFC};
        expected.insert(expected.end(), frame.begin(), frame.end());
        EXPECT_EQ(expected, payload(b, 10, 207));
    });
}

TEST(AacIngestion, HeaderCarriesTheFrameLengthIncludingItself) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        const unsigned lengths[] = {0, 1, 248, 2040};
        for (unsigned length : lengths)
            bench.aac(kChannel, pattern(length));
        ASSERT_EQ(4u, b->aacCount);
        for (int i = 0; i < 4; ++i) {
            const unsigned char* h = b->data + b->aac[i].offset;
            unsigned adtsLength = ((h[3] & 0x03u) << 11) | (h[4] << 3) | (h[5] >> 5);
            EXPECT_EQ(lengths[i] + 7, adtsLength) << "frame " << i;
            EXPECT_EQ(0x1Fu, h[5] & 0x1Fu);
            EXPECT_EQ(0xFCu, h[6]);
        }
    });
}

TEST(AacIngestion, FrameIsAcceptedUpTo65527OwnBytesAndDroppedBeyond) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
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

TEST(AacIngestion, Frame257InOneFrameIsDropped) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        for (int i = 0; i < 257; ++i)
            bench.aac(kChannel, pattern(3));
        EXPECT_EQ(256u, b->aacCount);
        EXPECT_EQ(256u * 10u, b->dataLength);
        EXPECT_EQ(1, bench.root.countLog("no free AAC record"));
    });
}

TEST(Ingestion, ItemsForAnUnknownChannelAreIgnored) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        CmmbSharedBuffer* b = bench.buffer(0);
        bench.nal(kChannel + 1, nalUnit(4, 0x65, 10), COMPLETE);
        bench.aac(kChannel + 1, pattern(10));
        EXPECT_EQ(0u, b->nalCount);
        EXPECT_EQ(0u, b->aacCount);
        EXPECT_EQ(0u, b->dataLength);
        EXPECT_EQ(2, bench.root.countLog("channelIDToIndex(41)=-1"));
    });
}

TEST(Ingestion, RawItemLogNeverReadsPastAShortFragment) {
    EXPECT_IN_CHILD({
        WITH_OPEN_FRAME(bench);
        bench.nal(kChannel, Bytes{0, 0, 1, 0x65}, COMPLETE, 11, 12);
        EXPECT_EQ(
            1, bench.root.countLog(
                   "+Raw video NAL, session=0, count=0, ts=11 + 12, len=4, pos=3, 00 00 01 65 "));
        bench.nal(kChannel, nalUnit(4, 0x65, 9), COMPLETE);
        EXPECT_EQ(1, bench.root.countLog("count=1, ts=0 + 0, len=9, pos=3, 00 00 00 01 65 "));
    });
}

}  // namespace
