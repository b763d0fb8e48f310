// The engine's command socket seen from a play engine: real sockets, the engine in a child
// process, the client in the same child (a separate socket endpoint, as a play engine is).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "ChildProcess.h"
#include "CmmbSharedBuffer.h"
#include "PlayEngineTestClient.h"
#include "RecordingCallback.h"
#include "TavoMBBMSEngine.h"
#include "TestRoot.h"

namespace {

std::string serverPath(const TestRoot& root) {
    return root.resolve("/data/app/cmmb.socket");
}
std::string clientPath(const TestRoot& root, const char* name) {
    return root.path() + "/" + name + ".sock";
}

// Waits (generous bound) until the log holds at least n lines containing text.
bool waitForLog(const TestRoot& root, const std::string& text, int n = 1) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (root.countLog(text) >= n)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// Ends the engine (and so its command thread, which calls the callback) before the
// callback declared ahead of it goes away.
struct DeinitAtScopeExit {
    TavoMBBMSEngine* engine;
    ~DeinitAtScopeExit() { engine->deinit(); }
};

// Engine with every log category on; must run before the first getInstance.
TavoMBBMSEngine* startEngine(RecordingCallback* callback) {
    setenv("TAVO_LOGMASK", "all", 1);
    TavoMBBMSEngine* engine = TavoMBBMSEngine::getInstance();
    EXPECT_EQ(0, engine->init(callback, nullptr));
    return engine;
}

// Receives the two "sharebuffer" commands every accepted client gets and checks them.
void expectSharedBuffers(PlayEngineTestClient& client, ReceivedCommand* first = nullptr,
                         ReceivedCommand* second = nullptr) {
    ReceivedCommand received[2] = {client.receive(), client.receive()};
    for (int session = 0; session < 2; ++session) {
        ReceivedCommand& command = received[session];
        SCOPED_TRACE("sharebuffer of session " + std::to_string(session));
        ASSERT_EQ(96, command.bytes);
        EXPECT_FALSE(command.truncated);
        EXPECT_EQ("sharebuffer", command.text());
        EXPECT_EQ('0' + session, command.session());
        EXPECT_EQ(0, command.message.fdStatus);
        ASSERT_GE(command.fd, 0);
        struct stat status;
        ASSERT_EQ(0, fstat(command.fd, &status));
        EXPECT_EQ(static_cast<off_t>(CMMB_SHARED_BUFFER_SIZE), status.st_size);
    }
    if (first != nullptr)
        *first = std::move(received[0]);
    if (second != nullptr)
        *second = std::move(received[1]);
}

CmmbSharedBuffer* mapBuffer(int fd) {
    void* address =
        mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    return address == MAP_FAILED ? nullptr : static_cast<CmmbSharedBuffer*>(address);
}

}  // namespace

TEST(CommandSocketServer, RefusesAnUnboundClientWithoutSendingItAnything) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback callback;
        DeinitAtScopeExit stop{startEngine(&callback)};

        PlayEngineTestClient unbound("");
        ASSERT_TRUE(unbound.connectTo(serverPath(root)));
        // The first thing the client sees is the end of the stream, not a command.
        ReceivedCommand first = unbound.receive();
        EXPECT_EQ(0, first.bytes);
        EXPECT_TRUE(waitForLog(root, "socket file not exist!"));
        EXPECT_EQ(0, root.countLog("is accepted"));
    });
}

TEST(CommandSocketServer, NewcomerDisplacesTheClientAndReceivesBothBuffers) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback callback;
        DeinitAtScopeExit stop{startEngine(&callback)};

        PlayEngineTestClient former(clientPath(root, "former"));
        ASSERT_TRUE(former.connectTo(serverPath(root)));
        ReceivedCommand formerBuffer0;
        expectSharedBuffers(former, &formerBuffer0);

        PlayEngineTestClient newcomer(clientPath(root, "newcomer"));
        ASSERT_TRUE(newcomer.connectTo(serverPath(root)));
        ReceivedCommand buffer0, buffer1;
        expectSharedBuffers(newcomer, &buffer0, &buffer1);
        EXPECT_TRUE(former.waitForClose());
        EXPECT_EQ(1, root.countLog("only two client is allowed, now force close former one"));

        // Both clients were handed the same live regions, initialised for a reader.
        CmmbSharedBuffer* formerView = mapBuffer(formerBuffer0.fd);
        CmmbSharedBuffer* view0 = mapBuffer(buffer0.fd);
        CmmbSharedBuffer* view1 = mapBuffer(buffer1.fd);
        ASSERT_NE(nullptr, formerView);
        ASSERT_NE(nullptr, view0);
        ASSERT_NE(nullptr, view1);
        int value = -1;
        EXPECT_EQ(0, cmmb_sem_getvalue(&view0->mutexDataAvailable, &value));
        EXPECT_EQ(0, value);
        EXPECT_EQ(0, cmmb_sem_getvalue(&view0->mutexDataAccessable, &value));
        EXPECT_EQ(1, value);
        view0->data[CMMB_PAYLOAD_SIZE - 1] = 0x5A;
        EXPECT_EQ(0x5A, formerView->data[CMMB_PAYLOAD_SIZE - 1]);
        EXPECT_NE(0x5A, view1->data[CMMB_PAYLOAD_SIZE - 1]);
        view0->data[CMMB_PAYLOAD_SIZE - 1] = 0;
        munmap(formerView, CMMB_SHARED_BUFFER_SIZE);
        munmap(view0, CMMB_SHARED_BUFFER_SIZE);
        munmap(view1, CMMB_SHARED_BUFFER_SIZE);
    });
}

