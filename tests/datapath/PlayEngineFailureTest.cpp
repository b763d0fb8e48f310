// Live TV when the play engine dies, hangs or reconnects. The engine runs in a child
// process; play engines are further processes that connect over the real socket and map the
// real shared memory. "Within" bounds here are hang detectors, not performance limits.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "OpenDescriptors.h"

namespace {

using std::chrono::milliseconds;

const int kChannel = 40;
const char kLockTimeoutProperty[] = "persist.mbbms.playengine.lock_timeout_ms";

bool endsWithin(milliseconds bound, const std::function<void()>& fn) {
    return AsyncCall(fn).endsWithin(bound);
}

// A process of its own that reports single characters through a pipe; killed when dropped.
class ReportingProcess {
public:
    ~ReportingProcess() { kill(SIGKILL); }
    // Forks a child that runs body with the pipe's writing end; body does not return.
    bool fork(const std::function<void(int)>& body) {
        int fds[2];
        if (pipe(fds) != 0)
            return false;
        mPid = ::fork();
        if (mPid == 0) {
            close(fds[0]);
            body(fds[1]);
            _exit(1);
        }
        close(fds[1]);
        mPipe = fds[0];
        return mPid > 0;
    }
    // The next report, or 0 when none comes within the bound.
    char readReport(int timeoutMs = 20000) {
        pollfd entry = {mPipe, POLLIN, 0};
        char report = 0;
        if (poll(&entry, 1, timeoutMs) != 1 || read(mPipe, &report, 1) != 1)
            return 0;
        return report;
    }
    void kill(int signal) {
        if (mPid <= 0)
            return;
        ::kill(mPid, signal);
        if (signal == SIGKILL) {
            waitpid(mPid, nullptr, 0);
            mPid = -1;
            close(mPipe);
            mPipe = -1;
        }
    }

private:
    pid_t mPid = -1;
    int mPipe = -1;
};

[[noreturn]] void report(int fd, char what) {
    if (write(fd, &what, 1) != 1)
        _exit(4);
    for (;;)
        pause();
}

// Where a reader stops in its contract for one frame of session 0. HUNG_UP_HOLDING_LOCK:
// after mutexDataAccessable, with its connection closed but its mappings kept.
enum class Step { AFTER_AVAILABLE, AFTER_ACCESSABLE, MID_READ, AFTER_POST, HUNG_UP_HOLDING_LOCK };

// The play engine's side: connects, maps the buffers, reports 'c', follows the reader contract
// for one frame of session 0 up to `step`, reports 's' and waits there to be killed or stopped.
void runReader(const std::string& server, const std::string& own, Step step, int fd) {
    PlayEngineReader reader;
    if (!reader.connect(server, own).empty())
        _exit(2);
    if (write(fd, "c", 1) != 1)
        _exit(4);
    CmmbSharedBuffer* b = reader.buffer(0);
    auto stopAt = [&](Step here) {
        if (here == step)
            report(fd, 's');
    };
    cmmb_sem_wait(&b->mutexDataAvailable);
    stopAt(Step::AFTER_AVAILABLE);
    cmmb_sem_wait(&b->mutexDataAccessable);
    stopAt(Step::AFTER_ACCESSABLE);
    if (step == Step::HUNG_UP_HOLDING_LOCK) {
        reader.hangUp();
        stopAt(step);
    }
    unsigned sum = 0;
    for (uint32_t i = 0; i < b->nalCount / 2; ++i)
        sum += b->data[b->nal[i].offset];
    // Half the frame is read; the sum only keeps the reads from being left out.
    if (sum == ~0u)
        _exit(5);
    stopAt(Step::MID_READ);
    b->nalCount = 0;
    b->aacCount = 0;
    cmmb_sem_post(&b->mutexDataAccessable);
    stopAt(Step::AFTER_POST);
    _exit(3);
}

// True once the reader process has connected and mapped both buffers.
bool startReader(ReportingProcess& reader, const EngineDataPath& bench, Step step,
                 const std::string& name) {
    const std::string server = bench.serverPath(), own = bench.root.path() + "/" + name + ".socket";
    return reader.fork([&](int fd) { runReader(server, own, step, fd); }) &&
           reader.readReport() == 'c';
}

// Starts the reader process and plays a frame; true once the reader has stopped at `step`.
bool readerStopsInAFrame(ReportingProcess& reader, EngineDataPath& bench, Step step,
                         const std::string& name) {
    if (!startReader(reader, bench, step, name))
        return false;
    bench.playFrame(kChannel, 3, 2);
    return reader.readReport() == 's';
}

sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// Reads session 0 until a frame with `nals` units arrives (earlier frames played while no
// reader was connected may come first); false when none does within the bound.
bool readsFrameWith(PlayEngineReader& reader, size_t nals) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        ReadFrame frame;
        if (!reader.readFrame(0, &frame, 5000))
            return false;
        if (frame.nals.size() == nals)
            return true;
    }
    return false;
}

