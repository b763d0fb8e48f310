// Live TV when the play engine dies, hangs, forks or reconnects. The engine runs in a child
// process; play engines are further processes that connect over the real socket and map the
// real shared memory. "Within" bounds here are hang detectors, not performance limits.
//
// Every reader process here checks, while it holds a buffer lock, that the engine writes
// nothing into that buffer: it marks the fields the engine writes at a frame start and finds
// them intact before it posts the lock; and it checks that the lock never reads above 1.
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "OpenDescriptors.h"

namespace {

using std::chrono::milliseconds;

const int kChannel = 40;
const char kLockTimeoutProperty[] = "persist.mbbms.playengine.lock_timeout_ms";
// The engine's regions now, to be compared after a step that may replace one of them.
struct Regions {
    Regions() : inodes{regionInodeInThisProcess(0), regionInodeInThisProcess(1)} {}
    bool operator==(const Regions& other) const {
        return inodes[0] == other.inodes[0] && inodes[1] == other.inodes[1];
    }
    long long inodes[2];
};

// Reports of a reader process, one byte each. A frame read is reported as kFrame plus its
// number of NAL units (at most 25).
const char kConnected = 'c', kStopped = 's', kHolding = 'h', kReleased = 'k', kDone = 'd',
           kMarkerBroken = 'X', kLockAboveOne = 'Y', kFrame = 'A';

char frameReport(int nals) {
    return static_cast<char>(kFrame + nals);
}

bool endsWithin(milliseconds bound, const std::function<void()>& fn) {
    return AsyncCall(fn).endsWithin(bound);
}

void sendReport(int fd, char what) {
    if (write(fd, &what, 1) != 1)
        _exit(4);
}

[[noreturn]] void reportAndWait(int fd, char what) {
    sendReport(fd, what);
    for (;;)
        pause();
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
    // True when `wanted` comes within the bound, after at most a few other frame reports.
    bool reportsWithin(char wanted, int timeoutMs) {
        const auto end = std::chrono::steady_clock::now() + milliseconds(timeoutMs);
        for (;;) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
            const char report = readReport(static_cast<int>(std::max<long long>(left.count(), 0)));
            if (report == wanted)
                return true;
            if (report == 0 || report == kMarkerBroken || report == kLockAboveOne)
                return false;
        }
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

// The fields of a buffer that every frame start writes, marked by a reader that holds the
// lock. They must still hold the marks when it gives the lock back.
const uint32_t kMark = 0x5A5A5A5Au;

void markBuffer(CmmbSharedBuffer* b) {
    b->dataLength = kMark;
    b->nal[CMMB_NAL_RECORD_SLOTS - 1].pos = kMark;
    memset(b->data + CMMB_PAYLOAD_SIZE - 64, 0x5A, 64);
}

bool markIntact(const CmmbSharedBuffer* b) {
    if (b->dataLength != kMark || b->nal[CMMB_NAL_RECORD_SLOTS - 1].pos != kMark)
        return false;
    for (size_t i = CMMB_PAYLOAD_SIZE - 64; i < CMMB_PAYLOAD_SIZE; ++i) {
        if (b->data[i] != 0x5A)
            return false;
    }
    return true;
}

// Where a reader stops in its contract for a frame of session 0.
enum class Step { NONE, AFTER_AVAILABLE, HOLDING_LOCK, MID_READ, COUNTS_CLEARED };

// How a reader reads: where it stops for good, and how long it keeps the lock of its
// `holdFrom`th frame (counted from 1) and every later one, reporting kHolding and then
// kReleased.
struct ReaderPlan {
    Step stopAt = Step::NONE;
    int holdFrom = 0;
    int holdMs = 0;
    int frames = -1;  // frames to read before reporting kDone and exiting; -1: no end
};

// Follows the reader contract on session 0 by `plan`, reporting every frame read.
void readFrames(CmmbSharedBuffer* b, int fd, const ReaderPlan& plan) {
    auto stopAt = [&](Step here) {
        if (here == plan.stopAt)
            reportAndWait(fd, kStopped);
    };
    for (int frame = 1; plan.frames < 0 || frame <= plan.frames; ++frame) {
        if (cmmb_sem_timedwait(&b->mutexDataAvailable, 30000) != 0)
            _exit(6);
        stopAt(Step::AFTER_AVAILABLE);
        if (cmmb_sem_timedwait(&b->mutexDataAccessable, 30000) != 0)
            _exit(7);
        stopAt(Step::HOLDING_LOCK);
        const int nals = static_cast<int>(std::min<uint32_t>(b->nalCount, 25));
        unsigned sum = 0;
        for (int i = 0; i < nals; ++i)
            sum += b->data[b->nal[i].offset % CMMB_PAYLOAD_SIZE];
        if (sum == ~0u)  // keeps the reads from being left out
            _exit(5);
        markBuffer(b);
        stopAt(Step::MID_READ);
        const bool hold = plan.holdFrom > 0 && frame >= plan.holdFrom;
        if (hold) {
            sendReport(fd, kHolding);
            usleep(plan.holdMs * 1000);
        }
        if (!markIntact(b))
            reportAndWait(fd, kMarkerBroken);
        b->nalCount = 0;
        b->aacCount = 0;
        stopAt(Step::COUNTS_CLEARED);
        cmmb_sem_post(&b->mutexDataAccessable);
        if (valueOf(&b->mutexDataAccessable) > 1)
            reportAndWait(fd, kLockAboveOne);
        if (hold)
            sendReport(fd, kReleased);
        sendReport(fd, frameReport(nals));
    }
    sendReport(fd, kDone);
    _exit(0);
}

// A play engine process: connects from `name`.socket, maps the buffers, reports kConnected,
// then reads by `plan`.
bool startReader(ReportingProcess& reader, const EngineDataPath& bench, const std::string& name,
                 const ReaderPlan& plan) {
    const std::string server = bench.serverPath(),
                      own = bench.root().path() + "/" + name + ".socket";
    return reader.fork([&](int fd) {
        PlayEngineReader engineSide;
        if (!engineSide.connect(server, own).empty())
            _exit(2);
        sendReport(fd, kConnected);
        readFrames(engineSide.buffer(0), fd, plan);
    }) && reader.readReport() == kConnected;
}

ReaderPlan stoppingAt(Step step) {
    ReaderPlan plan;
    plan.stopAt = step;
    return plan;
}

class ReaderDies : public ::testing::TestWithParam<Step> {};

// A reader killed at each step of its contract: the frame waiting for its lock goes on, the
// buffer is replaced exactly when the reader held the lock, and the next play engine gets a
// frame at once.
TEST_P(ReaderDies, TheNextPlayEngineGetsAFrameAtOnce) {
    EXPECT_IN_CHILD({
        // With a lock bound far beyond the checks below, only replacing the buffer can let
        // the agent go on in time.
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        const Regions first;
        ReportingProcess dying;
        ASSERT_TRUE(startReader(dying, bench, "dying", stoppingAt(GetParam())));
        bench.playFrame(kChannel, 3, 2);
        ASSERT_EQ(kStopped, dying.readReport());
        // The agent's thread is blocked in a frame start when the reader holds the lock.
        AsyncCall blockedFrame([&] { bench.playFrame(kChannel, 3, 2); });
        std::this_thread::sleep_for(milliseconds(20));
        dying.kill(SIGKILL);
        ASSERT_TRUE(blockedFrame.endsWithin(milliseconds(1000)));

        ReportingProcess next;
        ASSERT_TRUE(startReader(next, bench, "next", ReaderPlan()));
        ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 5, 1); }));
        EXPECT_TRUE(next.reportsWithin(frameReport(5), 1000));

