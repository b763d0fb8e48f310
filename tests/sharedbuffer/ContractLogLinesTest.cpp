// The ingestion's drop lines whose text is part of the engine's contract: one case per line,
// each provoked on a private buffer and read from the engine's log file. The lines that the
// data path's own table provokes through the agent's callbacks are not repeated here.
#include <gtest/gtest.h>

#include "ContractLineTable.h"
#include "IngestionBench.h"
#include "LogMask.h"
#include "TestRoot.h"

namespace {

using Line = ContractLine<IngestionBench>;

class IngestionContractLine : public testing::TestWithParam<Line> {
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
    EXPECT_EQ(1, mRoot.countLogLine(GetParam().category, GetParam().function, GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Drops, IngestionContractLine,
    testing::Values(Line{"NalNoSpace", "WARNING", "test",
                         "SharedBuffer have no enough space for NAL, 65535 > 65535, DATA drop!",
                         [](IngestionBench& in) {
                             in.fillPayload(65000);
                             in.nal(Bytes(535, 0), MBBMSAgent::NAL_FRAGMENT_MIDDLE);
                         }},
                    Line{"NalOverwritten", "WARNING", "test",
                         "last NAL is not ended, overwrite it!",
                         [](IngestionBench& in) {
                             const Bytes started = nalUnit(4, 0x41, 8);
                             in.nal(started, MBBMSAgent::NAL_FRAGMENT_START);
                             in.nal(started, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
                         }},
                    Line{"AacNoSpace", "DATA_AAC", "test",
                         "SharedBuffer have no enough space for AAC, 65528 > 65535, DATA drop!",
                         [](IngestionBench& in) {
                             in.fillPayload(65000);
                             in.aac(Bytes(528, 0x5A));
                         }}),
    ContractLineName());

}  // namespace
