// The recording manager turning shared-buffer frames into recorder samples, observed through
// a recorder that captures what it is handed.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "CmmbFrameCopy.h"
#include "LogMask.h"
#include "MBBMSRecManager.h"
#include "SampleCapture.h"

namespace {

const uint8_t kSps = 0x67, kPps = 0x68, kIdr = 0x65, kSlice = 0x41, kSei = 0x06;

class RecManagerFrames : public testing::Test {
protected:
    void SetUp() override {
        memset(LogMask::masks, 0, sizeof(LogMask::masks));
        LogMask::masks[LogMask::ERROR] = LogMask::masks[LogMask::WARNING] = 1;
        LogMask::masks[LogMask::RECORD] = 1;
    }

    // Copies the frame out of the buffer and records it, as the engine does.
    int record(SharedBufferImage& frame) {
        manager.read_to_new_sharedbuf(copy.get(), frame.bytes());
        return manager.dataRecording(&recorder, copy.get());
    }

    const Bytes sps = nalUnit(kSps, 12, 0x5A);
    const Bytes pps = nalUnit(kPps, 5, 0x3C);
    const Bytes idr = nalUnit(kIdr, 300, 0xA7);
    const Bytes slice = nalUnit(kSlice, 120, 0x9B);

    // A first frame that gives the recorder both parameter sets at `base`.
    void startStream(uint32_t base) {
        SharedBufferImage frame;
        frame.addNal(base, 0, sps);
        frame.addNal(base, 0, pps);
        ASSERT_EQ(0, record(frame));
        recorder.samples.clear();
    }

