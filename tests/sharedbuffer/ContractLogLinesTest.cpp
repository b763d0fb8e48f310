// The ingestion's drop lines whose text is part of the engine's contract: one case per line,
// each provoked on a private buffer and read from the engine's log file.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AacIngestion.h"
#include "LogMask.h"
#include "MBBMSAgent.h"
#include "NalIngestion.h"
#include "TestRoot.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A private buffer as a frame start leaves it, and appends logged as "test".
struct Ingestion {
    Ingestion() : region(new CmmbSharedBuffer()) {
        for (CmmbNalRecord& record : region->nal)
            record.pos = CMMB_NAL_POS_NONE_OPEN;
    }
    void nal(const Bytes& data, int pos) {
        appendNalFragment(region.get(), state, 0, 0, 0, data.data(),
                          static_cast<unsigned short>(data.size()), pos, "test");
    }
    void aac(size_t length) {
        const Bytes data(length, 0x5A);
        appendAacFrame(region.get(), state, 0, 0, 0, data.data(),
                       static_cast<unsigned short>(length), "test");
    }
    // Complete units up to `length` payload bytes.
    void fill(uint32_t length) {
        while (state.dataLength < length) {
            const uint32_t missing = length - state.dataLength;
            Bytes unit((missing > 60000 ? 60000 : missing) + 4, 0x65);
            unit[0] = unit[1] = unit[2] = 0;
            unit[3] = 1;
            nal(unit, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        }
    }

    std::unique_ptr<CmmbSharedBuffer> region;
    BufferWriteState state;
};

struct ContractLine {
    const char* name;
    const char* category;
    const char* text;
    std::function<void(Ingestion&)> provoke;
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
    Ingestion ingestion;
    GetParam().provoke(ingestion);
    EXPECT_EQ(1, mRoot.countLogLine(GetParam().category, "test", GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Drops, IngestionContractLine,
    testing::Values(
        ContractLine{"NalNoSpace", "WARNING",
                     "SharedBuffer have no enough space for NAL, 65535 > 65535, DATA drop!",
                     [](Ingestion& in) {
                         in.fill(65000);
                         in.nal(Bytes(535, 0), MBBMSAgent::NAL_FRAGMENT_MIDDLE);
                     }},
        ContractLine{"NalOverwritten", "WARNING", "last NAL is not ended, overwrite it!",
                     [](Ingestion& in) {
                         in.nal(kStarted, MBBMSAgent::NAL_FRAGMENT_START);
                         in.nal(kStarted, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
                     }},
        ContractLine{"NalWithoutStartCode", "ERROR", "H264 NAL has no start code, drop it!",
                     [](Ingestion& in) {
                         in.nal(Bytes{0, 0, 2, 0x65}, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
                     }},
        ContractLine{"NalWithoutBeginning", "WARNING", "current NAL has no beginning, drop it!",
                     [](Ingestion& in) { in.nal(Bytes(10, 1), MBBMSAgent::NAL_FRAGMENT_END); }},
        ContractLine{"AacNoSpace", "DATA_AAC",
                     "SharedBuffer have no enough space for AAC, 65528 > 65535, DATA drop!",
                     [](Ingestion& in) {
                         in.fill(65000);
                         in.aac(528);
                     }}),
    [](const testing::TestParamInfo<ContractLine>& line) { return std::string(line.param.name); });

}  // namespace
