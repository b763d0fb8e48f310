// Helpers for the recording tests: the clips as multiplex frames the way an agent delivers
// them, the outside tools' view of recorded files, and a rig that records through the engine
// of the current (child) process while the fake agent plays into a TV service on channel 5.
#ifndef TAVO_TESTS_RECORDING_RECORDING_RIG_H
#define TAVO_TESTS_RECORDING_RECORDING_RIG_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "EngineRig.h"
#include "MediaFiles.h"
#include "UniqueHandle.h"

// One multiplex frame: video NAL units (each behind a 4-byte start code), then raw AAC frames.
struct MultiplexFrame {
    struct Unit {
        uint32_t tsBase, tsRelative;
        MediaBytes bytes;
    };
    std::vector<Unit> video, audio;
};

// The clips cut into one-second multiplex frames, looped. Fed picture n is presented at
// kFirstTick + 900 n (25 per second at 22,500 ticks per second), audio frame m at
// kFirstTick + 960 m (1,024 samples at 24,000 Hz).
class ClipFeed {
public:
    explicit ClipFeed(size_t startPicture = 0);  // the clip picture the feed begins with
    MultiplexFrame nextSecond();
    size_t picturesFed() const { return mPicture - mStartPicture; }
    // Whether fed picture i (0 = the first fed) holds an SPS.
    bool pictureHasSps(size_t i) const;

    static const uint32_t kFirstTick = 45000;
    static const uint32_t kTicksPerSecond = 22500;
    static const uint32_t kPictureTicks = 900;
    static const uint32_t kAudioFrameTicks = 960;

private:
    std::vector<H264Picture> mPictures;
    std::vector<MediaBytes> mAudio;
    size_t mStartPicture;
    size_t mPicture = 0;  // next picture, counted from the clip's start
    size_t mAudioFrame = 0;
    uint32_t mSecond = 0;
};

struct ProbedPacket {
    long long pts;
    int size;
    bool key;
    bool operator==(const ProbedPacket& o) const {
        return pts == o.pts && size == o.size && key == o.key;
    }
};

// The outside gate: ffprobe -v error and ffmpeg -xerror (default streams and -map 0) read the
// whole file silently, GStreamer plays both tracks without a warning (expectPlaysInGStreamer),
// the video's nb_frames equals its nb_read_packets, and mediainfo names AVC and AAC.
void expectPlayableRecording(const std::string& path);
std::vector<ProbedPacket> probePackets(const std::string& path, int stream);
// A stream's duration in seconds as ffprobe reports it; negative when unknown.
double probeStreamDuration(const std::string& path, int stream);
bool fileHasMoov(const std::string& path);
UniqueFd createFile(const std::string& path);  // truncated, read-write
// Types of the top-level boxes, walked by their 32-bit size headers; a box running past the
// end of the file (or with a size below 8) is listed as "truncated".
std::vector<std::string> topLevelBoxes(const std::string& path);

inline bool isRecordingEvent(EventType type) {
    return type >= EVENT_RECORD_NO_SDCARD && type <= EVENT_RECORD_ERROR;
}

// An application that hands every event to `act` with a function that records it (so that
// tests can wait for it), and keeps the name of the thread each event came on.
class ActOnEvent : public RecordingCallback {
public:
    using Act = std::function<void(EventType type, int param, const std::function<void()>& record)>;
    explicit ActOnEvent(Act act) : mAct(std::move(act)) {}
    void onEvent(EventType type, int param) override;
    std::vector<std::string> threadNames();

private:
    Act mAct;
    std::mutex mLock;
    std::vector<std::string> mThreadNames;  // guarded by mLock
};

class RecordingRig : public EngineRig {
public:
    explicit RecordingRig(const char* logMask = "ERROR,WARNING,MAIN,ENGINE,RECORD")
        : EngineRig(logMask) {}

    void startService(bool bothSessions = false);  // init, then session 0's (and 1's) service
    // Plays one frame on the agent's thread (playHere: on this one), NAL units longer than
    // 1,000 bytes in fragments.
    void play(const MultiplexFrame& frame);
    void playHere(const MultiplexFrame& frame);
    void playSeconds(ClipFeed& feed, int seconds);
    // Plays seconds of the feed until session 0 stops recording; returns how many it took (or
    // `limit` + 1 when it never stopped).
    int playUntilRecordingEnds(ClipFeed& feed, int limit);

    UniqueFd createOutput(const std::string& name) const { return createFile(outputPath(name)); }
    // Starts recording `session` into a new file `name`; the engine's result.
    int startRecording(const std::string& name, int session = 0);
    std::string outputPath(const std::string& name) const { return root().path() + "/" + name; }

    static const int kChannel = 5;
};

#endif  // TAVO_TESTS_RECORDING_RECORDING_RIG_H
