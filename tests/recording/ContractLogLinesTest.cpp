// The recording lines whose text is part of the engine's contract, each with its category and
// the operation it is logged under: one case per line, each a child with its own engine
// recording session 0 (faults through the test's own Env).
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>

#include "ChildProcess.h"
#include "ContractLineTable.h"
#include "FaultInjectingEnv.h"
#include "RecordingRig.h"

namespace {

using Line = ContractLine<RecordingRig, FaultInjectingEnv, ClipFeed>;

class RecordingContractLine : public testing::TestWithParam<Line> {};

TEST_P(RecordingContractLine, IsLoggedOnceUnderItsOperation) {
    const Line line = GetParam();
    EXPECT_IN_CHILD({
        FaultInjectingEnv env;
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;
        line.provoke(rig, env, feed);
        EXPECT_EQ(line.count, rig.root().countLogLine(line.category, line.function, line.text));
    });
}

// Records a second, then plays the next one with `fault` in place.
void recordThen(RecordingRig& rig, ClipFeed& feed, const std::function<void()>& fault) {
    ASSERT_EQ(0, rig.startRecording("out.3gp"));
    rig.playSeconds(feed, 1);
    fault();
    rig.play(feed.nextSecond());
}

// The reason a recording ended in the frame path is logged when the recording has been
// completed, before its event.
void awaitRecordingEvent(RecordingRig& rig) {
    EXPECT_TRUE(rig.app().waitFor("onEvent(15"));
}

void recordAndStop(RecordingRig& rig, FaultInjectingEnv&, ClipFeed& feed) {
    recordThen(rig, feed, [] {});
    rig.engine().stopRecording(0);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, RecordingContractLine,
    testing::Values(
        Line{"SpaceUnknown", "ERROR", "startRecording", "fstatfs failed, error number is 9",
             [](RecordingRig& rig, FaultInjectingEnv&, ClipFeed&) {
                 rig.engine().startRecording(0, 12345);  // not a descriptor
             }},
        Line{"RecorderNotStarted", "ERROR", "startRecording", "pRecorder->start() failed!",
             [](RecordingRig& rig, FaultInjectingEnv& env, ClipFeed&) {
                 env.failNth(FaultInjectingEnv::WRITE, 1, ENOSPC);
                 rig.startRecording("refused.3gp");
             }},
        Line{"NoCard", "ERROR", "dataRecording", "sdcard not found",
             [](RecordingRig& rig, FaultInjectingEnv&, ClipFeed& feed) {
                 recordThen(rig, feed,
                            [&] { ASSERT_EQ(0, rmdir(rig.root().resolve("/sdcard").c_str())); });
                 awaitRecordingEvent(rig);
                 rig.play(feed.nextSecond());  // no longer handed frames
             }},
        Line{"StorageFull", "ERROR", "dataRecording", "storage is full",
             [](RecordingRig& rig, FaultInjectingEnv& env, ClipFeed& feed) {
                 recordThen(rig, feed, [&] { env.setFreeBytes((1 << 20) - 1); });
                 awaitRecordingEvent(rig);
             }},
        Line{"WriteFailed", "ERROR", "dataRecording", "write file error!",
             [](RecordingRig& rig, FaultInjectingEnv& env, ClipFeed& feed) {
                 recordThen(rig, feed, [&] { env.failNth(FaultInjectingEnv::WRITE, 1, EIO); });
                 awaitRecordingEvent(rig);
                 rig.engine().stopRecording(0);  // waits for the whole report
             }},
        Line{"Stopping", "RECORD", "stopRecording", "stopRecording()", recordAndStop},
        Line{"Stopped", "RECORD", "stopRecording", "exit successfully", recordAndStop}),
    ContractLineName());

}  // namespace
