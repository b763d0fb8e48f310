// Repair of recordings whose process died: a child records through the engine and is killed
// with SIGKILL at many points; the file it leaves is repaired through the exported library
// function, and the copy must pass the outside gate. The input is never modified. Hostile and
// unrepairable inputs, and the tavo_repair tool, are in RepairHostileInputTest.cpp.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "ChildProcess.h"
#include "RecordingRig.h"
#include "TavoRecordingRepair.h"

namespace {

// Repairs `in` into `out` with the library; returns its result and message.
int repair(const std::string& in, const std::string& out, std::string* message) {
    const int inFd = open(in.c_str(), O_RDONLY);
    const int outFd = open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    char text[256] = "";
    const int result = tavo_repair_recording(inFd, outFd, text, sizeof(text));
    close(inFd);
    close(outFd);
    *message = text;
    return result;
}

// A child that records the clip into `path` and reports every multiplex frame it played on
// `progress`, until it is killed.
pid_t startRecordingChild(const std::string& path, int progress[2]) {
    const pid_t child = fork();
    if (child != 0)
        return child;
    close(progress[0]);
    // The child never cleans up: its root goes inside the parent's, which is removed.
    setenv("TMPDIR", path.substr(0, path.rfind('/')).c_str(), 1);
    RecordingRig rig("ERROR");
    rig.startService();
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || rig.engine().startRecording(0, fd) != 0)
        _exit(3);
    close(fd);
    ClipFeed feed;
    for (char second = 1;; ++second) {
        rig.play(feed.nextSecond());
        if (write(progress[1], &second, 1) != 1)
            _exit(4);
    }
}

TEST(RecordingRepair, ARecordingKilledAtManyPointsIsRepairedIntoAPlayableFile) {
    TestRoot root;
    int repaired = 0;
    // Killed after 2 to 9 multiplex frames, at once or a little later inside the next one.
    for (int frames = 2; frames <= 9; ++frames) {
        const std::string path = root.path() + "/killed" + std::to_string(frames) + ".3gp";
        int progress[2];
        ASSERT_EQ(0, pipe(progress));
        const pid_t child = startRecordingChild(path, progress);
        ASSERT_GT(child, 0);
        close(progress[1]);
        char second = 0;
        for (int seen = 0; seen < frames; ++seen)
            ASSERT_EQ(1, read(progress[0], &second, 1)) << "the recording child died";
        if (frames % 2 == 1)
            usleep(1000 * (frames * 7 % 20));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        // The child kept playing until it died: count every frame it finished.
        int played = frames;
        while (read(progress[0], &second, 1) == 1)
            ++played;
        close(progress[0]);
        EXPECT_FALSE(fileHasMoov(path)) << path;

        const std::string before = readTextFile(path);
        const std::string copy = path + ".repaired.3gp";
        std::string message;
        const int result = repair(path, copy, &message);
        EXPECT_EQ(before, readTextFile(path)) << "the input was modified";
        // Two frames may be too few for a chunk of both tracks; later kills must succeed.
        if (frames <= 2 && result == TAVO_REPAIR_NOTHING_RECOVERABLE)
            continue;
        ASSERT_EQ(TAVO_REPAIR_OK, result) << message << " after " << frames << " frames";
        ++repaired;
        expectPlayableRecording(copy);
        // Every sample up to about a second before the kill.
        const double duration = probeStreamDuration(copy, 0);
        EXPECT_GE(duration, played - 2.5) << copy;
        EXPECT_LE(duration, played + 1.5) << copy;
    }
    EXPECT_GE(repaired, 7);
}

TEST(RecordingRepair, FinishedRecordingsLookTheSameWithOrWithoutRepairRecords) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        std::string paths[2];
        for (int withRecords = 0; withRecords < 2; ++withRecords) {
            if (withRecords == 0)
                rig.root().setProperty("persist.mbbms.record.repair", "0");
            else
                rig.root().removeProperty("persist.mbbms.record.repair");
            paths[withRecords] = rig.outputPath("finished" + std::to_string(withRecords) + ".3gp");
            ASSERT_EQ(0, rig.startRecording("finished" + std::to_string(withRecords) + ".3gp"));
            ClipFeed feed;
            rig.playSeconds(feed, 6);
            ASSERT_EQ(0, rig.engine().stopRecording(0));
            expectPlayableRecording(paths[withRecords]);
        }
        // Same packets (times, sizes, flags) and streams; only the file grew a little.
        for (int stream = 0; stream < 2; ++stream) {
            EXPECT_EQ(probePackets(paths[0], stream), probePackets(paths[1], stream)) << stream;
            EXPECT_EQ(probeStreamDuration(paths[0], stream), probeStreamDuration(paths[1], stream));
        }
        const double plainSize = static_cast<double>(readTextFile(paths[0]).size());
        const double recordedSize = static_cast<double>(readTextFile(paths[1]).size());
        EXPECT_LT(recordedSize, plainSize * 1.01);

        // Without records there is nothing to repair from; a finished file with them repairs.
        std::string message;
        EXPECT_EQ(TAVO_REPAIR_NO_RECORDS, repair(paths[0], paths[0] + ".r", &message));
        EXPECT_NE(std::string::npos, message.find("no repair records")) << message;
        EXPECT_EQ(TAVO_REPAIR_OK, repair(paths[1], paths[1] + ".r", &message)) << message;
        expectPlayableRecording(paths[1] + ".r");
    });
}

}  // namespace
