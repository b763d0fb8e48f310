// Lines of the live data path whose text is part of the engine's contract, each with the
// category and the public operation it is logged under: one case per line, each a child with
// its own engine that plays the same short scenario.
#include <gtest/gtest.h>

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
};

void PrintTo(const ContractLine& line, std::ostream* out) {
    *out << line.name;
}

class DataPathContractLine : public testing::TestWithParam<ContractLine> {};

// Session 0 shows a service on channel 40; one frame carries a fragment without a beginning,
// a unit without a start code and an audio frame; then the service is stopped.
TEST_P(DataPathContractLine, IsLoggedUnderItsOperation) {
    const ContractLine line = GetParam();
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, 40);
        bench.frameStart(40);
        bench.nal(40, pattern(10), MBBMSAgent::NAL_FRAGMENT_MIDDLE);
        bench.nal(40, pattern(10), MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        bench.aac(40, pattern(20));
        bench.frameEnd(40);
        EXPECT_EQ(0, bench.engine->stopTVService(0));
        EXPECT_EQ(line.count, bench.root.countLogLine(line.category, line.function, line.text));
    });
}

INSTANTIATE_TEST_SUITE_P(
    Lines, DataPathContractLine,
    testing::Values(
        ContractLine{"NoBeginning", "WARNING", "onClearVideoNalData",
                     "current NAL has no beginning, drop it!", 1},
        ContractLine{"NoStartCode", "ERROR", "onClearVideoNalData",
                     "H264 NAL has no start code, drop it!", 1},
        ContractLine{"RawAudio", "DATA_AAC", "onClearAudioAacFrame", "+Raw audio AAC,session=0", 1},
        ContractLine{"StopWaits", "SEMAPHORE", "stop", "sem_wait mutexSessionChangable ...", 1},
        ContractLine{"StopReleases", "SEMAPHORE", "stop", "mutexSessionChangable++", 1},
        ContractLine{"FrameStartTakes", "SEMAPHORE", "onOutputAVStart", "mutexSessionChangable--",
                     1},
        ContractLine{"FrameEndReleases", "SEMAPHORE", "onOutputAVEnd", "mutexSessionChangable++",
                     1},
        ContractLine{"Mapped", "ENGINE", "initSharedBuffers", "mmap is ok, size=74772", 2}),
    [](const testing::TestParamInfo<ContractLine>& line) { return std::string(line.param.name); });

}  // namespace
