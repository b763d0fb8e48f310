// The descriptor an application hands to startRecording: the recording is written from byte
// 0 and its index patched in place, so a descriptor in append mode or positioned elsewhere is
// refused (among them the descriptor of a finished recording handed in again); and the
// engine's own duplicates of it are not inherited by programs started meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "OpenDescriptors.h"
#include "RecordingRig.h"

namespace {

TEST(RecordingDescriptor, OnlyADescriptorWritableFromByteZeroIsTakenAndChildrenDoNotInheritIt) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        ClipFeed feed;

        // Append mode (what ParcelFileDescriptor.MODE_APPEND gives).
        const std::string appended = rig.outputPath("append.3gp");
        int fd = open(appended.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
        EXPECT_FALSE(rig.engine().isRecording(0));
        close(fd);
        EXPECT_EQ(0, fileSize(appended));

        // The descriptor of a finished recording shares its offset, now at the file's end:
        // handed in again, it is refused and the finished file stays as it was.
        // Opened without close-on-exec, as an application may.
        const std::string path = rig.outputPath("first.3gp");
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        rig.playSeconds(feed, 2);
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        const long long finished = fileSize(path);
        EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
        EXPECT_FALSE(rig.engine().isRecording(0));
        rig.playSeconds(feed, 1);
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_EQ(finished, fileSize(path));
        expectPlayableRecording(path);

        // Rewound, the same descriptor is taken again; the engine keeps duplicates of it
        // (the recorder's and the writer's), which a program started meanwhile does not
        // inherit, while a descriptor without close-on-exec shows in its list.
        ASSERT_EQ(0, lseek(fd, 0, SEEK_SET));
        ASSERT_EQ(0, ftruncate(fd, 0));
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        rig.playSeconds(feed, 1);
        EXPECT_EQ(2, openDescriptors("first.3gp"));
        const int witness =
            open(rig.outputPath("witness.txt").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(witness, 0);
        std::string listing;
        ASSERT_EQ(0, runCommand("ls -l /proc/self/fd/", &listing));
        close(witness);
        EXPECT_NE(std::string::npos, listing.find("witness.txt")) << listing;
        EXPECT_EQ(std::string::npos, listing.find("first.3gp")) << listing;

        rig.playSeconds(feed, 1);
        ASSERT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_EQ(0, openDescriptors("first.3gp"));
        expectPlayableRecording(path);
    });
}

}  // namespace
