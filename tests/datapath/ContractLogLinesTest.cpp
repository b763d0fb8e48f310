// Lines of the live data path and of session control whose text is part of the engine's
// contract, each with the category and the public operation it is logged under: one case per
// line, each a child with its own engine (session 0 showing a service on channel 40).
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ChildProcess.h"
#include "EngineDataPath.h"

namespace {

struct ContractLine {
    const char* name;
    const char* category;
    const char* function;
    const char* text;
    int count;
    std::function<void(EngineDataPath&)> provoke;
};

void PrintTo(const ContractLine& line, std::ostream* out) {
    *out << line.name;
}

class DataPathContractLine : public testing::TestWithParam<ContractLine> {};

TEST_P(DataPathContractLine, IsLoggedUnderItsOperation) {
    const ContractLine line = GetParam();
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        line.provoke(bench);
        EXPECT_EQ(line.count, bench.root().countLogLine(line.category, line.function, line.text));
    });
}

// One frame carries a fragment without a beginning, a unit without a start code and an audio
// frame; then the service is stopped.
void frameWithDropsThenStop(EngineDataPath& bench) {
    bench.frameStart(40);
    bench.nal(40, pattern(10), MBBMSAgent::NAL_FRAGMENT_MIDDLE);
    bench.nal(40, pattern(10), MBBMSAgent::NAL_FRAGMENT_COMPLETE);
    bench.aac(40, pattern(20));
    bench.frameEnd(40);
    bench.engine().stopTVService(0);
}

void nothing(EngineDataPath&) {}

ContractLine scenarioLine(const char* name, const char* category, const char* function,
                          const char* text, int count = 1) {
    return ContractLine{name, category, function, text, count, frameWithDropsThenStop};
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
        ContractLine{"Mapped", "ENGINE", "initSharedBuffers", "mmap is ok, size=74772", 2, nothing},
        ContractLine{"FrameNotFetched", "WARNING", "onOutputAVStart",
                     "A/V DATA LOST(nalCount=3, aacCount=2) due to playengine doesn't fetch them "
                     "in time",
                     1,
                     [](EngineDataPath& bench) {
                         bench.playFrame(40, 3, 2);
                         bench.playFrame(40, 1, 1);
                     }},
        ContractLine{"FrameWithError", "WARNING", "onOutputAVEnd",
                     "after demux, withError = true, DROP this MFS frame", 1,
                     [](EngineDataPath& bench) { bench.playFrame(40, 2, 2, true); }},
        ContractLine{"UnknownChannelAtStart", "WARNING", "onOutputAVStart",
                     "channelIDToIndex(55)=-1", 1,
                     [](EngineDataPath& bench) { bench.playFrame(55, 1, 1); }},
        ContractLine{"UnknownChannelOfNal", "WARNING", "onClearVideoNalData",
                     "channelIDToIndex(55)=-1", 1,
                     [](EngineDataPath& bench) { bench.playFrame(55, 1, 1); }},
        ContractLine{"UnknownChannelOfAac", "WARNING", "onClearAudioAacFrame",
                     "channelIDToIndex(55)=-1", 1,
                     [](EngineDataPath& bench) { bench.playFrame(55, 1, 1); }},
        ContractLine{"FrameReset", "DATA_MFS", "resetSharedBuffer",
                     "One MFS frame is reset(nalCount=5, aacCount=2)", 1,
                     [](EngineDataPath& bench) {
                         bench.buffer(1)->nalCount = 5;
                         bench.buffer(1)->aacCount = 2;
                         bench.engine().stopTVService(1);
                     }},
        ContractLine{"WrongSession", "ERROR", "start", "Wrong mSessionID=2", 1,
                     [](EngineDataPath& bench) { bench.startService(2, 7, 40); }},
        ContractLine{"WrongSessionToStop", "ERROR", "stop", "Wrong mSessionID=2", 1,
                     [](EngineDataPath& bench) { bench.engine().stopTVService(2); }},
        ContractLine{"OtherFrequency", "ERROR", "start",
                     "SessionManager::start(): working on freq=20, can't switch to freq=22", 1,
                     [](EngineDataPath& bench) {
                         bench.agent().setResult("getFrequency", 20);
                         bench.startService(1, 8, 41, 22);
                     }},
        ContractLine{"NotStarted", "WARNING", "stop", "session(1) not started yet", 1,
                     [](EngineDataPath& bench) { bench.engine().stopTVService(1); }}),
    [](const testing::TestParamInfo<ContractLine>& line) { return std::string(line.param.name); });

}  // namespace
