// The broadcast simulator seen as the engine sees it: loaded with dlopen from its own
// library, driven through MBBMSAgent, observed through an MBBMSAgentCallback that checks
// the data bracket as it arrives and reassembles what the agent delivered.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "MBBMSAgent.h"
#include "MediaFiles.h"
#include "TestRoot.h"

namespace {

constexpr size_t kPayloadLimit = 65534;
constexpr size_t kRecordLimit = 256;

struct ChannelStream {
    std::vector<MediaBytes> nalUnits;  // reassembled, start codes removed
    std::vector<MediaBytes> aacFrames;
    std::vector<uint32_t> nalTimes;  // tsBase + tsRelative of each unit
    std::vector<uint32_t> aacTimes;
    int frames = 0;
};

// Records the agent's results and events as lines and checks every data callback against
// the bracket contract; violations are collected as text so the test can print them.
class CheckingCallback : public MBBMSAgentCallback {
public:
    std::vector<std::string> lines() {
        std::lock_guard<std::mutex> guard(mLock);
        return mLines;
    }
    int count(const std::string& prefix) {
        std::lock_guard<std::mutex> guard(mLock);
        return countLocked(prefix);
    }
    bool waitFor(const std::string& prefix, int n = 1) {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, std::chrono::seconds(30),
                                 [&] { return countLocked(prefix) >= n; });
    }
    // Waits until every channel in `channels` has delivered at least `frames` frames.
    bool waitForFrames(const std::vector<int>& channels, int frames) {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, std::chrono::seconds(60), [&] {
            for (int channel : channels) {
                if (mStreams[channel].frames < frames)
                    return false;
            }
            return true;
        });
    }
    std::vector<std::string> violations() {
        std::lock_guard<std::mutex> guard(mLock);
        return mViolations;
    }
    ChannelStream stream(int channel) {
        std::lock_guard<std::mutex> guard(mLock);
        return mStreams[channel];
    }
    std::set<int> startCodeLengths() {
        std::lock_guard<std::mutex> guard(mLock);
        return mStartCodeLengths;
    }
    std::set<int> fragmentPositions() {
        std::lock_guard<std::mutex> guard(mLock);
        return mPositions;
    }
    int dataCalls() {
        std::lock_guard<std::mutex> guard(mLock);
        return mDataCalls;
    }

    void onServiceParam(ServiceParam& p) override {
        add("onServiceParam(" + std::to_string(p.freqDot) + ", " + std::to_string(p.serviceID) +
            ")");
    }
    void onCaInfo(CaInfo* info, int size) override {
        add("onCaInfo(" + std::to_string(size) + ", " + std::to_string(info[0].serviceID) + ")");
    }
    void onEmergencyMessage(EmergencyMessage& m) override {
        char key[64];
        snprintf(key, sizeof(key), "%u %u %u %u %u", m.msgType, m.msgLevel, m.networkLevel,
                 m.networkNumber, m.msgID);
        add(std::string("onEmergencyMessage(") + key + ")");
    }
    void onTS0Parsed(int freqDot) override { add("onTS0Parsed(" + std::to_string(freqDot) + ")"); }
    void onESGXml(ESGType type, const char* xml) override {
        add("onESGXml(" + std::to_string(type) + ", " + xml + ")");
    }
    void onESGUpdated(bool done) override { add("onESGUpdated(" + std::to_string(done) + ")"); }
    void onScanFinished(bool done) override { add("onScanFinished(" + std::to_string(done) + ")"); }
    void onSignalUpdated(SignalStatus& s) override {
        add("onSignalUpdated(" + std::to_string(s.freqDot) + ", " + std::to_string(s.locked) + ")");
    }
    void onRequestUpdateSG(bool done, const char* info, const char* info2) override {
        add("onRequestUpdateSG(" + std::to_string(done) + ", " + info + ", " + info2 + ")");
    }
    void onRequestInitGBA(bool done) override {
        add("onRequestInitGBA(" + std::to_string(done) + ")");
    }
    void onRequestUpdateST(bool done, const char* info) override {
        add("onRequestUpdateST(" + std::to_string(done) + ", " + info + ")");
    }
    void onRequestSubscribeService(bool done) override {
        add("onRequestSubscribeService(" + std::to_string(done) + ")");
    }
    void onRequestUnsubscribeService(bool done) override {
        add("onRequestUnsubscribeService(" + std::to_string(done) + ")");
    }
    void onRequestInquiryAccount(bool done, const char* info) override {
        add("onRequestInquiryAccount(" + std::to_string(done) + ", " + info + ")");
    }
    void onRequestAuthorizeService(bool done) override {
        add("onRequestAuthorizeService(" + std::to_string(done) + ")");
    }
    void onEvent(EventType type, int param) override {
        add("onEvent(" + std::to_string(type) + ", " + std::to_string(param) + ")");
    }

    void onOutputAVStart(int channelID, const unsigned char* data, int length) override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mDataCalls;
        if (mInFrame)
            violation("frame of channel " + std::to_string(channelID) + " overlaps one of " +
                      std::to_string(mFrameChannel));
        if (data == nullptr || length < 4 || data[0] != 0 || data[1] != 0 || data[2] != 0 ||
            data[3] != 1)
            violation("multiplex frame payload does not begin with its start code");
        mInFrame = true;
        mFrameChannel = channelID;
        mFrameBytes = 0;
        mFrameNals = 0;
        mFrameAacs = 0;
        mFrameHasAudio = false;
        mFrameBaseSet = false;
        mOpenNal.clear();
        mNalOpen = false;
    }

    void onOutputAVEnd(int channelID, bool withError) override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mDataCalls;
        checkInFrame(channelID, "end");
        if (withError)
            violation("frame ended with an error");
        if (mNalOpen)
            violation("NAL unit left open at the end of a frame");
        if (mFrameBytes > kPayloadLimit)
            violation("frame payload " + std::to_string(mFrameBytes));
        if (mFrameNals > kRecordLimit || mFrameAacs > kRecordLimit)
            violation("too many records");
        mInFrame = false;
        mStreams[channelID].frames += 1;
        mChanged.notify_all();
    }

    void onClearAudioAacFrame(int channelID, unsigned long tsBase, unsigned long tsRelative,
                              unsigned char* data, unsigned short length) override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mDataCalls;
        checkInFrame(channelID, "audio");
        checkBase(tsBase);
        if (length >= 2 && data[0] == 0xFF && (data[1] & 0xF0) == 0xF0)
            violation("AAC frame has an ADTS header");
        mFrameHasAudio = true;
        mFrameBytes += length + 7u;
        mFrameAacs += 1;
        ChannelStream& stream = mStreams[channelID];
        stream.aacFrames.emplace_back(data, data + length);
        stream.aacTimes.push_back(static_cast<uint32_t>(tsBase + tsRelative));
    }

    void onClearVideoNalData(int channelID, unsigned long tsBase, unsigned long tsRelative,
                             unsigned char* data, unsigned short length,
                             MBBMSAgent::NAL_FRAGMENT_POS_IND pos) override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mDataCalls;
        checkInFrame(channelID, "video");
        checkBase(tsBase);
        if (mFrameHasAudio)
            violation("video after audio within a frame");
        mPositions.insert(pos);
        const bool begins = (pos & 2) != 0;
        const bool ends = (pos & 1) != 0;
        size_t skip = 0;
        if (begins) {
            if (mNalOpen)
                violation("new NAL unit while one is open");
            if (length >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) {
                skip = 4;
            } else if (length >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) {
                skip = 3;
            } else {
                violation("NAL unit without start code");
            }
            mStartCodeLengths.insert(static_cast<int>(skip));
            mOpenNal.assign(data + skip, data + length);
            mOpenTime = static_cast<uint32_t>(tsBase + tsRelative);
            mNalOpen = true;
        } else {
            if (!mNalOpen)
                violation("continuation of a NAL unit that was not begun");
            mOpenNal.insert(mOpenNal.end(), data, data + length);
        }
        if (ends && mNalOpen) {
            ChannelStream& stream = mStreams[channelID];
            mFrameBytes += mOpenNal.size();
            mFrameNals += 1;
            stream.nalUnits.push_back(mOpenNal);
            stream.nalTimes.push_back(mOpenTime);
            mNalOpen = false;
        }
    }

