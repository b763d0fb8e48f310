// The file skeleton, then the moov as written at stop: headers, handlers, sample descriptions
// with their codec boxes, and the refusal of tracks the header cannot describe.
#include <gtest/gtest.h>

#include <ctime>

#include "WriterHarness.h"

namespace {

// A writer without tracks: what it writes goes into the mdat, so that the finished file
// shows a composition matrix's bytes as the mdat body.
TEST(BoxOutputTest, FileTypeBoxThenMdatPatchedAtStopAndEachRotationsCompositionMatrix) {
    const uint32_t one = 0x00010000, minusOne = 0xFFFF0000;
    const struct {
        int degrees;
        uint32_t p, q, r, s;
    } rotations[] = {{0, one, 0, 0, one},
                     {90, 0, one, minusOne, 0},
                     {180, minusOne, 0, 0, minusOne},
                     {270, 0, minusOne, one, 0}};
    for (const auto& c : rotations) {
        SCOPED_TRACE(std::to_string(c.degrees) + " degrees");
        WriterHarness harness;
        ASSERT_EQ(0, harness.start());
        EXPECT_EQ(32, harness.writer().currentOffset());
        harness.writer().write("abc", 3);
        harness.writer().writeCompositionMatrix(c.degrees);
        ASSERT_EQ(0, harness.stop());

        Mp4File file = harness.readFile();
        const Bytes head = {0x00, 0x00, 0x00, 0x18,   'f', 't', 'y', 'p', '3', 'g', 'p', '4',
                            0x00, 0x00, 0x00, 0x00,   'i', 's', 'o', 'm', '3', 'g', 'p', '4',
                            0x00, 0x00, 0x00, 8 + 39, 'm', 'd', 'a', 't', 'a', 'b', 'c'};
        ASSERT_GE(file.bytes().size(), head.size());
        EXPECT_EQ(head, Bytes(file.bytes().begin(), file.bytes().begin() + head.size()));
        ASSERT_EQ(3u, file.boxes().size());
        EXPECT_EQ("moov", file.boxes()[2].type);
        EXPECT_EQ(file.bytes().size(), file.boxes()[2].offset + file.boxes()[2].size);
        FieldReader fields(file.bytes(), head.size());
        for (uint32_t value : {c.p, c.q, 0u, c.r, c.s, 0u, 0u, 0u, 0x40000000u})
            EXPECT_EQ(value, fields.u32());
    }
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes text(const char* s, size_t n) {
    return Bytes(s, s + n);
}

TEST(TrackHeaderTest, AvcAndAacTracksCarryTheirHeadersHandlersAndDecoderConfigurations) {
    WriterHarness harness;
    uint32_t before = static_cast<uint32_t>(time(nullptr));
    // Media time scales 22500 and 24000; the movie's is 24000.
    ASSERT_EQ(0, harness.startTracks(true, true));
    harness.feedRun(kVideoMime, 0, 900, 4, 50, true);  // lasts 4 * 900 with the last duration
    harness.feedRun(kAudioMime, 0, 960, 3, 50);        // 3 * 1024 at 24 kHz
    ASSERT_EQ(0, harness.stop());
    uint32_t after = static_cast<uint32_t>(time(nullptr));
    Mp4File file = harness.readFile();
    const Mp4Box* video = file.find("moov/trak", 0);
    const Mp4Box* audio = file.find("moov/trak", 1);
    ASSERT_TRUE(video != nullptr && audio != nullptr);

    const uint32_t videoMovieTicks = 4 * 900 * 24000 / 22500, audioTicks = 3 * 1024;
    FieldReader mvhd = file.fields(*file.find("moov/mvhd"), 12);
    EXPECT_EQ(24000u, mvhd.u32());
    EXPECT_EQ(videoMovieTicks, mvhd.u32()) << "the longer track";
    mvhd.skip(76);
    EXPECT_EQ(3u, mvhd.u32());  // next track id

    for (const Mp4Box* trak : {video, audio}) {
        bool isVideo = trak == video;
        FieldReader mdhd = file.fields(*trak->find("mdia/mdhd"), 12);
        EXPECT_EQ(isVideo ? 22500u : 24000u, mdhd.u32());  // the media's time scale
        EXPECT_EQ(isVideo ? 4u * 900 : audioTicks, mdhd.u32());
        FieldReader tkhd = file.fields(*trak->find("tkhd"));
        EXPECT_EQ(7u, tkhd.u32());  // version 0, enabled, in movie and preview
        uint32_t created = tkhd.u32();
        EXPECT_TRUE(created >= before && created <= after) << "seconds since 1970: " << created;
        tkhd.skip(4);
        EXPECT_EQ(isVideo ? 1u : 2u, tkhd.u32());  // track id
        tkhd.skip(4);
        EXPECT_EQ(isVideo ? videoMovieTicks : audioTicks, tkhd.u32());
        tkhd.skip(12);
        EXPECT_EQ(isVideo ? 0u : 0x0100u, tkhd.u16());  // volume
        tkhd.skip(38);
        EXPECT_EQ(isVideo ? 0x01400000u : 0u, tkhd.u32());  // 320 and 240 in 16.16
        EXPECT_EQ(isVideo ? 0x00F00000u : 0u, tkhd.u32());
        EXPECT_EQ(concat({Bytes(8, 0), text(isVideo ? "vide" : "soun", 4), Bytes(12, 0),
                          text(isVideo ? "VideoHandle" : "SoundHandle", 12)}),
                  file.body(*trak->find("mdia/hdlr")));
        EXPECT_EQ(concat({{0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 12}, text("url ", 4), {0, 0, 0, 1}}),
                  file.body(*trak->find("mdia/minf/dinf/dref")));
    }
    EXPECT_EQ(concat({{0, 0, 0, 1}, Bytes(8, 0)}), file.body(*video->find("mdia/minf/vmhd")));
    EXPECT_EQ(Bytes(8, 0), file.body(*audio->find("mdia/minf/smhd")));

    const Mp4Box* avc1 = video->find("mdia/minf/stbl/stsd/avc1");
    ASSERT_NE(nullptr, avc1);
    FieldReader entry = file.fields(*avc1, 6);
    EXPECT_EQ(0u, entry.u16());  // data-reference index
    entry.skip(16);
    EXPECT_EQ(320u, entry.u16());
    EXPECT_EQ(240u, entry.u16());
    EXPECT_EQ(concat({{1, 0x42, 0xC0, 0x1E, 0xFF, 0xE1, 0, 9}, kTestSps, {1, 0, 4}, kTestPps}),
              file.body(*avc1->find("avcC")));
    EXPECT_EQ(Bytes({0, 1, 0, 0, 0, 1, 0, 0}), file.body(*avc1->find("pasp")));

    const Mp4Box* mp4a = audio->find("mdia/minf/stbl/stsd/mp4a");
    ASSERT_NE(nullptr, mp4a);
    entry = file.fields(*mp4a, 6);
    EXPECT_EQ(1u, entry.u16());  // data-reference index
    entry.skip(8);
    EXPECT_EQ(2u, entry.u16());   // channels
    EXPECT_EQ(16u, entry.u16());  // bits per sample
    entry.skip(4);
    EXPECT_EQ(24000u << 16, entry.u32());
    const Bytes esds = {0,    0,    0,    0,    0x03, 0x19, 0,    0,    0,    0x04, 0x11,
                        0x40, 0x15, 0x00, 0x03, 0x00, 0x00, 0x01, 0x77, 0x00, 0x00, 0x01,
                        0x77, 0x00, 0x05, 0x02, 0x13, 0x10, 0x06, 0x01, 0x02};
    EXPECT_EQ(esds, file.body(*mp4a->find("esds")));
}

TEST(TrackHeaderTest, ShortNalLengthsShowInAvcConfigurationAndSamplePrefixes) {
    WriterHarness harness;
    harness.addVideo();
    ASSERT_EQ(0, harness.start(false));
    ASSERT_EQ(0, harness.feedParameterSets());
    ASSERT_EQ(0, harness.feed(kVideoMime, 0, patternBytes(300, 0), true));
    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    const Mp4Box* trak = file.find("moov/trak");
    ASSERT_NE(nullptr, trak);
    EXPECT_EQ(0xFD, file.body(*trak->find("mdia/minf/stbl/stsd/avc1/avcC"))[4]);
    EXPECT_EQ(concat({{0x01, 0x2C}, patternBytes(300, 0)}), file.samples(*trak).at(0));
}

// MPEG-4 video keeps the bytes before the first VOP as decoder configuration, as far as a
// one-byte descriptor length can hold them; H.263 gets a fixed decoder box.
TEST(TrackHeaderTest, Mpeg4AndH263VideoGetTheirDecoderBoxes) {
    const Bytes vop = {0x00, 0x00, 0x01, 0xB6, 0x10, 0x20};
    for (size_t configSize : {104u, 105u}) {
        WriterHarness harness;
        harness.addSource("video/mp4v-es", 176, 144, 25, 22500);
        ASSERT_EQ(0, harness.start());
        Bytes config = patternBytes(configSize, 0x20);
        ASSERT_EQ(0, harness.feed("video/mp4v-es", 0, concat({config, vop}), true));
        ASSERT_EQ(0, harness.feed("video/mp4v-es", 900, vop, false));
        ASSERT_EQ(configSize == 104 ? 0 : ERROR_INVALID, harness.stop()) << configSize;
        if (configSize == 105) {
            continue;  // does not fit the descriptor: no moov
        }
        Mp4File file = harness.readFile();
        const Mp4Box* trak = file.find("moov/trak");
        ASSERT_NE(nullptr, trak);
        EXPECT_EQ((Table{6, 6}), file.table(*trak, "stsz"));
        EXPECT_EQ(concat({{0,    0,    0, 0, 0x03, 23 + 104, 0, 0, 0x1F, 0x04, 15 + 104, 0x20, 0x11,
                           0x01, 0x77, 0, 0, 0x03, 0xE8,     0, 0, 0x03, 0xE8, 0,        0x05, 104},
                          config,
                          {0x06, 0x01, 0x02}}),
                  file.body(*trak->find("mdia/minf/stbl/stsd/mp4v/esds")));
    }

    WriterHarness harness;
    harness.addSource("video/3gpp", 176, 144, 25, 22500);
    ASSERT_EQ(0, harness.start());
    harness.feedRun("video/3gpp", 0, 900, 2, 40, true);
    ASSERT_EQ(0, harness.stop());
    Mp4File file = harness.readFile();
    const Mp4Box* s263 = file.find("moov/trak/mdia/minf/stbl/stsd/s263");
    ASSERT_NE(nullptr, s263);
    EXPECT_EQ(Bytes({0, 0, 0, 0, 0, 10, 0}), file.body(*s263->find("d263")));
}

TEST(TrackHeaderTest, TracksTheHeaderCannotDescribeAbandonTheMoov) {
    const struct {
        const char* mime;
        bool malformedSps;
    } cases[] = {{"video/unknown", false}, {"audio/amr", false}, {kVideoMime, true}};
    for (const auto& c : cases) {
        WriterHarness harness;
        harness.addSource(c.mime, 320, 240, 24000, 24000);
        ASSERT_EQ(0, harness.start());
        if (c.malformedSps) {
            EXPECT_EQ(ERROR_INVALID, harness.feed(c.mime, 0, Bytes{0x67, 0x42, 0xC0}));
            EXPECT_EQ(0, harness.feed(c.mime, 0, kTestPps));
        }
        harness.feedRun(c.mime, 0, 900, 2, 40, true);
        EXPECT_EQ(ERROR_INVALID, harness.stop()) << c.mime;
        // The mdat size is patched; the abandoned moov follows the samples.
        Bytes bytes = harness.readFile().bytes();
        uint32_t mdatSize = FieldReader(bytes, 24).u32();
        EXPECT_EQ(c.malformedSps ? 8u + 2 * 44 : 8u + 2 * 40, mdatSize) << c.mime;
        EXPECT_EQ("moov", FieldReader(bytes, 24 + mdatSize + 4).text(4)) << c.mime;
    }
}

}  // namespace
