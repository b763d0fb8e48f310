// The writer's repair records (built, found and read back; damaged and cut short), the walk
// over them, and the repair of a file left without its index, sample for sample. Repairing a
// recording killed in another process is checked end to end by the recording tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include "CraftedRecording.h"
#include "Env.h"
#include "RecordingRepair.h"
#include "RepairRecordWalker.h"
#include "UniqueHandle.h"
#include "WriterHarness.h"

namespace {

TEST(RepairRecordFormat, RecordsAreReadBackFieldByFieldAndDamagedOrCutShortOnesNotFound) {
    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(0xCBF43926u, repairRecordCrc(check, sizeof(check)));  // CRC-32 check value

    Bytes file = {0xAA, 0xBB};  // records need not start the file
    RepairRecordBuilder builder;
    builder.begin(&file, REPAIR_RECORD_CHUNK);
    builder.u8(7);
    builder.u16(0x1234);
    builder.u32(0xDEADBEEF);
    for (uint64_t value : {0ull, 127ull, 128ull, 300ull, ~0ull})
        builder.varint(value);
    builder.end();
    EXPECT_EQ(Bytes({'T', 'v', 'R', 'r', 0, 0, 0, 23, REPAIR_RECORD_CHUNK}),
              Bytes(file.begin() + 2, file.begin() + 11));

    RepairRecordView view;
    ASSERT_TRUE(findRepairRecord(file.data(), file.size(), 2, &view));
    EXPECT_EQ(REPAIR_RECORD_CHUNK, view.type);
    EXPECT_EQ(file.size(), view.end);
    RepairRecordReader reader(view.body, view.bodySize);
    uint8_t u8 = 0;
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    ASSERT_TRUE(reader.u8(&u8) && reader.u16(&u16) && reader.u32(&u32));
    EXPECT_EQ(7, u8);
    EXPECT_EQ(0x1234, u16);
    EXPECT_EQ(0xDEADBEEFu, u32);
    for (uint64_t expected : {0ull, 127ull, 128ull, 300ull, ~0ull}) {
        uint64_t value = 1;
        ASSERT_TRUE(reader.varint(&value));
        EXPECT_EQ(expected, value);
    }
    EXPECT_EQ(0u, reader.remaining());
    // Reads past the end fail and the reader stays failed.
    EXPECT_FALSE(reader.u8(&u8));
    EXPECT_FALSE(reader.ok());

    // Damaged, cut short and overlong records are not found. One record behind the 32 bytes of
    // ftyp and mdat header:
    const Bytes good = CraftedRecording().record(REPAIR_RECORD_CONFIG, patternBytes(40, 3)).bytes();
    ASSERT_TRUE(findRepairRecord(good.data(), good.size(), 32, &view));
    for (size_t at = 32; at < good.size(); ++at) {
        Bytes damaged = good;
        damaged[at] ^= 0x10;
        EXPECT_FALSE(findRepairRecord(damaged.data(), damaged.size(), 32, &view)) << at;
    }
    for (size_t cut = 32; cut < good.size(); ++cut)
        EXPECT_FALSE(findRepairRecord(good.data(), cut, 32, &view)) << cut;
    EXPECT_FALSE(findRepairRecord(good.data(), good.size(), good.size() + 1, &view));

    // A length above the largest body is refused before anything is read behind it.
    Bytes overlong = good;
    const uint32_t length = REPAIR_RECORD_MAX_BODY + 1;
    for (int i = 0; i < 4; ++i)
        overlong[32 + 4 + i] = static_cast<uint8_t>(length >> (24 - 8 * i));
    EXPECT_FALSE(findRepairRecord(overlong.data(), overlong.size(), 32, &view));

    // A varint of more than 64 bits fails.
    const Bytes endless(11, 0xFF);
    RepairRecordReader endlessReader(endless.data(), endless.size());
    uint64_t value;
    EXPECT_FALSE(endlessReader.varint(&value));
    EXPECT_FALSE(endlessReader.ok());
}

// Walks the records of `bytes` (from a scratch file) from the end of the mdat header; returns
// the steps taken, the samples seen and where the walk stopped.
std::vector<RepairRecordWalker::Step> walk(const Bytes& bytes, std::vector<RepairSample>* samples,
                                           uint64_t* end) {
    char path[] = "/tmp/repair-walk-XXXXXX";
    UniqueFd file(mkstemp(path));
    const int fd = file.get();
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
    RepairInput input(fd, bytes.size());
    RepairRecordWalker walker(input, 32, bytes.size());
    std::vector<RepairRecordWalker::Step> steps;
    do {
        steps.push_back(walker.next());
        RepairSample sample;
        while (steps.back() == RepairRecordWalker::kChunk && walker.chunk().next(&sample))
            samples->push_back(sample);
    } while (steps.back() != RepairRecordWalker::kEnd);
    *end = walker.position();
    file.reset();
    unlink(path);
    return steps;
}

const auto kConfig = RepairRecordWalker::kConfig;
const auto kChunk = RepairRecordWalker::kChunk;
const auto kEnd = RepairRecordWalker::kEnd;
using Steps = std::vector<RepairRecordWalker::Step>;

TEST(RepairRecordWalk, ChunksAreReadUpToTheFirstOneCutShortOrClaimingMoreThanTheFileHolds) {
    CraftedRecording recording;
    recording.config({REPAIR_TRACK_AAC});
    const size_t firstChunk = recording.size();
    recording.chunk(0, REPAIR_TRACK_AAC, 0, {{100, true, 960}, {120, true, 0}});
    const size_t secondChunk = recording.size();
    recording.chunk(0, REPAIR_TRACK_AAC, 1920, {{90, true, 0}});
    std::vector<RepairSample> samples;
    uint64_t end = 0;
    EXPECT_EQ(Steps({kConfig, kChunk, kChunk, kEnd}), walk(recording.bytes(), &samples, &end));
    ASSERT_EQ(3u, samples.size());
    EXPECT_EQ(recording.size(), end);
    EXPECT_EQ(secondChunk - 220, samples[0].offset);
    EXPECT_EQ(secondChunk - 120, samples[1].offset);
    EXPECT_EQ(120u, samples[1].size);
    EXPECT_EQ(960, samples[1].ticks);
    EXPECT_EQ(1920, samples[2].ticks);
    EXPECT_TRUE(samples[2].sync);

    // The second chunk's bytes cut short: the walk ends after the first.
    Bytes cut = recording.bytes();
    cut.pop_back();
    samples.clear();
    EXPECT_EQ(Steps({kConfig, kChunk, kEnd}), walk(cut, &samples, &end));
    EXPECT_EQ(2u, samples.size());
    EXPECT_EQ(secondChunk, end);

    // Counts and sizes that the file cannot back, and a chunk before any configuration.
    CraftedRecording claimsMore, emptySample, noConfig;
    claimsMore.config({REPAIR_TRACK_AAC}).chunk(0, REPAIR_TRACK_AAC, 0, {{10, true, 0}}, 1000000);
    emptySample.config({REPAIR_TRACK_AAC}).chunk(0, REPAIR_TRACK_AAC, 0, {{0, true, 0}});
    noConfig.chunk(0, REPAIR_TRACK_AAC, 0, {{10, true, 0}});
    for (const CraftedRecording* bad : {&claimsMore, &emptySample, &noConfig}) {
        samples.clear();
        const Steps steps = walk(bad->bytes(), &samples, &end);
        EXPECT_EQ(kEnd, steps.back());
        EXPECT_EQ(0, std::count(steps.begin(), steps.end(), kChunk));
        EXPECT_TRUE(samples.empty());
        EXPECT_LE(end, firstChunk);
    }
}

// A finished two-track recording of `seconds` with repair records; returns its bytes.
Bytes recordWithRepairRecords(int seconds) {
    WriterHarness harness;
    harness.writer().setRepairRecords(true);
    EXPECT_EQ(0, harness.startTracks(true, true));
    for (int n = 0; n < seconds * 25; ++n)
        harness.feed(kVideoMime, n * 900LL, patternBytes(200 + n % 7, static_cast<uint8_t>(n)),
                     n % 25 == 0);
    for (int n = 0; n < seconds * 23; ++n)
        harness.feed(kAudioMime, n * 960LL, patternBytes(60, static_cast<uint8_t>(n)));
    EXPECT_EQ(0, harness.stop());
    return harness.readFile().bytes();
}

// Repairs `bytes` (written to a scratch file) into another scratch file; returns the result
// and the copy.
int repairBytes(const Bytes& bytes, Mp4File* copy) {
    char inPath[] = "/tmp/repair-in-XXXXXX";
    char outPath[] = "/tmp/repair-out-XXXXXX";
    UniqueFd in(mkstemp(inPath));
    UniqueFd out(mkstemp(outPath));
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(in.get(), bytes.data(), bytes.size()));
    std::string message;
    const int result = repairRecording(in.get(), bytes.size(), out.get(), &message, Env::current());
    EXPECT_FALSE(message.empty());
    in.reset();
    out.reset();
    if (result == 0)
        *copy = Mp4File::read(outPath);
    unlink(inPath);
    unlink(outPath);
    return result;
}

