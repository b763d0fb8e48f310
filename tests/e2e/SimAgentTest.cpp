// The broadcast simulator as the engine sees it: loaded with dlopen, driven through
// MBBMSAgent, its data checked against the agent's frame contract as it arrives and
// reassembled for comparison with the service's content.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "IgnoringCallback.h"
#include "MBBMSAgent.h"
#include "MediaFiles.h"
#include "TestRoot.h"

namespace {

// Records each channel's NAL units (start codes removed) and AAC frames, and the breaches of
// the frame contract that reassembly or splitting could hide: a multiplex frame without its
// start code, video after audio, an error or an open NAL unit at a frame's end, more payload
// than one buffer holds. The rest of the contract is checked by tavo_agentcheck's run on the
// simulator; a broken bracket or fragment order also breaks the reassembled content.
class FrameChecker : public IgnoringCallback<MBBMSAgentCallback> {
public:
    struct Stream {
        std::vector<MediaBytes> nalUnits, aacFrames;
        int frames = 0;
    };
    struct Seen {
        std::map<int, Stream> streams;
        std::set<int> startCodeLengths, positions;
        int framesStarted = 0;
        int breaches = 0;  // of the rules above
    };

    void onOutputAVStart(int, const unsigned char* data, int length) override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mSeen.framesStarted;
        mSeen.breaches += data == nullptr || length < 4 || startCodeLength(data, 4) != 4;
        mFrameBytes = 0;
        mFrameHasAudio = false;
    }

    void onOutputAVEnd(int channelID, bool withError) override {
        std::lock_guard<std::mutex> guard(mLock);
        mSeen.breaches += withError || mNalOpen || mFrameBytes > 65534;
        mSeen.streams[channelID].frames += 1;
        mChanged.notify_all();
    }

    void onClearAudioAacFrame(int channelID, unsigned long, unsigned long, unsigned char* data,
                              unsigned short length) override {
        std::lock_guard<std::mutex> guard(mLock);
        mFrameHasAudio = true;
        mFrameBytes += length + 7u;
        mSeen.streams[channelID].aacFrames.emplace_back(data, data + length);
    }

    void onClearVideoNalData(int channelID, unsigned long, unsigned long, unsigned char* data,
                             unsigned short length, MBBMSAgent::NAL_FRAGMENT_POS_IND pos) override {
        std::lock_guard<std::mutex> guard(mLock);
        mSeen.breaches += mFrameHasAudio;
        mSeen.positions.insert(pos);
        if (pos & MBBMSAgent::NAL_FRAGMENT_START) {
            const size_t skip = startCodeLength(data, length);
            mSeen.startCodeLengths.insert(static_cast<int>(skip));
            mOpenNal.assign(data + skip, data + length);
            mNalOpen = true;
        } else {
            mOpenNal.insert(mOpenNal.end(), data, data + length);
        }
        if ((pos & MBBMSAgent::NAL_FRAGMENT_END) && mNalOpen) {
            mFrameBytes += mOpenNal.size();
            mSeen.streams[channelID].nalUnits.push_back(mOpenNal);
            mNalOpen = false;
        }
    }

    bool waitForFrames(const std::vector<int>& channels, int frames) {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, std::chrono::seconds(60), [&] {
            for (int channel : channels) {
                if (mSeen.streams[channel].frames < frames)
                    return false;
            }
            return true;
        });
    }
    Seen seen() {
        std::lock_guard<std::mutex> guard(mLock);
        return mSeen;
    }

private:
    // 4 or 3 for a start code at `data`, else 0.
    static size_t startCodeLength(const unsigned char* data, size_t length) {
        if (length >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1)
            return 4;
        return length >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1 ? 3 : 0;
    }

    std::mutex mLock;  // guards everything: the agent calls in on its own thread
    std::condition_variable mChanged;
    Seen mSeen;
    size_t mFrameBytes = 0;
    bool mFrameHasAudio = false;
    MediaBytes mOpenNal;
    bool mNalOpen = false;
};

// A fresh simulator, created from its library in a new root.
class SimAgentTest : public testing::Test {
protected:
    void SetUp() override {
        mRoot.setProperty("persist.tavo.sim.speed", "50");
        load(TAVO_SIM_AGENT_PATH);
    }
    void TearDown() override { unload(); }

