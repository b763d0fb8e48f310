// Recording through the engine into real files, which ffprobe and ffmpeg must read without a
// message: real H.264 and AAC played by the fake agent, the descriptors a recording is handed
// (written from byte 0 with the index patched in place, so append mode or another position is
// refused; the engine's duplicates are not inherited by programs started meanwhile), and the
// repair of recordings whose process was killed (hostile inputs and the tavo_repair tool are in
// RepairHostileInputTest.cpp).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "OpenDescriptors.h"
#include "RecordingRig.h"
#include "TavoRecordingRepair.h"
#include "UniqueHandle.h"

namespace {

const int kVideo = 0;

// The first fed picture at or after `from` that holds an SPS.
size_t firstSpsFrom(const ClipFeed& feed, size_t from) {
    while (!feed.pictureHasSps(from))
        ++from;
    return from;
}

// Repairs `in` into `out` with the library; returns its result and message.
int repair(const std::string& in, const std::string& out, std::string* message) {
    const UniqueFd inFd(open(in.c_str(), O_RDONLY));
    const UniqueFd outFd(open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
    char text[256] = "";
    const int result = tavo_repair_recording(inFd.get(), outFd.get(), text, sizeof(text));
    *message = text;
    return result;
}

// A child that records the clip into `path` and reports every multiplex frame it played on
// the write end of the `progress` pipe, until it is killed.
pid_t startRecordingChild(const std::string& path, UniqueFd& progressRead,
                          const UniqueFd& progressWrite) {
    const pid_t child = fork();
    if (child != 0)
        return child;
    progressRead.reset();
    // The child never cleans up: its root goes inside the parent's, which is removed.
    setenv("TMPDIR", path.substr(0, path.rfind('/')).c_str(), 1);
    RecordingRig rig("ERROR");
    rig.startService();
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
    if (!fd || rig.engine().startRecording(0, fd.get()) != 0)
        _exit(3);
    fd.reset();
    ClipFeed feed;
    for (char second = 1;; ++second) {
        rig.play(feed.nextSecond());
        if (write(progressWrite.get(), &second, 1) != 1)
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
        UniqueFd progressRead(progress[0]), progressWrite(progress[1]);
        const pid_t child = startRecordingChild(path, progressRead, progressWrite);
        ASSERT_GT(child, 0);
        progressWrite.reset();
        char second = 0;
        for (int seen = 0; seen < frames; ++seen)
            ASSERT_EQ(1, read(progressRead.get(), &second, 1)) << "the recording child died";
        if (frames % 2 == 1)
            usleep(1000 * (frames * 7 % 20));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        // The child kept playing until it died: count every frame it finished.
        int played = frames;
        while (read(progressRead.get(), &second, 1) == 1)
            ++played;
        progressRead.reset();
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

// One engine, step by step: two sessions joined midway, the descriptors a recording may be
// handed, and finished recordings with and without repair records.
TEST(RecordingEndToEnd, SessionsDescriptorsAndRepairRecordsOfFinishedRecordings) {
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService(true);
        // The feed starts in the middle of a group of pictures.
        ClipFeed feed(10);
        {
            SCOPED_TRACE("streams joined midway: each file from its first SPS");
            UniqueFd firstOutput = rig.createOutput("session0.3gp");
            UniqueFd secondOutput = rig.createOutput("session1.3gp");
            const int first = firstOutput.get();
            const int second = secondOutput.get();
            ASSERT_EQ(0, rig.engine().startRecording(0, first));
            rig.play(feed.nextSecond());
            const size_t picturesBeforeSecondStart = feed.picturesFed();
            ASSERT_EQ(0, rig.engine().startRecording(1, second));
            EXPECT_TRUE(rig.engine().isRecording(0));
            EXPECT_TRUE(rig.engine().isRecording(1));
            rig.playSeconds(feed, 3);
            firstOutput.reset();
            secondOutput.reset();
            ASSERT_EQ(0, rig.engine().stopRecording(0));
            ASSERT_EQ(0, rig.engine().stopRecording(1));

            const size_t firstSps[2] = {firstSpsFrom(feed, 0),
                                        firstSpsFrom(feed, picturesBeforeSecondStart)};
            ASSERT_GT(firstSps[0], 0u);
            for (int session = 0; session < 2; ++session) {
                SCOPED_TRACE(session);
                const std::string path =
                    rig.outputPath("session" + std::to_string(session) + ".3gp");
                expectPlayableRecording(path);
                std::vector<ProbedPacket> video = probePackets(path, kVideo);
                ASSERT_EQ(feed.picturesFed() - firstSps[session], video.size());
                EXPECT_TRUE(video[0].key);
            }
        }
        {
            SCOPED_TRACE("only a descriptor writable from byte 0; children do not inherit it");
            // Append mode (what ParcelFileDescriptor.MODE_APPEND gives).
            const std::string appended = rig.outputPath("append.3gp");
            UniqueFd output(open(appended.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
            int fd = output.get();
            ASSERT_GE(fd, 0);
            EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
            EXPECT_FALSE(rig.engine().isRecording(0));
            output.reset();
            EXPECT_EQ(0, fileSize(appended));

            // The descriptor of a finished recording shares its offset, now at the file's end:
            // handed in again, it is refused and the finished file stays as it was. Opened
            // without close-on-exec, as an application may.
            const std::string path = rig.outputPath("first.3gp");
            output.reset(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
            fd = output.get();
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
            output.reset();
            rig.playSeconds(feed, 1);
            EXPECT_EQ(2, openDescriptors("first.3gp"));
            UniqueFd witness(
                open(rig.outputPath("witness.txt").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
            ASSERT_GE(witness.get(), 0);
            std::string listing;
            ASSERT_EQ(0, runCommand("ls -l /proc/self/fd/", &listing));
            witness.reset();
            EXPECT_NE(std::string::npos, listing.find("witness.txt")) << listing;
            EXPECT_EQ(std::string::npos, listing.find("first.3gp")) << listing;
            rig.playSeconds(feed, 1);
            ASSERT_EQ(0, rig.engine().stopRecording(0));
            EXPECT_EQ(0, openDescriptors("first.3gp"));
            expectPlayableRecording(path);
        }
        {
            SCOPED_TRACE("finished recordings look the same with or without repair records");
            std::string paths[2];
            for (int withRecords = 0; withRecords < 2; ++withRecords) {
                if (withRecords == 0)
                    rig.root().setProperty("persist.mbbms.record.repair", "0");
                else
                    rig.root().removeProperty("persist.mbbms.record.repair");
                const std::string name = "finished" + std::to_string(withRecords) + ".3gp";
                paths[withRecords] = rig.outputPath(name);
                ASSERT_EQ(0, rig.startRecording(name));
                ClipFeed same;
                rig.playSeconds(same, 6);
                ASSERT_EQ(0, rig.engine().stopRecording(0));
                expectPlayableRecording(paths[withRecords]);
            }
            // Same packets (times, sizes, flags) and streams; only the file grew a little.
            for (int stream = 0; stream < 2; ++stream) {
                EXPECT_EQ(probePackets(paths[0], stream), probePackets(paths[1], stream));
                EXPECT_EQ(probeStreamDuration(paths[0], stream),
                          probeStreamDuration(paths[1], stream));
            }
            EXPECT_LT(static_cast<double>(fileSize(paths[1])),
                      static_cast<double>(fileSize(paths[0])) * 1.01);

            // Without records there is nothing to repair from; a finished file with them does.
            std::string message;
            EXPECT_EQ(TAVO_REPAIR_NO_RECORDS, repair(paths[0], paths[0] + ".r", &message));
            EXPECT_NE(std::string::npos, message.find("no repair records")) << message;
            EXPECT_EQ(TAVO_REPAIR_OK, repair(paths[1], paths[1] + ".r", &message)) << message;
            expectPlayableRecording(paths[1] + ".r");
        }
    });
}

}  // namespace
