// The engine's command socket seen from a play engine: real sockets, the engine in a child
// process and a client endpoint in the same child. White box only where no public operation
// reaches: the shared buffers' addresses and the commands sent by other subsystems.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "FaultInjectingEnv.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngineImpl.h"
#include "TestRoot.h"

namespace {

struct Received {
    PlayEngineCommandMessage message;
    int bytes = -1;  // 96 for a whole message, 0 at end of stream, -1 on time-out or error
    int fd = -1;     // passed descriptor, closed by the client
    bool truncated = false;
    std::string text() const { return std::string(message.command, strnlen(message.command, 32)); }
};

// A play engine's end of the socket: binds ownPath (unless empty) and connects.
class Client {
public:
    explicit Client(std::string ownPath) : mOwnPath(std::move(ownPath)) {}
    ~Client() {
        disconnect();
        for (int fd : mPassed)
            close(fd);
    }

    bool connectTo(const std::string& serverPath) {
        sockaddr_un server = address(serverPath), own = address(mOwnPath);
        for (int attempt = 0; attempt < 500; ++attempt) {  // while the server comes up
            disconnect();
            mFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            unlink(mOwnPath.c_str());
            if (!mOwnPath.empty() && bind(mFd, reinterpret_cast<sockaddr*>(&own), sizeof(own)))
                return false;
            if (connect(mFd, reinterpret_cast<sockaddr*>(&server), sizeof(server)) == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    void disconnect() {
        if (mFd >= 0)
            close(mFd);
        mFd = -1;
    }

    Received receive(int timeoutMs = 10000) {
        Received command;
        errno = 0;
        pollfd entry = {mFd, POLLIN, 0};
        if (poll(&entry, 1, timeoutMs) <= 0)
            return command;
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
        iovec piece = {&command.message, sizeof(command.message)};
        msghdr header = {};
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        command.bytes = static_cast<int>(recvmsg(mFd, &header, MSG_CMSG_CLOEXEC | MSG_WAITALL));
        command.truncated = (header.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) != 0;
        cmsghdr* passed = command.bytes > 0 ? CMSG_FIRSTHDR(&header) : nullptr;
        if (passed != nullptr && passed->cmsg_type == SCM_RIGHTS) {
            memcpy(&command.fd, CMSG_DATA(passed), sizeof(int));
            mPassed.push_back(command.fd);
        }
        return command;
    }
    // True when the engine closes the connection (within a generous bound).
    bool waitForClose() {
        for (int i = 0; i < 100; ++i) {
            Received next = receive(100);
            if (next.bytes == 0 || (next.bytes < 0 && errno == ECONNRESET))
                return true;
        }
        return false;
    }
    bool sendIndication(const char* code) {
        PlayEngineIndicationMessage indication = {};
        memcpy(indication.code, code, strlen(code) + 1);
        return send(mFd, &indication, sizeof(indication), MSG_NOSIGNAL) == sizeof(indication);
    }
    int fd() const { return mFd; }

private:
    static sockaddr_un address(const std::string& path) {
        sockaddr_un result = {};
        result.sun_family = AF_UNIX;
        memcpy(result.sun_path, path.c_str(), std::min(path.size(), sizeof(result.sun_path) - 1));
        return result;
    }

    std::string mOwnPath;
    int mFd = -1;
    std::vector<int> mPassed;
};

// An initialised engine with every log category on. The command thread calls `callback`,
// so the engine is ended before the callback goes away.
struct Bench {
    TestRoot root;
    RecordingCallback callback;
    TavoMBBMSEngineImpl* engine = nullptr;
    Client player{clientPath("player")};
    // Where snapshots go.
    int file = open((root.path() + "/snap.jpg").c_str(), O_CREAT | O_RDWR | O_TRUNC, 0644);

    Bench() { setenv("TAVO_LOGMASK", "all", 1); }
    ~Bench() {
        engine->deinit();
        close(file);
    }
    void start() {
        engine = TavoMBBMSEngineImpl::getInstance();
        EXPECT_EQ(0, engine->init(&callback, nullptr));
    }
    // Starts the engine and connects `player`, which gets the shared buffers.
    void startWithPlayer() {
        start();
        ASSERT_TRUE(player.connectTo(serverPath()));
        expectSharedBuffers(player);
    }
    std::string serverPath() const { return root.resolve("/data/app/cmmb.socket"); }
    std::string clientPath(const char* name) const { return root.path() + "/" + name + ".sock"; }

    // Receives the two "sharebuffer" commands an accepted client gets and checks that each
    // descriptor maps that session's buffer of this engine.
    void expectSharedBuffers(Client& client) {
        for (int session = 0; session < 2; ++session) {
            SCOPED_TRACE("sharebuffer of session " + std::to_string(session));
            Received command = client.receive();
            ASSERT_EQ(96, command.bytes);
            EXPECT_FALSE(command.truncated);
            EXPECT_EQ("sharebuffer", command.text());
            EXPECT_EQ('0' + session, command.message.session);
            EXPECT_EQ(0, command.message.fdStatus);
            void* mapped = mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE,
                                MAP_SHARED, command.fd, 0);
            ASSERT_NE(MAP_FAILED, mapped);
            CmmbSharedBuffer* view = static_cast<CmmbSharedBuffer*>(mapped);
            CmmbSharedBuffer* own = engine->sharedBuffer(session);
            own->data[CMMB_PAYLOAD_SIZE - 1] = static_cast<unsigned char>(0xA0 + session);
            EXPECT_EQ(0xA0 + session, view->data[CMMB_PAYLOAD_SIZE - 1]);
            own->data[CMMB_PAYLOAD_SIZE - 1] = 0;
            munmap(mapped, CMMB_SHARED_BUFFER_SIZE);
        }
    }
};

bool sameFile(int a, int b) {
    struct stat sa, sb;
    return fstat(a, &sa) == 0 && fstat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

}  // namespace

TEST(PlayEngineSocket, RefusesUnboundClientsAndLetsANewcomerDisplaceTheClient) {
    EXPECT_IN_CHILD({
        Bench bench;
        // A file left at the socket path by an earlier run must not stop the server.
        writeTextFile(bench.serverPath(), "left over");
        bench.start();

        Client unbound("");
        ASSERT_TRUE(unbound.connectTo(bench.serverPath()));
        EXPECT_EQ(0, unbound.receive().bytes);  // end of stream, no command
        EXPECT_TRUE(bench.root.waitForLog("socket file not exist!"));

        Client former(bench.clientPath("former"));
        ASSERT_TRUE(former.connectTo(bench.serverPath()));
        bench.expectSharedBuffers(former);
        Client newcomer(bench.clientPath("newcomer"));
        ASSERT_TRUE(newcomer.connectTo(bench.serverPath()));
        bench.expectSharedBuffers(newcomer);
        EXPECT_TRUE(former.waitForClose());
        EXPECT_EQ(1, bench.root.countLog("only two client is allowed, now force close former"));
    });
}

TEST(PlayEngineSocket, ServesAClientAgainAfterItLeavesAndDeinitClosesTheConnection) {
    EXPECT_IN_CHILD({
        Bench bench;
        ASSERT_NO_FATAL_FAILURE(bench.startWithPlayer());
        bench.player.disconnect();
        ASSERT_TRUE(bench.root.waitForLog("Connection closed by client"));

        // Without a client, a snapshot request cannot be delivered and fails at once.
        EXPECT_EQ(-1, TavoMBBMSEngineImpl::sendPlayEngineCommand(CMD_FLUSH, -1, 0));
        EXPECT_EQ(0, bench.engine->captureImage(0, bench.file));
        EXPECT_EQ(1, bench.callback.count("onEvent(162, 0)"));
        EXPECT_FALSE(bench.engine->isCapturing(0));

        ASSERT_TRUE(bench.player.connectTo(bench.serverPath()));
        bench.expectSharedBuffers(bench.player);

        EXPECT_EQ(0, bench.engine->deinit());  // a server that ignores the stop hangs here
        EXPECT_TRUE(bench.player.waitForClose());
    });
}

TEST(PlayEngineSocket, SendsFlushAndCaptureAndReadsIndications) {
    EXPECT_IN_CHILD({
        Bench bench;
        ASSERT_NO_FATAL_FAILURE(bench.startWithPlayer());

        // A command without a descriptor: status byte 1, session '0', no control data.
        ASSERT_EQ(0, TavoMBBMSEngineImpl::sendPlayEngineCommand(CMD_FLUSH, 7, 1));
        Received flush = bench.player.receive();
        ASSERT_EQ(96, flush.bytes);
        unsigned char expected[96] = {'f', 'l', 'u', 's', 'h'};
        expected[33] = 1;
        expected[64] = '0';
        EXPECT_EQ(0, memcmp(expected, &flush.message, sizeof(expected)));
        EXPECT_EQ(-1, flush.fd);
        EXPECT_FALSE(flush.truncated);

        // A snapshot of session 1: answers are always reported for session 0.
        EXPECT_EQ(0, bench.engine->captureImage(1, bench.file));
        Received capture = bench.player.receive();
        EXPECT_EQ("capture", capture.text());
        EXPECT_EQ('1', capture.message.session);
        EXPECT_TRUE(bench.engine->isCapturing(1));
        ASSERT_TRUE(bench.player.sendIndication("3"));
        ASSERT_TRUE(bench.callback.waitFor("onEvent(161, 0)"));
        EXPECT_TRUE(bench.engine->isCapturing(1));
        ASSERT_TRUE(bench.player.sendIndication("capture done"));
        ASSERT_TRUE(bench.root.waitForLog("UNKNOWN_INDICATION"));
        ASSERT_TRUE(bench.player.sendIndication("4"));
        ASSERT_TRUE(bench.callback.waitFor("onEvent(162, 0)"));
        EXPECT_EQ(2, bench.callback.count("onEvent(16"));
    });
}

TEST(PlayEngineSocket, CaptureNeedsAKnownSessionAndOneHundredKilobytesFree) {
    EXPECT_IN_CHILD({
        Bench bench;
        ASSERT_NO_FATAL_FAILURE(bench.startWithPlayer());
        for (int session : {-1, 2}) {
            EXPECT_EQ(-1, bench.engine->captureImage(session, bench.file)) << session;
            EXPECT_FALSE(bench.engine->isCapturing(session)) << session;
        }
        EXPECT_EQ(0, bench.callback.count("onEvent("));

        // 99 KB: refused on the caller's thread, nothing reaches the play engine.
        FaultInjectingEnv env;
        env.setFreeBytes(99 * 1024);
        EXPECT_EQ(0, bench.engine->captureImage(1, bench.file));
        EXPECT_EQ(1, bench.callback.count("onEvent(162, 1)"));
        EXPECT_FALSE(bench.engine->isCapturing(1));

        env.setFreeBytes(100 * 1024);
        EXPECT_EQ(0, bench.engine->captureImage(0, bench.file));
        Received request = bench.player.receive();
        ASSERT_EQ(96, request.bytes);
        EXPECT_EQ("capture", request.text());
        EXPECT_EQ('0', request.message.session);
        EXPECT_EQ(0, request.message.fdStatus);
        EXPECT_TRUE(sameFile(bench.file, request.fd));
        EXPECT_TRUE(bench.engine->isCapturing(0));
        EXPECT_EQ(1, bench.callback.count("onEvent("));

        // A play engine that stopped reading: the send fails without SIGPIPE and the
        // snapshot does not stay pending.
        ASSERT_EQ(0, shutdown(bench.player.fd(), SHUT_RD));
        EXPECT_EQ(0, bench.engine->captureImage(1, bench.file));
        EXPECT_EQ(2, bench.callback.count("onEvent(162, 1)"));
        EXPECT_FALSE(bench.engine->isCapturing(1));
    });
}