    // Loads `library` in place of the current one and creates its agent (which reads its
    // properties then).
    void load(const std::string& library) {
        unload();
        mLibrary = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, mLibrary) << dlerror();
        mCreate = reinterpret_cast<CreateAgentFunc>(dlsym(mLibrary, "createAgent"));
        mDestroy = reinterpret_cast<DestroyAgentFunc>(dlsym(mLibrary, "destroyAgent"));
        ASSERT_TRUE(mCreate != nullptr && mDestroy != nullptr);
        mAgent = mCreate();
        ASSERT_NE(nullptr, mAgent);
    }
    void unload() {
        if (mAgent != nullptr)
            mDestroy(mAgent);
        if (mLibrary != nullptr)
            dlclose(mLibrary);
        mAgent = nullptr;
        mLibrary = nullptr;
    }
    void initAgent() {
        ASSERT_EQ(0, mAgent->preInitStep1());
        ASSERT_EQ(0, mAgent->preInitStep2());
        ASSERT_NE(-1, mAgent->init(&mChecker, "/tmp", "/tmp"));
    }
    int startService(int freqDot, int serviceID, int* channelID) {
        IsmaPara isma{};
        isma.serviceID = static_cast<uint16_t>(serviceID);
        return mAgent->startService(channelID, freqDot, 0, 0, 1, &isma);
    }
    // The stream of `channel` is the content in `dir`, NAL unit for NAL unit and AAC frame
    // for AAC frame; with `loops`, it went past the end of the content back to its start.
    void expectContent(int channel, const std::string& dir, int serviceID, bool loops) {
        std::string base = dir + "/" + std::to_string(serviceID);
        std::vector<MediaBytes> nals, aac = readAdtsFrames(base + ".aac");
        for (const H264Picture& picture : readAnnexBPictures(base + ".h264"))
            nals.insert(nals.end(), picture.nalUnits.begin(), picture.nalUnits.end());
        ASSERT_FALSE(nals.empty() || aac.empty()) << base;
        FrameChecker::Stream stream = mChecker.seen().streams[channel];
        EXPECT_GE(stream.nalUnits.size(), nals.size() + (loops ? 1 : 0)) << serviceID;
        ASSERT_FALSE(stream.aacFrames.empty()) << serviceID;
        for (size_t i = 0; i < stream.nalUnits.size(); ++i)
            ASSERT_EQ(nals[i % nals.size()], stream.nalUnits[i]) << serviceID << " NAL " << i;
        for (size_t i = 0; i < stream.aacFrames.size(); ++i)
            ASSERT_EQ(aac[i % aac.size()], stream.aacFrames[i]) << serviceID << " AAC " << i;
    }

    TestRoot mRoot{""};
    FrameChecker mChecker;
    void* mLibrary = nullptr;
    CreateAgentFunc mCreate = nullptr;
    DestroyAgentFunc mDestroy = nullptr;
    MBBMSAgent* mAgent = nullptr;
};

TEST_F(SimAgentTest, TwoChannelsDeliverTheirContentInWellFormedFrames) {
    initAgent();
    int news = -1, sports = -1;
    ASSERT_EQ(0, startService(13, 101, &news));
    ASSERT_EQ(0, startService(13, 102, &sports));
    // 18 seconds of content: past the end of the 16-second loops.
    ASSERT_TRUE(mChecker.waitForFrames({news, sports}, 18));
    ASSERT_EQ(0, mAgent->deinit());
    const int framesAtDeinit = mChecker.seen().framesStarted;

    EXPECT_EQ(0, mChecker.seen().breaches);
    EXPECT_EQ((std::set<int>{3, 4}), mChecker.seen().startCodeLengths);
    EXPECT_EQ((std::set<int>{0, 1, 2, 3}), mChecker.seen().positions);
    expectContent(news, TAVO_SIM_CONTENT_DIR, 101, true);
    expectContent(sports, TAVO_SIM_CONTENT_DIR, 102, true);

    EXPECT_EQ(framesAtDeinit, mChecker.seen().framesStarted);  // output stopped
    initAgent();                                               // and the agent starts again
    ASSERT_EQ(0, startService(33, 301, &news));
    ASSERT_TRUE(mChecker.waitForFrames({news}, 1));
}

