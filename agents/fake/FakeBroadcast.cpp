#include "FakeBroadcast.h"

#include <chrono>
#include <cstdlib>

namespace {

const uint32_t kTicksPerSecond = 22500;
const uint32_t kVideoStep = 900;  // 25 pictures a second
const uint32_t kAudioStep = 960;  // 1,024 samples at 24,000 Hz
const int kPicturesPerFrame = 5;
const int kBreachFrame = 5;  // the frame that commits a one-off breach
const std::chrono::milliseconds kFrameInterval(20);

std::vector<unsigned char> nalUnit(unsigned char header, size_t payload, bool startCode = true) {
    std::vector<unsigned char> bytes;
    if (startCode)
        bytes = {0, 0, 0, 1};
    bytes.push_back(header);
    bytes.resize(bytes.size() + payload, 0x5A);
    return bytes;
}

}  // namespace

std::string FakeBroadcast::breachFromEnvironment() {
    const char* value = getenv("TAVO_FAKE_AGENT_BREACH");
    return value != nullptr ? value : "";
}

FakeBroadcast::FakeBroadcast(const std::string& breach) : mBreach(breach) {}

void FakeBroadcast::start(MBBMSAgentCallback* callback, int channelID) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mThread.joinable())
        return;
    mStop.store(false);
    mThread = std::thread(&FakeBroadcast::run, this, callback, channelID);
}

void FakeBroadcast::join() {
    mStop.store(true);
    std::lock_guard<std::mutex> guard(mLock);
    if (mThread.joinable())
        mThread.join();
}

void FakeBroadcast::run(MBBMSAgentCallback* callback, int channelID) {
    for (int frame = 0; !mStop.load(); ++frame) {
        if (frame == kBreachFrame && commits("unended-bracket")) {
            // Begins a frame and never ends it: the output stops here.
            unsigned char multiplexFrame[64] = {0};
            callback->onOutputAVStart(channelID, multiplexFrame, sizeof(multiplexFrame));
            return;
        }
        if (frame == kBreachFrame && commits("data-thread-changed")) {
            std::thread other(&FakeBroadcast::emitFrame, this, callback, channelID, frame);
            other.join();
        } else {
            emitFrame(callback, channelID, frame);
        }
        std::this_thread::sleep_for(kFrameInterval);
    }
}

void FakeBroadcast::emitVideo(MBBMSAgentCallback* callback, int channelID, uint32_t time,
                              std::vector<unsigned char>* nal,
                              MBBMSAgent::NAL_FRAGMENT_POS_IND pos) {
    callback->onClearVideoNalData(channelID, time, 0, nal->data(),
                                  static_cast<unsigned short>(nal->size()), pos);
}

void FakeBroadcast::emitFrame(MBBMSAgentCallback* callback, int channelID, int frame) {
    const bool breachFrame = frame == kBreachFrame;
    uint32_t videoTime = static_cast<uint32_t>(frame) * kPicturesPerFrame * kVideoStep;
    uint32_t audioTime = static_cast<uint32_t>(frame) * kPicturesPerFrame * kAudioStep;
    if (commits("time-jump") && frame >= kBreachFrame) {
        videoTime += 10 * kTicksPerSecond;
        audioTime += 10 * kTicksPerSecond;
    }
    if (commits("time-backwards") && breachFrame)
        videoTime -= kTicksPerSecond;

    unsigned char multiplexFrame[64] = {0};
    callback->onOutputAVStart(channelID, multiplexFrame, sizeof(multiplexFrame));
    if (breachFrame && commits("nested-bracket")) {
        callback->onOutputAVStart(channelID, multiplexFrame, sizeof(multiplexFrame));
        callback->onOutputAVEnd(channelID, false);
    }
    if (breachFrame && commits("callback-inside-bracket")) {
        SignalStatus status = {20, 1, -60, 20, 0};
        callback->onSignalUpdated(status);
    }

    const bool parameterSets =
        !commits("parameter-sets-missing") && (!commits("parameter-sets-rare") || frame == 0);
    if (parameterSets) {
        std::vector<unsigned char> sps = nalUnit(0x67, 12), pps = nalUnit(0x68, 4);
        emitVideo(callback, channelID, videoTime, &sps, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        emitVideo(callback, channelID, videoTime, &pps, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
    }
    for (int picture = 0; picture < kPicturesPerFrame; ++picture) {
        const uint32_t time = videoTime + static_cast<uint32_t>(picture) * kVideoStep;
        // Each picture in two fragments: START with the start code, then END.
        std::vector<unsigned char> head = nalUnit(picture == 0 ? 0x65 : 0x41, 300);
        std::vector<unsigned char> tail(200, 0x3C);
        emitVideo(callback, channelID, time, &head, MBBMSAgent::NAL_FRAGMENT_START);
        emitVideo(callback, channelID, time, &tail, MBBMSAgent::NAL_FRAGMENT_END);

        std::vector<unsigned char> aac(breachFrame && commits("aac-too-long") ? 2041 : 180, 0x21);
        if (breachFrame && commits("aac-adts-header")) {
            aac[0] = 0xFF;
            aac[1] = 0xF1;
        }
        callback->onClearAudioAacFrame(channelID,
                                       audioTime + static_cast<uint32_t>(picture) * kAudioStep, 0,
                                       aac.data(), static_cast<unsigned short>(aac.size()));
    }
    if (breachFrame && commits("fragment-order")) {
        std::vector<unsigned char> orphan(50, 0x11);
        emitVideo(callback, channelID, videoTime, &orphan, MBBMSAgent::NAL_FRAGMENT_MIDDLE);
    }
    if (breachFrame && commits("nal-start-code")) {
        std::vector<unsigned char> bare = nalUnit(0x41, 100, false);
        emitVideo(callback, channelID, videoTime, &bare, MBBMSAgent::NAL_FRAGMENT_COMPLETE);
    }
    if (breachFrame && commits("frame-too-large")) {
        for (int i = 0; i < 2; ++i) {
            std::vector<unsigned char> big = nalUnit(0x41, 40000);
            emitVideo(callback, channelID, videoTime + 4 * kVideoStep, &big,
                      MBBMSAgent::NAL_FRAGMENT_COMPLETE);
        }
    }
    if (breachFrame && commits("frame-too-many-items")) {
        std::vector<unsigned char> tiny(10, 0x21);
        for (int i = 0; i < 300; ++i) {
            callback->onClearAudioAacFrame(channelID, audioTime + 4 * kAudioStep, 0, tiny.data(),
                                           static_cast<unsigned short>(tiny.size()));
        }
    }
    callback->onOutputAVEnd(channelID, false);

    if (breachFrame && commits("unpaired-bracket"))
        callback->onOutputAVEnd(channelID, false);
    if (breachFrame && commits("data-outside-bracket")) {
        std::vector<unsigned char> late(180, 0x21);
        callback->onClearAudioAacFrame(channelID, audioTime + kPicturesPerFrame * kAudioStep, 0,
                                       late.data(), static_cast<unsigned short>(late.size()));
    }
    if (breachFrame && commits("unknown-event"))
        callback->onEvent(EVENT_RECORD_NO_SDCARD, 0);
}
