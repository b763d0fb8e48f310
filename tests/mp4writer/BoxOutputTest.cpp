// The file skeleton, and the composition matrix written inside the mdat of a writer without
// tracks, so that the finished file shows its bytes as the mdat body. The integer and box
// primitives show in every box the track header tests read back.
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
