// The owning handle: every resource it takes is released exactly once, by whichever handle
// holds it last, and never after it was given up.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "UniqueHandle.h"

namespace {

// Resources are small positive numbers; 0 is empty. Every close is recorded.
std::vector<int> gClosed;

struct CountingTraits {
    using Value = int;
    static int null() { return 0; }
    static bool isValid(int value) { return value > 0; }
    static void close(int value) { gClosed.push_back(value); }
};
using CountingHandle = UniqueHandle<CountingTraits>;

TEST(UniqueHandleTest, EachValueIsReleasedOnceByItsLastHolderAndNeverAfterItWasGivenUp) {
    gClosed.clear();
    {
        CountingHandle empty;
        EXPECT_FALSE(empty.valid());
        EXPECT_EQ(empty.get(), 0);
        CountingHandle first(3);
        EXPECT_TRUE(first);
        CountingHandle second(std::move(first));
        EXPECT_FALSE(first.valid());
        EXPECT_TRUE(gClosed.empty()) << "moving released the value";

        // Assignment releases what the target held and takes the source's value.
        CountingHandle third(4);
        third = std::move(second);
        EXPECT_EQ(gClosed, std::vector<int>{4});
        EXPECT_FALSE(second.valid());
        CountingHandle& alias = third;
        third = std::move(alias);
        EXPECT_EQ(third.get(), 3) << "moving onto itself lost the value";
    }
    EXPECT_EQ(gClosed, (std::vector<int>{4, 3}));

    gClosed.clear();
    CountingHandle handle(5);
    handle.reset(6);
    EXPECT_EQ(handle.release(), 6);
    EXPECT_FALSE(handle.valid());
    handle.reset();  // 6 was given up, not released
    handle.reset(8);
    handle.reset();
    EXPECT_EQ(gClosed, (std::vector<int>{5, 8}));
}

TEST(UniqueFdTest, TheDescriptorIsClosedWithTheLastHandle) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    UniqueFd writeEnd(fds[1]);
    {
        UniqueFd readEnd(fds[0]);
        UniqueFd moved(std::move(readEnd));
        EXPECT_EQ(fcntl(fds[0], F_GETFD), 0);
        EXPECT_FALSE(readEnd.valid());
    }
    errno = 0;
    EXPECT_EQ(fcntl(fds[0], F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
    // With the read end gone, the pipe refuses writes.
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(write(writeEnd.get(), "x", 1), -1);
}

TEST(UniqueMappingTest, TheMappingIsRemovedOnReset) {
    const size_t length = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* address =
        mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(address, MAP_FAILED);
    UniqueMapping mapping(Mapping{address, length});
    unsigned char resident = 0;
    EXPECT_EQ(mincore(address, length, &resident), 0);
    mapping.reset();
    errno = 0;
    EXPECT_EQ(mincore(address, length, &resident), -1);
    EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
