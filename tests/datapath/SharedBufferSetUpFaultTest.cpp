// init when the shared buffers cannot be made: every platform call of their set-up (region,
// mapping, protection, semaphores) failing for either session makes init fail cleanly, with
// nothing left open, and the next init succeeds. The failures come through the Env seam.

#include <gtest/gtest.h>

#include <string>

#include "ChildProcess.h"
#include "FaultInjectingEnv.h"
#include "OpenDescriptors.h"
#include "TavoMBBMSEngineImpl.h"
#include "TestRoot.h"

namespace {

struct SetUpFault {
    FaultInjectingEnv::Call call;
    int callsPerSession;  // two semaphores per buffer, one of everything else
    const char* name;
};

class SharedBufferSetUpFault : public testing::TestWithParam<SetUpFault> {};

TEST_P(SharedBufferSetUpFault, InitFailsWithNothingLeftOpenAndTheNextInitWorks) {
    const SetUpFault fault = GetParam();
    for (int n = 1; n <= 2 * fault.callsPerSession; ++n) {
        EXPECT_IN_CHILD({
            TestRoot root;
            TavoMBBMSEngine* engine = TavoMBBMSEngineImpl::getInstance();
            FaultInjectingEnv env;
            const int descriptorsBefore = openDescriptors();

            env.failNth(fault.call, n, ENOMEM);
            EXPECT_EQ(-1, engine->init(nullptr, nullptr)) << "failing call " << n;
            EXPECT_EQ(n, env.calls(fault.call)) << "set-up went on after a failed call";
            EXPECT_EQ(descriptorsBefore, openDescriptors()) << "failing call " << n;

            env.clearFaults();
            ASSERT_EQ(0, engine->init(nullptr, nullptr));
            EXPECT_EQ(0, engine->deinit());
        });
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryCall, SharedBufferSetUpFault,
    testing::Values(SetUpFault{FaultInjectingEnv::CREATE_REGION, 1, "Region"},
                    SetUpFault{FaultInjectingEnv::MAP_REGION, 1, "Mapping"},
                    SetUpFault{FaultInjectingEnv::PROTECT_REGION, 1, "Protection"},
                    SetUpFault{FaultInjectingEnv::INIT_SEMAPHORE, 2, "Semaphore"}),
    [](const testing::TestParamInfo<SetUpFault>& fault) { return std::string(fault.param.name); });

}  // namespace
