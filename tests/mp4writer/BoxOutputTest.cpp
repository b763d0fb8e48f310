// Output primitives and the file skeleton. The primitives are exercised inside the mdat of
// a writer without tracks, so the finished file shows their bytes as the mdat body.
#include <gtest/gtest.h>

#include <string>

#include "WriterHarness.h"

namespace {

class BoxOutputTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, harness.start()); }

    Bytes mdatBody() {
        EXPECT_EQ(0, harness.stop());
        Mp4File file = harness.readFile();
        const Mp4Box* mdat = file.find("mdat");
        return mdat != nullptr ? file.body(*mdat) : Bytes();
    }

    WriterHarness harness;
    CmmbMPEG4Writer& out = harness.writer();
};

TEST_F(BoxOutputTest, FileStartsWithFileTypeBoxThenMdatWhoseSizeIsPatchedAtStop) {
    EXPECT_EQ(32, out.currentOffset());
    out.write("abc", 3);
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

TEST_F(BoxOutputTest, IntegersAreWrittenBigEndianAndReportTheirByteCounts) {
    EXPECT_EQ(1u, out.writeInt8(-2));
    EXPECT_EQ(2u, out.writeInt16(0x0102));
    EXPECT_EQ(4u, out.writeInt32(static_cast<int>(0xA1B2C3D4)));
    EXPECT_EQ(8u, out.writeInt64(0x0102030405060708LL));
    EXPECT_EQ(12u, out.writeCString("VideoHandle"));
    EXPECT_EQ(32 + 27, out.currentOffset());

    Bytes expected = {0xFE, 0x01, 0x02, 0xA1, 0xB2, 0xC3, 0xD4, 1, 2, 3, 4, 5, 6, 7, 8};
    const char* name = "VideoHandle";
    expected.insert(expected.end(), name, name + 12);
    EXPECT_EQ(expected, mdatBody());
}

TEST_F(BoxOutputTest, BoxSizesCoverTheirOwnHeaderAndBodyAndWritingContinuesAtTheEnd) {
    out.beginBox("outr");
    out.beginBox("empt");
    out.endBox();
    out.beginBox("innr");
    out.writeInt32(7);
    out.endBox();
    out.endBox();
    EXPECT_EQ(32 + 28, out.currentOffset());
    out.writeInt8(0x55);

    const Bytes expected = {0,   0, 0, 0x1C, 'o',  'u', 't', 'r', 0,   0, 0, 0x08, 'e', 'm', 'p',
                            't', 0, 0, 0,    0x0C, 'i', 'n', 'n', 'r', 0, 0, 0,    7,   0x55};
    EXPECT_EQ(expected, mdatBody());
}

TEST_F(BoxOutputTest, UnbalancedBoxesAndBadFourccsAreProgrammingErrors) {
    EXPECT_DEATH(out.endBox(), "assertion failed");
    EXPECT_DEATH(out.beginBox("abc"), "assertion failed");
    EXPECT_DEATH(out.writeCompositionMatrix(45), "assertion failed");
}

struct MatrixCase {
    int degrees;
    uint32_t p, q, r, s;
};

class CompositionMatrixTest : public BoxOutputTest,
                              public ::testing::WithParamInterface<MatrixCase> {};

TEST_P(CompositionMatrixTest, RotationGivesItsMatrix) {
    const MatrixCase& c = GetParam();
    out.writeCompositionMatrix(c.degrees);
    Bytes body = mdatBody();
    ASSERT_EQ(36u, body.size());
    const uint32_t expected[9] = {c.p, c.q, 0, c.r, c.s, 0, 0, 0, 0x40000000};
    FieldReader fields(body, 0);
    for (uint32_t value : expected) {
        EXPECT_EQ(value, fields.u32());
    }
}

const uint32_t kOne = 0x00010000;
const uint32_t kMinusOne = 0xFFFF0000;
INSTANTIATE_TEST_SUITE_P(Rotations, CompositionMatrixTest,
                         ::testing::Values(MatrixCase{0, kOne, 0, 0, kOne},
                                           MatrixCase{90, 0, kOne, kMinusOne, 0},
                                           MatrixCase{180, kMinusOne, 0, 0, kMinusOne},
                                           MatrixCase{270, 0, kMinusOne, kOne, 0}),
                         [](const ::testing::TestParamInfo<MatrixCase>& rotation) {
                             return "Degrees" + std::to_string(rotation.param.degrees);
                         });

}  // namespace
