// Creation and destruction of the shared buffers through init and deinit: a failure halfway
// leaves nothing behind and a later init succeeds; repeated cycles leak no descriptor.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstring>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "FakeAgentAccess.h"

namespace {

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return -1;
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count - 1;  // the directory's own descriptor
}

// Descriptors naming the shared regions, as /proc shows them.
int sharedRegionDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return -1;
    while (dirent* entry = readdir(dir)) {
        char link[256];
        std::string path = std::string("/proc/self/fd/") + entry->d_name;
        ssize_t n = readlink(path.c_str(), link, sizeof(link) - 1);
        if (n <= 0)
            continue;
        link[n] = '\0';
        count += strstr(link, "cmmb_shared_memory_") != nullptr;
    }
    closedir(dir);
    return count;
}

TEST(SharedBufferLifecycle, InitFailingOnTheSecondRegionReleasesTheFirst) {
    EXPECT_IN_CHILD({
        TestRoot root;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        ASSERT_NE(nullptr, fakeAgentAt(root.resolve("/system/lib/libsiano.so")));
        // One full cycle first, so that nothing the first init does lazily (here: sanitizer
        // bookkeeping) needs a descriptor while they are scarce.
        ASSERT_EQ(0, engine->init(nullptr, nullptr));
        ASSERT_EQ(0, engine->deinit());
        // The next two free descriptor numbers: allow the first, refuse the second.
        int first = open("/dev/null", O_RDONLY);
        int second = open("/dev/null", O_RDONLY);
        ASSERT_LT(first, second);
        close(first);
        close(second);
        const int before = openDescriptors();
        struct rlimit original;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &original));
        struct rlimit tight = original;
        tight.rlim_cur = static_cast<rlim_t>(second);
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));

        EXPECT_EQ(-1, engine->init(nullptr, nullptr));
        const int after = openDescriptors();
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &original));
        EXPECT_EQ(before, after) << "the first region's descriptor was kept";
        EXPECT_EQ(0, sharedRegionDescriptors());

        ASSERT_EQ(0, engine->init(nullptr, nullptr));
        EXPECT_EQ(2, sharedRegionDescriptors());
        EXPECT_EQ(0, engine->deinit());
        EXPECT_EQ(0, sharedRegionDescriptors());
    });
}

TEST(SharedBufferLifecycle, RepeatedInitAndDeinitGiveFreshBuffersAndLeakNothing) {
    EXPECT_IN_CHILD({
        EngineDataPath::Options options;
        options.connectPlayEngine = false;
        EngineDataPath bench(options);
        ASSERT_EQ("", bench.setUpError());
        ASSERT_EQ(0, bench.startService(0, 7, 40));
        bench.frameStart(40);
        bench.nal(40, nalUnit(4, 0x65, 30), MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        bench.frameEnd(40);
        ASSERT_EQ(0, bench.engine->deinit());
        EXPECT_EQ(0, sharedRegionDescriptors());
        const int baseline = openDescriptors();
        for (int cycle = 0; cycle < 3; ++cycle) {
            ASSERT_EQ(0, bench.engine->init(nullptr, nullptr));
            EXPECT_EQ(2, sharedRegionDescriptors());
            ASSERT_EQ(0, bench.engine->deinit());
            EXPECT_EQ(baseline, openDescriptors()) << "cycle " << cycle;
        }
        // A new play engine sees fresh buffers after a new init.
        ASSERT_EQ(0, bench.engine->init(nullptr, nullptr));
        PlayEngineReader second;
        ASSERT_EQ("", second.connect(bench.root.resolve("/data/app/cmmb.socket"),
                                     bench.root.path() + "/second.socket"));
        for (int s = 0; s < 2; ++s) {
            CmmbSharedBuffer* b = second.buffer(s).get();
            EXPECT_EQ(0, EngineDataPath::valueOf(&b->mutexDataAvailable));
            EXPECT_EQ(1, EngineDataPath::valueOf(&b->mutexDataAccessable));
            EXPECT_EQ(0u, b->nalCount + b->aacCount + b->dataLength);
        }
    });
}

}  // namespace
