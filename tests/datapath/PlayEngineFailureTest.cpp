// Live TV when the play engine dies, hangs, forks or reconnects: play engines are processes
// that connect over the real socket and map the real shared memory. "Within" bounds are hang
// detectors. Every reader checks that the engine writes nothing into a buffer whose lock it
// holds (marks written under the lock stay intact) and that the lock never reads above 1.
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <thread>

#include "ChildProcess.h"
#include "EngineDataPath.h"
#include "OpenDescriptors.h"
#include "UniqueHandle.h"

namespace {

using std::chrono::milliseconds;

const int kChannel = 40;
const char kLockTimeoutProperty[] = "persist.mbbms.playengine.lock_timeout_ms";
// The engine's regions (their inodes) now, to be compared after a step that may replace one.
using Regions = std::array<long long, 2>;

Regions regions() {
    return {regionInodeInThisProcess(0), regionInodeInThisProcess(1)};
}

// Session 0 showing service 7, with a lock bound far beyond the checks here.
#define PATIENT_BENCH(bench, connectPlayEngine)                        \
    SERVING_BENCH(bench, kChannel, "ERROR,WARNING", connectPlayEngine, \
                  {{kLockTimeoutProperty, "60000"}})

// Reports of a reader process, one byte each; a frame read is kFrame plus its NAL units.
const char kConnected = 'c', kStopped = 's', kHolding = 'h', kReleased = 'k', kDone = 'd',
           kMarkerBroken = 'X', kLockAboveOne = 'Y', kFrame = 'A';

char frameReport(int nals) {
    return static_cast<char>(kFrame + nals);
}

bool endsWithin(milliseconds bound, const std::function<void()>& fn) {
    return AsyncCall(fn).endsWithin(bound);
}

bool playsWithin(EngineDataPath& bench, int nals, milliseconds bound = milliseconds(1000)) {
    return endsWithin(bound, [&] { bench.playFrame(kChannel, nals, 1); });
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

// A process that reports single characters through a pipe; killed when dropped.
class ReportingProcess {
public:
    ~ReportingProcess() { kill(SIGKILL); }
    bool fork(const std::function<void(int)>& body) {
        int fds[2];
        if (pipe(fds) != 0)
            return false;
        mPipe.reset(fds[0]);
        UniqueFd writeEnd(fds[1]);
        mPid = ::fork();
        if (mPid == 0) {
            body(writeEnd.get());
            _exit(1);
        }
        writeEnd.reset();
        return mPid > 0;
    }
    // The next report, or 0 when none comes within the bound.
    char readReport(int timeoutMs = 20000) {
        pollfd entry = {mPipe.get(), POLLIN, 0};
        char report = 0;
        return poll(&entry, 1, timeoutMs) == 1 && read(mPipe.get(), &report, 1) == 1 ? report : 0;
    }
    // True when `wanted` comes, after frame reports only, each within the bound.
    bool reportsWithin(char wanted, int timeoutMs) {
        char report = 0;
        while ((report = readReport(timeoutMs)) != 0 && report != wanted &&
               report != kMarkerBroken && report != kLockAboveOne) {
        }
        return report == wanted;
    }
    void kill(int signal) {
        if (mPid <= 0)
            return;
        ::kill(mPid, signal);
        if (signal == SIGKILL) {
            waitpid(mPid, nullptr, 0);
            mPid = -1;
        }
    }

private:
    pid_t mPid = -1;
    UniqueFd mPipe;
};

// Marks on fields every frame start writes, set by a reader holding the lock.
const uint32_t kMark = 0x5A5A5A5Au;

void markBuffer(CmmbSharedBuffer* b) {
    b->dataLength = kMark;
    b->nal[CMMB_NAL_RECORD_SLOTS - 1].pos = kMark;
    memset(b->data + CMMB_PAYLOAD_SIZE - 64, 0x5A, 64);
}

bool markIntact(const CmmbSharedBuffer* b) {
    const unsigned char* tail = b->data + CMMB_PAYLOAD_SIZE - 64;
    return b->dataLength == kMark && b->nal[CMMB_NAL_RECORD_SLOTS - 1].pos == kMark &&
           std::all_of(tail, tail + 64, [](unsigned char byte) { return byte == 0x5A; });
}

// Where a reader stops in its contract for a frame of session 0.
enum class Step { NONE, AFTER_AVAILABLE, HOLDING_LOCK, MID_READ, COUNTS_CLEARED };

// Follows the reader contract on session 0, reporting every frame read, and stops for good at
// `stopAt`; with `frames`, exits after that many, holding the last one's lock `holdLastMs`.
void readFrames(CmmbSharedBuffer* b, int fd, Step stopAt, int frames = -1, int holdLastMs = 0) {
    auto stopHere = [&](Step here) {
        if (here == stopAt)
            reportAndWait(fd, kStopped);
    };
    for (int frame = 1; frames < 0 || frame <= frames; ++frame) {
        if (cmmb_sem_timedwait(&b->mutexDataAvailable, 30000) != 0)
            _exit(6);
        stopHere(Step::AFTER_AVAILABLE);
        if (cmmb_sem_timedwait(&b->mutexDataAccessable, 30000) != 0)
            _exit(7);
        stopHere(Step::HOLDING_LOCK);
        const int nals = static_cast<int>(std::min<uint32_t>(b->nalCount, 25));
        unsigned sum = 0;
        for (int i = 0; i < nals; ++i)
            sum += b->data[b->nal[i].offset % CMMB_PAYLOAD_SIZE];
        if (sum == ~0u)  // keeps the reads from being left out
            _exit(5);
        markBuffer(b);
        stopHere(Step::MID_READ);
        const bool hold = holdLastMs > 0 && frame == frames;
        if (hold) {
            sendReport(fd, kHolding);
            usleep(holdLastMs * 1000);
        }
        if (!markIntact(b))
            reportAndWait(fd, kMarkerBroken);
        b->nalCount = 0;
        b->aacCount = 0;
        stopHere(Step::COUNTS_CLEARED);
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

// A play engine process: connects from `name`.socket, then reads until it stops at `stopAt`.
bool startReader(ReportingProcess& reader, const EngineDataPath& bench, const std::string& name,
                 Step stopAt = Step::NONE) {
    const std::string server = bench.serverPath(),
                      own = bench.root().path() + "/" + name + ".socket";
    return reader.fork([&](int fd) {
        PlayEngineReader engineSide;
        if (!engineSide.connect(server, own).empty())
            _exit(2);
        sendReport(fd, kConnected);
        readFrames(engineSide.buffer(0), fd, stopAt);
    }) && reader.readReport() == kConnected;
}

// A new play engine connects while another holds or kept session 0's lock: served at once.
void expectNewcomerServed(EngineDataPath& bench, ReportingProcess& next) {
    ASSERT_TRUE(startReader(next, bench, "next"));
    ASSERT_TRUE(playsWithin(bench, 5));
    EXPECT_TRUE(next.reportsWithin(frameReport(5), 1000));
}

void expectSession0Replaced(const Regions& first) {
    const Regions now = regions();
    EXPECT_NE(first[0], now[0]);
    EXPECT_EQ(first[1], now[1]) << "session 1 was free";
}

struct Failure {
    Step stopAt;
    bool hangs;  // stopped with SIGSTOP, killed only once a new play engine is served
};

class ReaderFails : public ::testing::TestWithParam<Failure> {};

// A reader killed at each step of its contract, or hung holding the lock: the frame waiting for
// its lock goes on, the buffer is replaced exactly when the reader held the lock, and the next
// play engine gets a frame at once. Killing a hung reader afterwards changes nothing.
TEST_P(ReaderFails, TheNextPlayEngineGetsAFrameAtOnce) {
    const Failure failure = GetParam();
    EXPECT_IN_CHILD({
        PATIENT_BENCH(bench, false);
        const Regions first = regions();
        ReportingProcess failing, next;
        ASSERT_TRUE(startReader(failing, bench, "failing", failure.stopAt));
        bench.playFrame(kChannel, 3, 2);
        ASSERT_EQ(kStopped, failing.readReport());
        // The agent's thread is blocked in a frame start when the reader holds the lock.
        AsyncCall blockedFrame([&] { bench.playFrame(kChannel, 3, 2); });
        std::this_thread::sleep_for(milliseconds(100));
        if (failure.hangs) {
            failing.kill(SIGSTOP);
            EXPECT_FALSE(blockedFrame.endsWithin(milliseconds(0))) << "the frame did not wait";
            ASSERT_NO_FATAL_FAILURE(expectNewcomerServed(bench, next));
        } else {
            failing.kill(SIGKILL);
        }
        ASSERT_TRUE(blockedFrame.endsWithin(milliseconds(1000)));
        if (!failure.hangs) {
            ASSERT_NO_FATAL_FAILURE(expectNewcomerServed(bench, next));
        }
        if (failure.stopAt != Step::AFTER_AVAILABLE)
            expectSession0Replaced(first);
        else
            EXPECT_EQ(first, regions()) << "replaced though the reader never held the lock";
        if (failure.hangs) {
            const Regions replaced = regions();
            failing.kill(SIGKILL);
            ASSERT_TRUE(playsWithin(bench, 4));
            EXPECT_TRUE(next.reportsWithin(frameReport(4), 1000));
            EXPECT_EQ(replaced, regions()) << "killing the hung reader replaced a buffer again";
        }
        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.engine().stopTVService(0); }));
        EXPECT_TRUE(endsWithin(milliseconds(1000), [&] { bench.engine().deinit(); }));
    });
}

std::string failureName(const ::testing::TestParamInfo<Failure>& failure) {
    static const char* const kNames[] = {"None", "AfterDataAvailable", "HoldingTheLock", "MidRead",
                                         "AfterClearingTheCounts"};
    return std::string(failure.param.hangs ? "HangsAt" : "DiesAt") +
           kNames[static_cast<int>(failure.param.stopAt)];
}

INSTANTIATE_TEST_SUITE_P(AtEachStep, ReaderFails,
                         ::testing::Values(Failure{Step::AFTER_AVAILABLE, false},
                                           Failure{Step::HOLDING_LOCK, false},
                                           Failure{Step::MID_READ, false},
                                           Failure{Step::COUNTS_CLEARED, false},
                                           Failure{Step::MID_READ, true}),
                         failureName);

// Under an emulator every process start costs seconds.
const int kConnectAndKillCycles = TAVO_EMULATED ? 40 : 200;

// Each cycle replaces session 0's buffer; the old regions' descriptors and mappings go.
TEST(ReaderKilledRepeatedly, LeavesNoDescriptorBehind) {
    EXPECT_IN_CHILD({
        PATIENT_BENCH(bench, false);
        int before = -1;
        std::set<long long> handedOut;
        for (int cycle = 0; cycle <= kConnectAndKillCycles; ++cycle) {
            if (cycle == 1)
                before = openDescriptors();  // after the first connection has set up
            ReportingProcess reader;
            ASSERT_TRUE(startReader(reader, bench, "cycle", Step::MID_READ));
            handedOut.insert(regionInodeInThisProcess(0));
            // The reader may take the lock of an earlier frame: this one may block until it goes.
            AsyncCall frame([&] { bench.playFrame(kChannel, 2, 1); });
            ASSERT_EQ(kStopped, reader.readReport()) << "cycle " << cycle;
            reader.kill(SIGKILL);
            ASSERT_TRUE(frame.endsWithin(milliseconds(1000))) << "cycle " << cycle;
            ASSERT_TRUE(playsWithin(bench, 2)) << "cycle " << cycle;
        }
        // The command thread may still be closing the last connection.
        EXPECT_TRUE(holdsWithin(milliseconds(1000), [&] { return openDescriptors() == before; }))
            << openDescriptors() << " descriptors open, " << before << " before";
        EXPECT_EQ(static_cast<size_t>(kConnectAndKillCycles + 1), handedOut.size());
    });
}

// A play engine forks; its child hangs up its copy of the connection and reads on after the
// parent has gone. Its buffer stays while it does not hold the lock; a new play engine arriving
// while it does gets a fresh buffer, and nothing is written into the child's.
TEST(ReaderForks, TheChildReadsOnAndANewPlayEngineGetsAFreshBuffer) {
    EXPECT_IN_CHILD({
        PATIENT_BENCH(bench, false);
        const std::string server = bench.serverPath(), own = bench.root().path() + "/parent.socket";
        const Regions first = regions();
        ReportingProcess family;
        ASSERT_TRUE(family.fork([&](int fd) {
            PlayEngineReader engineSide;
            if (!engineSide.connect(server, own).empty())
                _exit(2);
            const pid_t child = ::fork();
            if (child == 0) {
                engineSide.hangUp();  // the child's copy of the connection
                readFrames(engineSide.buffer(0), fd, Step::NONE, 3, 1000);
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
        EXPECT_EQ(first, regions()) << "a buffer whose lock was free changed";

        bench.playFrame(kChannel, 4, 2);
        ASSERT_EQ(kHolding, family.readReport());
        ReportingProcess next;
        ASSERT_NO_FATAL_FAILURE(expectNewcomerServed(bench, next));
        EXPECT_EQ(kReleased, family.readReport()) << "the child's buffer was written";
        EXPECT_EQ(frameReport(4), family.readReport());
        EXPECT_EQ(kDone, family.readReport());
        expectSession0Replaced(first);
    });
}

// A stopped play engine that stays connected holds its session up for the lock bound only
// (a stop's reset is skipped), and the other session is served meanwhile.
TEST(ReaderStopped, WaitIsBoundedAndTheOtherSessionIsServed) {
    EXPECT_IN_CHILD({
        SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true, {{kLockTimeoutProperty, "300"}});
        ASSERT_EQ(0, bench.startService(1, 7, kChannel));
        // This process takes session 0's lock, as a stopped play engine would, and reads 1.
        bench.playFrame(kChannel, 3, 1);
        CmmbSharedBuffer* stuck = bench.buffer(0);
        ASSERT_EQ(0, cmmb_sem_timedwait(&stuck->mutexDataAvailable, 5000));
        ASSERT_EQ(0, cmmb_sem_timedwait(&stuck->mutexDataAccessable, 5000));
        markBuffer(stuck);
        ReadFrame frame;
        ASSERT_TRUE(bench.reader.readFrame(1, &frame, 5000));

        for (int nals = 4; nals <= 6; ++nals) {
            ASSERT_TRUE(playsWithin(bench, nals, milliseconds(5000)));
            ASSERT_TRUE(bench.reader.readFrame(1, &frame, 5000));
            EXPECT_EQ(static_cast<size_t>(nals), frame.nals.size());
        }
        EXPECT_EQ(3, bench.root().countLog("A/V DATA LOST(session=0) due to playengine holds"));

        UniqueFile recording(tmpfile());
        ASSERT_TRUE(recording);
        EXPECT_TRUE(endsWithin(milliseconds(2000),
                               [&] { bench.engine().startRecording(0, fileno(recording.get())); }));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine().stopRecording(0); }));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine().stopTVService(0); }));
        EXPECT_EQ(1, bench.root().countLog("playengine holds the buffer of session=0 longer than "
                                           "300 ms, reset skipped"));
        EXPECT_TRUE(markIntact(stuck)) << "the buffer was written while its lock was held";
        EXPECT_EQ(0, bench.root().countLog("buffer replaced"))
            << "a connected reader's buffer changed";
        cmmb_sem_post(&stuck->mutexDataAccessable);
        EXPECT_EQ(1, valueOf(&stuck->mutexDataAccessable));
        EXPECT_TRUE(endsWithin(milliseconds(2000), [&] { bench.engine().deinit(); }));
    });
}

