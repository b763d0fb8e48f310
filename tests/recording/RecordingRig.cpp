#include "RecordingRig.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "FakeAgentAccess.h"

namespace {

const size_t kFragmentBytes = 1000;
const uint32_t kTicksPerSecond = 22500;

std::string runCommand(const std::string& command, int* status) {
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
    int raw = pclose(pipe);
    *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return output;
}

std::string quoted(const std::string& path) {
    return "'" + path + "'";
}

MediaBytes withStartCode(const MediaBytes& unit) {
    MediaBytes annexB = {0, 0, 0, 1};
    annexB.insert(annexB.end(), unit.begin(), unit.end());
    return annexB;
}

}  // namespace

ClipFeed::ClipFeed(size_t startPicture, bool oneUnitPerPicture)
    : mPictures(readAnnexBPictures(testMediaPath("clip_320x240_25fps.h264"))),
      mAudio(readAdtsFrames(testMediaPath("clip_24k_stereo.aac"))),
      mStartPicture(startPicture),
      mOneUnitPerPicture(oneUnitPerPicture),
      mPicture(startPicture),
      mAudioFrame(0),
      mSecond(0) {
    EXPECT_FALSE(mPictures.empty()) << "cannot read the H.264 clip";
    EXPECT_FALSE(mAudio.empty()) << "cannot read the AAC clip";
}

bool ClipFeed::pictureHasSps(size_t i) const {
    const H264Picture& picture = mPictures[(mStartPicture + i) % mPictures.size()];
    for (const MediaBytes& unit : picture.nalUnits)
        if (nalUnitType(unit) == 7)
            return true;
    return false;
}

MultiplexFrame ClipFeed::nextSecond() {
    MultiplexFrame frame;
    if (mPictures.empty() || mAudio.empty())
        return frame;
    const uint32_t tsBase = kFirstTick + kTicksPerSecond * mSecond;
    const uint32_t secondStart = kTicksPerSecond * mSecond;
    const uint32_t secondEnd = secondStart + kTicksPerSecond;
    ++mSecond;

    for (;;) {
        const uint32_t at = kPictureTicks * static_cast<uint32_t>(mPicture - mStartPicture);
        if (at >= secondEnd)
            break;
        const H264Picture& picture = mPictures[mPicture % mPictures.size()];
        if (mOneUnitPerPicture) {
            MediaBytes joined;
            for (const MediaBytes& unit : picture.nalUnits) {
                MediaBytes annexB = withStartCode(unit);
                joined.insert(joined.end(), annexB.begin(), annexB.end());
            }
            frame.video.push_back({tsBase, at - secondStart, joined});
        } else {
            for (const MediaBytes& unit : picture.nalUnits)
                frame.video.push_back({tsBase, at - secondStart, withStartCode(unit)});
        }
        ++mPicture;
    }
    for (;;) {
        const uint32_t at = kAudioFrameTicks * static_cast<uint32_t>(mAudioFrame);
        if (at >= secondEnd)
            break;
        frame.audio.push_back({tsBase, at - secondStart, mAudio[mAudioFrame % mAudio.size()]});
        ++mAudioFrame;
    }
    return frame;
}

RecordingRig::RecordingRig(const char* logMask, long long sdcardBytes)
    : mEngine(nullptr), mChannelID(-1), mMountedSdcard(false) {
    if (sdcardBytes > 0) {
        std::string failure = mountPrivateTmpfs(mRoot.resolve("/sdcard"), sdcardBytes);
        EXPECT_EQ("", failure);
        mMountedSdcard = failure.empty();
    }
    // Read by the engine's constructor, so it must be set before the first getInstance.
    setenv("TAVO_LOGMASK", logMask, 1);
    mEngine = TavoMBBMSEngine::getInstance();
}

RecordingRig::~RecordingRig() {
    // Lets the test root be removed; descriptors still open on the tmpfs keep it alive.
    if (mMountedSdcard)
        umount2(mRoot.resolve("/sdcard").c_str(), MNT_DETACH);
}

FakeAgentControl& RecordingRig::agent() {
    FakeAgentControl* agent = fakeAgentAt(mRoot.resolve("/system/lib/libsiano.so"));
    if (agent == nullptr) {
        ADD_FAILURE() << "the engine has no fake agent";
        abort();
    }
    return *agent;
}

void RecordingRig::startService(bool bothSessions) {
    ASSERT_EQ(0, mEngine->init(&mApp, nullptr));
    agent().setNextChannelID(5);
    IsmaPara isma = {};
    isma.serviceID = 601;
    ASSERT_EQ(0, mEngine->startTVService(0, 20, 0, 1, 0, &isma));
    if (bothSessions) {
        ASSERT_EQ(0, mEngine->startTVService(1, 20, 0, 1, 0, &isma));
    }
    mChannelID = 5;
}

