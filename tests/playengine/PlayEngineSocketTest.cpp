// The engine's command socket seen from a play engine: real sockets, the engine in a child
// process and a client endpoint in the same child. White box only where no public operation
// reaches: the shared buffers' addresses and the commands sent by other subsystems.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "EngineRig.h"
#include "FakeClockEnv.h"
#include "FaultInjectingEnv.h"
#include "LogSink.h"
#include "OpenDescriptors.h"
#include "PlayEngineSocketClient.h"
#include "TavoMBBMSEngineImpl.h"
#include "TestRoot.h"
#include "UniqueHandle.h"

namespace {

// The engine with every log category on, a play engine's client and a file for snapshots.
// The command thread calls the application, so the engine is ended before the rig goes.
struct Bench : EngineRig {
    using EngineRig::EngineRig;
    ~Bench() { engine().deinit(); }
    TavoMBBMSEngineImpl& impl() { return static_cast<TavoMBBMSEngineImpl&>(engine()); }
    void start() { EXPECT_EQ(0, init()); }
    // Starts the engine and connects `player`, which gets the shared buffers.
    void startWithPlayer() {
        start();
        ASSERT_TRUE(player.connectTo(serverPath()));
        expectSharedBuffers(player);
    }
    std::string clientPath(const char* name) const { return root().path() + "/" + name + ".sock"; }

    // Receives the two "sharebuffer" commands an accepted client gets and checks that each
    // descriptor maps that session's buffer of this engine.
    void expectSharedBuffers(PlayEngineSocketClient& client) {
        for (int session = 0; session < 2; ++session) {
            SCOPED_TRACE("sharebuffer of session " + std::to_string(session));
            ReceivedCommand command = client.receive();
            ASSERT_EQ(96, command.bytes);
            EXPECT_FALSE(command.truncated);
            EXPECT_EQ("sharebuffer", command.text());
            EXPECT_EQ('0' + session, command.message.session);
            EXPECT_EQ(0, command.message.fdStatus);
            void* mapped = mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE,
                                MAP_SHARED, command.fd, 0);
            ASSERT_NE(MAP_FAILED, mapped);
            UniqueMapping mapping(Mapping{mapped, CMMB_SHARED_BUFFER_SIZE});
            CmmbSharedBuffer* view = static_cast<CmmbSharedBuffer*>(mapped);
            CmmbSharedBuffer* own = impl().sharedBuffer(session);
            own->data[CMMB_PAYLOAD_SIZE - 1] = static_cast<unsigned char>(0xA0 + session);
            EXPECT_EQ(0xA0 + session, view->data[CMMB_PAYLOAD_SIZE - 1]);
            own->data[CMMB_PAYLOAD_SIZE - 1] = 0;
        }
    }

    PlayEngineSocketClient player{clientPath("player")};
    UniqueFd file{open((root().path() + "/snap.jpg").c_str(), O_CREAT | O_RDWR, 0644)};
};

bool sameFile(int a, int b) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

}  // namespace