class ReaderKilled : public ::testing::TestWithParam<Step> {};

TEST_P(ReaderKilled, DeliveryGoesOnAndANewPlayEngineIsServed) {
    EXPECT_IN_CHILD({
        // With a lock bound far beyond the checks below, only taking the lock back can let
        // the agent go on in time.
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        ReportingProcess reader;
        ASSERT_TRUE(readerStopsInAFrame(reader, bench, GetParam(), "dying"));
        // The agent's thread is blocked in a frame start when the reader holds the lock.
        AsyncCall blockedFrame([&] { bench.playFrame(kChannel, 3, 2); });
        std::this_thread::sleep_for(milliseconds(20));
        reader.kill(SIGKILL);
        ASSERT_TRUE(blockedFrame.endsWithin(milliseconds(1000)));
        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 3, 2); }));

        PlayEngineReader next;
        ASSERT_EQ("", next.connect(bench.serverPath(), bench.root.path() + "/next.socket"));
        bench.playFrame(kChannel, 5, 1);
        EXPECT_TRUE(readsFrameWith(next, 5));

        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.engine->stopTVService(0); }));
        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.engine->deinit(); }));
    });
}

std::string stepName(const ::testing::TestParamInfo<Step>& step) {
    static const char* const kNames[] = {"AfterDataAvailable", "AfterDataAccessable", "MidRead",
                                         "AfterPost"};
    return kNames[static_cast<int>(step.param)];
}

INSTANTIATE_TEST_SUITE_P(AtEachStep, ReaderKilled,
                         ::testing::Values(Step::AFTER_AVAILABLE, Step::AFTER_ACCESSABLE,
                                           Step::MID_READ, Step::AFTER_POST),
                         stepName);

// Under an emulator every process start costs seconds, so fewer cycles are run there.
const int kConnectAndKillCycles = TAVO_EMULATED ? 40 : 200;

TEST(ReaderKilledRepeatedly, LeavesNoDescriptorBehind) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR", false, {{kLockTimeoutProperty, "60000"}});
        int before = -1;
        for (int cycle = 0; cycle <= kConnectAndKillCycles; ++cycle) {
            if (cycle == 1)
                before = openDescriptors();  // after the first connection has set up
            ReportingProcess reader;
            ASSERT_TRUE(startReader(reader, bench, Step::MID_READ, "cycle"));
            // The reader may take the lock for a frame signalled earlier, before this frame
            // starts, so the frame may block until the reader is gone.
            AsyncCall frame([&] { bench.playFrame(kChannel, 2, 1); });
            ASSERT_EQ('s', reader.readReport()) << "cycle " << cycle;
            reader.kill(SIGKILL);
            ASSERT_TRUE(frame.endsWithin(milliseconds(1000))) << "cycle " << cycle;
            ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 2, 1); }))
                << "cycle " << cycle;
        }
        // The command thread may still be closing the last connection.
        for (int i = 0; i < 100 && openDescriptors() != before; ++i)
            std::this_thread::sleep_for(milliseconds(10));
        EXPECT_EQ(before, openDescriptors());
    });
}