    MBBMSRecManager manager;
    CapturingRecorder recorder;
    CapturedLog log;
    std::unique_ptr<unsigned char[]> copy{new unsigned char[CMMB_FRAME_COPY_MAX_SIZE]};
};

TEST_F(RecManagerFrames, SpsPpsAndIdrInOneUnitGiveTwoParameterSetsAndOneSyncSampleAtZero) {
    SharedBufferImage frame;
    frame.addNal(90000, 1800, joinWithStartCodes({sps, pps, idr}, {4, 4}));
    frame.addAac(90000, 1800, Bytes(40, 0x11));
    ASSERT_EQ(0, record(frame));

    ASSERT_EQ(4u, recorder.samples.size());
    EXPECT_EQ("video/avc", recorder.samples[0].mime);
    EXPECT_EQ(sps, recorder.samples[0].bytes);
    EXPECT_EQ("video/avc", recorder.samples[1].mime);
    EXPECT_EQ(pps, recorder.samples[1].bytes);
    EXPECT_EQ("video/avc", recorder.samples[2].mime);
    EXPECT_EQ(idr, recorder.samples[2].bytes);
    EXPECT_EQ(0, recorder.samples[2].timestamp);
    EXPECT_TRUE(recorder.samples[2].isSyncFrame);
    EXPECT_EQ("audio/mp4a-latm", recorder.samples[3].mime);
    EXPECT_EQ(Bytes(40, 0x11), recorder.samples[3].bytes);
    EXPECT_EQ(0, recorder.samples[3].timestamp);
    EXPECT_EQ(91800u, recorder.mBaseTimestamp);
    EXPECT_EQ(0, recorder.writeoutsOutsideLock);
    EXPECT_EQ(0, recorder.lockDepth);
}

TEST_F(RecManagerFrames, NothingIsRecordedBeforeTheFirstSpsAndLaterParameterSetsAreNotRepeated) {
    SharedBufferImage early;
    early.addNal(1000, 0, idr);
    early.addNal(1000, 900, pps);  // a PPS before any SPS does not count
    early.addNal(1000, 1800, slice);
    early.addAac(1000, 0, Bytes(30, 0x22));
    ASSERT_EQ(0, record(early));
    EXPECT_TRUE(recorder.samples.empty());
    EXPECT_EQ(1, log.count("on SPS or PPS in this second!"));

    SharedBufferImage next;
    next.addNal(23500, 0, sps);
    next.addNal(23500, 0, pps);
    next.addNal(23500, 0, joinWithStartCodes({nalUnit(kSei, 8, 0x33), idr}, {3}));
    next.addNal(23500, 900, joinWithStartCodes({sps, pps, slice}, {4, 3}));
    ASSERT_EQ(0, record(next));

    ASSERT_EQ(4u, recorder.samples.size());
    EXPECT_EQ(sps, recorder.samples[0].bytes);
    EXPECT_EQ(pps, recorder.samples[1].bytes);
    EXPECT_EQ(idr, recorder.samples[2].bytes);  // the SEI in front of it is left out
    EXPECT_TRUE(recorder.samples[2].isSyncFrame);
    EXPECT_EQ(slice, recorder.samples[3].bytes);  // repeated SPS and PPS are left out
    EXPECT_EQ(900, recorder.samples[3].timestamp);
    EXPECT_FALSE(recorder.samples[3].isSyncFrame);
}

TEST_F(RecManagerFrames, SlicesOfOneUnitBecomeOneSampleWithoutStartCodes) {
    startStream(5000);
    const Bytes second = nalUnit(0x01, 77, 0x7E);
    SharedBufferImage frame;
    frame.addNal(5000, 900, joinWithStartCodes({slice, second}, {3}));
    frame.addNal(5000, 1800, joinWithStartCodes({slice, second, slice}, {4, 3}));
    ASSERT_EQ(0, record(frame));

    ASSERT_EQ(2u, recorder.samples.size());
    EXPECT_EQ(concat(slice, second), recorder.samples[0].bytes);
    EXPECT_EQ(900, recorder.samples[0].timestamp);
    EXPECT_EQ(concat(concat(slice, second), slice), recorder.samples[1].bytes);
    EXPECT_EQ(1800, recorder.samples[1].timestamp);
}

TEST_F(RecManagerFrames, StartCodeEndingOnTheLastByteIsPartOfTheUnit) {
    startStream(0);
    // 00 00 01 as the last three bytes is not taken as a start code.
    Bytes unit = slice;
    unit.insert(unit.end(), {0x00, 0x00, 0x01});
    SharedBufferImage frame;
    frame.addNal(0, 900, unit);
    ASSERT_EQ(0, record(frame));
    ASSERT_EQ(1u, recorder.samples.size());
    EXPECT_EQ(unit, recorder.samples[0].bytes);
}

TEST_F(RecManagerFrames, AudioBeforeTheBaseIsSkippedAndLaterAudioLosesItsHeader) {
    SharedBufferImage frame;
    frame.addNal(10000, 0, sps);
    frame.addNal(10000, 0, pps);
    frame.addNal(10000, 0, idr);
    frame.addAac(9000, 40, Bytes(20, 0x01));    // before the SPS: skipped
    frame.addAac(9000, 1000, Bytes(21, 0x02));  // exactly at the SPS: timestamp 0
    frame.addAac(10000, 960, Bytes(22, 0x03));
    ASSERT_EQ(0, record(frame));

    std::vector<CapturedSample> audio;
    for (const CapturedSample& s : recorder.samples)
        if (s.mime == "audio/mp4a-latm")
            audio.push_back(s);
    ASSERT_EQ(2u, audio.size());
    EXPECT_EQ(Bytes(21, 0x02), audio[0].bytes);
    EXPECT_EQ(0, audio[0].timestamp);
    EXPECT_FALSE(audio[0].isSyncFrame);
    EXPECT_EQ(Bytes(22, 0x03), audio[1].bytes);
    EXPECT_EQ(960, audio[1].timestamp);
}

TEST_F(RecManagerFrames, VideoTimestampsCountOnAcrossTheWrapOfTheInputClock) {
    startStream(0xFFFFFC00u);
    SharedBufferImage frame;
    frame.addNal(0xFFFFFC00u, 0x800, slice);  // wraps to 0x400
    ASSERT_EQ(0, record(frame));
    ASSERT_EQ(1u, recorder.samples.size());
    EXPECT_EQ(0x800, recorder.samples[0].timestamp);
}

TEST_F(RecManagerFrames, AfterResumeNothingIsRecordedUntilAnIdrAndOlderAudioIsDropped) {
    startStream(0);
    recorder.mWaitForIdr = true;  // what the recorder's resume() sets

    SharedBufferImage withoutIdr;
    withoutIdr.addNal(22500, 0, slice);
    withoutIdr.addAac(22500, 0, Bytes(10, 0x44));
    ASSERT_EQ(0, record(withoutIdr));
    EXPECT_TRUE(recorder.samples.empty());
    EXPECT_EQ(1, log.count("on resumed, haven't found IDR frame yet, skip AAC frames!!!"));

    SharedBufferImage withIdr;
    withIdr.addNal(45000, 0, slice);
    withIdr.addNal(45000, 900, idr);
    withIdr.addNal(45000, 1800, slice);
    withIdr.addAac(45000, 500, Bytes(11, 0x55));  // older than the IDR: dropped
    withIdr.addAac(45000, 900, Bytes(12, 0x66));  // at the IDR
    withIdr.addAac(45000, 1860, Bytes(13, 0x77));
    ASSERT_EQ(0, record(withIdr));

    ASSERT_EQ(4u, recorder.samples.size());
    EXPECT_EQ(idr, recorder.samples[0].bytes);
    EXPECT_EQ(45900, recorder.samples[0].timestamp);
    EXPECT_TRUE(recorder.samples[0].isSyncFrame);
    EXPECT_EQ(slice, recorder.samples[1].bytes);
    EXPECT_EQ(46800, recorder.samples[1].timestamp);
    EXPECT_EQ(Bytes(12, 0x66), recorder.samples[2].bytes);
    EXPECT_EQ(45900, recorder.samples[2].timestamp);
    EXPECT_EQ(Bytes(13, 0x77), recorder.samples[3].bytes);
    EXPECT_FALSE(recorder.mWaitForIdr);
}

TEST_F(RecManagerFrames, ARefusedSampleEndsTheFrameWithTheRecordersResult) {
    startStream(0);
    recorder.failWriteout(2, -1000);
    SharedBufferImage frame;
    frame.addNal(0, 0, idr);
    frame.addNal(0, 900, slice);  // refused
    frame.addNal(0, 1800, slice);
    frame.addAac(0, 0, Bytes(10, 0x01));
    EXPECT_EQ(-1000, record(frame));
    ASSERT_EQ(1u, recorder.samples.size());
    EXPECT_EQ(idr, recorder.samples[0].bytes);
    EXPECT_EQ(0, recorder.lockDepth);

    CapturingRecorder audioFails;
    audioFails.mGotSps = audioFails.mGotPps = 1;
    audioFails.failWriteout(2, -1001);
    SharedBufferImage audioFrame;
    audioFrame.addAac(0, 0, Bytes(10, 0x01));
    audioFrame.addAac(0, 960, Bytes(10, 0x02));  // refused
    audioFrame.addAac(0, 1920, Bytes(10, 0x03));
    manager.read_to_new_sharedbuf(copy.get(), audioFrame.bytes());
    EXPECT_EQ(-1001, manager.dataRecording(&audioFails, copy.get()));
    EXPECT_EQ(1u, audioFails.samples.size());
    EXPECT_EQ(0, audioFails.lockDepth);
}

TEST_F(RecManagerFrames, AFrameWithoutRecorderIsRefusedWithTheMostNegativeResult) {
    SharedBufferImage frame;
    frame.addNal(0, 0, sps);
    manager.read_to_new_sharedbuf(copy.get(), frame.bytes());
    EXPECT_EQ(INT32_MIN, manager.dataRecording(nullptr, copy.get()));
    EXPECT_EQ(1, log.count("no recorder!!"));
}

TEST_F(RecManagerFrames, TheCopyHoldsCountsEntriesAndPayloadBackToBack) {
    SharedBufferImage frame;
    frame.addNal(1, 2, Bytes(5, 0xA1));
    frame.addNal(3, 4, Bytes(6, 0xA2));
    frame.addAac(7, 8, Bytes(2, 0xB1));
    manager.read_to_new_sharedbuf(copy.get(), frame.bytes());

    const uint32_t expectedWords[] = {2, 1, 5 + 6 + 9,     // counts
                                      1, 2, 5,         3,  // NAL entry 0 (pos 3 = complete)
                                      3, 4, 6,         3,  // NAL entry 1
                                      7, 8, 9};            // AAC entry 0, header included
    uint32_t words[14];
    memcpy(words, copy.get(), sizeof(words));
    for (int i = 0; i < 14; ++i)
        EXPECT_EQ(expectedWords[i], words[i]) << "word " << i;
    const unsigned char* payload = copy.get() + 12 + 2 * 16 + 12;
    EXPECT_EQ(Bytes(5, 0xA1), Bytes(payload, payload + 5));
    EXPECT_EQ(Bytes(6, 0xA2), Bytes(payload + 5, payload + 11));
    EXPECT_EQ(0xFF, payload[11]);  // the ADTS header stays in the copy
    EXPECT_EQ(Bytes(2, 0xB1), Bytes(payload + 18, payload + 20));
}

TEST_F(RecManagerFrames, AudioDeliveredBetweenVideoIsRecordedAsIfItCameLast) {
    SharedBufferImage inOrder;
    inOrder.addNal(0, 0, joinWithStartCodes({sps, pps, idr}, {4, 4}));
    inOrder.addNal(0, 900, slice);
    inOrder.addAac(0, 0, Bytes(17, 0x31));
    inOrder.addAac(0, 960, Bytes(18, 0x32));
    ASSERT_EQ(0, record(inOrder));
    const std::vector<CapturedSample> expected = recorder.samples;

    CapturingRecorder other;
    SharedBufferImage interleaved;
    interleaved.addAac(0, 0, Bytes(17, 0x31));
    interleaved.addNal(0, 0, joinWithStartCodes({sps, pps, idr}, {4, 4}));
    interleaved.addAac(0, 960, Bytes(18, 0x32));
    interleaved.addNal(0, 900, slice);
    manager.read_to_new_sharedbuf(copy.get(), interleaved.bytes());
    ASSERT_EQ(0, manager.dataRecording(&other, copy.get()));

    ASSERT_EQ(expected.size(), other.samples.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i].mime, other.samples[i].mime) << i;
        EXPECT_EQ(expected[i].bytes, other.samples[i].bytes) << i;
        EXPECT_EQ(expected[i].timestamp, other.samples[i].timestamp) << i;
    }
}

