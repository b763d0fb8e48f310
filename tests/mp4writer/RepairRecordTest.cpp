// The writer's repair records and the repair built on them, on files cut short and damaged
// (run under ASan and UBSan too: no input may make the repair read out of bounds).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>

#include "Env.h"
#include "RecordingRepair.h"
#include "WriterHarness.h"

namespace {

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
int repairBytes(const Bytes& bytes, Mp4File* copy = nullptr) {
    char inPath[] = "/tmp/repair-in-XXXXXX";
    char outPath[] = "/tmp/repair-out-XXXXXX";
    const int in = mkstemp(inPath);
    const int out = mkstemp(outPath);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), write(in, bytes.data(), bytes.size()));
    std::string message;
    const int result = repairRecording(in, bytes.size(), out, &message, Env::current());
    EXPECT_FALSE(message.empty());
    close(in);
    close(out);
    if (copy != nullptr && result == 0)
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

TEST(RepairRecordTest, CutAndDamagedFilesAreRepairedAsFarAsTheyGoOrRefused) {
    const Bytes finished = recordWithRepairRecords(4);
    int repaired = 0, refused = 0;
    for (size_t cut = 0; cut < finished.size(); cut += 61) {
        const int result = repairBytes(Bytes(finished.begin(), finished.begin() + cut));
        EXPECT_LE(result, 0);
        (result == 0 ? repaired : refused)++;
    }
    EXPECT_GT(repaired, 0);
    EXPECT_GT(refused, 0);
    std::mt19937 random(7);
    for (int round = 0; round < 300; ++round) {
        Bytes damaged = finished;
        for (int flips = 0; flips < 1 + round % 8; ++flips)
            damaged[random() % damaged.size()] ^= static_cast<uint8_t>(1 + random() % 255);
        EXPECT_LE(repairBytes(damaged), 0);
    }
    EXPECT_EQ(RECORDING_REPAIR_NOT_A_RECORDING, repairBytes(Bytes{'n', 'o', 'p', 'e'}));
    EXPECT_EQ(RECORDING_REPAIR_NOT_A_RECORDING, repairBytes(Bytes()));
}

}  // namespace