// A play engine that hangs up holding a buffer lock and exits a little later: the engine looks
// for its exit for two seconds of time, however many refused connections keep the command
// thread busy meanwhile, and then takes the lock back.
TEST(ReaderHungUp, ItsExitIsAwaitedForTheWholeWindowWhateverWakesTheCommandThread) {
    if (TAVO_EMULATED)
        GTEST_SKIP() << "250 emulated connections may outlast the engine's 2 s window";
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        ReportingProcess leaving;
        ASSERT_TRUE(readerStopsInAFrame(leaving, bench, Step::HUNG_UP_HOLDING_LOCK, "leaving"));
        AsyncCall blockedFrame([&] { bench.playFrame(kChannel, 3, 2); });

        // Unbound clients: each one wakes the command thread and is refused, so none of them
        // counts as a reader that may still use the buffers.
        const int kRefused = 250;
        sockaddr_un engine = unixAddress(bench.serverPath());
        for (int i = 0; i < kRefused; ++i) {
            int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&engine), sizeof(engine)));
            close(fd);
        }
        for (int i = 0; i < 500 && bench.root.countLog("socket file not exist!") < kRefused; ++i)
            std::this_thread::sleep_for(milliseconds(2));
        ASSERT_EQ(kRefused, bench.root.countLog("socket file not exist!"));

        leaving.kill(SIGKILL);
        EXPECT_TRUE(blockedFrame.endsWithin(milliseconds(1000)))
            << "the lock of the play engine that hung up was not taken back";
    });
}

TEST(ReaderStopped, WaitIsBoundedAndTheOtherSessionIsServed) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true, {{kLockTimeoutProperty, "300"}});
        ASSERT_EQ(0, bench.startService(1, 7, kChannel));
        // A second play engine that takes session 0's lock and is then stopped with SIGSTOP;
        // this process keeps reading session 1.
        ReportingProcess hung;
        ASSERT_TRUE(readerStopsInAFrame(hung, bench, Step::AFTER_ACCESSABLE, "hung"));
        hung.kill(SIGSTOP);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(1, &frame, 5000));

        for (int nals = 4; nals <= 6; ++nals) {
            ASSERT_TRUE(
                endsWithin(milliseconds(5000), [&] { bench.playFrame(kChannel, nals, 1); }));
            ASSERT_TRUE(bench.reader.readFrame(1, &frame, 5000));
            EXPECT_EQ(static_cast<size_t>(nals), frame.nals.size());
        }
        EXPECT_EQ(3, bench.root.countLog("A/V DATA LOST(session=0) due to playengine holds"));

        FILE* recording = tmpfile();
        ASSERT_NE(nullptr, recording);
        EXPECT_TRUE(endsWithin(milliseconds(2000),
                               [&] { bench.engine->startRecording(0, fileno(recording)); }));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine->stopRecording(0); }));
        fclose(recording);
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine->stopTVService(0); }));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine->deinit(); }));
        hung.kill(SIGKILL);
    });
}

