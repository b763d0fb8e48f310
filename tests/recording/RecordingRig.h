// Recording through the engine of the current (child) process: the fake agent plays real
// H.264 and AAC as multiplex frames into a running TV service, and the recorded files are
// examined with ffprobe.
#ifndef TAVO_TESTS_RECORDING_RECORDING_RIG_H
#define TAVO_TESTS_RECORDING_RECORDING_RIG_H

#include <cstdint>
#include <string>
#include <vector>

#include "FakeAgentControl.h"
#include "MediaFiles.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

// One multiplex frame as the agent delivers it: video NAL units first, then AAC frames.
struct MultiplexFrame {
    struct Video {
        uint32_t tsBase;
        uint32_t tsRelative;
        MediaBytes annexB;  // one or more NAL units, each behind a 4-byte start code
    };
    struct Audio {
        uint32_t tsBase;
        uint32_t tsRelative;
        MediaBytes raw;  // without ADTS header
    };
    std::vector<Video> video;
    std::vector<Audio> audio;
};

// The test clips cut into one-second multiplex frames, looped as often as asked for. Picture
// n is presented at kFirstTick + 900 n (25 per second at 22,500 ticks per second), audio
// frame m at kFirstTick + 960 m (1,024 samples at 24,000 Hz).
class ClipFeed {
public:
    // startPicture: index of the clip picture the feed begins with. oneUnitPerPicture: all
    // NAL units of a picture (parameter sets included) are delivered as one unit.
    explicit ClipFeed(size_t startPicture = 0, bool oneUnitPerPicture = false);

    MultiplexFrame nextSecond();
    // Pictures and audio frames handed out so far, and the presentation time of the next.
    size_t picturesFed() const { return mPicture - mStartPicture; }
    uint32_t nextPictureTick() const { return kFirstTick + 900 * picturesFed(); }
    // Whether the clip picture with feed index `i` (0 = the first picture fed) holds an SPS.
    bool pictureHasSps(size_t i) const;

    // Raw size of the audio frame with feed index m.
    size_t audioFrameSize(size_t m) const { return mAudio[m % mAudio.size()].size(); }

    static const uint32_t kFirstTick = 45000;
    static const uint32_t kPictureTicks = 900;
    static const uint32_t kAudioFrameTicks = 960;

private:
    std::vector<H264Picture> mPictures;
    std::vector<MediaBytes> mAudio;
    size_t mStartPicture;
    bool mOneUnitPerPicture;
    size_t mPicture;     // next picture, counted from the clip's start
    size_t mAudioFrame;  // next audio frame
    uint32_t mSecond;    // next multiplex frame
};

class RecordingRig {
public:
    // Creates the engine (the first getInstance of the process) with the given log switches.
    // With sdcardBytes > 0, "/sdcard" is first made a tmpfs of that size, private to this
    // process (before the engine starts any thread, which mounting requires).
    explicit RecordingRig(const char* logMask = "ERROR,WARNING,MAIN,ENGINE,RECORD",
                          long long sdcardBytes = 0);
    ~RecordingRig();
    RecordingRig(const RecordingRig&) = delete;
    RecordingRig& operator=(const RecordingRig&) = delete;

    TavoMBBMSEngine& engine() { return *mEngine; }
    RecordingCallback& app() { return mApp; }
    const TestRoot& root() const { return mRoot; }
    FakeAgentControl& agent();

    // init, then starts the TV service on session 0 (and session 1 on the same channel).
    // Fails the test when the engine refuses.
    void startService(bool bothSessions = false);

    // Plays one frame on the agent's thread and waits for it. NAL units longer than 1,000
    // bytes are delivered in fragments.
    void play(const MultiplexFrame& frame);
    // Plays a frame from the calling thread (for tests that race the agent's thread).
    void playHere(const MultiplexFrame& frame);

    // Creates (truncating) a file under the test root and returns a descriptor open for
    // reading and writing; the caller closes it.
    int createOutput(const std::string& name) const;
    std::string outputPath(const std::string& name) const;

private:
    TestRoot mRoot;
    RecordingCallback mApp;
    TavoMBBMSEngine* mEngine;
    int mChannelID;
    bool mMountedSdcard;
};

// What ffprobe finds in a recorded file.
struct ProbedPacket {
    int stream;
    long long pts;
    int size;
    bool key;
};

// ffprobe -v error on the file: its messages (empty when it finds nothing wrong) and exit
// status.
std::string probeMessages(const std::string& path, int* status);
// ffmpeg -v error -xerror decoding the whole file: messages and exit status.
std::string decodeMessages(const std::string& path, int* status);
std::vector<ProbedPacket> probePackets(const std::string& path);
// A stream's duration in seconds as ffprobe reports it; negative when unknown.
double probeStreamDuration(const std::string& path, int stream);
// Whether the file holds the four bytes "moov" anywhere.
bool fileHasMoov(const std::string& path);

// Mounts a tmpfs of `bytes` on `dir` in a new mount namespace of the calling process.
// Returns "" or the reason it failed.
std::string mountPrivateTmpfs(const std::string& dir, long long bytes);
// Whether this process may mount a tmpfs (tried in a child process).
bool canMountTmpfs(std::string* reason);

#endif  // TAVO_TESTS_RECORDING_RECORDING_RIG_H
