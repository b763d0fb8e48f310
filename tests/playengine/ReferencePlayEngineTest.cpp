// End to end: the fake agent plays real H.264 and AAC through the engine, the reference play
// engine (a separate program) reads the shared buffers and writes streams and snapshots, and
// ffprobe must decode what it wrote.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "MediaFiles.h"
#include "PlayEngineProcess.h"
#include "TavoMBBMSEngineImpl.h"
#include "TestRoot.h"
#include "UniqueHandle.h"

namespace {

const int kChannel = 7;
const size_t kFragmentSize = 700;  // NAL units longer than this arrive in fragments

// What ffprobe reports as `entries` of the first stream of `path` (read as `format` unless
// empty) after decoding all of it; decoding errors are reported too, so a clean file gives the
// entries alone, e.g. "50\n".
std::string probe(const std::string& format, const std::string& path, const std::string& entries) {
    std::string output;
    int status = runCommand(std::string(TAVO_FFPROBE) + " -v error" +
                                (format.empty() ? "" : " -f " + format) +
                                " -count_frames -select_streams 0 -show_entries stream=" + entries +
                                " -of csv=p=0 '" + path + "'",
                            &output);
    return status == 0 ? output : output + "(ffprobe exit status " + std::to_string(status) + ")";
}

// The reference play engine as a child process of the test, its output in a file.
struct PlayEngine : PlayEngineProcess {
    PlayEngine(const TestRoot& root, std::vector<std::string> args)
        : PlayEngineProcess(TAVO_PLAYENGINE_PATH, withCommonArgs(root, std::move(args)),
                            root.path() + "/playengine.log"),
          logFile(root.path() + "/playengine.log") {
        std::string error;
        EXPECT_TRUE(start(&error)) << error;
    }
    static std::vector<std::string> withCommonArgs(const TestRoot& root,
                                                   std::vector<std::string> args) {
        args.insert(args.begin(),
                    {"--engine-socket", root.resolve("/data/app/cmmb.socket"), "--socket",
                     root.path() + "/playengine.socket", "--out-dir", root.path(), "--verbose"});
        return args;
    }
    std::string log() const { return readTextFile(logFile); }
    // The counters it printed for a session, e.g. "frames=5 nal=60 aac=48 empty=0 bad_records=0".
    std::string countersOf(int session) const {
        std::string text = log(), key = "session " + std::to_string(session) + ": ";
        size_t at = text.find(key + "frames=");
        if (at == std::string::npos)
            return "(no counters in: " + text + ")";
        at += key.size();
        return text.substr(at, text.find('\n', at) - at);
    }
    const std::string logFile;
};

// The clips cut into multiplex frames: frame i holds pictures and audio frames of the
// same stretch of time.
struct MediaFeed {
    std::vector<H264Picture> pictures =
        readAnnexBPictures(testMediaPath("clip_320x240_25fps.h264"));
    std::vector<MediaBytes> audio = readAdtsFrames(testMediaPath("clip_24k_stereo.aac"));

    // The Annex B stream the play engine should write for the whole clip; its NAL unit count.
    MediaBytes annexB(int* nalUnits) const {
        MediaBytes stream;
        *nalUnits = 0;
        for (const H264Picture& picture : pictures) {
            for (const MediaBytes& nal : picture.nalUnits) {
                stream.insert(stream.end(), {0, 0, 0, 1});
                stream.insert(stream.end(), nal.begin(), nal.end());
                ++*nalUnits;
            }
        }
        return stream;
    }
};

// The engine initialised; start() makes session 0 show service 11 on kChannel.
class Bench : public EngineDataPath {
public:
    Bench() : EngineDataPath("all", false) {}
    bool start() { return setUpError().empty() && startService(0, 11, kChannel) == 0; }