TEST(CommandSocketServer, ServesAClientAgainAfterItDisconnects) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback callback;
        TavoMBBMSEngine* engine = startEngine(&callback);
        DeinitAtScopeExit stop{engine};

        PlayEngineTestClient client(clientPath(root, "player"));
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        expectSharedBuffers(client);
        client.disconnect();
        ASSERT_TRUE(waitForLog(root, "Connection closed by client"));

        // Without a client, a snapshot request cannot be delivered and fails at once.
        int file = open((root.path() + "/snap.jpg").c_str(), O_CREAT | O_RDWR, 0644);
        ASSERT_GE(file, 0);
        EXPECT_EQ(0, engine->captureImage(0, file));
        EXPECT_EQ(1, callback.count("onEvent(162, 0)"));
        EXPECT_FALSE(engine->isCapturing(0));
        close(file);

        ASSERT_TRUE(client.connectTo(serverPath(root)));
        expectSharedBuffers(client);
    });
}

TEST(CommandSocketServer, BindsOverAStaleFileAtTheSocketPath) {
    EXPECT_IN_CHILD({
        TestRoot root;
        writeTextFile(serverPath(root), "left over from an earlier run");
        RecordingCallback callback;
        DeinitAtScopeExit stop{startEngine(&callback)};

        PlayEngineTestClient client(clientPath(root, "player"));
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        expectSharedBuffers(client);
    });
}

TEST(CommandSocketServer, HandlesEveryIndicationForSessionZero) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback callback;
        TavoMBBMSEngine* engine = startEngine(&callback);
        DeinitAtScopeExit stop{engine};
        PlayEngineTestClient client(clientPath(root, "player"));
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        expectSharedBuffers(client);

        // A snapshot of session 1; its result is reported for session 0 and leaves
        // session 1's flag alone.
        int file = open((root.path() + "/snap.jpg").c_str(), O_CREAT | O_RDWR, 0644);
        ASSERT_GE(file, 0);
        EXPECT_EQ(0, engine->captureImage(1, file));
        ReceivedCommand capture = client.receive();
        ASSERT_EQ(96, capture.bytes);
        EXPECT_EQ("capture", capture.text());
        EXPECT_EQ('1', capture.session());
        EXPECT_TRUE(engine->isCapturing(1));

        ASSERT_TRUE(client.sendIndication("1"));
        ASSERT_TRUE(waitForLog(root, "REQUEST_SHAREDBUFFER_FD"));
        EXPECT_TRUE(engine->isCapturing(1));
        EXPECT_EQ(0, callback.count("onEvent(16"));

        ASSERT_TRUE(client.sendIndication("3"));
        ASSERT_TRUE(callback.waitFor("onEvent(161, 0)"));
        EXPECT_TRUE(engine->isCapturing(1));

        ASSERT_TRUE(client.sendIndication("capture done"));
        ASSERT_TRUE(waitForLog(root, "UNKNOWN_INDICATION"));
        ASSERT_TRUE(client.sendIndication("  +4 trailing text"));
        ASSERT_TRUE(callback.waitFor("onEvent(162, 0)"));
        EXPECT_EQ(2, callback.count("onEvent(16"));

        // A code field filled to the end without a zero byte is read within its 32 bytes.
        PlayEngineIndicationMessage raw;
        memset(raw.code, '0', sizeof(raw.code));
        raw.code[sizeof(raw.code) - 1] = '3';
        memset(raw.extra, '7', sizeof(raw.extra));
        ASSERT_TRUE(client.sendRaw(&raw, sizeof(raw)));
        ASSERT_TRUE(callback.waitFor("onEvent(161, 0)", 2));
        close(file);
    });
}

TEST(CommandSocketServer, DeinitWithAConnectedClientReturnsPromptlyAndInitServesAgain) {
    EXPECT_IN_CHILD({
        TestRoot root;
        RecordingCallback callback;
        TavoMBBMSEngine* engine = startEngine(&callback);
        DeinitAtScopeExit stop{engine};
        PlayEngineTestClient client(clientPath(root, "player"));
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        expectSharedBuffers(client);

        auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(0, engine->deinit());
        // Bound generous enough for a loaded machine; a server that ignores the stop hangs.
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
        EXPECT_TRUE(client.waitForClose());
        EXPECT_TRUE(root.logContains("thread of runCommandThread exit"));

        EXPECT_EQ(0, engine->init(&callback, nullptr));
        ASSERT_TRUE(client.connectTo(serverPath(root)));
        expectSharedBuffers(client);
        EXPECT_EQ(0, engine->deinit());
    });
}

TEST(CommandSocketServer, RunsWithoutAServerWhenTheSocketPathCannotBeBound) {
    EXPECT_IN_CHILD({
        TestRoot root;
        // A directory at the socket path can be neither removed nor bound over.
        ASSERT_EQ(0, mkdir(serverPath(root).c_str(), 0755));
        RecordingCallback callback;
        TavoMBBMSEngine* engine = startEngine(&callback);
        DeinitAtScopeExit stop{engine};
        ASSERT_TRUE(waitForLog(root, "bind server socket error"));

        int file = open((root.path() + "/snap.jpg").c_str(), O_CREAT | O_RDWR, 0644);
        ASSERT_GE(file, 0);
        EXPECT_EQ(0, engine->captureImage(0, file));
        EXPECT_EQ(1, callback.count("onEvent(162, 0)"));
        close(file);

        EXPECT_EQ(0, engine->deinit());
        EXPECT_EQ(1, root.countLog("No need to call shutdown() due to mSocket == -1"));
        EXPECT_EQ(1, root.countLog("Wait mThreadCommand exit...Done"));
    });
}
