// The 4-byte process-shared semaphore across processes, in a MAP_SHARED mapping created before
// fork, and the frame end's pair post of a buffer's lock and data signal.
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>

#include "CmmbSharedSemaphore.h"
#include "SharedSemaphorePair.h"
#include "UniqueHandle.h"

namespace {

const int kGiveUpMs = 20000;  // bounds every cross-process step: a lost wake-up fails

int valueOf(CmmbSharedSemaphore* s) {
    int v = -1;
    cmmb_sem_getvalue(s, &v);
    return v;
}

template <typename Body>
pid_t spawn(Body body) {
    pid_t child = fork();
    if (child == 0)
        _exit(body());
    return child;
}

int reap(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

class SharedSemaphore : public ::testing::Test {
protected:
    void SetUp() override {
        void* memory = mmap(nullptr, 12, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, memory);
        mMemory.reset(Mapping{memory, 12});
        a = static_cast<CmmbSharedSemaphore*>(memory);
        b = a + 1;
        c = a + 2;
        for (CmmbSharedSemaphore* semaphore : {a, b, c})
            ASSERT_EQ(0, cmmb_sem_init(semaphore, 0));
    }

    UniqueMapping mMemory;
    CmmbSharedSemaphore* a = nullptr;
    CmmbSharedSemaphore* b = nullptr;
    CmmbSharedSemaphore* c = nullptr;
};

TEST_F(SharedSemaphore, CountsAndTimesOut) {
    static_assert(sizeof(CmmbSharedSemaphore) == 4, "the semaphore is one 32-bit word");
    ASSERT_EQ(0, cmmb_sem_init(a, 2));
    EXPECT_EQ(2, valueOf(a));
    EXPECT_EQ(0, cmmb_sem_trywait(a));
    EXPECT_EQ(0, cmmb_sem_wait(a));
    errno = 0;
    EXPECT_EQ(-1, cmmb_sem_trywait(a));
    EXPECT_EQ(EAGAIN, errno);
    struct timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    errno = 0;
    EXPECT_EQ(-1, cmmb_sem_timedwait(a, 50));
    EXPECT_EQ(ETIMEDOUT, errno);
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_GE((after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000,
              45)
        << "a timed wait returned before its deadline";
    ASSERT_EQ(0, cmmb_sem_post(a));
    EXPECT_EQ(0, cmmb_sem_timedwait(a, 50));
    EXPECT_EQ(0, valueOf(a));
    EXPECT_EQ(0, cmmb_sem_destroy(a));
}

// Processes asleep on a semaphore of value 0 stay asleep; each post from another process lets
// exactly one through, and the frame end's pair post (a the lock, b the data signal) wakes a
// sleeper on each word. Untimed sleepers among them: a time limit would hide a lost wake-up.
TEST_F(SharedSemaphore, EachPostWakesOneSleeperInAnotherProcessAPairPostOneOnEachWord) {
    pid_t sleepers[4];
    for (int i = 0; i < 4; ++i) {
        sleepers[i] = spawn([&] {
            const int woken = i == 3 ? cmmb_sem_wait(b)
                                     : (i ? cmmb_sem_timedwait(a, kGiveUpMs) : cmmb_sem_wait(a));
            return woken || cmmb_sem_post(c);
        });
        ASSERT_NE(-1, sleepers[i]);
    }
    EXPECT_EQ(-1, cmmb_sem_timedwait(c, 200)) << "a waiter passed a semaphore of value 0";
    for (int i = 1; i <= 2; ++i) {
        ASSERT_EQ(0, cmmb_sem_post(a));
        ASSERT_EQ(0, cmmb_sem_timedwait(c, kGiveUpMs)) << "post " << i << " woke nobody";
        EXPECT_EQ(-1, cmmb_sem_timedwait(c, 20)) << "post " << i << " woke two waiters";
    }
    ASSERT_EQ(0, postSemaphorePair(a, b));
    EXPECT_TRUE(cmmb_sem_timedwait(c, kGiveUpMs) == 0 && cmmb_sem_timedwait(c, kGiveUpMs) == 0)
        << "a sleeper was not woken by the pair post";
    for (pid_t sleeper : sleepers) {
        if (HasFailure())
            kill(sleeper, SIGKILL);
        EXPECT_EQ(0, reap(sleeper));
    }
    EXPECT_EQ(0, valueOf(a) + valueOf(b));
}

// A reader waits for each frame, then for the lock, as a play engine does: a lost wake-up on
// either word stalls the exchange. Racing posts lose nothing. A count at its maximum is
// refused, the other still posted.
TEST_F(SharedSemaphore, PairPostsAndRacingPostsLoseNothingAndStopAtTheMaximum) {
    const int kFrames = 20000;
    pid_t reader = spawn([&] {
        for (int i = 0; i < kFrames; ++i)
            if (cmmb_sem_timedwait(b, kGiveUpMs) || cmmb_sem_timedwait(a, kGiveUpMs) ||
                cmmb_sem_post(c))
                return 1;
        return 0;
    });
    ASSERT_NE(-1, reader);
    int handed = 0;
    while (handed < kFrames && postSemaphorePair(a, b) == 0 &&
           cmmb_sem_timedwait(c, kGiveUpMs) == 0)
        ++handed;
    EXPECT_EQ(kFrames, handed);
    EXPECT_EQ(0, reap(reader));
    EXPECT_EQ(0, valueOf(a) + valueOf(b));

    // Posts racing in two processes keep the count exact.
    auto post = [&] {
        for (int i = 0; i < kFrames; ++i)
            cmmb_sem_post(c);
        return 0;
    };
    reader = spawn(post);
    ASSERT_NE(-1, reader);
    post();
    int taken = 0;
    while (taken < kFrames && cmmb_sem_timedwait(c, kGiveUpMs) == 0)
        ++taken;
    EXPECT_EQ(0, reap(reader));
    EXPECT_EQ(kFrames, taken);
    EXPECT_EQ(kFrames, valueOf(c));

    for (CmmbSharedSemaphore* full : {a, b}) {
        CmmbSharedSemaphore* other = full == a ? b : a;
        ASSERT_EQ(0, cmmb_sem_init(full, INT_MAX));
        ASSERT_EQ(0, cmmb_sem_init(other, 0));
        errno = 0;
        EXPECT_EQ(-1, postSemaphorePair(a, b));
        EXPECT_EQ(EOVERFLOW, errno);
        EXPECT_EQ(INT_MAX, valueOf(full));
        EXPECT_EQ(1, valueOf(other));
    }
}

}  // namespace
