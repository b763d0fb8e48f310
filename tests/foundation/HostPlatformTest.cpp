// The host stand-ins of the Android platform, as outside harnesses rely on them.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "AndroidLog.h"
#include "AndroidPaths.h"
#include "Ashmem.h"
#include "LogMask.h"
#include "LogSink.h"
#include "Properties.h"
#include "TestRoot.h"
#include "UniqueHandle.h"

TEST(HostPaths, BuiltInPathsResolveUnderTheRootOnlyWhenOneIsSet) {
    char out[256];
    unsetenv("TAVO_ANDROID_ROOT");
    ASSERT_EQ(0, resolveAndroidPath("/data/app/cmmb.socket", out, sizeof(out)));
    EXPECT_STREQ("/data/app/cmmb.socket", out);
    setenv("TAVO_ANDROID_ROOT", "", 1);
    ASSERT_EQ(0, resolveAndroidPath("/sdcard", out, sizeof(out)));
    EXPECT_STREQ("/sdcard", out);
    setenv("TAVO_ANDROID_ROOT", "/tmp/r", 1);
    ASSERT_EQ(0, resolveAndroidPath("/data/app/cmmb.socket", out, sizeof(out)));
    EXPECT_STREQ("/tmp/r/data/app/cmmb.socket", out);
    char tiny[8];
    EXPECT_EQ(-1, resolveAndroidPath("/data/app/cmmb.socket", tiny, sizeof(tiny)));
    EXPECT_STREQ("", tiny);
    unsetenv("TAVO_ANDROID_ROOT");
}

TEST(HostProperties, ValueIsTheFirstLineCutTo91BytesOrTheDefault) {
    TestRoot root("");
    char value[PROPERTY_VALUE_MAX];
    EXPECT_EQ(3, property_get("persist.test.unset", value, "def"));
    EXPECT_STREQ("def", value);
    EXPECT_EQ(0, property_get("persist.test.unset", value, nullptr));
    EXPECT_STREQ("", value);

    writeTextFile(root.resolve("/data/property/persist.test.value"), "first line\nsecond\n");
    EXPECT_EQ(10, property_get("persist.test.value", value, "def"));
    EXPECT_STREQ("first line", value);

    writeTextFile(root.resolve("/data/property/persist.test.long"), std::string(200, 'v'));
    EXPECT_EQ(91, property_get("persist.test.long", value, nullptr));
    EXPECT_EQ(std::string(91, 'v'), value);
}

namespace {
// Records a line as "<prio> <tag> <message>".
void capture(void* context, int prio, const char* tag, const char* message) {
    static_cast<std::vector<std::string>*>(context)->push_back(std::to_string(prio) + " " + tag +
                                                               " " + message);
}
}  // namespace

TEST(HostLog, WritesOneFormattedLinePerMessageToTheLogFileAndTheSink) {
    TestRoot root("");
    std::vector<std::string> captured;
    tavo_log_set_sink(capture, &captured);
    __android_log_print(ANDROID_LOG_WARN, "Tag", "value=%d", 7);
    __android_log_print(ANDROID_LOG_DEBUG, "Tag", "ends with newline\n");
    tavo_log_set_sink(nullptr, nullptr);

    const std::string pid = std::to_string(getpid());
    std::vector<std::string> lines = root.logLines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("W/Tag(" + pid + "): value=7", lines[0]);
    EXPECT_EQ("D/Tag(" + pid + "): ends with newline", lines[1]);
    EXPECT_EQ(readTextFile(root.logFile()).size(), lines[0].size() + lines[1].size() + 2)
        << "a message ending with a newline got a second one";
    ASSERT_EQ(2u, captured.size());
    EXPECT_EQ(std::to_string(ANDROID_LOG_WARN) + " Tag value=7", captured[0]);
}

TEST(HostLogMask, SwitchesComeFromTheEnvironment) {
    unsetenv("TAVO_LOGMASK");
    LogMask::readConfigure();
    EXPECT_TRUE(LogMask::masks[LogMask::ERROR] && LogMask::masks[LogMask::WARNING] &&
                LogMask::masks[LogMask::MAIN]);
    EXPECT_FALSE(LogMask::masks[LogMask::ENGINE] || LogMask::masks[LogMask::DATA_NAL]);

    setenv("TAVO_LOGMASK", "SEMAPHORE,bogus,DATA_AAC", 1);
    LogMask::readConfigure();
    EXPECT_TRUE(LogMask::masks[LogMask::SEMAPHORE] && LogMask::masks[LogMask::DATA_AAC]);
    EXPECT_FALSE(LogMask::masks[LogMask::ERROR]);

    setenv("TAVO_LOGMASK", "all", 1);
    LogMask::readConfigure();
    for (int category : {0, 1, 2, 8, 10, 11, 12, 13, 14, 15, 16, 17})
        EXPECT_TRUE(LogMask::masks[category]);

    setenv("TAVO_LOGMASK", "none", 1);
    LogMask::readConfigure();
    for (unsigned char mask : LogMask::masks)
        EXPECT_EQ(0, mask);
    unsetenv("TAVO_LOGMASK");
    LogMask::readConfigure();
}

// Mapping a region shared is what every shared-buffer test does; here: its size and the
// protections it accepts.
TEST(HostAshmem, RegionsHaveTheirSizeAndRefuseExecution) {
    UniqueFd region(ashmem_create_region("cmmb_test_region", 74772));
    const int fd = region.get();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(74772, lseek(fd, 0, SEEK_END));
    EXPECT_EQ(0, ashmem_set_prot_region(fd, PROT_READ | PROT_WRITE));
    EXPECT_EQ(-1, ashmem_set_prot_region(fd, PROT_EXEC));
}
