// The ingestion's drop lines whose text is part of the engine's contract: one case per line,
// each provoked on a private buffer and read from the engine's log file.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "IngestionBench.h"
#include "LogMask.h"
#include "TestRoot.h"

namespace {

struct ContractLine {
    const char* name;
    const char* category;
    const char* text;
    std::function<void(IngestionBench&)> provoke;
};

void PrintTo(const ContractLine& line, std::ostream* out) {
    *out << line.name;
}

const Bytes kStarted = {0, 0, 0, 1, 0x41, 1, 2, 3};

class IngestionContractLine : public testing::TestWithParam<ContractLine> {
protected:
    void SetUp() override {
        for (unsigned char& mask : LogMask::masks)
            mask = 1;
    }
    void TearDown() override { LogMask::readConfigure(); }
    TestRoot mRoot{""};
};

TEST_P(IngestionContractLine, IsLoggedOnceWithItsCategory) {
    IngestionBench ingestion;
    GetParam().provoke(ingestion);
    EXPECT_EQ(1, mRoot.countLogLine(GetParam().category, "test", GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Drops, IngestionContractLine,
    testing::Values(
        ContractLine{"NalNoSpace", "WARNING",
                     "SharedBuffer have no enough space for NAL, 65535 > 65535, DATA drop!",
                     [](IngestionBench& in) {
                         in.fillPayload(65000);
                         in.nal(Bytes(535, 0), MBBMSAgent::NAL_FRAGMENT_MIDDLE);
                     }},
        ContractLine{"NalOverwritten", "WARNING", "last NAL is not ended, overwrite it!",
                     [](IngestionBench& in) {
                         in.nal(kStarted, MBBMSAgent::NAL_FRAGMENT_START);
                         in.nal(kStarted, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
                     }},
        ContractLine{"NalWithoutStartCode", "ERROR", "H264 NAL has no start code, drop it!",
                     [](IngestionBench& in) {
                         in.nal(Bytes{0, 0, 2, 0x65}, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
                     }},
        ContractLine{
            "NalWithoutBeginning", "WARNING", "current NAL has no beginning, drop it!",
            [](IngestionBench& in) { in.nal(Bytes(10, 1), MBBMSAgent::NAL_FRAGMENT_END); }},
        ContractLine{"AacNoSpace", "DATA_AAC",
                     "SharedBuffer have no enough space for AAC, 65528 > 65535, DATA drop!",
                     [](IngestionBench& in) {
                         in.fillPayload(65000);
                         in.aac(Bytes(528, 0x5A));
                     }}),
    [](const testing::TestParamInfo<ContractLine>& line) { return std::string(line.param.name); });

}  // namespace
