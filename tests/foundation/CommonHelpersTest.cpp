// The small helpers the tools and agents share: formatted text and process paths.
#include <unistd.h>

#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "FormatString.h"
#include "ProcessPaths.h"

namespace {

TEST(FormatStringTest, TextOfAnyLengthIsFormattedWhole) {
    EXPECT_EQ(formatString("%d-%s", 42, "x"), "42-x");
    EXPECT_EQ(formatString("%s", ""), "");
    const std::string longText(5000, 'a');
    const std::string formatted = formatString("<%s>", longText.c_str());
    EXPECT_EQ(formatted.size(), longText.size() + 2);
    EXPECT_EQ(formatted, "<" + longText + ">");
}

TEST(ProcessPathsTest, TheExecutableDirectoryHoldsThisProgramAndRelativePathsJoinTheCwd) {
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    ASSERT_GT(length, 0);
    self[length] = '\0';
    const std::string directory = executableDirectory();
    const std::string program(self);
    EXPECT_EQ(program.substr(0, directory.size()), directory);
    EXPECT_EQ(program.rfind('/'), directory.size());

    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
    EXPECT_EQ(absolutePath("/etc/hosts"), "/etc/hosts");
    EXPECT_EQ(absolutePath("a/b"), std::string(cwd) + "/a/b");
}

}  // namespace
