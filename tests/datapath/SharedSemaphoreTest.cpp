// The 4-byte process-shared semaphore, exercised across real process boundaries: the
// semaphores live in a MAP_SHARED anonymous mapping created before fork, exactly as the
// engine and a play engine share them inside a buffer.
//
// The suite is typed over a backend so that any other implementation of the same contract
// (here glibc's process-shared sem_t, as a reference) runs the very same cases.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <new>

#include "CmmbSharedSemaphore.h"

namespace {

// The project's semaphore: 4 bytes, used in place in shared memory.
struct CmmbBackend {
    using Semaphore = CmmbSharedSemaphore;
    static int init(Semaphore* s, unsigned value) { return cmmb_sem_init(s, value); }
    static int destroy(Semaphore* s) { return cmmb_sem_destroy(s); }
    static int wait(Semaphore* s) { return cmmb_sem_wait(s); }
    static int tryWait(Semaphore* s) { return cmmb_sem_trywait(s); }
    static int timedWait(Semaphore* s, int ms) { return cmmb_sem_timedwait(s, ms); }
    static int post(Semaphore* s) { return cmmb_sem_post(s); }
    static int value(Semaphore* s) {
        int v = -1;
        cmmb_sem_getvalue(s, &v);
        return v;
    }
};

// The C library's process-shared semaphore, as a reference backend for the same contract.
struct PosixBackend {
    using Semaphore = sem_t;
    static int init(Semaphore* s, unsigned value) { return sem_init(s, 1, value); }
    static int destroy(Semaphore* s) { return sem_destroy(s); }
    static int wait(Semaphore* s) {
        int r;
        while ((r = sem_wait(s)) != 0 && errno == EINTR) {
        }
        return r;
    }
    static int tryWait(Semaphore* s) { return sem_trywait(s); }
    static int timedWait(Semaphore* s, int ms) {
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += ms / 1000;
        deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
        if (deadline.tv_nsec >= 1000000000) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000;
        }
        int r;
        while ((r = sem_timedwait(s, &deadline)) != 0 && errno == EINTR) {
        }
        return r;
    }
    static int post(Semaphore* s) { return sem_post(s); }
    static int value(Semaphore* s) {
        int v = -1;
        sem_getvalue(s, &v);
        return v;
    }
};

// Generous bound on how long any cross-process step may take before the test gives up,
// so that a lost wake-up fails the test instead of hanging it.
const int kGiveUpMs = 20000;

int64_t monotonicMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits for a child and returns its exit code, or 128 + signal; kills it after kGiveUpMs.
int reap(pid_t child) {
    int64_t deadline = monotonicMs() + kGiveUpMs;
    int status = 0;
    for (;;) {
        pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child)
            break;
        if (monotonicMs() > deadline) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return 255;
        }
        usleep(1000);
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

// Reads one byte from `fd` within `ms` milliseconds; false when nothing came.
bool readByteWithin(int fd, int ms) {
    struct pollfd entry = {fd, POLLIN, 0};
    if (poll(&entry, 1, ms) != 1)
        return false;
    char byte;
    return read(fd, &byte, 1) == 1;
}

template <typename Backend>
class SharedSemaphoreTest : public ::testing::Test {
protected:
    using Semaphore = typename Backend::Semaphore;
    enum { kSlots = 4 };

    void SetUp() override {
        void* memory = mmap(nullptr, sizeof(Semaphore) * kSlots, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, memory);
        mSlots = static_cast<Semaphore*>(memory);
        for (int i = 0; i < kSlots; ++i)
            new (&mSlots[i]) Semaphore();
    }
    void TearDown() override {
        if (mSlots != nullptr)
            munmap(mSlots, sizeof(Semaphore) * kSlots);
    }

    Semaphore* sem(int i) { return &mSlots[i]; }

    Semaphore* mSlots = nullptr;
};

using Backends = ::testing::Types<CmmbBackend, PosixBackend>;
TYPED_TEST_SUITE(SharedSemaphoreTest, Backends);

TYPED_TEST(SharedSemaphoreTest, CountsPostsAndWaitsWithoutBlocking) {
    using B = TypeParam;
    auto* s = this->sem(0);
    ASSERT_EQ(0, B::init(s, 2));
    EXPECT_EQ(2, B::value(s));
    EXPECT_EQ(0, B::tryWait(s));
    EXPECT_EQ(0, B::wait(s));
    EXPECT_EQ(0, B::value(s));
    errno = 0;
    EXPECT_EQ(-1, B::tryWait(s));
    EXPECT_EQ(EAGAIN, errno);

    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(0, B::post(s));
    EXPECT_EQ(5, B::value(s));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(0, B::tryWait(s));
    EXPECT_EQ(-1, B::tryWait(s));
    EXPECT_EQ(0, B::destroy(s));
}

