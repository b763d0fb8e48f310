// Contract lines of the live data path and session control, each with its category and the
// operation it is logged under: one case per line, each a child with its own engine.
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "ContractLineTable.h"
#include "EngineDataPath.h"

namespace {

using Line = ContractLine<EngineDataPath>;

class DataPathContractLine : public testing::TestWithParam<Line> {};

TEST_P(DataPathContractLine, IsLoggedUnderItsOperation) {
    const Line line = GetParam();
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        line.provoke(bench);
        EXPECT_EQ(line.count, bench.root().countLogLine(line.category, line.function, line.text));
    });
}

// A frame with a fragment without a beginning, a unit without start code and audio; a stop.
void frameWithDropsThenStop(EngineDataPath& bench) {
    bench.frameStart(40);
    bench.nal(40, pattern(10), MBBMSAgent::NAL_FRAGMENT_MIDDLE);
    bench.nal(40, pattern(10), MBBMSAgent::NAL_FRAGMENT_COMPLETE);
    bench.aac(40, pattern(20));
    bench.frameEnd(40);
    bench.engine().stopTVService(0);
}

Line scenarioLine(const char* name, const char* category, const char* function, const char* text) {
    return Line{name, category, function, text, frameWithDropsThenStop};
}

// A frame on channel 55, which no session shows.
void unknownChannel(EngineDataPath& bench) {
    bench.playFrame(55, 1, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DataPathContractLine,
    testing::Values(
        scenarioLine("NoBeginning", "WARNING", "onClearVideoNalData",
                     "current NAL has no beginning, drop it!"),
        scenarioLine("NoStartCode", "ERROR", "onClearVideoNalData",
                     "H264 NAL has no start code, drop it!"),
        scenarioLine("RawAudio", "DATA_AAC", "onClearAudioAacFrame", "+Raw audio AAC,session=0"),
        scenarioLine("StopWaits", "SEMAPHORE", "stop", "sem_wait mutexSessionChangable ..."),
        scenarioLine("StopReleases", "SEMAPHORE", "stop", "mutexSessionChangable++"),
        scenarioLine("FrameStartTakes", "SEMAPHORE", "onOutputAVStart", "mutexSessionChangable--"),
        scenarioLine("FrameEndReleases", "SEMAPHORE", "onOutputAVEnd", "mutexSessionChangable++"),
        Line{"Mapped", "ENGINE", "initSharedBuffers", "mmap is ok, size=74772",
             [](EngineDataPath&) {}, 2},
        Line{"FrameNotFetched", "WARNING", "onOutputAVStart",
             "A/V DATA LOST(nalCount=3, aacCount=2) due to playengine doesn't fetch them in time",
             [](EngineDataPath& bench) {
                 bench.playFrame(40, 3, 2);
                 bench.playFrame(40, 1, 1);
             }},
        Line{"FrameWithError", "WARNING", "onOutputAVEnd",
             "after demux, withError = true, DROP this MFS frame",
             [](EngineDataPath& bench) { bench.playFrame(40, 2, 2, true); }},
        Line{"UnknownChannelAtStart", "WARNING", "onOutputAVStart", "channelIDToIndex(55)=-1",
             unknownChannel},
        Line{"UnknownChannelOfNal", "WARNING", "onClearVideoNalData", "channelIDToIndex(55)=-1",
             unknownChannel},
        Line{"UnknownChannelOfAac", "WARNING", "onClearAudioAacFrame", "channelIDToIndex(55)=-1",
             unknownChannel},
        Line{"FrameReset", "DATA_MFS", "resetSharedBuffer",
             "One MFS frame is reset(nalCount=5, aacCount=2)",
             [](EngineDataPath& bench) {
                 bench.buffer(1)->nalCount = 5;
                 bench.buffer(1)->aacCount = 2;
                 bench.engine().stopTVService(1);
             }},
        Line{"WrongSession", "ERROR", "start", "Wrong mSessionID=2",
             [](EngineDataPath& bench) { bench.startService(2, 7, 40); }},
        Line{"WrongSessionToStop", "ERROR", "stop", "Wrong mSessionID=2",
             [](EngineDataPath& bench) { bench.engine().stopTVService(2); }},
        Line{"OtherFrequency", "ERROR", "start",
             "SessionManager::start(): working on freq=20, can't switch to freq=22",
             [](EngineDataPath& bench) {
                 bench.agent().setResult("getFrequency", 20);
                 bench.startService(1, 8, 41, 22);
             }},
        Line{"NotStarted", "WARNING", "stop", "session(1) not started yet",
             [](EngineDataPath& bench) { bench.engine().stopTVService(1); }}),
    ContractLineName());

}  // namespace