// A snapshot needs a known session and 100 KB free, and a play engine that reads. Commands go
// out and indications come in on the play engine's connection. Snapshot answers are always
// reported for session 0. A snapshot whose play engine goes before answering ends as failed,
// for its own session, whether the play engine closes its end or a newcomer pushes it out
// (closing the former client); one it answered does not fail again.
TEST(PlayEngineSocket, SendsCommandsReadsIndicationsAndFailsSnapshotsWhosePlayEngineGoes) {
    EXPECT_IN_CHILD({
        // Installed before init: the engine asks the Env it read there for the free space.
        FaultInjectingEnv env;
        Bench bench;
        ASSERT_NO_FATAL_FAILURE(bench.startWithPlayer());
        for (int session : {-1, 2}) {
            EXPECT_EQ(-1, bench.engine().captureImage(session, bench.file.get())) << session;
            EXPECT_FALSE(bench.engine().isCapturing(session)) << session;
        }
        EXPECT_EQ(0, bench.app().count("onEvent("));
        // 99 KB: refused on the caller's thread, nothing reaches the play engine.
        env.setFreeBytes(99 * 1024);
        EXPECT_EQ(0, bench.engine().captureImage(1, bench.file.get()));
        EXPECT_EQ(1, bench.app().count("onEvent(162, 1)"));
        EXPECT_FALSE(bench.engine().isCapturing(1));
        env.setFreeBytes(100 * 1024);
        EXPECT_EQ(0, bench.engine().captureImage(0, bench.file.get()));
        ReceivedCommand request = bench.player.receive();
        ASSERT_EQ(96, request.bytes);
        EXPECT_EQ("capture", request.text());
        EXPECT_EQ('0', request.message.session);
        EXPECT_EQ(0, request.message.fdStatus);
        EXPECT_TRUE(sameFile(bench.file.get(), request.fd));
        EXPECT_TRUE(bench.engine().isCapturing(0));
        EXPECT_EQ(1, bench.app().count("onEvent("));

        // A command without a descriptor: status byte 1, session '0', no control data.
        ASSERT_EQ(0, bench.impl().sendPlayEngineCommand(CMD_FLUSH, 7, 1));
        ReceivedCommand flush = bench.player.receive();
        ASSERT_EQ(96, flush.bytes);
        unsigned char expected[96] = {'f', 'l', 'u', 's', 'h'};
        expected[33] = 1;
        expected[64] = '0';
        EXPECT_EQ(0, memcmp(expected, &flush.message, sizeof(expected)));
        EXPECT_EQ(-1, flush.fd);
        EXPECT_FALSE(flush.truncated);

        ASSERT_EQ(0, bench.engine().captureImage(1, bench.file.get()));
        ReceivedCommand capture = bench.player.receive();
        EXPECT_EQ("capture", capture.text());
        EXPECT_EQ('1', capture.message.session);
        // Indications are reassembled from pieces: this one comes in two writes.
        ASSERT_TRUE(bench.player.sendIndication("3", 10));
        ASSERT_TRUE(bench.app().waitFor("onEvent(161, 0)"));
        EXPECT_TRUE(bench.engine().isCapturing(1));
        // No number: an unknown code. The descriptor passed with it is closed at once, so the
        // other end of the pair reads the end of the stream.
        int pair[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
        UniqueFd passed(pair[0]);
        UniqueFd watched(pair[1]);
        PlayEngineIndicationMessage unknown = {};
        memcpy(unknown.code, "capture done", 12);
        ASSERT_TRUE(bench.player.send(&unknown, sizeof(unknown), passed.get()));
        passed.reset();
        ASSERT_TRUE(bench.root().waitForLog("UNKNOWN_INDICATION"));
        pollfd entry = {watched.get(), POLLIN, 0};
        ASSERT_EQ(1, poll(&entry, 1, 5000));
        char byte;
        EXPECT_EQ(0, read(watched.get(), &byte, 1));
        // The play engine's requests for the buffers and its receipts are only logged. Two in
        // one write, then one and a half (the extra field never read as a code), then the rest.
        PlayEngineIndicationMessage run[3];
        for (int i = 0; i < 3; ++i) {
            memset(run[i].extra, 'x', sizeof(run[i].extra));
            snprintf(run[i].code, sizeof(run[i].code), "%d", i == 0 ? 1 : 2);
        }
        ASSERT_TRUE(bench.player.send(run, 2 * sizeof(run[0]) + sizeof(run[0]) / 2));
        ASSERT_TRUE(bench.root().waitForLog("REQUEST_SHAREDBUFFER_FD"));
        ASSERT_TRUE(bench.root().waitForLog("GOT_SHAREDBUFFER_FD"));
        ASSERT_TRUE(bench.player.send(reinterpret_cast<char*>(run + 2) + sizeof(run[0]) / 2,
                                      sizeof(run[0]) / 2));
        ASSERT_TRUE(bench.root().waitForLog("GOT_SHAREDBUFFER_FD", 2));
        ASSERT_EQ(0, bench.engine().captureImage(0, bench.file.get()));
        ASSERT_EQ("capture", bench.player.receive().text());
        ASSERT_TRUE(bench.player.sendIndication("4", 63));  // answers session 0
        ASSERT_TRUE(bench.app().waitFor("onEvent(162, 0)"));
        EXPECT_EQ(2, bench.root().countLog("GOT_SHAREDBUFFER_FD"))
            << "half an indication passed on";
        EXPECT_TRUE(bench.engine().isCapturing(1));

        // Half an indication is lost with its connection.
        ASSERT_TRUE(bench.player.send(&unknown, 20));

        bench.player.disconnect();
        ASSERT_TRUE(bench.app().waitFor("onEvent(162, 1)", 2));
        EXPECT_FALSE(bench.engine().isCapturing(1));
        ASSERT_TRUE(bench.root().waitForLog("Connection closed by client"));
        // Without a client, a command cannot be delivered.
        EXPECT_EQ(-1, bench.impl().sendPlayEngineCommand(CMD_FLUSH, -1, 0));
        EXPECT_EQ(1, bench.app().count("onEvent(162, 0)"));

        ASSERT_TRUE(bench.player.connectTo(bench.serverPath()));
        bench.expectSharedBuffers(bench.player);
        ASSERT_EQ(0, bench.engine().captureImage(0, bench.file.get()));
        ASSERT_EQ("capture", bench.player.receive().text());
        PlayEngineSocketClient newcomer(bench.clientPath("newcomer"), bench.serverPath());
        bench.expectSharedBuffers(newcomer);
        EXPECT_TRUE(bench.player.waitForClose());
        EXPECT_EQ(1, bench.root().countLog("only two client is allowed, now force close former"));
        ASSERT_TRUE(bench.app().waitFor("onEvent(162, 0)", 2));
        EXPECT_FALSE(bench.engine().isCapturing(0));

        // The newcomer's indications start afresh.
        ASSERT_TRUE(newcomer.sendIndication("2"));
        ASSERT_TRUE(bench.root().waitForLog("GOT_SHAREDBUFFER_FD", 3));
        // A play engine that stopped reading: the send fails without SIGPIPE and the
        // snapshot does not stay pending.
        ASSERT_EQ(0, shutdown(newcomer.fd(), SHUT_RD));
        EXPECT_EQ(0, bench.engine().captureImage(1, bench.file.get()));
        EXPECT_EQ(3, bench.app().count("onEvent(162, 1)"));
        EXPECT_FALSE(bench.engine().isCapturing(1));

        newcomer.disconnect();  // owed nothing
        ASSERT_TRUE(bench.root().waitForLog("Connection closed by client", 2));
        EXPECT_EQ(6, bench.app().count("onEvent("));
    });
}

// The socket file is 0660 whatever the umask, 0666 while other play-engine uids are listed,
// and has its mode from the moment it appears at its path: it is made in a private directory
// (removed again) and renamed into place.
TEST(PlayEngineSocket, SocketFileHasItsModeFromTheMomentItAppears) {
    EXPECT_IN_CHILD({
        umask(0);
        for (const char* uids : {"", "4242"}) {
            SCOPED_TRACE(std::string("listed uids: '") + uids + "'");
            Bench bench("all", uids[0] != '\0'
                                   ? EngineRig::Properties{{"persist.mbbms.playengine.uids", uids}}
                                   : EngineRig::Properties{});
            const mode_t expected = uids[0] != '\0' ? 0666 : 0660;
            const std::string directory = bench.root().resolve("/data/app");
            UniqueFd watch(inotify_init1(IN_CLOEXEC));
            ASSERT_GE(inotify_add_watch(watch.get(), directory.c_str(), IN_CREATE | IN_MOVED_TO),
                      0);
            // Looks at the socket file as soon as an event names it.
            mode_t firstSeen = 0;
            std::thread watcher([&] {
                alignas(inotify_event) char events[4096];
                pollfd entry = {watch.get(), POLLIN, 0};
                while (poll(&entry, 1, 10000) == 1) {
                    const ssize_t length = read(watch.get(), events, sizeof(events));
                    for (ssize_t at = 0; at < length;) {
                        const inotify_event* event =
                            reinterpret_cast<const inotify_event*>(events + at);
                        struct stat status;
                        if (event->len > 0 && strcmp(event->name, "cmmb.socket") == 0 &&
                            lstat((directory + "/cmmb.socket").c_str(), &status) == 0) {
                            firstSeen = status.st_mode;
                            return;
                        }
                        at += sizeof(inotify_event) + event->len;
                    }
                }
            });
            bench.start();
            PlayEngineSocketClient client(bench.clientPath("player"), bench.serverPath());
            watcher.join();
            EXPECT_TRUE(S_ISSOCK(firstSeen));
            EXPECT_EQ(expected, firstSeen & 07777);
            std::string output;
            ASSERT_EQ(0, runCommand("ls -A " + directory, &output));
            EXPECT_EQ(std::string::npos, ("\n" + output).find("\n."))
                << "a private directory was left behind: " << output;
        }
    });
}

namespace {

// The descriptor of the engine's listening socket, the only one in this process; -1 when none.
int listeningSocket() {
    for (int fd = 0; fd < 1024; ++fd) {
        int accepting = 0;
        socklen_t length = sizeof(accepting);
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &length) == 0 && accepting)
            return fd;
    }
    return -1;
}