        const bool heldTheLock = GetParam() != Step::AFTER_AVAILABLE;
        const Regions now;
        EXPECT_EQ(heldTheLock, now.inodes[0] != first.inodes[0]);
        EXPECT_EQ(first.inodes[1], now.inodes[1]) << "session 1 was free";
        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.engine().stopTVService(0); }));
        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.engine().deinit(); }));
    });
}

std::string stepName(const ::testing::TestParamInfo<Step>& step) {
    static const char* const kNames[] = {"None", "AfterDataAvailable", "HoldingTheLock", "MidRead",
                                         "AfterClearingTheCounts"};
    return kNames[static_cast<int>(step.param)];
}

INSTANTIATE_TEST_SUITE_P(AtEachStep, ReaderDies,
                         ::testing::Values(Step::AFTER_AVAILABLE, Step::HOLDING_LOCK,
                                           Step::MID_READ, Step::COUNTS_CLEARED),
                         stepName);

// Under an emulator every process start costs seconds, so fewer cycles are run there.
const int kConnectAndKillCycles = TAVO_EMULATED ? 40 : 200;

// Each cycle replaces session 0's buffer; the old regions' descriptors and mappings go.
TEST(ReaderKilledRepeatedly, LeavesNoDescriptorBehind) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        int before = -1;
        std::set<long long> handedOut;
        for (int cycle = 0; cycle <= kConnectAndKillCycles; ++cycle) {
            if (cycle == 1)
                before = openDescriptors();  // after the first connection has set up
            ReportingProcess reader;
            ASSERT_TRUE(startReader(reader, bench, "cycle", stoppingAt(Step::MID_READ)));
            // Each reader is handed a fresh region: the one before it was left locked.
            handedOut.insert(regionInodeInThisProcess(0));
            // The reader may take the lock for a frame signalled earlier, before this frame
            // starts, so the frame may block until the reader is gone.
            AsyncCall frame([&] { bench.playFrame(kChannel, 2, 1); });
            ASSERT_EQ(kStopped, reader.readReport()) << "cycle " << cycle;
            reader.kill(SIGKILL);
            ASSERT_TRUE(frame.endsWithin(milliseconds(1000))) << "cycle " << cycle;
            ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 2, 1); }))
                << "cycle " << cycle;
        }
        // The command thread may still be closing the last connection.
        for (int i = 0; i < 100 && openDescriptors() != before; ++i)
            std::this_thread::sleep_for(milliseconds(10));
        EXPECT_EQ(before, openDescriptors());
        EXPECT_EQ(static_cast<size_t>(kConnectAndKillCycles + 1), handedOut.size());
    });
}