TEST_F(SimAgentTest, SecondsTooLargeForOneBufferAreSplitIntoFramesThatFit) {
    if (system("command -v ffmpeg >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "ffmpeg is not installed";
    // Two seconds of service 101 at about 1.2 Mbit/s: well over 65,534 bytes per second.
    std::string dir = mRoot.path() + "/heavy";
    std::string make =
        "mkdir -p " + dir +
        " && ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 "
        "-c:v libx264 -profile:v baseline -pix_fmt yuv420p -b:v 1200k -minrate 1200k "
        "-maxrate 1200k -bufsize 600k -x264-params keyint=25:min-keyint=25:scenecut=0:"
        "repeat-headers=1 -f h264 " +
        dir +
        "/101.h264 && ffmpeg -nostdin -v error -y -f lavfi -i "
        "sine=frequency=440:sample_rate=24000:duration=2 -c:a aac -ac 2 -b:a 32k -f adts " +
        dir + "/101.aac";
    ASSERT_EQ(0, system(make.c_str()));
    mRoot.setProperty("persist.tavo.sim.content", dir);
    load(TAVO_SIM_AGENT_PATH);  // the agent reads its properties when it is created
    initAgent();

    int channel = -1;
    ASSERT_EQ(0, startService(13, 101, &channel));
    ASSERT_TRUE(mChecker.waitForFrames({channel}, 6));
    ASSERT_EQ(0, mAgent->deinit());
    EXPECT_EQ(0, mChecker.seen().breaches) << "a frame does not fit its buffer";
    FrameChecker::Stream stream = mChecker.seen().streams[channel];
    int pictures = 0;
    for (const MediaBytes& nal : stream.nalUnits)
        pictures += nalUnitType(nal) == 1 || nalUnitType(nal) == 5;
    EXPECT_GT(stream.frames, pictures / 25) << "more multiplex frames than seconds";
    expectContent(channel, dir, 101, false);
}

TEST_F(SimAgentTest, BadCallsFailWithoutHarm) {
    int channel = -1, first = -1, second = -1;
    EXPECT_EQ(-1, startService(13, 101, &channel));  // before init
    initAgent();
    EXPECT_EQ(-1, startService(20, 101, &channel));  // 101 is carried on 13 only
    EXPECT_EQ(-1, startService(13, 999, &channel));
    EXPECT_EQ(-1, mAgent->startService(nullptr, 13, 0, 0, 1, nullptr));
    EXPECT_EQ(-1, mAgent->stopService(12345));
    EXPECT_EQ(-1, mAgent->startUpdateTS0(99));
    EXPECT_EQ(-1, mAgent->cancelMBBMSRequest(1));

    ASSERT_EQ(0, startService(13, 101, &first));
    EXPECT_EQ(-1, startService(20, 201, &channel));  // the tuner is held on 13
    EXPECT_EQ(-1, mAgent->setFrequency(33));
    ASSERT_EQ(0, startService(13, 102, &second));
    EXPECT_NE(first, second);
    EXPECT_EQ(-1, startService(13, 101, &channel));  // no third channel
    EXPECT_EQ(0, mAgent->stopService(first));
    EXPECT_EQ(-1, mAgent->stopService(first));  // stopped twice
    EXPECT_EQ(0, mAgent->stopService(second));
    EXPECT_EQ(0, mAgent->startService(&channel, 20, 5, 3, 1, nullptr));  // by time slots
    EXPECT_EQ(0, mAgent->stopService(channel));
    EXPECT_EQ(0, mChecker.seen().breaches);
}

// Without a content property or content in the android root, the simulator reads only the
// content installed beside its own library file (found there by the package check): a copy of
// the library on its own finds none.
TEST_F(SimAgentTest, ContentIsFoundNowhereButBesideTheLibraryFile) {
    const std::string aloneDir = mRoot.path() + "/alone";
    const std::string built = TAVO_SIM_AGENT_PATH;
    ASSERT_EQ(0, system(("mkdir -p " + aloneDir + " && cp " + built + " " + aloneDir).c_str()));
    load(aloneDir + built.substr(built.rfind('/')));
    EXPECT_EQ(-1, mAgent->init(&mChecker, "/tmp", "/tmp")) << "content for a library away from it";
}

}  // namespace