private:
    void add(const std::string& line) {
        std::lock_guard<std::mutex> guard(mLock);
        mLines.push_back(line);
        mChanged.notify_all();
    }
    int countLocked(const std::string& prefix) {
        int n = 0;
        for (const std::string& line : mLines)
            n += line.compare(0, prefix.size(), prefix) == 0;
        return n;
    }
    void violation(const std::string& what) {
        if (mViolations.size() < 20)
            mViolations.push_back(what);
    }
    void checkInFrame(int channelID, const char* what) {
        if (!mInFrame || mFrameChannel != channelID)
            violation(std::string(what) + " outside the frame of channel " +
                      std::to_string(channelID));
    }
    void checkBase(unsigned long tsBase) {
        if (!mFrameBaseSet) {
            mFrameBase = tsBase;
            mFrameBaseSet = true;
        } else if (tsBase != mFrameBase) {
            violation("tsBase changes within a frame");
        }
    }

    std::mutex mLock;
    std::condition_variable mChanged;
    std::vector<std::string> mLines;
    std::vector<std::string> mViolations;
    std::map<int, ChannelStream> mStreams;
    std::set<int> mStartCodeLengths;
    std::set<int> mPositions;
    int mDataCalls = 0;
    bool mInFrame = false;
    int mFrameChannel = -1;
    size_t mFrameBytes = 0, mFrameNals = 0, mFrameAacs = 0;
    bool mFrameHasAudio = false;
    bool mFrameBaseSet = false;
    unsigned long mFrameBase = 0;
    MediaBytes mOpenNal;
    uint32_t mOpenTime = 0;
    bool mNalOpen = false;
};