// Connects as `uid` in a process of its own and expects `outcome`: refused (by the socket
// file's permissions), closed (by the engine) or served.
void expectConnectAs(uid_t uid, const std::string& server, const std::string& own, int outcome) {
    EXPECT_EQ("", runInChild([&] {
                  ASSERT_EQ(0, setgroups(0, nullptr));
                  ASSERT_EQ(0, setgid(uid));
                  ASSERT_EQ(0, setuid(uid));
                  umask(0);
                  tavo_pe* sdk = tavo_pe_create(server.c_str(), own.c_str());
                  ASSERT_NE(nullptr, sdk);
                  const int status = tavo_pe_connect(sdk, 5000);
                  tavo_pe_destroy(sdk);
                  // Refused at bind or at connect.
                  EXPECT_EQ(outcome, status == TAVO_PE_SYSTEM ? TAVO_PE_REFUSED : status);
              }))
        << "uid " << uid;
}

// Another user's process may not take over the play engine's connection, even with umask 0
// and directories open to all: without listed uids the socket file keeps it out; with a list
// the credentials refuse any uid not listed while a listed one is served. Either way the
// connected play engine keeps its frames.
TEST(OtherUsersClient, IsRefusedWhileAListedUidIsServed) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run clients under other uids";
    struct Case {
        const char* listedUids;
        int otherGets;
    };
    for (const Case& listing : {Case{"", TAVO_PE_REFUSED}, Case{"4243, 4242", TAVO_PE_CLOSED}}) {
        SCOPED_TRACE(std::string("listed uids: '") + listing.listedUids + "'");
        EXPECT_IN_CHILD({
            umask(0);
            EngineRig::Properties properties;
            if (listing.listedUids[0] != '\0')
                properties = {{"persist.mbbms.playengine.uids", listing.listedUids}};
            SERVING_BENCH(bench, kChannel, "ERROR,WARNING", true, properties);
            const std::string server = bench.serverPath(), root = bench.root().path();
            for (const char* directory : {"", "/data", "/data/app"})
                ASSERT_EQ(0, chmod((root + directory).c_str(), 0777));

            expectConnectAs(4343, server, root + "/other.socket", listing.otherGets);
            EXPECT_FALSE(bench.root().logContains("now force close former one"));
            bench.playFrame(kChannel, 4, 1);
            ReadFrame frame;
            ASSERT_TRUE(bench.reader.readFrame(0, &frame, 5000));
            EXPECT_EQ(4u, frame.nals.size());
            if (listing.listedUids[0] != '\0')
                expectConnectAs(4242, server, root + "/listed.socket", TAVO_PE_OK);
        });
    }
}

}  // namespace
