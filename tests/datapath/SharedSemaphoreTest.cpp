// The 4-byte process-shared semaphore across real process boundaries: the semaphores live
// in a MAP_SHARED mapping created before fork, as in a buffer shared with a play engine. Also
// the engine's frame end, which posts a buffer's lock and data signal together.
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

namespace {

const int kGiveUpMs = 20000;  // bounds every cross-process step: a lost wake-up fails

int valueOf(CmmbSharedSemaphore* s) {
    int v = -1;
    cmmb_sem_getvalue(s, &v);
    return v;
}

// Forks a child whose exit code is body's result; reap() returns that code.
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
        a = static_cast<CmmbSharedSemaphore*>(memory);
        b = a + 1;
        c = a + 2;
        for (CmmbSharedSemaphore* semaphore : {a, b, c})
            ASSERT_EQ(0, cmmb_sem_init(semaphore, 0));
    }
    void TearDown() override { munmap(a, 12); }

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

// Processes asleep on a semaphore of value 0 stay asleep (the first without a time limit);
// each post from another process lets exactly one of them through.
TEST_F(SharedSemaphore, EachPostWakesOneWaiterInAnotherProcess) {
    pid_t children[3];
    for (int i = 0; i < 3; ++i) {
        children[i] = spawn([&] {
            return (i ? cmmb_sem_timedwait(a, kGiveUpMs) : cmmb_sem_wait(a)) || cmmb_sem_post(b);
        });
        ASSERT_NE(-1, children[i]);
    }
    EXPECT_EQ(-1, cmmb_sem_timedwait(b, 200)) << "a waiter passed a semaphore of value 0";
    for (int i = 1; i <= 3; ++i) {
        ASSERT_EQ(0, cmmb_sem_post(a));
        ASSERT_EQ(0, cmmb_sem_timedwait(b, kGiveUpMs)) << "post " << i << " woke nobody";
        EXPECT_EQ(-1, cmmb_sem_timedwait(b, 20)) << "post " << i << " woke two waiters";
    }
    for (pid_t child : children)
        EXPECT_EQ(0, reap(child));
    EXPECT_EQ(0, valueOf(a));
}

// Two processes hand a token back and forth; one lost wake-up stalls the exchange until
// the give-up bound. Then posts racing in two processes keep the count exact.
TEST_F(SharedSemaphore, PingPongAndRacingPostsLoseNothing) {
    const int kRounds = 20000, kPosts = 50000;
    pid_t child = spawn([&] {
        for (int i = 0; i < kRounds; ++i)
            if (cmmb_sem_timedwait(a, kGiveUpMs) != 0 || cmmb_sem_post(b) != 0)
                return 1;
        return 0;
    });
    ASSERT_NE(-1, child);
    int completed = 0;
    while (completed < kRounds && cmmb_sem_post(a) == 0 && cmmb_sem_timedwait(b, kGiveUpMs) == 0)
        ++completed;
    EXPECT_EQ(kRounds, completed);
    EXPECT_EQ(0, reap(child));
    EXPECT_EQ(0, valueOf(a) + valueOf(b));

    auto post = [&] {
        for (int i = 0; i < kPosts; ++i)
            cmmb_sem_post(a);
        return 0;
    };
    child = spawn(post);
    ASSERT_NE(-1, child);
    post();
    int taken = 0;
    while (taken < kPosts && cmmb_sem_timedwait(a, kGiveUpMs) == 0)
        ++taken;
    EXPECT_EQ(0, reap(child));
    EXPECT_EQ(kPosts, taken);
    EXPECT_EQ(kPosts, valueOf(a));
}

// The frame end's pair post (a the lock, b the data signal) wakes a sleeper on each word in
// other processes. The sleepers wait without a time limit: a wait with one would find the
// count raised when it times out and hide a lost wake-up.
TEST_F(SharedSemaphore, APairPostWakesASleeperOnEachWord) {
    const pid_t sleepers[] = {spawn([&] { return cmmb_sem_wait(a) || cmmb_sem_post(c); }),
                              spawn([&] { return cmmb_sem_wait(b) || cmmb_sem_post(c); })};
    EXPECT_EQ(-1, cmmb_sem_timedwait(c, 200)) << "a waiter passed a semaphore of value 0";
    ASSERT_EQ(0, postSemaphorePair(a, b));
    const bool bothWoken =
        cmmb_sem_timedwait(c, kGiveUpMs) == 0 && cmmb_sem_timedwait(c, kGiveUpMs) == 0;
    EXPECT_TRUE(bothWoken) << "a sleeper was not woken";
    for (pid_t sleeper : sleepers) {
        if (!bothWoken)
            kill(sleeper, SIGKILL);
        EXPECT_EQ(0, reap(sleeper));
    }
    EXPECT_EQ(0, valueOf(a) + valueOf(b));
}

// A reader waits for each frame, then for the lock, as a play engine does; one lost wake-up on
// either word stalls the exchange until the give-up bound. A count at its maximum is refused
// and left as it is; the other is still posted.
TEST_F(SharedSemaphore, PairPostsFrameAfterFrameLoseNothingAndStopAtTheMaximum) {
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