// The simulator library, loaded fresh for each test with its properties in a new root.
class SimAgentTest : public testing::Test {
protected:
    void SetUp() override {
        mRoot.setProperty("persist.tavo.sim.speed", "50");
        mLibrary = dlopen(TAVO_SIM_AGENT_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, mLibrary) << dlerror();
        auto create = reinterpret_cast<CreateAgentFunc>(dlsym(mLibrary, "createAgent"));
        mDestroy = reinterpret_cast<DestroyAgentFunc>(dlsym(mLibrary, "destroyAgent"));
        ASSERT_NE(nullptr, create);
        ASSERT_NE(nullptr, mDestroy);
        mAgent = create();
        ASSERT_NE(nullptr, mAgent);
    }
    void TearDown() override {
        if (mAgent != nullptr)
            mDestroy(mAgent);
        if (mLibrary != nullptr)
            dlclose(mLibrary);
    }
    void initAgent() {
        ASSERT_EQ(0, mAgent->preInitStep1());
        ASSERT_EQ(0, mAgent->preInitStep2());
        ASSERT_NE(-1, mAgent->init(&mCallback, "/tmp", "/tmp"));
    }
    int startService(int freqDot, int serviceID, int* channelID) {
        IsmaPara isma{};
        isma.serviceID = static_cast<uint16_t>(serviceID);
        return mAgent->startService(channelID, freqDot, 0, 0, 1, &isma);
    }

    TestRoot mRoot{""};
    void* mLibrary = nullptr;
    DestroyAgentFunc mDestroy = nullptr;
    MBBMSAgent* mAgent = nullptr;
    CheckingCallback mCallback;
};

std::string contentPath(int serviceID, const char* extension) {
    return std::string(TAVO_SIM_CONTENT_DIR) + "/" + std::to_string(serviceID) + extension;
}