// A play engine forks; its child closes its copy of the connection and goes on reading after
// the parent has gone. While it does not hold the lock at a check, its buffer stays: it keeps
// getting frames. When a new play engine arrives while the child holds the lock, the new one
// gets a fresh buffer, and nothing is written into the child's.
TEST(ReaderForks, TheChildReadsOnAndANewPlayEngineGetsAFreshBuffer) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        const std::string server = bench.serverPath(), own = bench.root().path() + "/parent.socket";
        const Regions first;
        ReportingProcess family;
        ASSERT_TRUE(family.fork([&](int fd) {
            PlayEngineReader engineSide;
            if (!engineSide.connect(server, own).empty())
                _exit(2);
            const pid_t child = ::fork();
            if (child == 0) {
                engineSide.hangUp();  // the child's copy of the connection
                ReaderPlan plan;
                plan.holdFrom = 3;
                plan.holdMs = 1000;
                plan.frames = 3;
                readFrames(engineSide.buffer(0), fd, plan);
            }
            sendReport(fd, child > 0 ? kConnected : 'E');
            _exit(0);  // the parent leaves; its connection ends
        }));
        ASSERT_EQ(kConnected, family.readReport());
        ASSERT_TRUE(bench.root().waitForLog("Connection closed by client"));

        for (int frame = 1; frame <= 2; ++frame) {
            bench.playFrame(kChannel, 3, 2);
            EXPECT_EQ(frameReport(3), family.readReport()) << "frame " << frame;
        }
        EXPECT_TRUE(first == Regions()) << "a buffer whose lock was free changed";

        bench.playFrame(kChannel, 4, 2);
        ASSERT_EQ(kHolding, family.readReport());
        ReportingProcess next;
        ASSERT_TRUE(startReader(next, bench, "next", ReaderPlan()));
        ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 5, 1); }));
        EXPECT_TRUE(next.reportsWithin(frameReport(5), 1000));
        EXPECT_EQ(kReleased, family.readReport()) << "the child's buffer was written";
        EXPECT_EQ(frameReport(4), family.readReport());
        EXPECT_EQ(kDone, family.readReport());
        EXPECT_NE(first.inodes[0], Regions().inodes[0]);
        EXPECT_EQ(first.inodes[1], Regions().inodes[1]);
    });
}

// A play engine whose main thread has ended while its reader thread reads on is still
// connected: the engine waits for the thread's lock and the buffer stays. When a new play
// engine pushes it out while the thread holds the lock, the newcomer gets a fresh buffer and
// nothing is written into the thread's.
TEST(ReaderMainThreadEnds, TheReaderThreadKeepsItsBuffer) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer cannot start a thread in a child forked from threads";
#endif
#if TAVO_EMULATED
    GTEST_SKIP() << "qemu-user aborts when a child forked from threads starts a thread";
