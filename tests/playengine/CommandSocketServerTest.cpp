// The command socket server in process: real sockets under a temporary Android root, a
// delegate that counts what the server tells it, and play-engine clients written against the
// wire codec. Covers what the engine cannot be made to do on demand: a delegate that refuses a
// client, a stop with a client connected and a thread that cannot be started. The engine's
// socket tests cover indications and a client that is served, leaves or is displaced.
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "CommandSocketServer.h"
#include "Env.h"
#include "LogMask.h"
#include "PlayEngineSocketClient.h"
#include "TestRoot.h"

namespace {

class CountingDelegate final : public CommandSocketServer::Delegate {
public:
    bool prepareForClient() override {
        ++prepared;
        return ready.load();
    }
    void clientAccepted(int) override { ++accepted; }
    void clientGone(PlayEngineLink::CaptureSet) override { ++gone; }
    void indicationReceived(int) override {}

    std::atomic<bool> ready{true};
    std::atomic<int> prepared{0}, accepted{0}, gone{0};
};

// True when `done` holds within a bound that only catches a hang.
template <typename Condition>
bool soon(Condition done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done() && std::chrono::steady_clock::now() < deadline)
        usleep(2000);
    return done();
}

// One server through its life: clients without a path or refused by the delegate are closed
// unserved, and stopping ends the thread and closes the client without reporting it gone.
TEST(CommandSocketServer, RefusesClientsAndStopsSilently) {
    memset(LogMask::masks, 0, sizeof(LogMask::masks));
    LogMask::masks[LogMask::ERROR] = 1;
    TestRoot root("");
    CountingDelegate delegate;
    CommandSocketServer server(delegate);
    const std::string serverPath = root.resolve(PLAYENGINE_SOCKET_PATH);
    // A file left at the socket path by an earlier run must not stop the server.
    writeTextFile(serverPath, "left over");
    ASSERT_EQ(0, server.start(Env::platform()));
    ASSERT_TRUE(soon([&] { return server.listening(); }));

    PlayEngineSocketClient unbound("", serverPath);
    EXPECT_TRUE(unbound.waitForClose());
    EXPECT_TRUE(root.waitForLog("socket file not exist!"));
    EXPECT_EQ(0, delegate.prepared.load());  // refused before anything was made ready

    delegate.ready = false;
    PlayEngineSocketClient refused(root.path() + "/refused.socket", serverPath);
    EXPECT_TRUE(refused.waitForClose());
    EXPECT_EQ(1, delegate.prepared.load());
    EXPECT_EQ(0, delegate.accepted.load());
    EXPECT_EQ(-1, server.client());

    delegate.ready = true;
    PlayEngineSocketClient client(root.path() + "/pe.socket", serverPath);
    ASSERT_TRUE(soon([&] { return delegate.accepted.load() == 1; }));
    server.clearRunFlag();
    server.stop();
    EXPECT_FALSE(server.listening());
    EXPECT_EQ(-1, server.client());
    EXPECT_TRUE(client.waitForClose());
    EXPECT_EQ(0, delegate.gone.load());
}

TEST(CommandSocketServer, AThreadThatCannotBeStartedLeavesTheServerStopped) {
    class NoThreads : public EnvWrapper {
    public:
        NoThreads() : EnvWrapper(Env::platform()) {}
        int startThread(pthread_t*, void* (*)(void*), void*) override { return EAGAIN; }
    } noThreads;
    CountingDelegate delegate;
    CommandSocketServer unstartable(delegate);
    EXPECT_EQ(-1, unstartable.start(&noThreads));
    EXPECT_FALSE(unstartable.listening());
    unstartable.stop();  // nothing to join
}

}  // namespace
