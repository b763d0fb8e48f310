// Output primitives and the file skeleton. The primitives are exercised inside the mdat of
// a writer without tracks, so the finished file shows their bytes as the mdat body.
#include <gtest/gtest.h>

#include "WriterHarness.h"

namespace {

Bytes mdatBody(WriterHarness& harness) {
    EXPECT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    const Mp4Box* mdat = file.find("mdat");
    return mdat != nullptr ? file.body(*mdat) : Bytes();
}

TEST(BoxOutputTest, FileStartsWithFileTypeBoxThenMdatWhoseSizeIsPatchedAtStop) {
    WriterHarness harness;
    ASSERT_EQ(0, harness.start());
    EXPECT_EQ(32, harness.writer().currentOffset());
    harness.writer().write("abc", 3);
    ASSERT_EQ(0, harness.stop());

    Mp4File file = harness.readFile();
    const Bytes expected = {0x00, 0x00, 0x00, 0x18, 'f', 't', 'y', 'p', '3', 'g', 'p', '4',
                            0x00, 0x00, 0x00, 0x00, 'i', 's', 'o', 'm', '3', 'g', 'p', '4',
                            0x00, 0x00, 0x00, 0x0B, 'm', 'd', 'a', 't', 'a', 'b', 'c'};
    ASSERT_GE(file.bytes().size(), expected.size());
    EXPECT_EQ(expected, Bytes(file.bytes().begin(), file.bytes().begin() + expected.size()));
    ASSERT_EQ(3u, file.boxes().size());
    EXPECT_EQ("moov", file.boxes()[2].type);
    EXPECT_EQ(file.bytes().size(), file.boxes()[2].offset + file.boxes()[2].size);
}

TEST(BoxOutputTest, IntegersAreBigEndianAndBoxSizesCoverHeaderAndNestedBodies) {
    WriterHarness harness;
    ASSERT_EQ(0, harness.start());
    CmmbMPEG4Writer& out = harness.writer();
    EXPECT_EQ(1u, out.writeInt8(-2));
    EXPECT_EQ(2u, out.writeInt16(0x0102));
    EXPECT_EQ(4u, out.writeInt32(static_cast<int>(0xA1B2C3D4)));
    EXPECT_EQ(8u, out.writeInt64(0x0102030405060708LL));
    EXPECT_EQ(3u, out.writeCString("Vi"));
    out.beginBox("outr");
    out.beginBox("empt");
    out.endBox();
    out.beginBox("innr");
    out.writeInt32(7);
    out.endBox();
    out.endBox();
    EXPECT_EQ(32 + 18 + 28, out.currentOffset());
    out.writeInt8(0x55);

    const Bytes expected = {0xFE, 0x01, 0x02, 0xA1, 0xB2, 0xC3, 0xD4, 1,   2,   3,    4,   5,
                            6,    7,    8,    'V',  'i',  0,    0,    0,   0,   0x1C, 'o', 'u',
                            't',  'r',  0,    0,    0,    0x08, 'e',  'm', 'p', 't',  0,   0,
                            0,    0x0C, 'i',  'n',  'n',  'r',  0,    0,   0,   7,    0x55};
    EXPECT_EQ(expected, mdatBody(harness));
}

TEST(BoxOutputTest, EachRotationGivesItsCompositionMatrix) {
    const uint32_t one = 0x00010000, minusOne = 0xFFFF0000;
    const struct {
        int degrees;
        uint32_t p, q, r, s;
    } rotations[] = {{0, one, 0, 0, one},
                     {90, 0, one, minusOne, 0},
                     {180, minusOne, 0, 0, minusOne},
                     {270, 0, minusOne, one, 0}};
    for (const auto& c : rotations) {
        WriterHarness harness;
        ASSERT_EQ(0, harness.start());
        harness.writer().writeCompositionMatrix(c.degrees);
        Bytes body = mdatBody(harness);
        ASSERT_EQ(36u, body.size()) << c.degrees;
        FieldReader fields(body, 0);
        for (uint32_t value : {c.p, c.q, 0u, c.r, c.s, 0u, 0u, 0u, 0x40000000u}) {
            EXPECT_EQ(value, fields.u32()) << c.degrees << " degrees";
        }
    }
}

}  // namespace
