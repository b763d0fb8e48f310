// The writer's contract lines: one case per line, each provoked on a fresh writer and root.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

#include "TestRoot.h"
#include "WriterHarness.h"

namespace {

struct ContractLine {
    const char* name;
    const char* line;  // "P/tag: message"
    std::function<void(WriterHarness&)> provoke;
};

void PrintTo(const ContractLine& line, std::ostream* out) {
    *out << line.name;
}

class WriterContractLine : public testing::TestWithParam<ContractLine> {};

TEST_P(WriterContractLine, IsLoggedOnce) {
    TestRoot root("");
    WriterHarness harness;
    GetParam().provoke(harness);
    // "P/tag: message" as this process logs it: "P/tag(pid): message".
    std::string line = GetParam().line;
    line.insert(line.find(": "), "(" + std::to_string(getpid()) + ")");
    const std::vector<std::string> lines = root.logLines();
    EXPECT_EQ(1, std::count(lines.begin(), lines.end(), line)) << line;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, WriterContractLine,
    testing::Values(
        ContractLine{"SizeLimitTooBig",
                     "W/CmmbMPEG4Recorder: 32-bit file size limit (3000000000 bytes) too big. It "
                     "is changed to 2147483647 bytes",
                     [](WriterHarness& harness) {
                         harness.writer().setMaxFileSize(3000000000LL);
                         harness.start();
                     }},
        ContractLine{"MoovEstimateTooSmall",
                     "W/CmmbMPEG4Recorder: queryMoovLength: warning! estimation goes wrong!add "
                     "more bytes!",
                     [](WriterHarness& harness) {
                         // 95,000 bytes of data: its share (600 bytes) is below the
                         // tables' 2,000, which are added to it.
                         harness.startTracks(false, true);
                         harness.feedRun(kAudioMime, 0, 960, 500, 186);
                         EXPECT_EQ(2600, harness.writer().queryMoovLength());
                     }},
        ContractLine{"NoSamples", "W/CmmbMPEG4Recorder: no sample written or video no sync frame!!",
                     [](WriterHarness& harness) {
                         harness.startTracks(true, false);
                         harness.feedRun(kVideoMime, 0, 900, 3, 100, false);
                         EXPECT_EQ(ERROR_NO_SAMPLES, harness.stop());
                     }},
        ContractLine{"UnknownMime", "E/CmmbMPEG4Recorder: Unknown mime type 'audio/amr'.",
                     [](WriterHarness& harness) {
                         harness.addSource("audio/amr", 0, 0, 8000, 8000);
                         harness.start();
                         harness.feedRun("audio/amr", 0, 900, 2, 40, true);
                         EXPECT_EQ(ERROR_INVALID, harness.stop());
                     }},
        ContractLine{
            "SpsParseError", "E/CmmbMPEG4Recorder: AVC SPS parse error!Give up recording!",
            [](WriterHarness& harness) {
                harness.addVideo();
                harness.start();
                EXPECT_EQ(ERROR_INVALID, harness.feed(kVideoMime, 0, Bytes{0x67, 0x42, 0xC0}));
            }}),
    [](const testing::TestParamInfo<ContractLine>& line) { return std::string(line.param.name); });

}  // namespace