#endif
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        const std::string server = bench.serverPath(),
                          own = bench.root().path() + "/threads.socket";
        static int reportFd;
        static CmmbSharedBuffer* shared;
        const Regions first;
        ReportingProcess threads;
        ASSERT_TRUE(threads.fork([&](int fd) {
            static PlayEngineReader engineSide;  // outlives the main thread
            if (!engineSide.connect(server, own).empty())
                _exit(2);
            reportFd = fd;
            shared = engineSide.buffer(0);
            pthread_t reader;
            auto run = [](void*) -> void* {
                ReaderPlan plan;
                plan.holdFrom = 1;
                plan.holdMs = 500;
                plan.frames = 2;
                readFrames(shared, reportFd, plan);
                return nullptr;
            };
            if (pthread_create(&reader, nullptr, run, nullptr) != 0)
                _exit(3);
            sendReport(fd, kConnected);
            // Ends the main thread alone, without unwinding: the objects of the engine's
            // process that this fork copied are not to be destroyed here.
            syscall(SYS_exit, 0);
            _exit(8);
        }));
        ASSERT_EQ(kConnected, threads.readReport());

        bench.playFrame(kChannel, 3, 2);
        ASSERT_EQ(kHolding, threads.readReport());
        // Waits for the reader thread's lock, and ends once the thread gives it back.
        AsyncCall second([&] { bench.playFrame(kChannel, 4, 2); });
        EXPECT_EQ(kReleased, threads.readReport()) << "the buffer was written under the reader";
        EXPECT_EQ(frameReport(3), threads.readReport());
        ASSERT_TRUE(second.endsWithin(milliseconds(5000)));
        EXPECT_TRUE(first == Regions()) << "the buffer of a connected reader was replaced";

        ASSERT_EQ(kHolding, threads.readReport());
        ReportingProcess next;
        ASSERT_TRUE(startReader(next, bench, "next", ReaderPlan()));
        ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 5, 1); }));
        EXPECT_TRUE(next.reportsWithin(frameReport(5), 1000));
        EXPECT_EQ(kReleased, threads.readReport()) << "the buffer was written under the reader";
        EXPECT_EQ(frameReport(4), threads.readReport());
        EXPECT_EQ(kDone, threads.readReport());
        EXPECT_NE(first.inodes[0], Regions().inodes[0]);
        EXPECT_EQ(first.inodes[1], Regions().inodes[1]);
        EXPECT_EQ(0, bench.root().countLog("A/V DATA LOST"));
    });
}

// A play engine stopped with SIGSTOP while it holds the lock is replaced by a new one before
// it is killed: the frame waiting for the hung reader ends, the new play engine gets a fresh
// buffer at once, and killing the hung reader afterwards changes nothing.
TEST(ReaderHangs, ANewPlayEngineIsServedBeforeTheHungOneIsKilled) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", false, {{kLockTimeoutProperty, "60000"}});
        const Regions first;
        ReportingProcess hung;
        ASSERT_TRUE(startReader(hung, bench, "hung", stoppingAt(Step::MID_READ)));
        bench.playFrame(kChannel, 3, 2);
        ASSERT_EQ(kStopped, hung.readReport());
        hung.kill(SIGSTOP);
        AsyncCall blockedFrame([&] { bench.playFrame(kChannel, 3, 2); });
        std::this_thread::sleep_for(milliseconds(100));
        EXPECT_FALSE(blockedFrame.endsWithin(milliseconds(0))) << "the frame did not wait";

        ReportingProcess next;
        ASSERT_TRUE(startReader(next, bench, "next", ReaderPlan()));
        ASSERT_TRUE(blockedFrame.endsWithin(milliseconds(1000)));
        ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 5, 1); }));
        EXPECT_TRUE(next.reportsWithin(frameReport(5), 1000));
        const Regions replaced;
        EXPECT_NE(first.inodes[0], replaced.inodes[0]);
        EXPECT_EQ(first.inodes[1], replaced.inodes[1]);

        hung.kill(SIGKILL);
        ASSERT_TRUE(endsWithin(milliseconds(1000), [&] { bench.playFrame(kChannel, 4, 1); }));
        EXPECT_TRUE(next.reportsWithin(frameReport(4), 1000));
        EXPECT_TRUE(replaced == Regions()) << "killing the hung reader replaced a buffer again";
    });
}

