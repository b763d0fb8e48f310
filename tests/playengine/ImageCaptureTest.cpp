// captureImage and isCapturing seen from the application and from a play engine.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "ChildProcess.h"
#include "FaultInjection.h"
#include "PlayEngineTestClient.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

namespace {

std::string serverPath(const TestRoot& root) {
    return root.resolve("/data/app/cmmb.socket");
}

// An initialised engine with a connected play engine that has read its two buffers.
struct CaptureSetup {
    TestRoot root;
    RecordingCallback callback;
    TavoMBBMSEngine* engine = nullptr;
    PlayEngineTestClient client{root.path() + "/player.sock"};

    // The command thread calls `callback`: end it first.
    ~CaptureSetup() {
        if (engine != nullptr)
            engine->deinit();
    }

    void start() {
        engine = TavoMBBMSEngine::getInstance();
        ASSERT_EQ(0, engine->init(&callback, nullptr));
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        for (int i = 0; i < 2; ++i)
            ASSERT_EQ("sharebuffer", client.receive().text());
    }
    int openSnapshotFile(const std::string& directory) {
        int fd = open((directory + "/snapshot.jpg").c_str(), O_CREAT | O_RDWR | O_TRUNC, 0644);
        EXPECT_GE(fd, 0);
        return fd;
    }
};

bool sameFile(int a, int b) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

// Whether this process may make a private mount namespace and mount a tmpfs in it.
bool canMountTmpfs() {
    pid_t pid = fork();
    if (pid == 0) {
        char dir[] = "/tmp/tavo-mount-probe-XXXXXX";
        bool ok = unshare(CLONE_NEWNS) == 0 &&
                  mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mkdtemp(dir) != nullptr && mount("tmpfs", dir, "tmpfs", 0, "size=100k") == 0;
        if (ok)
            umount(dir);
        rmdir(dir);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// Mounts a tmpfs of `size` (e.g. "100k") at a new directory under `parent`, in this
// process's own mount namespace.
std::string mountTmpfs(const std::string& parent, const char* name, const char* size) {
    std::string dir = parent + "/" + name;
    mkdir(dir.c_str(), 0777);
    std::string options = std::string("size=") + size;
    EXPECT_EQ(0, mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str())) << strerror(errno);
    return dir;
}

}  // namespace

TEST(ImageCapture, RequiresOneHundredKilobytesFreeAsReportedByThePlatform) {
    EXPECT_IN_CHILD({
        CaptureSetup setup;
        setup.start();
        int file = setup.openSnapshotFile(setup.root.path());

        // 99 KB: refused on the caller's thread, nothing reaches the play engine.
        setenv(TAVO_FAKE_FREE_BYTES_ENV, std::to_string(99 * 1024).c_str(), 1);
        EXPECT_EQ(0, setup.engine->captureImage(1, file));
        EXPECT_EQ(1, setup.callback.count("onEvent(162, 1)"));
        EXPECT_FALSE(setup.engine->isCapturing(1));
        EXPECT_TRUE(setup.root.logContains("free space (99 KB) is not enough"));

        // Exactly 100 KB: the request goes out with the caller's file attached.
        setenv(TAVO_FAKE_FREE_BYTES_ENV, std::to_string(100 * 1024).c_str(), 1);
        EXPECT_EQ(0, setup.engine->captureImage(0, file));
        ReceivedCommand request = setup.client.receive();
        ASSERT_EQ(96, request.bytes);
        EXPECT_EQ("capture", request.text());
        EXPECT_EQ('0', request.session());
        EXPECT_EQ(0, request.message.fdStatus);
        ASSERT_GE(request.fd, 0);
        EXPECT_TRUE(sameFile(file, request.fd));
        EXPECT_TRUE(setup.engine->isCapturing(0));
        EXPECT_EQ(0, setup.callback.count("onEvent(161"));

        // A query that fails is a failed snapshot too.
        setenv(TAVO_FAKE_FREE_BYTES_ENV, "fail", 1);
        EXPECT_EQ(0, setup.engine->captureImage(1, file));
        EXPECT_EQ(2, setup.callback.count("onEvent(162, 1)"));
        EXPECT_TRUE(setup.root.logContains("fstatfs failed, reason:"));
        unsetenv(TAVO_FAKE_FREE_BYTES_ENV);

        // The play engine's answer ends the snapshot.
        ASSERT_TRUE(setup.client.sendIndication("3"));
        ASSERT_TRUE(setup.callback.waitFor("onEvent(161, 0)"));
        EXPECT_FALSE(setup.engine->isCapturing(0));
        close(file);
    });
}

TEST(ImageCapture, ChecksTheFileSystemThatHoldsTheFile) {
    if (!canMountTmpfs())
        GTEST_SKIP()
            << "this process may not mount a tmpfs (needs CAP_SYS_ADMIN in a mount namespace)";
    EXPECT_IN_CHILD({
        ASSERT_EQ(0, unshare(CLONE_NEWNS));
        ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        CaptureSetup setup;
        setup.start();
        std::string roomy = mountTmpfs(setup.root.path(), "roomy", "100k");
        std::string tight = mountTmpfs(setup.root.path(), "tight", "96k");
        int tightFile = setup.openSnapshotFile(tight);
        int roomyFile = setup.openSnapshotFile(roomy);

        EXPECT_EQ(0, setup.engine->captureImage(1, tightFile));
        EXPECT_EQ(1, setup.callback.count("onEvent(162, 1)"));
        EXPECT_TRUE(setup.root.logContains("free space (96 KB) is not enough"));

        EXPECT_EQ(0, setup.engine->captureImage(0, roomyFile));
        ReceivedCommand request = setup.client.receive();
        ASSERT_EQ(96, request.bytes);
        EXPECT_EQ("capture", request.text());
        EXPECT_EQ('0', request.session());
        EXPECT_TRUE(sameFile(roomyFile, request.fd));
        close(tightFile);
        close(roomyFile);
        EXPECT_EQ(0, setup.engine->deinit());
        umount(tight.c_str());
        umount(roomy.c_str());
    });
}

TEST(ImageCapture, APlayEngineThatStoppedReadingFailsTheSnapshotWithoutHarm) {
    EXPECT_IN_CHILD({
        CaptureSetup setup;
        setup.start();
        // The play engine stops reading but keeps its connection: the engine's send meets a
        // broken pipe, which must neither raise SIGPIPE nor leave the snapshot pending.
        ASSERT_EQ(0, shutdown(setup.client.fd(), SHUT_RD));
        int file = setup.openSnapshotFile(setup.root.path());
        EXPECT_EQ(0, setup.engine->captureImage(0, file));
        EXPECT_EQ(1, setup.callback.count("onEvent(162, 0)"));
        EXPECT_FALSE(setup.engine->isCapturing(0));
        EXPECT_TRUE(setup.root.logContains(">>>>> sendmsg cmd=capture (session=0)"));
        close(file);
    });
}

TEST(ImageCapture, RefusesOutsideAnInitialisedEngineAndUnknownSessions) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback callback;
        TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
        int file = open((root.path() + "/snapshot.jpg").c_str(), O_CREAT | O_RDWR, 0644);
        ASSERT_GE(file, 0);

        EXPECT_EQ(-1, engine->captureImage(0, file));
        EXPECT_TRUE(root.logContains("skipped due to mIsInitialized==false"));
        EXPECT_FALSE(engine->isCapturing(0));

        ASSERT_EQ(0, engine->init(&callback, nullptr));
        struct DeinitAtScopeExit {
            TavoMBBMSEngine* engine;
            ~DeinitAtScopeExit() { engine->deinit(); }
        } stop{engine};
        for (int session : {-1, 2, 1000}) {
            EXPECT_EQ(-1, engine->captureImage(session, file)) << session;
            EXPECT_FALSE(engine->isCapturing(session)) << session;
        }
        EXPECT_EQ(0, callback.count("onEvent("));
        close(file);
    });
}
