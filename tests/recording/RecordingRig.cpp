#include "RecordingRig.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "FakeAgentAccess.h"

RecordingRig::RecordingRig(const char* logMask) {
    // Read by the engine's constructor, so it must be set before the first getInstance.
    setenv("TAVO_LOGMASK", logMask, 1);
    mEngine = TavoMBBMSEngine::getInstance();
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
    agent().setNextChannelID(kChannel);
    IsmaPara isma = {};
    isma.serviceID = 601;
    for (int session = 0; session < (bothSessions ? 2 : 1); ++session)
        ASSERT_EQ(0, mEngine->startTVService(session, 20, 0, 1, 0, &isma));
}

void RecordingRig::playHere(const MultiplexFrame& frame) {
    const size_t kFragment = 1000;
    MBBMSAgentCallback* callback = agent().callback();
    ASSERT_NE(nullptr, callback);
    const unsigned char raw[16] = {0};
    callback->onOutputAVStart(kChannel, raw, sizeof(raw));
    MediaBytes scratch;
    for (const MultiplexFrame::Video& video : frame.video) {
        for (size_t at = 0; at < video.annexB.size(); at += kFragment) {
            const size_t length = std::min(kFragment, video.annexB.size() - at);
            const bool first = at == 0, last = at + length == video.annexB.size();
            scratch.assign(video.annexB.begin() + at, video.annexB.begin() + at + length);
            callback->onClearVideoNalData(kChannel, video.tsBase, video.tsRelative, scratch.data(),
                                          static_cast<unsigned short>(length),
                                          first && last ? MBBMSAgent::NAL_FRAGMENT_COMPLETE
                                          : first       ? MBBMSAgent::NAL_FRAGMENT_START
                                          : last        ? MBBMSAgent::NAL_FRAGMENT_END
                                                        : MBBMSAgent::NAL_FRAGMENT_MIDDLE);
        }
    }
    for (const MultiplexFrame::Audio& audio : frame.audio) {
        scratch = audio.raw;
        callback->onClearAudioAacFrame(kChannel, audio.tsBase, audio.tsRelative, scratch.data(),
                                       static_cast<unsigned short>(scratch.size()));
    }
    callback->onOutputAVEnd(kChannel, false);
}

void RecordingRig::play(const MultiplexFrame& frame) {
    agent().runOnAgentThread([&](MBBMSAgentCallback*) { playHere(frame); });
}

int RecordingRig::createOutput(const std::string& name) const {
    const int fd = open(outputPath(name).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    EXPECT_GE(fd, 0) << "cannot create " << outputPath(name);
    return fd;
}