TEST_F(SimAgentTest, ScanTuneAndTableUpdatesReportTheNetwork) {
    initAgent();
    EXPECT_EQ(2, mAgent->getMaxSupportedSessions());
    EXPECT_EQ(-1, mAgent->getFrequency());

    int freqDots[] = {13, 17, 20};
    ASSERT_EQ(0, mAgent->startScan(freqDots, 3));
    ASSERT_TRUE(mCallback.waitFor("onScanFinished(1)"));
    EXPECT_EQ(1, mCallback.count("onSignalUpdated(13, 1)"));
    EXPECT_EQ(1, mCallback.count("onSignalUpdated(17, 0)"));
    EXPECT_EQ(1, mCallback.count("onSignalUpdated(20, 1)"));

    ASSERT_EQ(0, mAgent->setFrequency(20));
    EXPECT_EQ(20, mAgent->getFrequency());
    ASSERT_EQ(0, mAgent->startUpdateTS0(20));
    ASSERT_TRUE(mCallback.waitFor("onTS0Parsed(20)"));
    EXPECT_EQ(1, mCallback.count("onServiceParam(20, 201)"));
    EXPECT_EQ(1, mCallback.count("onServiceParam(20, 202)"));
    EXPECT_EQ(1, mCallback.count("onCaInfo(1, 201)"));  // 201 is scrambled
    // TS0 keeps being reported while the update runs.
    ASSERT_TRUE(mCallback.waitFor("onTS0Parsed(20)", 2));
    EXPECT_EQ(0, mAgent->stopUpdateTS0());

    ASSERT_EQ(0, mAgent->startUpdateESG(20, 0, 0, 1));
    ASSERT_TRUE(mCallback.waitFor("onESGUpdated("));
    EXPECT_EQ(1, mCallback.count("onESGUpdated(1)"));
    for (int id : {101, 102, 201, 202, 301, 302}) {
        std::string service = "onESGXml(" + std::to_string(ESG_SERVICE) +
                              ", <Service serviceID=\"" + std::to_string(id) + "\"";
        EXPECT_EQ(1, mCallback.count(service)) << id;
    }
    EXPECT_GT(mCallback.count("onESGXml(" + std::to_string(ESG_SCHEDULE)), 0);

    // The emergency broadcast comes twice, identical, then not again for a while.
    ASSERT_TRUE(mCallback.waitFor("onEmergencyMessage(", 2));
    std::vector<std::string> messages;
    for (const std::string& line : mCallback.lines()) {
        if (line.rfind("onEmergencyMessage(", 0) == 0)
            messages.push_back(line);
    }
    EXPECT_EQ(messages[0], messages[1]);
}

TEST_F(SimAgentTest, MbbmsRequestsCompleteOneAtATime) {
    initAgent();
    ASSERT_EQ(0, mAgent->requestUpdateSG("Beijing"));
    EXPECT_EQ(-1, mAgent->requestInitGBA(0));  // the SG update is still in progress
    ASSERT_TRUE(mCallback.waitFor("onRequestUpdateSG(1, area=Beijing"));
    EXPECT_EQ(0, mCallback.count("onRequestInitGBA("));

    const char* ids[] = {"pkg-news", "pkg-sports"};
    ASSERT_EQ(0, mAgent->requestSubscribeService(ids, 2));
    ASSERT_TRUE(mCallback.waitFor("onRequestSubscribeService(1)"));
    ASSERT_EQ(0, mAgent->requestInquiryAccount());
    ASSERT_TRUE(mCallback.waitFor("onRequestInquiryAccount(1, "));
    std::string inquiry;
    for (const std::string& line : mCallback.lines()) {
        if (line.rfind("onRequestInquiryAccount(", 0) == 0)
            inquiry = line;
    }
    EXPECT_NE(std::string::npos, inquiry.find("subscribed=pkg-news,pkg-sports")) << inquiry;

    ASSERT_EQ(0, mAgent->requestUpdateST());
    ASSERT_EQ(0, mAgent->cancelMBBMSRequest(7));
    ASSERT_TRUE(mCallback.waitFor("onRequestUpdateST("));
    EXPECT_EQ(1, mCallback.count("onRequestUpdateST(0, "));
    EXPECT_EQ(-1, mAgent->cancelMBBMSRequest(7));  // nothing pending any more

    ASSERT_EQ(0, mAgent->requestInitGBA(1));
    ASSERT_TRUE(mCallback.waitFor("onRequestInitGBA(1)"));
}