std::atomic<int> gAcceptFailures{0};

void countAcceptFailures(void*, int, const char*, const char* message) {
    if (strstr(message, "accept on listening socket error") != nullptr)
        gAcceptFailures.fetch_add(1);
}

}  // namespace

// The command thread is named, and ends (without spinning) when its listening socket stops
// being one or is shut down by someone else; deinit then returns at once.
TEST(CommandThread, IsNamedAndEndsWhenItsListeningSocketBecomesUnusable) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "changes a descriptor another thread uses, which ThreadSanitizer reports";
#endif
    for (bool replaced : {true, false}) {
        SCOPED_TRACE(replaced ? "descriptor replaced" : "socket shut down");
        EXPECT_IN_CHILD({
            Bench bench;
            ASSERT_NO_FATAL_FAILURE(bench.startWithPlayer());
            EXPECT_EQ(1, threadCount("tavo-command"));
            const int listening = listeningSocket();
            ASSERT_GE(listening, 0);
            if (replaced) {
                // The descriptor number now holds something that is not a socket.
                UniqueFd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
                ASSERT_EQ(listening, dup2(nothing.get(), listening));
            } else {
                ASSERT_EQ(0, shutdown(listening, SHUT_RDWR));
            }
            ASSERT_TRUE(bench.root().waitForLog("thread of runCommandThread exit"));
            EXPECT_EQ(1, bench.root().countLog("error on listening socket"));
            EXPECT_GE(1, bench.root().countLog("accept on listening socket error"));
            // It logs its last line just before it returns.
            EXPECT_EQ(0, threadCountSettledAt(0, "tavo-command"));
            EXPECT_TRUE(bench.player.waitForClose());
        });
    }
}

