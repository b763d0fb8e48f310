// The engine's two shared buffers, in process: creation, the engine's side of the buffer lock,
// a reader's hold on it (this process taking the lock word through its own mapping, as a play
// engine would), and a wait on a lock whose reader leaves. Which buffer a frame start replaces,
// and that the departed reader's mapping stays its own, is shown across processes by the
// play-engine failure tests of the data path.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "CmmbSharedSemaphore.h"
#include "Env.h"
#include "FaultInjectingEnv.h"
#include "OpenDescriptors.h"
#include "ReaderMapping.h"
#include "SharedBufferSet.h"
#include "TestRoot.h"

namespace {

class SharedBufferSetTest : public testing::Test {
protected:
    void SetUp() override {
        // A wait that ends because of the lock bound is told apart from one that ends because
        // its reader left: the bound is far above the tests' hang detectors.
        mRoot.setProperty(TAVO_LOCK_TIMEOUT_PROPERTY, "600000");
        ASSERT_EQ(0, mSet.create("test", Env::platform()));
    }

    // The engine takes and gives back the lock of `session`'s buffer.
    void expectEngineLocks(int session) {
        if (!mSet.lock(session))
            FAIL() << "the engine could not take the buffer of session " << session;
        mSet.unlock(session);
    }

    TestRoot mRoot{""};
    SharedBufferSet mSet;
};

TEST_F(SharedBufferSetTest, CreatesTwoEmptyBuffersWithFreeLocks) {
    EXPECT_EQ(600000, mSet.lockTimeoutMs());
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

TEST_F(SharedBufferSetTest, TellsAnEngineHoldFromAReaderHold) {
    if (!mSet.lock(0))
        FAIL() << "the engine could not take the buffer of session 0";
    EXPECT_EQ(0, mSet.readerHolds(0));
    EXPECT_FALSE(mSet.anyAbandoned()) << "the engine's own hold counts as abandoned";
    mSet.unlock(0);

    ReaderMapping reader(mSet.fd(1));
    mSet.readerConnected();
    ASSERT_TRUE(reader.take());
    EXPECT_EQ(1, mSet.readerHolds(1));
    EXPECT_EQ(0, mSet.readerHolds(0));
    EXPECT_FALSE(mSet.anyAbandoned()) << "the reader is still connected";
    const int fd = mSet.fd(1);
    EXPECT_TRUE(mSet.replaceAbandoned("test"));
    EXPECT_EQ(fd, mSet.fd(1)) << "replaced while its reader was connected";
    reader.giveBack();
    EXPECT_EQ(0, mSet.readerHolds(1));
}

// An engine thread waiting for a lock whose reader then leaves gives up its wait (well before
// the lock bound); the buffer is replaced once it has left.
TEST_F(SharedBufferSetTest, AWaiterGivesUpWhenTheReaderLeavesHoldingTheLock) {
    mSet.readerConnected();
    ReaderMapping reader(mSet.fd(0));
    ASSERT_TRUE(reader.take());
    auto waiter = std::async(std::launch::async, [&] { return mSet.lock(0); });
    EXPECT_EQ(std::future_status::timeout, waiter.wait_for(std::chrono::milliseconds(100)));
    EXPECT_EQ(1, mSet.readerHolds(0)) << "the engine's wait counts as the reader's hold";
    mSet.readerDisconnected();
    ASSERT_EQ(std::future_status::ready, waiter.wait_for(std::chrono::seconds(20)));
    EXPECT_FALSE(waiter.get());
    EXPECT_TRUE(mSet.replaceAbandoned("test"));
    EXPECT_EQ(0, mSet.readerHolds(0));
    expectEngineLocks(0);
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
