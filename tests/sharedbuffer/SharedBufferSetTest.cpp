// The engine's two shared buffers, in process: creation and set-up faults. The reader's hold
// and the timed waits are in the timing tests; replacement across processes in the data path's.
#include <gtest/gtest.h>

#include <string>

#include "CmmbSharedSemaphore.h"
#include "Env.h"
#include "FaultInjectingEnv.h"
#include "OpenDescriptors.h"
#include "SharedBufferSet.h"
#include "TestRoot.h"

namespace {

class SharedBufferSetTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, mSet.create("test", Env::platform())); }

    TestRoot mRoot{""};
    SharedBufferSet mSet;
};

TEST_F(SharedBufferSetTest, CreatesTwoEmptyBuffersWithFreeLocks) {
    for (int session : {0, 1}) {
        CmmbSharedBuffer* buffer = mSet.buffer(session);
        ASSERT_NE(nullptr, buffer);
        EXPECT_GE(mSet.fd(session), 0);
        EXPECT_EQ(0u, buffer->nalCount + buffer->aacCount + buffer->dataLength);
        int value = -1;
        EXPECT_EQ(0, cmmb_sem_getvalue(&buffer->mutexDataAccessable, &value));
        EXPECT_EQ(1, value);
        EXPECT_EQ(0, cmmb_sem_getvalue(&buffer->mutexDataAvailable, &value));
        EXPECT_EQ(0, value);
        EXPECT_EQ(0, mSet.readerHolds(session));
    }
    EXPECT_NE(mSet.fd(0), mSet.fd(1));
    for (int session : {-1, 2}) {
        EXPECT_EQ(nullptr, mSet.buffer(session));
        EXPECT_EQ(-1, mSet.fd(session));
        EXPECT_EQ(-1, mSet.readerHolds(session));
    }
    mSet.destroy(nullptr);
    EXPECT_EQ(nullptr, mSet.buffer(0));
    EXPECT_EQ(-1, mSet.fd(1));
    EXPECT_EQ(-1, mSet.readerHolds(0));
}

struct SetUpFault {
    FaultInjectingEnv::Call call;
    int callsPerSession;  // two semaphores per buffer, one of everything else
    const char* name;
};

class SharedBufferSetUpFault : public testing::TestWithParam<SetUpFault> {};

// Every platform call of the set-up, failing for either session: creation fails at once with
// nothing left open, and the next creation works.
TEST_P(SharedBufferSetUpFault, CreateFailsWithNothingLeftOpenAndTheNextCreateWorks) {
    const SetUpFault fault = GetParam();
    TestRoot root("");
    for (int n = 1; n <= 2 * fault.callsPerSession; ++n) {
        FaultInjectingEnv env;
        SharedBufferSet set;
        const int descriptorsBefore = openDescriptors();
        env.failNth(fault.call, n, ENOMEM);
        EXPECT_EQ(-1, set.create("test", &env)) << "failing call " << n;
        EXPECT_EQ(n, env.calls(fault.call)) << "set-up went on after a failed call";
        EXPECT_EQ(descriptorsBefore, openDescriptors()) << "failing call " << n;
        EXPECT_EQ(nullptr, set.buffer(0));
        EXPECT_EQ(-1, set.fd(1));
        env.clearFaults();
        EXPECT_EQ(0, set.create("test", &env));
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
