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

}  // namespace

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