// A stopped play engine that stays connected holds its session up for the lock bound only,
// and the other session is served meanwhile.
TEST(ReaderStopped, WaitIsBoundedAndTheOtherSessionIsServed) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true, {{kLockTimeoutProperty, "300"}});
        ASSERT_EQ(0, bench.startService(1, 7, kChannel));
        // Session 0's lock is taken by this process, as a connected play engine that stopped
        // would keep it; the same process reads session 1.
        bench.playFrame(kChannel, 3, 1);
        CmmbSharedBuffer* stuck = bench.buffer(0);
        ASSERT_EQ(0, cmmb_sem_timedwait(&stuck->mutexDataAvailable, 5000));
        ASSERT_EQ(0, cmmb_sem_timedwait(&stuck->mutexDataAccessable, 5000));
        markBuffer(stuck);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(1, &frame, 5000));

        for (int nals = 4; nals <= 6; ++nals) {
            ASSERT_TRUE(
                endsWithin(milliseconds(5000), [&] { bench.playFrame(kChannel, nals, 1); }));
            ASSERT_TRUE(bench.reader.readFrame(1, &frame, 5000));
            EXPECT_EQ(static_cast<size_t>(nals), frame.nals.size());
        }
        EXPECT_EQ(3, bench.root().countLog("A/V DATA LOST(session=0) due to playengine holds"));

        FILE* recording = tmpfile();
        ASSERT_NE(nullptr, recording);
        EXPECT_TRUE(endsWithin(milliseconds(2000),
                               [&] { bench.engine().startRecording(0, fileno(recording)); }));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine().stopRecording(0); }));
        fclose(recording);
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine().stopTVService(0); }));
        EXPECT_TRUE(markIntact(stuck)) << "the buffer was written while its lock was held";
        EXPECT_EQ(0, bench.root().countLog("buffer replaced"))
            << "a connected reader's buffer changed";
        cmmb_sem_post(&stuck->mutexDataAccessable);
        EXPECT_EQ(1, valueOf(&stuck->mutexDataAccessable));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine().deinit(); }));
    });
}

// What a client running as `uid` gets from the engine: 'A' when connect() itself is
// refused (socket file permissions), 'C' when the engine closes the connection without
// sending anything, 'S' when it receives both "sharebuffer" commands.
char connectAs(uid_t uid, const std::string& server, const std::string& own) {
    ReportingProcess client;
    client.fork([&](int fd) {
        char result = 'E';
        if (setgroups(0, nullptr) == 0 && setgid(uid) == 0 && setuid(uid) == 0) {
            umask(0);
            tavo_pe* sdk = tavo_pe_create(server.c_str(), own.c_str());
            const int status = sdk != nullptr ? tavo_pe_connect(sdk, 5000) : TAVO_PE_INVALID;
            if (status == TAVO_PE_REFUSED || status == TAVO_PE_SYSTEM)
                result = 'A';  // bind or connect refused
            else if (status == TAVO_PE_CLOSED)
                result = 'C';
            else if (status == TAVO_PE_OK)
                result = 'S';
            tavo_pe_destroy(sdk);
        }
        reportAndWait(fd, result);
    });
    return client.readReport(30000);
}

// Another user's process may not take over the play engine's connection and its buffers,
// even with umask 0 and directories open to everyone: the socket file is 0660.
TEST(OtherUsersClient, CannotConnectToAPrivateSocketFile) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run clients under other uids";
    EXPECT_IN_CHILD({
        umask(0);
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true);
        struct stat status;
        ASSERT_EQ(0, stat(bench.serverPath().c_str(), &status));
        EXPECT_EQ(0660u, status.st_mode & 0777u);
        for (const char* directory : {"", "/data", "/data/app"})
            ASSERT_EQ(0, chmod((bench.root().path() + directory).c_str(), 0777));
        EXPECT_EQ('A', connectAs(4343, bench.serverPath(), bench.root().path() + "/other.socket"));
    });
}

// A uid listed in the property is served though it shares no group with the engine: the
// socket file is then open to all (0666) and the credentials decide, so any other uid is
// still refused and the connected play engine keeps its frames.
TEST(OtherUsersClient, IsRefusedWhileAListedUidIsServed) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run clients under other uids";
    EXPECT_IN_CHILD({
        umask(0);
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true,
                      {{"persist.mbbms.playengine.uids", "4243, 4242"}});
        const std::string server = bench.serverPath();
        struct stat status;
        ASSERT_EQ(0, stat(server.c_str(), &status));
        EXPECT_EQ(0666u, status.st_mode & 0777u);
        for (const char* directory : {"", "/data", "/data/app"})
            ASSERT_EQ(0, chmod((bench.root().path() + directory).c_str(), 0777));

        EXPECT_EQ('C', connectAs(4343, server, bench.root().path() + "/other.socket"));
        EXPECT_FALSE(bench.root().logContains("now force close former one"));

        bench.playFrame(kChannel, 4, 1);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(0, &frame, 5000));
        EXPECT_EQ(4u, frame.nals.size());

        EXPECT_EQ('S', connectAs(4242, server, bench.root().path() + "/listed.socket"));
    });
}

}  // namespace