// An accept that fails for want of descriptors leaves the connection waiting; the thread
// pauses 100 ms after each failure instead of spinning, and serves the client once
// descriptors are free again. The pauses are taken on the engine's clock, a fake one here, so
// the test states every pause without waiting for any.
TEST(CommandThread, BacksOffWhileAcceptRunsOutOfDescriptors) {
    EXPECT_IN_CHILD({
        // Installed before init: the engine keeps the Env it finds there.
        FakeClockEnv clock;
        Env* const previous = Env::install(&clock);
        Bench bench;
        tavo_log_set_sink(countAcceptFailures, nullptr);  // before the threads that log start
        bench.start();
        Env::install(previous);  // not used by the engine, which keeps the Env it read at init
        ASSERT_TRUE(bench.root().waitForLog("server is accepting client"));
        // Socket and address first: once the limit is lowered no descriptor can be made.
        UniqueFd clientSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int client = clientSocket.get();
        sockaddr_un own = {}, server = {};
        own.sun_family = server.sun_family = AF_UNIX;
        strncpy(own.sun_path, bench.clientPath("waiting").c_str(), sizeof(own.sun_path) - 1);
        strncpy(server.sun_path, bench.serverPath().c_str(), sizeof(server.sun_path) - 1);
        ASSERT_EQ(0, bind(client, reinterpret_cast<sockaddr*>(&own), sizeof(own)));
        rlimit original;
        ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &original));
        UniqueFd probe(dup(0));
        const int lowestFree = probe.get();
        probe.reset();
        rlimit lowered = {static_cast<rlim_t>(lowestFree), original.rlim_max};
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &lowered));
        clock.clearRecords();
        const int connected = connect(client, reinterpret_cast<sockaddr*>(&server), sizeof(server));
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (gAcceptFailures.load() < 5 && std::chrono::steady_clock::now() < giveUp)
            std::this_thread::yield();
        const int failuresBefore = gAcceptFailures.load();
        const std::vector<std::chrono::nanoseconds> pauses = clock.sleeps();
        const int failuresAfter = gAcceptFailures.load();
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &original));
        ASSERT_EQ(0, connected);
        ASSERT_GE(failuresBefore, 5) << "the waiting connection was not tried again";
        // One pause of 100 ms follows every failure (the last one may not have begun yet),
        // and there is no pause without a failure.
        for (const std::chrono::nanoseconds pause : pauses)
            EXPECT_EQ(std::chrono::milliseconds(100), pause);
        EXPECT_GE(static_cast<int>(pauses.size()), failuresBefore - 1);
        EXPECT_LE(static_cast<int>(pauses.size()), failuresAfter);
        pollfd entry = {client, POLLIN, 0};
        EXPECT_EQ(1, poll(&entry, 1, 5000)) << "the waiting client was not served";
        clientSocket.reset();
        bench.engine().deinit();
        tavo_log_set_sink(nullptr, nullptr);  // once the threads that log have ended
    });
}

