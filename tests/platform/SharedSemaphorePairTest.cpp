// Posting a buffer's two semaphores together, as the frame end does: readers in other
// processes asleep on either word wake, the counts are exact, and a count at its maximum is
// refused without touching it.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>

#include "CmmbSharedSemaphore.h"
#include "SharedSemaphorePair.h"

namespace {

const int kGiveUpMs = 20000;  // bounds every cross-process step: a lost wake-up fails

int valueOf(CmmbSharedSemaphore* semaphore) {
    int value = -1;
    cmmb_sem_getvalue(semaphore, &value);
    return value;
}

// lock and available as in a buffer, done: where readers report back.
class SharedSemaphorePair : public ::testing::Test {
protected:
    void SetUp() override {
        void* memory = mmap(nullptr, 12, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, memory);
        lock = static_cast<CmmbSharedSemaphore*>(memory);
        available = lock + 1;
        done = lock + 2;
        for (CmmbSharedSemaphore* semaphore : {lock, available, done})
            ASSERT_EQ(0, cmmb_sem_init(semaphore, 0));
    }
    void TearDown() override { munmap(lock, 12); }

    // A reader process that, `rounds` times, waits on `first`, then on `second` (if any), and
    // reports on `done`.
    pid_t startReader(CmmbSharedSemaphore* first, CmmbSharedSemaphore* second, int rounds) {
        pid_t child = fork();
        if (child == 0) {
            for (int i = 0; i < rounds; ++i) {
                if (cmmb_sem_wait(first) != 0 ||
                    (second != nullptr && cmmb_sem_timedwait(second, kGiveUpMs) != 0) ||
                    cmmb_sem_post(done) != 0)
                    _exit(1);
            }
            _exit(0);
        }
        return child;
    }
    static int reap(pid_t child) {
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    CmmbSharedSemaphore* lock = nullptr;
    CmmbSharedSemaphore* available = nullptr;
    CmmbSharedSemaphore* done = nullptr;
};

TEST_F(SharedSemaphorePair, WakesASleeperOnEachWordInOtherProcesses) {
    const pid_t onLock = startReader(lock, nullptr, 1);
    const pid_t onAvailable = startReader(available, nullptr, 1);
    ASSERT_NE(-1, onLock);
    ASSERT_NE(-1, onAvailable);
    EXPECT_EQ(-1, cmmb_sem_timedwait(done, 200)) << "a reader passed a semaphore of value 0";
    ASSERT_EQ(0, postSemaphorePair(lock, available));
    EXPECT_EQ(0, cmmb_sem_timedwait(done, kGiveUpMs)) << "a sleeper was not woken";
    EXPECT_EQ(0, cmmb_sem_timedwait(done, kGiveUpMs)) << "a sleeper was not woken";
    EXPECT_EQ(0, reap(onLock));
    EXPECT_EQ(0, reap(onAvailable));
    EXPECT_EQ(0, valueOf(lock));
    EXPECT_EQ(0, valueOf(available));
}

// A reader waits for each frame, then for the lock, as a play engine does; one lost wake-up
// on either word stalls the exchange until the give-up bound.
TEST_F(SharedSemaphorePair, FrameAfterFrameLosesNoWakeUpAndKeepsTheCountsExact) {
    const int kFrames = 20000;
    const pid_t reader = startReader(available, lock, kFrames);
    ASSERT_NE(-1, reader);
    int handed = 0;
    while (handed < kFrames && postSemaphorePair(lock, available) == 0 &&
           cmmb_sem_timedwait(done, kGiveUpMs) == 0)
        ++handed;
    EXPECT_EQ(kFrames, handed);
    EXPECT_EQ(0, reap(reader));
    EXPECT_EQ(0, valueOf(lock));
    EXPECT_EQ(0, valueOf(available));
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, postSemaphorePair(lock, available));
    EXPECT_EQ(3, valueOf(lock));
    EXPECT_EQ(3, valueOf(available));
}

TEST_F(SharedSemaphorePair, ACountAtItsMaximumIsRefusedAndTheOtherStillPosted) {
    ASSERT_EQ(0, cmmb_sem_init(lock, INT_MAX));
    errno = 0;
    EXPECT_EQ(-1, postSemaphorePair(lock, available));
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_EQ(INT_MAX, valueOf(lock));
    EXPECT_EQ(1, valueOf(available));

    ASSERT_EQ(0, cmmb_sem_init(lock, 0));
    ASSERT_EQ(0, cmmb_sem_init(available, INT_MAX));
    errno = 0;
    EXPECT_EQ(-1, postSemaphorePair(lock, available));
    EXPECT_EQ(EOVERFLOW, errno);
    EXPECT_EQ(1, valueOf(lock));
    EXPECT_EQ(INT_MAX, valueOf(available));
}

}  // namespace
