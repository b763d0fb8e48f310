// The recorder with the real file writer: its states, its own descriptors, and recordings
// made through the recording manager that ffprobe and ffmpeg read.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "ClipFeed.h"
#include "CmmbFrameCopy.h"
#include "CmmbRecorder.h"
#include "MBBMSRecManager.h"
#include "RecordedFile.h"
#include "SampleCapture.h"
#include "TestRoot.h"

namespace {

int openDescriptorCount() {
    DIR* dir = opendir("/proc/self/fd");
    int count = 0;
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count - 1;  // the directory's own descriptor
}

const std::string kNoWriter = "6 CmmbRecorder no writer!";  // ERROR priority

// The frame as the data path leaves it in a shared buffer: start codes removed.
SharedBufferImage imageOf(const MultiplexFrame& frame) {
    SharedBufferImage image;
    for (const MultiplexFrame::Video& video : frame.video)
        image.addNal(video.tsBase, video.tsRelative,
                     Bytes(video.annexB.begin() + 4, video.annexB.end()));
    for (const MultiplexFrame::Audio& audio : frame.audio)
        image.addAac(audio.tsBase, audio.tsRelative, audio.raw);
    return image;
}

class RecorderFiles : public testing::Test {
protected:
    int createOutput(const std::string& name) {
        int fd = open((root.path() + "/" + name).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
        EXPECT_GE(fd, 0);
        return fd;
    }
    std::string path(const std::string& name) { return root.path() + "/" + name; }
    int record(MBBMSRecManager& manager, CmmbRecorder* recorder, const MultiplexFrame& frame) {
        SharedBufferImage image = imageOf(frame);
        manager.read_to_new_sharedbuf(copy.get(), image.bytes());
        return manager.dataRecording(recorder, copy.get());
    }

    TestRoot root{""};
    CapturedLog log;
    std::unique_ptr<unsigned char[]> copy{new unsigned char[CMMB_FRAME_COPY_MAX_SIZE]};
};

TEST_F(RecorderFiles, WithoutAWriterOnlyStopAndInitSucceed) {
    CmmbRecorder recorder;
    _CmmbOutBuffer* sample = &recorder.scratch().sample;
    recorder.LockRecorder();
    EXPECT_EQ(-1015, recorder.writeout(sample));
    recorder.UnlockRecorder();
    EXPECT_EQ(-1015, recorder.pause());
    EXPECT_EQ(-1015, recorder.resume());
    EXPECT_EQ(-1015, recorder.queryCurrentMoovLength());
    EXPECT_EQ(4, log.count(kNoWriter));
    EXPECT_FALSE(recorder.mWaitForIdr);
    EXPECT_EQ(0, recorder.stop());
    EXPECT_EQ(0, recorder.init());
    EXPECT_EQ(-1015, recorder.setOutputFile("/tmp/out.3gp"));
}

TEST_F(RecorderFiles, TheRecorderHoldsOneDuplicateOfTheOutputUntilStopOrDestruction) {
    const int baseline = openDescriptorCount();
    int fd = createOutput("out.3gp");
    {
        CmmbRecorder recorder;
        EXPECT_EQ(0, recorder.setOutputFile(fd, 0, 0));
        EXPECT_EQ(baseline + 2, openDescriptorCount());
        EXPECT_EQ(0, recorder.setOutputFile(fd, 0, 0));  // the first duplicate is closed
        EXPECT_EQ(baseline + 2, openDescriptorCount());
        EXPECT_EQ(-1015, recorder.setOutputFile(fd, 10, 0));
        EXPECT_EQ(-1015, recorder.setOutputFile(fd, 0, 100));
        EXPECT_EQ(0, recorder.stop());  // no writer: the descriptor stays
        EXPECT_EQ(baseline + 2, openDescriptorCount());
    }
    EXPECT_EQ(baseline + 1, openDescriptorCount());

    CmmbRecorder recorder;
    ASSERT_EQ(0, recorder.setOutputFile(fd, 0, 0));
    close(fd);
    ASSERT_EQ(0, recorder.start());
    EXPECT_EQ(baseline + 2, openDescriptorCount());  // its own and the writer's
    EXPECT_EQ(-1015, recorder.start());
    EXPECT_EQ(1, log.count("6 CmmbRecorder File writer is not avaialble"));
    EXPECT_EQ(-1002, recorder.stop());  // nothing was recorded
    EXPECT_EQ(baseline, openDescriptorCount());
}

TEST_F(RecorderFiles, StartingWithoutAnOutputFails) {
    CmmbRecorder recorder;
    EXPECT_EQ(-1015, recorder.start());
    EXPECT_EQ(1, log.count("6 CmmbRecorder dup mOutputFd failed"));
    EXPECT_EQ(0, recorder.stop());
}

TEST_F(RecorderFiles, APausedRecordingResumesAtTheNextIdrWithoutAGapInTheFile) {
    MBBMSRecManager manager;
    int fd = createOutput("paused.3gp");
    ASSERT_EQ(0, manager.startRecording(0, fd));
    close(fd);
    CmmbRecorder* recorder = manager.getRecorder(0);
    ClipFeed feed(10);
    // Pictures 10-34: recorded from the SPS at 25.
    ASSERT_EQ(0, record(manager, recorder, feed.nextSecond()));
    EXPECT_GT(manager.queryCurrentMoovLength(0), 0);

    ASSERT_EQ(0, recorder->pause());
    ASSERT_EQ(0, record(manager, recorder, feed.nextSecond()));  // 35-59: dropped
    ASSERT_EQ(0, recorder->resume());
    // Resumed in the middle of a group of pictures: 60-74 wait for the IDR at 75.
    ASSERT_EQ(0, record(manager, recorder, feed.nextSecond()));
    ASSERT_EQ(0, record(manager, recorder, feed.nextSecond()));  // 85-109, IDR at 100
    ASSERT_EQ(0, manager.stopRecording(0));

    const std::string file = path("paused.3gp");
    int status = -1;
    EXPECT_EQ("", probeMessages(file, &status));
    EXPECT_EQ(0, status);
    EXPECT_EQ("", decodeMessages(file, &status));
    EXPECT_EQ(0, status);
    std::vector<ProbedPacket> video;
    for (const ProbedPacket& packet : probePackets(file))
        if (packet.stream == 0)
            video.push_back(packet);
    ASSERT_EQ(10u + 10u + 25u, video.size());
    EXPECT_TRUE(video[0].key);
    EXPECT_TRUE(video[10].key);
    EXPECT_TRUE(video[35].key);  // picture 100
    for (size_t i = 0; i < video.size(); ++i)
        EXPECT_EQ(static_cast<long long>(900 * i), video[i].pts) << i;
}

TEST_F(RecorderFiles, ADestroyedManagerReleasesTheRecordersItHolds) {
    const int baseline = openDescriptorCount();
    {
        MBBMSRecManager manager;
        int fd = createOutput("a.3gp");
        ASSERT_EQ(0, manager.startRecording(1, fd));
        close(fd);
        EXPECT_EQ(baseline + 2, openDescriptorCount());
    }
    EXPECT_EQ(baseline, openDescriptorCount());
}

}  // namespace
