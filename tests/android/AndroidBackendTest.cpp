// The handset backend, built against the real liblog and libcutils. A signal delivered to a
// thread in a semaphore wait must neither end the wait early (the engine would then write a
// buffer the play engine is reading) nor stretch a timed wait past its time-out.
#include <errno.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "Ashmem.h"
#include "SemaphoreWaits.h"
#include "UniqueHandle.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

void ignoreSignal(int) {}

// Runs wait() on a thread and interrupts it with signals while it waits. The SIGUSR1 handler
// has no SA_RESTART, so that blocking calls of the thread fail with EINTR unless the code
// under test restarts them.
class InterruptedWaiter {
public:
    template <typename Wait>
    explicit InterruptedWaiter(Wait wait) {
        struct sigaction action = {};
        action.sa_handler = ignoreSignal;
        sigaction(SIGUSR1, &action, &mPrevious);
        mThread = std::thread([this, wait] {
            int r = wait();
            error = errno;
            result = r;
            done = true;
        });
    }
    ~InterruptedWaiter() {
        join();
        sigaction(SIGUSR1, &mPrevious, nullptr);
    }

    void interrupt(int times) {
        for (int i = 0; i < times && !done; ++i) {
            pthread_kill(mThread.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(milliseconds(5));
        }
    }
    void join() {
        if (mThread.joinable())
            mThread.join();
    }

    std::atomic<bool> done{false};
    std::atomic<int> result{1};
    std::atomic<int> error{0};

private:
    struct sigaction mPrevious;
    std::thread mThread;
};

class SemaphoreWaits : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, sem_init(&mSem, 0, 0)); }
    void TearDown() override { sem_destroy(&mSem); }

    sem_t mSem;
};

// The untimed wait, and a timed one far from its time-out: signals do not end them, a post
// does, and the post is taken once, by the waiter.
TEST_F(SemaphoreWaits, WaitsOutlastSignalsUntilPosted) {
    for (bool timed : {false, true}) {
        SCOPED_TRACE(timed ? "timed" : "untimed");
        InterruptedWaiter waiter([this, timed] {
            return timed ? semaphoreWaitMonotonic(&mSem, 10000) : semaphoreWaitRestarting(&mSem);
        });
        waiter.interrupt(40);
        EXPECT_FALSE(waiter.done) << "returned " << waiter.result << " errno " << waiter.error;
        ASSERT_EQ(0, sem_post(&mSem));
        waiter.join();
        EXPECT_EQ(0, waiter.result);
        EXPECT_NE(0, sem_trywait(&mSem)) << "the post was taken twice";
    }
}

TEST_F(SemaphoreWaits, TimedWaitOutlastsSignalsAndEndsAtItsTimeOutOrAtOnceWhenZero) {
    const auto started = Clock::now();
    InterruptedWaiter waiter([this] { return semaphoreWaitMonotonic(&mSem, 400); });
    waiter.interrupt(1000);
    waiter.join();
    const auto elapsed = Clock::now() - started;
    EXPECT_EQ(-1, waiter.result);
    EXPECT_EQ(ETIMEDOUT, waiter.error);
    EXPECT_GE(elapsed, milliseconds(400));
    // A hang detector, not a timing goal: the wait must end well before two seconds pass.
    EXPECT_LT(elapsed, milliseconds(2000));

    // A zero time-out takes only what is already posted.
    EXPECT_EQ(-1, semaphoreWaitMonotonic(&mSem, 0));
    EXPECT_EQ(ETIMEDOUT, errno);
    ASSERT_EQ(0, sem_post(&mSem));
    EXPECT_EQ(0, semaphoreWaitMonotonic(&mSem, 0));
}

// The shared buffers rely on libcutils' ashmem regions being mappable by another process.
TEST(AndroidAshmem, RegionIsSharedWithAChildProcess) {
    const size_t size = 74772;
    UniqueFd region(ashmem_create_region("cmmb_shared_memory_0", size));
    const int fd = region.get();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(0, ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE));
    void* mapped = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ASSERT_NE(MAP_FAILED, mapped);
    UniqueMapping mapping(Mapping{mapped, size});
    unsigned char* bytes = static_cast<unsigned char*>(mapped);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        void* childMapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (childMapping == MAP_FAILED)
            _exit(1);
        static_cast<unsigned char*>(childMapping)[size - 1] = 0x5A;
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(0x5A, bytes[size - 1]);
}

}  // namespace
