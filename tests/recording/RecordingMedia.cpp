#include "RecordingMedia.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "TestRoot.h"

namespace {

std::string run(const std::string& command, int* status) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        *status = -1;
        return "popen failed";
    }
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
        output.append(chunk, n);
    const int raw = pclose(pipe);
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

}  // namespace

ClipFeed::ClipFeed(size_t startPicture)
    : mPictures(readAnnexBPictures(testMediaPath("clip_320x240_25fps.h264"))),
      mAudio(readAdtsFrames(testMediaPath("clip_24k_stereo.aac"))),
      mStartPicture(startPicture),
      mPicture(startPicture) {
    EXPECT_FALSE(mPictures.empty() || mAudio.empty()) << "cannot read the clips";
}

bool ClipFeed::pictureHasSps(size_t i) const {
    for (const MediaBytes& unit : mPictures[(mStartPicture + i) % mPictures.size()].nalUnits)
        if (nalUnitType(unit) == 7)
            return true;
    return false;
}

MultiplexFrame ClipFeed::nextSecond() {
    MultiplexFrame frame;
    if (mPictures.empty() || mAudio.empty())
        return frame;
    const uint32_t tsBase = kFirstTick + kTicksPerSecond * mSecond;
    const uint32_t secondStart = kTicksPerSecond * mSecond++;
    for (uint32_t at;
         (at = kPictureTicks * (mPicture - mStartPicture)) < secondStart + kTicksPerSecond;
         ++mPicture) {
        for (const MediaBytes& unit : mPictures[mPicture % mPictures.size()].nalUnits) {
            MediaBytes annexB = {0, 0, 0, 1};
            annexB.insert(annexB.end(), unit.begin(), unit.end());
            frame.video.push_back({tsBase, at - secondStart, annexB});
        }
    }
    for (uint32_t at; (at = kAudioFrameTicks * mAudioFrame) < secondStart + kTicksPerSecond;
         ++mAudioFrame)
        frame.audio.push_back({tsBase, at - secondStart, mAudio[mAudioFrame % mAudio.size()]});
    return frame;
}

void expectCleanFile(const std::string& path) {
    int status = -1;
    EXPECT_EQ("", run("ffprobe -v error '" + path + "'", &status)) << path;
    EXPECT_EQ(0, status) << path;
    status = -1;
    EXPECT_EQ("", run("ffmpeg -nostdin -v error -xerror -i '" + path + "' -f null -", &status))
        << path;
    EXPECT_EQ(0, status) << path;
}

std::vector<ProbedPacket> probePackets(const std::string& path, int stream) {
    int status = 0;
    std::istringstream lines(run("ffprobe -v error -select_streams " + std::to_string(stream) +
                                     " -show_entries packet=pts,size,flags -of csv=p=0 '" + path +
                                     "'",
                                 &status));
    EXPECT_EQ(0, status) << lines.str();
    std::vector<ProbedPacket> packets;
    for (std::string line; std::getline(lines, line);) {
        ProbedPacket packet;
        char flags[16] = {0};
        if (sscanf(line.c_str(), "%lld,%d,%15s", &packet.pts, &packet.size, flags) != 3) {
            ADD_FAILURE() << "unexpected ffprobe line: " << line;
            continue;
        }
        packet.key = flags[0] == 'K';
        packets.push_back(packet);
    }
    return packets;
}

double probeStreamDuration(const std::string& path, int stream) {
    int status = 0;
    const std::string output = run("ffprobe -v error -select_streams " + std::to_string(stream) +
                                       " -show_entries stream=duration -of csv=p=0 '" + path + "'",
                                   &status);
    double duration = -1;
    return status == 0 && sscanf(output.c_str(), "%lf", &duration) == 1 ? duration : -1;
}

bool fileHasMoov(const std::string& path) {
    return readTextFile(path).find("moov") != std::string::npos;
}

std::vector<std::string> topLevelBoxes(const std::string& path) {
    std::vector<std::string> boxes;
    const int fd = open(path.c_str(), O_RDONLY);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) {
        ADD_FAILURE() << "cannot open " << path;
        return boxes;
    }
    for (long long offset = 0; offset < status.st_size;) {
        unsigned char header[16];
        long long size = 0;
        if (pread(fd, header, 8, offset) == 8) {
            size = (static_cast<long long>(header[0]) << 24) | (header[1] << 16) |
                   (header[2] << 8) | header[3];
            if (size == 1 && pread(fd, header + 8, 8, offset + 8) == 8) {
                size = 0;
                for (int i = 8; i < 16; ++i)
                    size = (size << 8) | header[i];
            }
        }
        if (size < 8 || offset + size > status.st_size) {
            boxes.push_back("truncated");
            break;
        }
        boxes.push_back(std::string(reinterpret_cast<char*>(header) + 4, 4));
        offset += size;
    }
    close(fd);
    return boxes;
}
