// The recording manager turning shared-buffer frames into recorder samples, observed through
// a recorder that captures what it is handed, and the recorder with and without a writer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "AacIngestion.h"
#include "CmmbFrameCopy.h"
#include "CmmbRecorder.h"
#include "Env.h"
#include "LogMask.h"
#include "MBBMSAgent.h"
#include "MBBMSRecManager.h"
#include "NalIngestion.h"
#include "OpenDescriptors.h"
#include "RecordingRig.h"
#include "TestRoot.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A shared buffer filled by the ingestion of the frame hand-off: NAL units without their start
// code, AAC frames behind an ADTS header, appended in call order.
class SharedBufferImage {
public:
    SharedBufferImage() : mBuffer(new CmmbSharedBuffer()) {
        for (CmmbNalRecord& record : mBuffer->nal)
            record.pos = CMMB_NAL_POS_NONE_OPEN;
    }
    SharedBufferImage& nal(uint32_t tsBase, uint32_t tsRelative, const Bytes& unit) {
        Bytes annexB = {0, 0, 0, 1};
        annexB.insert(annexB.end(), unit.begin(), unit.end());
        EXPECT_TRUE(appendNalFragment(mBuffer.get(), mState, 0, tsBase, tsRelative, annexB.data(),
                                      static_cast<unsigned short>(annexB.size()),
                                      MBBMSAgent::NAL_FRAGMENT_COMPLETE, "test"));
        return *this;
    }
    SharedBufferImage& aac(uint32_t tsBase, uint32_t tsRelative, const Bytes& raw) {
        EXPECT_TRUE(appendAacFrame(mBuffer.get(), mState, 0, tsBase, tsRelative, raw.data(),
                                   static_cast<unsigned short>(raw.size()), "test"));
        return *this;
    }
    unsigned char* bytes() { return reinterpret_cast<unsigned char*>(mBuffer.get()); }

private:
    std::unique_ptr<CmmbSharedBuffer> mBuffer;
    BufferWriteState mState;
};

struct CapturedSample {
    std::string mime;
    int64_t timestamp;
    Bytes bytes;
    bool isSyncFrame;
};

// Captures every writeout, which must come while LockRecorder() is held.
class CapturingRecorder : public CmmbRecorder {
public:
    CapturingRecorder() : CmmbRecorder(Env::current()) {}
    int LockRecorder() override ACQUIRE(recorderLock()) {
        const int result = CmmbRecorder::LockRecorder();
        ++lockDepth;
        return result;
    }
    int UnlockRecorder() override RELEASE(recorderLock()) {
        --lockDepth;
        return CmmbRecorder::UnlockRecorder();
    }
    int writeout(_CmmbOutBuffer* b) override REQUIRES(recorderLock()) {
        EXPECT_EQ(1, lockDepth);
        samples.push_back(
            {b->mime, b->timestamp, Bytes(b->data, b->data + b->length), b->isSyncFrame});
        return 0;
    }
    std::vector<CapturedSample> samples;
    int lockDepth = 0;
};

bool waitsForIdr(CmmbRecorder& recorder) {
    recorder.LockRecorder();
    const bool waits = recorder.mWaitForIdr;
    recorder.UnlockRecorder();
    return waits;
}

Bytes nalUnit(uint8_t header, size_t length, uint8_t fill) {
    Bytes unit(length, fill);
    unit[0] = header;
    return unit;
}

// Units joined into one record, separated by start codes of 4 and 3 bytes in turn.
Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes out;
    int separator = 0;
    for (const Bytes& part : parts) {
        if (!out.empty()) {
            if (separator++ % 2 == 0)
                out.push_back(0);
            out.insert(out.end(), {0, 0, 1});
        }
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

class RecManager : public testing::Test {
protected:
    void SetUp() override {
        memset(LogMask::masks, 0, sizeof(LogMask::masks));
        LogMask::masks[LogMask::ERROR] = LogMask::masks[LogMask::WARNING] = 1;
        LogMask::masks[LogMask::RECORD] = 1;
    }
    // Copies the frame out of the buffer and records it, as the engine does.
    int record(SharedBufferImage& frame, CmmbRecorder* to = nullptr) {
        manager.read_to_new_sharedbuf(copy.get(), frame.bytes());
        return manager.dataRecording(to != nullptr ? to : &recorder, copy.get());
    }
    UniqueFd createOutput(const std::string& name) { return createFile(path(name)); }
    std::string path(const std::string& name) { return root.path() + "/" + name; }

    const Bytes sps = nalUnit(0x67, 12, 0x5A);
    const Bytes pps = nalUnit(0x68, 5, 0x3C);
    const Bytes idr = nalUnit(0x65, 300, 0xA7);
    const Bytes slice = nalUnit(0x41, 120, 0x9B);
    MBBMSRecManager manager{Env::current()};
    CapturingRecorder recorder;
    TestRoot root{""};  // fresh log file
    std::unique_ptr<unsigned char[]> copy{new unsigned char[CMMB_FRAME_COPY_MAX_SIZE]};
};

// Engine recordings get one NAL unit per record; a record may also hold several units.
TEST_F(RecManager, UnitsOfARecordFromTheFirstSpsOnMakeSamplesAndOlderAudioIsSkipped) {
    SharedBufferImage early;
    early.nal(1000, 0, idr).nal(1000, 900, pps).nal(1000, 1800, slice).aac(1000, 0, Bytes(30, 1));
    ASSERT_EQ(0, record(early));
    EXPECT_TRUE(recorder.samples.empty());

    // The SEI is left out, and so are the SPS and PPS repeated in front of the slices, which
    // make one sample; 00 00 01 as the last bytes is not a start code.
    const Bytes tail = {0x21, 0, 0, 1};
    SharedBufferImage frame;
    frame.nal(90000, 1800, joined({sps, pps, nalUnit(0x06, 8, 3), idr}));
    frame.nal(90000, 2700, joined({sps, pps, slice, tail}));
    frame.aac(90000, 1000, Bytes(20, 1));  // before the SPS: skipped
    frame.aac(91000, 800, Bytes(21, 2));   // at the SPS: timestamp 0
    frame.aac(91800, 960, Bytes(22, 3));
    ASSERT_EQ(0, record(frame));
    Bytes slices = slice;
    slices.insert(slices.end(), tail.begin(), tail.end());
    const Bytes expected[] = {sps, pps, idr, slices, Bytes(21, 2), Bytes(22, 3)};
    const int64_t timestamps[] = {0, 0, 0, 900, 0, 960};
    ASSERT_EQ(6u, recorder.samples.size());
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(i < 4 ? "video/avc" : "audio/mp4a-latm", recorder.samples[i].mime) << i;
        EXPECT_EQ(expected[i], recorder.samples[i].bytes) << i;  // audio without its header
        if (i >= 2) {                                            // the samples proper
            EXPECT_EQ(timestamps[i], recorder.samples[i].timestamp) << i;
            EXPECT_EQ(i == 2, recorder.samples[i].isSyncFrame) << i;
        }
    }
    recorder.LockRecorder();
    EXPECT_EQ(91800u, recorder.mBaseTimestamp);
    recorder.UnlockRecorder();
    EXPECT_EQ(0, recorder.lockDepth);
}

