#include "RecordingRig.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "ChildProcess.h"

namespace {

std::string run(const std::string& command, int* status) {
    std::string output;
    *status = runCommand(command, &output);
    return output;
}

// ffprobe's CSV lines for one stream's `entries`.
std::vector<std::string> probe(const std::string& path, int stream, const std::string& entries) {
    int status = 0;
    std::istringstream output(run("ffprobe -v error -select_streams " + std::to_string(stream) +
                                      " -show_entries " + entries + " -of csv=p=0 '" + path + "'",
                                  &status));
    EXPECT_EQ(0, status) << output.str();
    std::vector<std::string> lines;
    for (std::string line; std::getline(output, line);)
        lines.push_back(line);
    return lines;
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

void expectPlayableRecording(const std::string& path) {
    int status = -1;
    EXPECT_EQ("", run("ffprobe -v error '" + path + "'", &status)) << path;
    EXPECT_EQ(0, status) << path;
    for (const char* streams : {"", "-map 0 "}) {
        status = -1;
        EXPECT_EQ("",
                  run("ffmpeg -nostdin -v error -xerror -i '" + path + "' " + streams + "-f null -",
                      &status))
            << path;
        EXPECT_EQ(0, status) << path;
    }
    expectPlaysInGStreamer(path);
    const std::string counts =
        run("ffprobe -v error -count_packets -select_streams v:0 -show_entries "
            "stream=nb_frames,nb_read_packets -of csv=p=0 '" +
                path + "'",
            &status);
    long long frames = -1, packets = -2;
    EXPECT_EQ(2, sscanf(counts.c_str(), "%lld,%lld", &frames, &packets)) << counts;
    EXPECT_EQ(frames, packets) << path;
    EXPECT_GT(frames, 0) << path;
    EXPECT_EQ("AVC\n", run("mediainfo --Inform='Video;%Format%' '" + path + "'", &status)) << path;
    EXPECT_EQ("AAC",
              run("mediainfo --Inform='Audio;%Format%' '" + path + "'", &status).substr(0, 3))
        << path;
}

std::vector<ProbedPacket> probePackets(const std::string& path, int stream) {
    std::vector<ProbedPacket> packets;
    for (const std::string& line : probe(path, stream, "packet=pts,size,flags")) {
        ProbedPacket packet;
        char flags[16] = {0};
        if (sscanf(line.c_str(), "%lld,%d,%15s", &packet.pts, &packet.size, flags) != 3)
            ADD_FAILURE() << "unexpected ffprobe line: " << line;
        packet.key = flags[0] == 'K';
        packets.push_back(packet);
    }
    return packets;
}

double probeStreamDuration(const std::string& path, int stream) {
    const std::vector<std::string> lines = probe(path, stream, "stream=duration");
    double duration = -1;
    return !lines.empty() && sscanf(lines[0].c_str(), "%lf", &duration) == 1 ? duration : -1;
}

bool fileHasMoov(const std::string& path) {
    return readTextFile(path).find("moov") != std::string::npos;
}

std::vector<std::string> topLevelBoxes(const std::string& path) {
    std::vector<std::string> boxes;
    UniqueFd file(open(path.c_str(), O_RDONLY));
    const int fd = file.get();
    EXPECT_GE(fd, 0) << path;
    const long long end = fileSize(path);
    unsigned char header[8];
    for (long long offset = 0, size = 0; offset < end; offset += size) {
        size = pread(fd, header, 8, offset) != 8
                   ? 0
                   : (static_cast<long long>(header[0]) << 24) | (header[1] << 16) |
                         (header[2] << 8) | header[3];
        if (size < 8 || offset + size > end) {
            boxes.push_back("truncated");
            break;
        }
        boxes.push_back(std::string(reinterpret_cast<char*>(header) + 4, 4));
    }
    return boxes;
}

void RecordingRig::startService(bool bothSessions) {
    ASSERT_EQ(0, init());
    agent().setNextChannelID(kChannel);
    IsmaPara isma = {};
    isma.serviceID = 601;
    for (int session = 0; session < (bothSessions ? 2 : 1); ++session)
        ASSERT_EQ(0, engine().startTVService(session, 20, 0, 1, 0, &isma));
}

int RecordingRig::startRecording(const std::string& name, int session) {
    const UniqueFd fd = createOutput(name);
    return engine().startRecording(session, fd.get());
}

void RecordingRig::playHere(const MultiplexFrame& frame) {
    const size_t kFragment = 1000;
    MBBMSAgentCallback* callback = agent().callback();
    ASSERT_NE(nullptr, callback);
    const unsigned char raw[16] = {0};
    callback->onOutputAVStart(kChannel, raw, sizeof(raw));
    MediaBytes scratch;
    for (const MultiplexFrame::Unit& video : frame.video) {
        for (size_t at = 0; at < video.bytes.size(); at += kFragment) {
            const size_t length = std::min(kFragment, video.bytes.size() - at);
            const bool first = at == 0, last = at + length == video.bytes.size();
            scratch.assign(video.bytes.begin() + at, video.bytes.begin() + at + length);
            callback->onClearVideoNalData(kChannel, video.tsBase, video.tsRelative, scratch.data(),
                                          static_cast<unsigned short>(length),
                                          first && last ? MBBMSAgent::NAL_FRAGMENT_COMPLETE
                                          : first       ? MBBMSAgent::NAL_FRAGMENT_START
                                          : last        ? MBBMSAgent::NAL_FRAGMENT_END
                                                        : MBBMSAgent::NAL_FRAGMENT_MIDDLE);
        }
    }
    for (const MultiplexFrame::Unit& audio : frame.audio) {
        scratch = audio.bytes;
        callback->onClearAudioAacFrame(kChannel, audio.tsBase, audio.tsRelative, scratch.data(),
                                       static_cast<unsigned short>(scratch.size()));
    }
    callback->onOutputAVEnd(kChannel, false);
}

void RecordingRig::play(const MultiplexFrame& frame) {
    agent().runOnAgentThread([&](MBBMSAgentCallback*) { playHere(frame); });
}

void RecordingRig::playSeconds(ClipFeed& feed, int seconds) {
    while (seconds-- > 0)
        play(feed.nextSecond());
}

int RecordingRig::playUntilRecordingEnds(ClipFeed& feed, int limit) {
    for (int second = 1; second <= limit; ++second) {
        play(feed.nextSecond());
        if (!engine().isRecording(0))
            return second;
    }
    return limit + 1;
}

UniqueFd createFile(const std::string& path) {
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    EXPECT_GE(fd.get(), 0) << "cannot create " << path;
    return fd;
}

void ActOnEvent::onEvent(EventType type, int param) {
    char name[16] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    {
        std::lock_guard<std::mutex> guard(mLock);
        mThreadNames.push_back(name);
    }
    mAct(type, param, [&] { RecordingCallback::onEvent(type, param); });
}

std::vector<std::string> ActOnEvent::threadNames() {
    std::lock_guard<std::mutex> guard(mLock);
    return mThreadNames;
}