TEST_F(SimAgentTest, BadCallsAreRefusedWithoutHarm) {
    int channel = -1;
    EXPECT_EQ(-1, startService(13, 101, &channel));  // before init
    initAgent();
    EXPECT_EQ(-1, startService(20, 101, &channel));  // 101 is carried on 13 only
    EXPECT_EQ(-1, startService(13, 999, &channel));
    EXPECT_EQ(-1, mAgent->startService(nullptr, 13, 0, 0, 1, nullptr));
    EXPECT_EQ(-1, mAgent->stopService(12345));
    EXPECT_EQ(-1, mAgent->startUpdateTS0(99));
    EXPECT_EQ(-1, mAgent->startUpdateESG(99, 0, 0, 0));
    EXPECT_EQ(-1, mAgent->cancelMBBMSRequest(1));

    int first = -1, second = -1, third = -1;
    ASSERT_EQ(0, startService(13, 101, &first));
    EXPECT_GE(first, 0);
    // The tuner is held on 13 while a service runs there.
    EXPECT_EQ(-1, startService(20, 201, &third));
    EXPECT_EQ(-1, mAgent->setFrequency(33));
    ASSERT_EQ(0, startService(13, 102, &second));
    EXPECT_NE(first, second);
    EXPECT_EQ(-1, startService(13, 101, &third));  // no third channel

    EXPECT_EQ(0, mAgent->stopService(first));
    EXPECT_EQ(-1, mAgent->stopService(first));  // stopped twice
    EXPECT_EQ(0, mAgent->stopService(second));
    // Services by time slots, with no IsmaPara.
    EXPECT_EQ(0, mAgent->startService(&third, 20, 5, 3, 1, nullptr));
    EXPECT_EQ(0, mAgent->stopService(third));
    EXPECT_TRUE(mCallback.violations().empty());
}

TEST_F(SimAgentTest, ChannelsDeliverTheirContentInSeparateWellFormedFrames) {
    initAgent();
    int news = -1, sports = -1;
    ASSERT_EQ(0, startService(13, 101, &news));
    ASSERT_EQ(0, startService(13, 102, &sports));
    // 18 seconds of content: past the end of the 16-second loops.
    ASSERT_TRUE(mCallback.waitForFrames({news, sports}, 18));
    ASSERT_EQ(0, mAgent->deinit());
    int callsAfterDeinit = mCallback.dataCalls();

    std::vector<std::string> violations = mCallback.violations();
    EXPECT_TRUE(violations.empty()) << violations.front();
    EXPECT_EQ((std::set<int>{3, 4}), mCallback.startCodeLengths());
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), mCallback.fragmentPositions());

    // What arrived is the service's content, in order, looping back to its start.
    std::vector<H264Picture> pictures = readAnnexBPictures(contentPath(101, ".h264"));
    std::vector<MediaBytes> sourceNals;
    for (const H264Picture& picture : pictures) {
        sourceNals.insert(sourceNals.end(), picture.nalUnits.begin(), picture.nalUnits.end());
    }
    std::vector<MediaBytes> sourceAac = readAdtsFrames(contentPath(101, ".aac"));
    ASSERT_FALSE(sourceNals.empty());
    ASSERT_FALSE(sourceAac.empty());

    ChannelStream stream = mCallback.stream(news);
    ASSERT_GT(stream.nalUnits.size(), sourceNals.size());
    for (size_t i = 0; i < stream.nalUnits.size(); ++i) {
        ASSERT_EQ(sourceNals[i % sourceNals.size()], stream.nalUnits[i]) << "NAL unit " << i;
    }
    ASSERT_GT(stream.aacFrames.size(), sourceAac.size());
    for (size_t i = 0; i < stream.aacFrames.size(); ++i) {
        ASSERT_EQ(sourceAac[i % sourceAac.size()], stream.aacFrames[i]) << "AAC frame " << i;
    }

    // Pictures 900 ticks apart (parameter sets share their picture's time), AAC frames 960.
    for (size_t i = 1; i < stream.nalTimes.size(); ++i) {
        uint32_t step = stream.nalTimes[i] - stream.nalTimes[i - 1];
        ASSERT_TRUE(step == 0 || step == 900) << "NAL " << i << " step " << step;
    }
    for (size_t i = 1; i < stream.aacTimes.size(); ++i) {
        ASSERT_EQ(960u, stream.aacTimes[i] - stream.aacTimes[i - 1]) << "AAC " << i;
    }
    // Audio and video run on one clock: both start at the channel's first second.
    EXPECT_EQ(stream.nalTimes.front(), stream.aacTimes.front());

    EXPECT_EQ(callsAfterDeinit, mCallback.dataCalls());  // deinit stopped the output
    initAgent();                                         // and the agent starts again
    ASSERT_EQ(0, startService(33, 301, &news));
    ASSERT_TRUE(mCallback.waitForFrames({news}, 1));
}