TEST_F(RecManager, AfterResumeNothingIsRecordedUntilAnIdrAndOlderAudioIsDropped) {
    SharedBufferImage parameterSets;
    ASSERT_EQ(0, record(parameterSets.nal(0, 0, sps).nal(0, 0, pps)));
    recorder.samples.clear();
    recorder.LockRecorder();
    recorder.mWaitForIdr = true;  // what resume() sets (checked with a real writer below)
    recorder.UnlockRecorder();
    SharedBufferImage withoutIdr;
    ASSERT_EQ(0, record(withoutIdr.nal(22500, 0, slice).aac(22500, 0, Bytes(10, 4))));
    EXPECT_TRUE(recorder.samples.empty());

    SharedBufferImage withIdr;
    withIdr.nal(45000, 0, slice).nal(45000, 900, idr).nal(45000, 1800, slice);
    withIdr.aac(45000, 500, Bytes(11, 5));  // older than the IDR: dropped
    withIdr.aac(45000, 900, Bytes(12, 6)).aac(45000, 1860, Bytes(13, 7));
    ASSERT_EQ(0, record(withIdr));
    ASSERT_EQ(4u, recorder.samples.size());
    EXPECT_EQ(idr, recorder.samples[0].bytes);
    EXPECT_EQ(45900, recorder.samples[0].timestamp);
    EXPECT_TRUE(recorder.samples[0].isSyncFrame);
    EXPECT_EQ(slice, recorder.samples[1].bytes);
    EXPECT_EQ(Bytes(12, 6), recorder.samples[2].bytes);
    EXPECT_EQ(45900, recorder.samples[2].timestamp);
    EXPECT_EQ(Bytes(13, 7), recorder.samples[3].bytes);
    EXPECT_FALSE(waitsForIdr(recorder));
}

TEST_F(RecManager, WithoutAWriterOnlyStopAndInitSucceedAndTheOutputIsOneOwnedDuplicate) {
    const int baseline = openDescriptors();
    {
        CmmbRecorder bare(Env::current());
        bare.LockRecorder();
        EXPECT_EQ(-1015, bare.writeout(&bare.sampleScratch()));
        bare.UnlockRecorder();
        EXPECT_EQ(-1015, bare.pause());
        EXPECT_EQ(-1015, bare.resume());
        EXPECT_FALSE(waitsForIdr(bare));
        EXPECT_EQ(-1015, bare.queryCurrentMoovLength());
        EXPECT_EQ(-1015, bare.start());  // no output yet
        EXPECT_EQ(0, bare.stop());
        EXPECT_EQ(0, bare.init());
        EXPECT_EQ(-1015, bare.setOutputFile("/tmp/out.3gp"));

        UniqueFd output = createOutput("out.3gp");
        const int fd = output.get();
        EXPECT_EQ(0, bare.setOutputFile(fd, 0, 0));
        EXPECT_EQ(0, bare.setOutputFile(fd, 0, 0));  // the first duplicate is closed
        EXPECT_EQ(-1015, bare.setOutputFile(fd, 10, 0));
        EXPECT_EQ(-1015, bare.setOutputFile(fd, 0, 100));
        EXPECT_EQ(baseline + 2, openDescriptors());
        output.reset();
    }
    EXPECT_EQ(baseline, openDescriptors());  // released by destruction

    CmmbRecorder bare(Env::current());
    UniqueFd output = createOutput("out.3gp");
    ASSERT_EQ(0, bare.setOutputFile(output.get(), 0, 0));
    output.reset();
    ASSERT_EQ(0, bare.start());
    EXPECT_EQ(-1015, bare.start());
    ASSERT_EQ(0, bare.pause());
    ASSERT_EQ(0, bare.resume());
    EXPECT_TRUE(waitsForIdr(bare));
    EXPECT_EQ(-1002, bare.stop());  // nothing was recorded: no index
    EXPECT_FALSE(fileHasMoov(path("out.3gp")));
    EXPECT_EQ(baseline, openDescriptors());
}

}  // namespace