void RecordingRig::playHere(const MultiplexFrame& frame) {
    MBBMSAgentCallback* callback = agent().callback();
    ASSERT_NE(nullptr, callback);
    static const unsigned char kRawFrame[16] = {0};
    callback->onOutputAVStart(mChannelID, kRawFrame, sizeof(kRawFrame));
    MediaBytes scratch;
    for (const MultiplexFrame::Video& video : frame.video) {
        for (size_t at = 0; at < video.annexB.size(); at += kFragmentBytes) {
            const size_t length = std::min(kFragmentBytes, video.annexB.size() - at);
            const bool first = at == 0;
            const bool last = at + length == video.annexB.size();
            MBBMSAgent::NAL_FRAGMENT_POS_IND pos = first && last ? MBBMSAgent::NAL_FRAGMENT_COMPLETE
                                                   : first       ? MBBMSAgent::NAL_FRAGMENT_START
                                                   : last        ? MBBMSAgent::NAL_FRAGMENT_END
                                                                 : MBBMSAgent::NAL_FRAGMENT_MIDDLE;
            scratch.assign(video.annexB.begin() + at, video.annexB.begin() + at + length);
            callback->onClearVideoNalData(mChannelID, video.tsBase, video.tsRelative,
                                          scratch.data(), static_cast<unsigned short>(length), pos);
        }
    }
    for (const MultiplexFrame::Audio& audio : frame.audio) {
        scratch = audio.raw;
        callback->onClearAudioAacFrame(mChannelID, audio.tsBase, audio.tsRelative, scratch.data(),
                                       static_cast<unsigned short>(scratch.size()));
    }
    callback->onOutputAVEnd(mChannelID, false);
}

void RecordingRig::play(const MultiplexFrame& frame) {
    agent().runOnAgentThread([&](MBBMSAgentCallback*) { playHere(frame); });
}

std::string RecordingRig::outputPath(const std::string& name) const {
    return mRoot.path() + "/" + name;
}

int RecordingRig::createOutput(const std::string& name) const {
    int fd = open(outputPath(name).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    EXPECT_GE(fd, 0) << "cannot create " << outputPath(name) << ": " << strerror(errno);
    return fd;
}

std::string probeMessages(const std::string& path, int* status) {
    return runCommand("ffprobe -v error " + quoted(path), status);
}

std::string decodeMessages(const std::string& path, int* status) {
    return runCommand("ffmpeg -nostdin -v error -xerror -i " + quoted(path) + " -f null -", status);
}

std::vector<ProbedPacket> probePackets(const std::string& path) {
    int status = 0;
    std::string output = runCommand(
        "ffprobe -v error -show_entries packet=stream_index,pts,size,flags -of csv=p=0 " +
            quoted(path),
        &status);
    std::vector<ProbedPacket> packets;
    EXPECT_EQ(0, status) << output;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        ProbedPacket packet;
        char flags[16] = {0};
        if (sscanf(line.c_str(), "%d,%lld,%d,%15s", &packet.stream, &packet.pts, &packet.size,
                   flags) != 4) {
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
    std::string output =
        runCommand("ffprobe -v error -select_streams " + std::to_string(stream) +
                       " -show_entries stream=duration -of csv=p=0 " + quoted(path),
                   &status);
    double duration = -1;
    if (status != 0 || sscanf(output.c_str(), "%lf", &duration) != 1)
        return -1;
    return duration;
}

bool fileHasMoov(const std::string& path) {
    return readTextFile(path).find("moov") != std::string::npos;
}

std::string mountPrivateTmpfs(const std::string& dir, long long bytes) {
    if (unshare(CLONE_NEWNS) != 0)
        return std::string("unshare: ") + strerror(errno);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return std::string("making mounts private: ") + strerror(errno);
    const std::string options = "size=" + std::to_string(bytes);
    if (mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) != 0)
        return std::string("mount tmpfs: ") + strerror(errno);
    return "";
}

bool canMountTmpfs(std::string* reason) {
    char dir[] = "/tmp/tavo-mount-probe-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        *reason = "mkdtemp failed";
        return false;
    }
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        rmdir(dir);
        *reason = "pipe failed";
        return false;
    }
    pid_t child = fork();
    if (child == 0) {
        close(pipeFds[0]);
        std::string failure = mountPrivateTmpfs(dir, 1 << 20);
        if (!failure.empty() && write(pipeFds[1], failure.data(), failure.size()) < 0)
            _exit(2);
        _exit(failure.empty() ? 0 : 1);
    }
    close(pipeFds[1]);
    char text[256] = {0};
    ssize_t n = read(pipeFds[0], text, sizeof(text) - 1);
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    rmdir(dir);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    *reason = n > 0 ? std::string(text) : "the probe child failed";
    return false;
}