    // Plays pictures [firstPicture, endPicture) and audio [firstAudio, endAudio) as one
    // multiplex frame on session 0's channel, then waits until a reader fetched it.
    bool playFrame(const MediaFeed& feed, size_t firstPicture, size_t endPicture, size_t firstAudio,
                   size_t endAudio) {
        frameStart(kChannel);
        size_t audio = firstAudio;
        for (size_t p = firstPicture; p < endPicture; ++p) {
            for (const MediaBytes& unit : feed.pictures[p].nalUnits)
                sendNal(unit, static_cast<unsigned long>(p));
            // Audio interleaved with the video, as a multiplex frame carries them.
            const size_t audioDue = firstAudio + (endAudio - firstAudio) * (p + 1 - firstPicture) /
                                                     (endPicture - firstPicture);
            for (; audio < audioDue; ++audio)
                aac(kChannel, feed.audio[audio], static_cast<unsigned long>(audio));
        }
        frameEnd(kChannel);
        CmmbSharedBuffer* buffer = static_cast<TavoMBBMSEngineImpl&>(engine()).sharedBuffer(0);
        for (int i = 0; i < 2000; ++i) {
            if (__atomic_load_n(&buffer->nalCount, __ATOMIC_ACQUIRE) == 0 &&
                __atomic_load_n(&buffer->aacCount, __ATOMIC_ACQUIRE) == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

private:
    // One NAL unit with its start code, whole or in fragments of kFragmentSize.
    void sendNal(const MediaBytes& unit, unsigned long ts) {
        MediaBytes bytes = {0, 0, 0, 1};
        bytes.insert(bytes.end(), unit.begin(), unit.end());
        for (size_t at = 0; at < bytes.size(); at += kFragmentSize) {
            const size_t end = std::min(at + kFragmentSize, bytes.size());
            const Pos pos = end - at == bytes.size() ? MBBMSAgent::NAL_FRAGMENT_COMPLETE
                            : at == 0                ? MBBMSAgent::NAL_FRAGMENT_START
                            : end == bytes.size()    ? MBBMSAgent::NAL_FRAGMENT_END
                                                     : MBBMSAgent::NAL_FRAGMENT_MIDDLE;
            nal(kChannel, Bytes(bytes.begin() + at, bytes.begin() + end), pos, ts);
        }
    }
};

}  // namespace

// One play engine through an engine restart: a snapshot before any picture fails, one after
// the first pictures is a PNG ffprobe reads, and the streams it writes over the restart are the
// clip's and decode cleanly.
TEST(ReferencePlayEngine, AnswersSnapshotsFollowsARestartAndWritesStreamsThatDecode) {
    EXPECT_IN_CHILD({
        Bench bench;
        MediaFeed feed;
        ASSERT_EQ(50u, feed.pictures.size());
        ASSERT_EQ(48u, feed.audio.size());
        ASSERT_TRUE(bench.start());
        PlayEngine playEngine(bench.root(), {});
        ASSERT_TRUE(bench.root().waitForLog("GOT_SHAREDBUFFER_FD", 2)) << playEngine.log();

        // No picture yet: the play engine answers with a failure (reported for session 0).
        UniqueFd earlyFd(
            open((bench.root().path() + "/early.png").c_str(), O_CREAT | O_RDWR, 0644));
        EXPECT_EQ(0, bench.engine().captureImage(1, earlyFd.get()));
        ASSERT_TRUE(bench.app().waitFor("onEvent(162, 0)")) << playEngine.log();
        earlyFd.reset();

        // Pictures 0..14: the IDR picture 0 and P pictures after it.
        ASSERT_TRUE(bench.playFrame(feed, 0, 15, 0, 14)) << playEngine.log();
        std::string snapshot = bench.root().path() + "/snapshot.png";
        UniqueFd snapshotFd(open(snapshot.c_str(), O_CREAT | O_RDWR, 0644));
        EXPECT_EQ(0, bench.engine().captureImage(0, snapshotFd.get()));
        ASSERT_TRUE(bench.app().waitFor("onEvent(161, 0)")) << playEngine.log();
        EXPECT_FALSE(bench.engine().isCapturing(0));
        snapshotFd.reset();
        EXPECT_EQ("png,320,240,1\n", probe("", snapshot, "codec_name,width,height,nb_read_frames"));
        ASSERT_TRUE(bench.playFrame(feed, 15, 25, 14, 24)) << playEngine.log();

        // The engine restarts: the play engine comes back to the new server and buffers.
        ASSERT_EQ(0, bench.engine().deinit());
        ASSERT_EQ(0, bench.init());
        ASSERT_TRUE(bench.start());
        ASSERT_TRUE(bench.root().waitForLog("GOT_SHAREDBUFFER_FD", 4)) << playEngine.log();
        ASSERT_TRUE(bench.playFrame(feed, 25, 35, 24, 34)) << playEngine.log();
        ASSERT_TRUE(bench.playFrame(feed, 35, 50, 34, 48)) << playEngine.log();

        EXPECT_EQ(0, playEngine.stop()) << playEngine.log();
        EXPECT_EQ(0, bench.root().countLog("A/V DATA LOST"));
        int nalUnits = 0;
        const MediaBytes expectedVideo = feed.annexB(&nalUnits);
        EXPECT_EQ("frames=4 nal=" + std::to_string(nalUnits) + " aac=48 empty=0 bad_records=0",
                  playEngine.countersOf(0));
        EXPECT_EQ("frames=0 nal=0 aac=0 empty=0 bad_records=0", playEngine.countersOf(1));

        // The video is the clip's NAL units, each behind a 4-byte start code again.
        std::string video = bench.root().path() + "/session0.h264";
        EXPECT_TRUE(readMediaFile(video) == expectedVideo);
        EXPECT_EQ("50\n", probe("h264", video, "nb_read_frames"));

        // The audio carries the clip's raw frames behind the engine's ADTS headers.
        std::string audio = bench.root().path() + "/session0.aac";
        AdtsStreamInfo info;
        EXPECT_TRUE(readAdtsFrames(audio, &info) == feed.audio);
        EXPECT_EQ(24000, info.sampleRate);
        EXPECT_EQ(2, info.channels);
        EXPECT_EQ("48\n", probe("aac", audio, "nb_read_frames"));
        EXPECT_EQ(0, bench.engine().deinit());
    });
}