// 1,000 other clients connect and disconnect while frames flow as fast as the reader takes
// them: the play engine that keeps its mapping reads every frame, in order.
TEST(ReconnectStorm, LosesNothingForTheReaderThatStays) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true);
        const std::string own = bench.root.path() + "/storm.socket";
        const sockaddr_un engine = unixAddress(bench.serverPath()), self = unixAddress(own);
        pid_t storm = fork();
        if (storm == 0) {
            int connected = 0;
            for (int i = 0; i < 1000; ++i) {
                int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
                unlink(own.c_str());
                bind(fd, reinterpret_cast<const sockaddr*>(&self), sizeof(self));
                connected +=
                    connect(fd, reinterpret_cast<const sockaddr*>(&engine), sizeof(engine)) == 0;
                close(fd);
            }
            _exit(connected == 1000 ? 0 : 1);
        }
        ASSERT_GT(storm, 0);

        Bytes unit = nalUnit(4, 0x41, 200);
        long played = 0, readInOrder = 0;
        int stormStatus = -1;
        while (waitpid(storm, &stormStatus, WNOHANG) == 0 || played < 2000) {
            deliverFrame(bench.agent->callback(), kChannel, &unit, 1, played);
            CmmbSharedBuffer* b = bench.buffer(0);
            ASSERT_EQ(0, cmmb_sem_timedwait(&b->mutexDataAvailable, 5000)) << "frame " << played;
            ASSERT_EQ(0, cmmb_sem_timedwait(&b->mutexDataAccessable, 5000)) << "frame " << played;
            readInOrder += b->nalCount == 1 && b->nal[0].tsBase == static_cast<uint32_t>(played);
            b->nalCount = 0;
            b->aacCount = 0;
            cmmb_sem_post(&b->mutexDataAccessable);
            ++played;
        }
        ASSERT_TRUE(WIFEXITED(stormStatus));
        EXPECT_EQ(0, WEXITSTATUS(stormStatus)) << "some storm connections were not accepted";
        EXPECT_EQ(played, readInOrder);
        EXPECT_EQ(0, bench.root.countLog("A/V DATA LOST"));
        EXPECT_EQ(0, bench.root.countLog("taken back"));
    });
}

// What a client running as `uid` gets from the engine: 'A' when connect() itself is
// refused (socket file permissions), 'C' when the engine closes the connection without
// sending anything, 'S' when it receives both "sharebuffer" commands.
char connectAs(uid_t uid, const std::string& server, const std::string& own) {
    ReportingProcess client;
    client.fork([&](int fd) {
        char result = 'E';
        if (setgid(uid) == 0 && setuid(uid) == 0) {
            umask(0);
            EngineConnection connection(server, own);
            std::string error;
            if (!connection.connect(&error)) {
                result = 'A';
            } else {
                EngineCommand first, second;
                const EngineConnection::ReceiveResult answer = connection.receive(&first, 5000);
                if (answer == EngineConnection::CLOSED)
                    result = 'C';
                else if (answer == EngineConnection::RECEIVED &&
                         connection.receive(&second, 5000) == EngineConnection::RECEIVED)
                    result = 'S';
            }
        }
        report(fd, result);
    });
    return client.readReport(30000);
}

// Another user's process may not take over the play engine's connection and its buffers,
// even with umask 0 and directories open to everyone; a uid listed in the property may.
TEST(OtherUsersClient, IsRefusedWhileThePlayEngineKeepsItsFrames) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run clients under other uids";
    EXPECT_IN_CHILD({
        umask(0);
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true,
                      {{"persist.mbbms.playengine.uids", "4243, 4242"}});
        const std::string server = bench.serverPath();
        struct stat status;
        ASSERT_EQ(0, stat(server.c_str(), &status));
        EXPECT_EQ(0660u, status.st_mode & 0777u);
        for (const char* directory : {"", "/data", "/data/app"})
            ASSERT_EQ(0, chmod((bench.root.path() + directory).c_str(), 0777));

        EXPECT_EQ('A', connectAs(4343, server, bench.root.path() + "/other.socket"));
        // With the socket file opened up as well, the credentials still refuse the client.
        ASSERT_EQ(0, chmod(server.c_str(), 0666));
        EXPECT_EQ('C', connectAs(4343, server, bench.root.path() + "/other.socket"));
        EXPECT_TRUE(bench.root.logContains("client of uid 4343 is not allowed to connect"));
        EXPECT_FALSE(bench.root.logContains("now force close former one"));

        bench.playFrame(kChannel, 4, 1);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame, 5000));
        EXPECT_EQ(4u, frame.nals.size());

        EXPECT_EQ('S', connectAs(4242, server, bench.root.path() + "/listed.socket"));
    });
}

}  // namespace
