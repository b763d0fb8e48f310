// Recording control through the engine's public interface: session checks, the free-space
// rules at start and on every frame, and failures of the recording chain. The engine is one
// object per process, so every test runs in a child.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ChildProcess.h"
#include "RecordingRig.h"

namespace {

const long long kMiB = 1 << 20;

void setFreeBytes(long long bytes) {
    setenv("TAVO_FAKE_FREE_BYTES", std::to_string(bytes).c_str(), 1);
}

long long fileSize(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

#ifdef TAVO_FAULT_INJECTION
#define REQUIRE_FAULT_INJECTION()
#else
#define REQUIRE_FAULT_INJECTION() GTEST_SKIP() << "needs a build with TAVO_FAULT_INJECTION"
#endif

TEST(RecordingControl, SessionsFreeSpaceAtStartAndFailuresThatEndARecording) {
    REQUIRE_FAULT_INJECTION();
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        const int fd = rig.createOutput("out.3gp");
        for (int session : {-1, 2, 10}) {
            EXPECT_EQ(-1, rig.engine().startRecording(session, fd)) << session;
            EXPECT_EQ(-1, rig.engine().stopRecording(session)) << session;
            EXPECT_FALSE(rig.engine().isRecording(session)) << session;
        }
        EXPECT_EQ(0, rig.engine().stopRecording(1));           // nothing to stop
        EXPECT_EQ(-1, rig.engine().startRecording(0, 12345));  // not a descriptor
        EXPECT_EQ(1, rig.root().countLog("fstatfs failed, error number is 9"));

        setFreeBytes(kMiB - 1);
        EXPECT_EQ(-1, rig.engine().startRecording(0, fd));
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(0, fileSize(rig.outputPath("out.3gp")));  // no recorder was created
        setFreeBytes(kMiB);
        EXPECT_EQ(0, rig.engine().startRecording(0, fd));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(1));
        close(fd);  // the recorder works on its own duplicate
        unsetenv("TAVO_FAKE_FREE_BYTES");

        ClipFeed feed;
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(0));
        expectCleanFile(rig.outputPath("out.3gp"));

        // Samples are buffered; failed writes to a full device show when the file is completed.
        const int full = open("/dev/full", O_WRONLY);
        ASSERT_EQ(0, rig.engine().startRecording(0, full));
        close(full);
        for (int second = 0; second < 3; ++second)
            rig.play(feed.nextSecond());
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_EQ(-1, rig.engine().stopRecording(0));
        EXPECT_FALSE(rig.engine().isRecording(0));

        // A missing card ends frame delivery; the recorder stays for the application's stop.
        const int last = rig.createOutput("last.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, last));
        close(last);
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        ASSERT_EQ(0, rmdir(rig.root().resolve("/sdcard").c_str()));
        rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(151, 0)"));  // EVENT_RECORD_NO_SDCARD
        rig.play(feed.nextSecond());
        EXPECT_EQ(1, rig.root().countLog("sdcard not found"));  // no longer handed frames
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectCleanFile(rig.outputPath("last.3gp"));
    });
}

TEST(RecordingControl, BelowFourteenMiBTheIndexEstimateDecidesWhenStorageIsFull) {
    REQUIRE_FAULT_INJECTION();
    EXPECT_IN_CHILD({
        RecordingRig rig;
        rig.startService();
        const int fd = rig.createOutput("out.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        ClipFeed feed;
        const char* estimateWarning = "required minimal space=";

        setFreeBytes(14 * kMiB);  // not consulted
        rig.play(feed.nextSecond());
        rig.play(feed.nextSecond());
        EXPECT_EQ(0, rig.root().countLog(estimateWarning));
        // Below it the estimate (a few KiB, so 0 MiB) is compared in whole MiB.
        setFreeBytes(14 * kMiB - 1);
        rig.play(feed.nextSecond());
        EXPECT_EQ(1, rig.root().countLog(estimateWarning));
        setFreeBytes(kMiB);
        rig.play(feed.nextSecond());
        EXPECT_EQ(2, rig.root().countLog(estimateWarning));
        EXPECT_TRUE(rig.engine().isRecording(0));
        EXPECT_EQ(0, rig.app().count("onEvent("));

        setFreeBytes(kMiB - 1);
        rig.play(feed.nextSecond());
        EXPECT_FALSE(rig.engine().isRecording(0));
        EXPECT_EQ(1, rig.app().count("onEvent(152, 0)"));  // EVENT_RECORD_STORAGE_FULL
        unsetenv("TAVO_FAKE_FREE_BYTES");
        // The recording was completed when it stopped; later frames do not reach it.
        const long long completed = fileSize(rig.outputPath("out.3gp"));
        rig.play(feed.nextSecond());
        EXPECT_EQ(completed, fileSize(rig.outputPath("out.3gp")));
        EXPECT_EQ(0, rig.engine().stopRecording(0));
        expectCleanFile(rig.outputPath("out.3gp"));
    });
}

}  // namespace

namespace {

// An application that ends its recording from the recording event itself. The event is
// raised inside a multiplex frame, on the agent's thread that holds the frame.
class StopOnRecordingEvent : public RecordingCallback {
public:
    explicit StopOnRecordingEvent(TavoMBBMSEngine& engine) : mEngine(engine) {}
    void onEvent(EventType type, int param) override {
        RecordingCallback::onEvent(type, param);
        if (type >= EVENT_RECORD_NO_SDCARD && type <= EVENT_RECORD_ERROR)
            stopResult = mEngine.stopRecording(param);
    }
    int stopResult = 1;

private:
    TavoMBBMSEngine& mEngine;
};

}  // namespace

TEST(RecordingControl, AnApplicationMayStopTheRecordingFromItsRecordingEvent) {
    REQUIRE_FAULT_INJECTION();
    EXPECT_IN_CHILD({
        RecordingRig rig;
        StopOnRecordingEvent app(rig.engine());
        ASSERT_EQ(0, rig.engine().init(&app, nullptr));
        rig.startService();  // the engine keeps the first callback
        const int fd = rig.createOutput("out.3gp");
        ASSERT_EQ(0, rig.engine().startRecording(0, fd));
        close(fd);
        ClipFeed feed;
        rig.play(feed.nextSecond());
        setFreeBytes(kMiB - 1);
        // Waiting for the frame in progress here would wait for ever: the frame is the caller.
        rig.play(feed.nextSecond());
        unsetenv("TAVO_FAKE_FREE_BYTES");
        EXPECT_EQ(1, app.count("onEvent(152, 0)"));
        EXPECT_EQ(0, app.stopResult);
        EXPECT_FALSE(rig.engine().isRecording(0));
        rig.play(feed.nextSecond());  // frames keep flowing afterwards
        expectCleanFile(rig.outputPath("out.3gp"));
    });
}