TEST_F(SimAgentTest, SecondsTooLargeForOneBufferAreSplitIntoFramesThatFit) {
    if (system("command -v ffmpeg >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "ffmpeg is not installed";
    // Two seconds of service 101 at about 1.2 Mbit/s: well over 65,534 bytes per second.
    std::string dir = mRoot.path() + "/heavy";
    std::string make =
        "mkdir -p " + dir +
        " && ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 "
        "-c:v libx264 -profile:v baseline -pix_fmt yuv420p -b:v 1200k -minrate 1200k -maxrate "
        "1200k "
        "-bufsize 600k -x264-params keyint=25:min-keyint=25:scenecut=0:repeat-headers=1 -f h264 " +
        dir +
        "/101.h264 && ffmpeg -nostdin -v error -y -f lavfi -i "
        "sine=frequency=440:sample_rate=24000:duration=2 "
        "-c:a aac -ac 2 -b:a 32k -f adts " +
        dir + "/101.aac";
    ASSERT_EQ(0, system(make.c_str()));
    mRoot.setProperty("persist.tavo.sim.content", dir);
    // The agent reads its properties when it is created: make a new one.
    mDestroy(mAgent);
    mAgent = reinterpret_cast<CreateAgentFunc>(dlsym(mLibrary, "createAgent"))();
    initAgent();

    int channel = -1;
    ASSERT_EQ(0, startService(13, 101, &channel));
    ASSERT_TRUE(mCallback.waitForFrames({channel}, 6));  // three seconds
    ASSERT_EQ(0, mAgent->deinit());

    std::vector<std::string> violations = mCallback.violations();
    EXPECT_TRUE(violations.empty()) << violations.front();  // each frame within the buffer
    ChannelStream stream = mCallback.stream(channel);
    int pictures = 0;
    for (const MediaBytes& nal : stream.nalUnits)
        pictures += nalUnitType(nal) == 1 || nalUnitType(nal) == 5;
    EXPECT_GT(stream.frames, pictures / 25) << "more multiplex frames than seconds";
    std::vector<MediaBytes> sourceNals;
    for (const H264Picture& picture : readAnnexBPictures(dir + "/101.h264")) {
        sourceNals.insert(sourceNals.end(), picture.nalUnits.begin(), picture.nalUnits.end());
    }
    ASSERT_GE(stream.nalUnits.size(), sourceNals.size());
    for (size_t i = 0; i < stream.nalUnits.size(); ++i) {
        ASSERT_EQ(sourceNals[i % sourceNals.size()], stream.nalUnits[i]) << "NAL unit " << i;
    }
    for (size_t i = 1; i < stream.aacTimes.size(); ++i) {
        ASSERT_EQ(960u, stream.aacTimes[i] - stream.aacTimes[i - 1]) << "AAC " << i;
    }
}

}  // namespace