TEST(RepairRecordTest, AFileWithoutItsIndexIsRebuiltWithEverySampleOfItsChunks) {
    const Bytes finished = recordWithRepairRecords(6);
    Mp4File original(finished);
    const Mp4Box* moov = original.find("moov");
    ASSERT_NE(nullptr, moov);
    // The process died before stop: no moov, mdat size unknown.
    Bytes killed(finished.begin(), finished.begin() + static_cast<long>(moov->offset));
    killed[24] = killed[25] = killed[26] = killed[27] = '?';

    Mp4File copy{Bytes()};
    ASSERT_EQ(0, repairBytes(killed, &copy));
    for (size_t track = 0; track < 2; ++track) {
        const Mp4Box* before = original.find("moov/trak", track);
        const Mp4Box* after = copy.find("moov/trak", track);
        ASSERT_NE(nullptr, after);
        // Every sample is back, byte for byte, with the same durations and sync samples.
        EXPECT_EQ(original.samples(*before), copy.samples(*after)) << track;
        EXPECT_EQ(original.table(*before, "stts"), copy.table(*after, "stts")) << track;
        EXPECT_EQ(original.table(*before, "stss"), copy.table(*after, "stss")) << track;
        EXPECT_EQ(original.body(*before->find("mdia/minf/stbl/stsd")),
                  copy.body(*after->find("mdia/minf/stbl/stsd")))
            << track;
    }
}

}  // namespace