TYPED_TEST(SharedSemaphoreTest, TimedWaitExpiresOnZeroAndSucceedsWhenPosted) {
    using B = TypeParam;
    auto* s = this->sem(0);
    ASSERT_EQ(0, B::init(s, 0));
    int64_t before = monotonicMs();
    errno = 0;
    EXPECT_EQ(-1, B::timedWait(s, 50));
    EXPECT_EQ(ETIMEDOUT, errno);
    EXPECT_GE(monotonicMs() - before, 45) << "a timed wait must not return before its deadline";

    ASSERT_EQ(0, B::post(s));
    EXPECT_EQ(0, B::timedWait(s, 50));
    EXPECT_EQ(0, B::value(s));
}

// A waiter in another process sleeps on 0 and is woken by a post from this one.
TYPED_TEST(SharedSemaphoreTest, PostWakesWaiterInAnotherProcess) {
    using B = TypeParam;
    auto* s = this->sem(0);
    ASSERT_EQ(0, B::init(s, 0));
    int done[2];
    ASSERT_EQ(0, pipe(done));
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        close(done[0]);
        int r = B::wait(s);
        char byte = 'w';
        if (write(done[1], &byte, 1) != 1)
            _exit(3);
        _exit(r == 0 ? 0 : 2);
    }
    close(done[1]);
    // The child cannot pass a semaphore of value 0.
    EXPECT_FALSE(readByteWithin(done[0], 200)) << "waiter passed a semaphore of value 0";
    ASSERT_EQ(0, B::post(s));
    EXPECT_TRUE(readByteWithin(done[0], kGiveUpMs)) << "post did not wake the other process";
    EXPECT_EQ(0, reap(child));
    EXPECT_EQ(0, B::value(s));
    close(done[0]);
}

// Several processes asleep on one semaphore: each post lets exactly one through, and
// none is lost.
TYPED_TEST(SharedSemaphoreTest, EveryPostReleasesOneOfSeveralWaitingProcesses) {
    using B = TypeParam;
    auto* s = this->sem(0);
    auto* passed = this->sem(1);
    ASSERT_EQ(0, B::init(s, 0));
    ASSERT_EQ(0, B::init(passed, 0));
    const int kWaiters = 4;
    pid_t children[kWaiters];
    for (pid_t& child : children) {
        child = fork();
        ASSERT_NE(-1, child);
        if (child == 0) {
            if (B::wait(s) != 0)
                _exit(2);
            B::post(passed);
            _exit(0);
        }
    }
    for (int i = 1; i <= kWaiters; ++i) {
        ASSERT_EQ(0, B::post(s));
        ASSERT_EQ(0, B::timedWait(passed, kGiveUpMs)) << "post " << i << " released nobody";
    }
    for (pid_t child : children)
        EXPECT_EQ(0, reap(child));
    EXPECT_EQ(0, B::value(s));
    EXPECT_EQ(0, B::value(passed));
}

// Two processes hand a token back and forth many times with timed waits; a single lost
// wake-up stalls the exchange and fails the test at the give-up bound.
TYPED_TEST(SharedSemaphoreTest, PingPongBetweenProcessesLosesNoWakeUp) {
    using B = TypeParam;
    auto* ping = this->sem(0);
    auto* pong = this->sem(1);
    ASSERT_EQ(0, B::init(ping, 0));
    ASSERT_EQ(0, B::init(pong, 0));
    const int kRounds = 20000;
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        for (int i = 0; i < kRounds; ++i) {
            if (B::timedWait(ping, kGiveUpMs) != 0)
                _exit(1);
            B::post(pong);
        }
        _exit(0);
    }
    int completed = 0;
    for (; completed < kRounds; ++completed) {
        B::post(ping);
        if (B::timedWait(pong, kGiveUpMs) != 0)
            break;
    }
    EXPECT_EQ(kRounds, completed);
    EXPECT_EQ(0, reap(child));
    EXPECT_EQ(0, B::value(ping));
    EXPECT_EQ(0, B::value(pong));
}

// Many posts and waits racing from two processes on the same word keep the count exact.
TYPED_TEST(SharedSemaphoreTest, ConcurrentPostsFromTwoProcessesAreAllCounted) {
    using B = TypeParam;
    auto* s = this->sem(0);
    ASSERT_EQ(0, B::init(s, 0));
    const int kPosts = 50000;
    pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        for (int i = 0; i < kPosts; ++i)
            B::post(s);
        _exit(0);
    }
    for (int i = 0; i < kPosts; ++i)
        B::post(s);
    int taken = 0;
    while (taken < kPosts && B::wait(s) == 0)
        ++taken;
    EXPECT_EQ(0, reap(child));
    EXPECT_EQ(kPosts, B::value(s));
}

}  // namespace