// A process that exits without deinit, with a play engine connected and sending
// indications as fast as it can, exits cleanly and at once. Several rounds, since a command
// thread left running would race the process's exit.
TEST(CommandThread, ProcessExitWithoutDeinitIsClean) {
    EXPECT_IN_CHILD({
        setenv("TAVO_LOGMASK", "all", 1);
        for (int round = 0; round < 10; ++round) {
            SCOPED_TRACE("round " + std::to_string(round));
            TestRoot root;
            const std::string serverPath = root.resolve("/data/app/cmmb.socket");
            const std::string ownPath = root.path() + "/player.sock";
            EXPECT_EQ(
                "", runInChild([&] {
                    alarm(5);  // a hang detector: a process that does not exit is ended by SIGALRM
                    RecordingCallback callback;
                    TavoMBBMSEngineImpl* engine = TavoMBBMSEngineImpl::getInstance();
                    if (engine->init(&callback, nullptr) != 0)
                        _exit(2);
                    // Used by the flooding thread until the very end, so never destroyed.
                    static PlayEngineSocketClient& player = *new PlayEngineSocketClient(ownPath);
                    if (!player.connectTo(serverPath) || player.receive().bytes != 96)
                        _exit(3);
                    std::thread([] {
                        while (player.sendIndication("2")) {
                        }
                    }).detach();
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    exit(0);
                }));
        }
    });
}

// A region descriptor of value 0 (standard input was closed before init) stays open after
// deinit: descriptor 0 is never closed by the engine.
TEST(SharedBuffers, DeinitLeavesADescriptorOfValueZeroOpen) {
    EXPECT_IN_CHILD({
        Bench bench;
        UniqueFd standardInput(STDIN_FILENO);  // taken over only to be closed here
        standardInput.reset();
        bench.start();
        EXPECT_EQ(0, bench.engine().deinit());
        EXPECT_NE(-1, fcntl(0, F_GETFD)) << "descriptor 0 was closed";
        char target[256] = {};
        ASSERT_GT(readlink("/proc/self/fd/0", target, sizeof(target) - 1), 0);
        EXPECT_NE(nullptr, strstr(target, "cmmb_shared_memory_0")) << target;
    });
}