TEST_F(RecManagerFrames, RecordsPointingOutsideThePayloadAreCopiedEmpty) {
    SharedBufferImage frame;
    frame.addNal(0, 0, joinWithStartCodes({sps, pps, idr}, {4, 4}));
    frame.addNal(0, 900, slice);
    frame.buffer().nal[1].offset = CMMB_PAYLOAD_SIZE - 10;  // runs past the payload area
    frame.buffer().nalCount = 1000;                         // more than the table holds
    frame.buffer().nal[2].length = 0;
    manager.read_to_new_sharedbuf(copy.get(), frame.bytes());

    CmmbFrameCopyCounts counts = cmmbFrameCopyReadCounts(copy.get());
    EXPECT_EQ(256u, counts.nalCount);
    EXPECT_EQ(0u, cmmbFrameCopyReadNal(copy.get(), 1).length);
    EXPECT_LE(counts.dataLength, static_cast<uint32_t>(CMMB_PAYLOAD_LIMIT));
    ASSERT_EQ(0, manager.dataRecording(&recorder, copy.get()));
    ASSERT_EQ(3u, recorder.samples.size());
    EXPECT_EQ(idr, recorder.samples[2].bytes);
}

TEST(RecManagerSlots, SessionsWithoutRecorderAnswerWithoutTouchingAnything) {
    MBBMSRecManager manager;
    for (int session : {-1, 0, 1, 2}) {
        EXPECT_EQ(nullptr, manager.getRecorder(session)) << session;
        EXPECT_EQ(-1, manager.queryCurrentMoovLength(session)) << session;
        EXPECT_EQ(-1, manager.setMaxFileSize(session, 1000)) << session;
    }
    EXPECT_EQ(0, manager.stopRecording(0));
    EXPECT_EQ(0, manager.stopRecording(1));
    EXPECT_EQ(-1, manager.stopRecording(2));
    EXPECT_EQ(-1, manager.startRecording(-1, 1));
    EXPECT_EQ(-1, manager.startRecording(2, 1));
}

TEST(RecManagerSlots, AnOutputThatCannotBeDuplicatedLeavesTheSlotEmpty) {
    memset(LogMask::masks, 0, sizeof(LogMask::masks));
    LogMask::masks[LogMask::ERROR] = 1;
    CapturedLog log;
    MBBMSRecManager manager;
    EXPECT_EQ(-1, manager.startRecording(0, -1));
    EXPECT_EQ(nullptr, manager.getRecorder(0));
    EXPECT_EQ(1, log.count("pRecorder->setOutputFile failed!"));
}

}  // namespace
