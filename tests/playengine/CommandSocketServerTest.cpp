// The command socket server in process: real sockets under a temporary Android root, a
// delegate that records what the server tells it, and play-engine clients written against
// the wire codec. Covers refusing clients, the reassembly of indications and the closing of
// descriptors clients pass, and stopping. The engine's socket tests cover a client that is
// served, leaves or is displaced.
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CommandSocketServer.h"
#include "Env.h"
#include "LogMask.h"
#include "PlayEngineSocketClient.h"
#include "TestRoot.h"

namespace {

const std::chrono::seconds kBound(5);  // catches a hang; never a timing goal

// Records the server's calls; prepareForClient answers what the test set.
class RecordingDelegate final : public CommandSocketServer::Delegate {
public:
    bool prepareForClient() override {
        bool ready = false;
        record([&] {
            ++mPrepared;
            ready = mReady;
        });
        return ready;
    }
    void clientAccepted(int fd) override {
        record([&] { mAccepted.push_back(fd); });
    }
    void clientGone(PlayEngineLink::CaptureSet owed) override {
        record([&] { mGone.push_back(owed); });
    }
    void indicationReceived(int code) override {
        record([&] { mCodes.push_back(code); });
    }

    void setReady(bool ready) {
        record([&] { mReady = ready; });
    }
    // Waits until `done` holds (evaluated under the lock); whether it did within the bound.
    bool waitFor(const std::function<bool()>& done) {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, kBound, done);
    }
    // A copy of one of the fields below, taken under the lock.
    template <typename Field>
    Field read(const Field& field) {
        std::lock_guard<std::mutex> guard(mLock);
        return field;
    }

    // Guarded by mLock; public to read() and the predicates of waitFor.
    int mPrepared = 0;
    std::vector<int> mAccepted;
    std::vector<PlayEngineLink::CaptureSet> mGone;
    std::vector<int> mCodes;

private:
    void record(const std::function<void()>& change) {
        std::lock_guard<std::mutex> guard(mLock);
        change();
        mChanged.notify_all();
    }

    std::mutex mLock;
    std::condition_variable mChanged;
    bool mReady = true;
};

// Starts `server` and waits until it listens.
void startServer(CommandSocketServer& server) {
    ASSERT_EQ(0, server.start(Env::platform()));
    const auto deadline = std::chrono::steady_clock::now() + kBound;
    while (!server.listening() && std::chrono::steady_clock::now() < deadline)
        usleep(2000);
    ASSERT_TRUE(server.listening());
}

// One server through its life: clients refused, indications reassembled and passed
// descriptors closed, then stopped with a client connected.
TEST(CommandSocketServer, RefusesClientsReassemblesIndicationsAndStopsSilently) {
    memset(LogMask::masks, 0, sizeof(LogMask::masks));
    LogMask::masks[LogMask::ERROR] = 1;
    TestRoot root("");
    RecordingDelegate delegate;
    CommandSocketServer server(delegate);
    const std::string serverPath = root.resolve(PLAYENGINE_SOCKET_PATH);
    auto clientPath = [&](const char* name) { return root.path() + "/" + name; };
    auto waitForAccepted = [&](size_t count) {
        EXPECT_TRUE(delegate.waitFor([&] { return delegate.mAccepted.size() >= count; }));
    };

    // A file left at the socket path by an earlier run must not stop the server.
    writeTextFile(serverPath, "left over");
    ASSERT_NO_FATAL_FAILURE(startServer(server));
    {
        SCOPED_TRACE("clients without a path or refused by the delegate");
        PlayEngineSocketClient unbound("", serverPath);
        EXPECT_TRUE(unbound.waitForClose());
        EXPECT_TRUE(root.waitForLog("socket file not exist!"));
        EXPECT_EQ(0, delegate.read(delegate.mPrepared));  // refused before anything was made ready

        delegate.setReady(false);
        PlayEngineSocketClient refused(clientPath("refused.socket"), serverPath);
        EXPECT_TRUE(refused.waitForClose());
        EXPECT_EQ(1, delegate.read(delegate.mPrepared));
        EXPECT_TRUE(delegate.read(delegate.mAccepted).empty());
        EXPECT_EQ(-1, server.client());
        delegate.setReady(true);
    }
    SCOPED_TRACE("indications");
    PlayEngineSocketClient client(clientPath("pe.socket"), serverPath);
    waitForAccepted(1);
    EXPECT_TRUE(client.sendIndication("3", 10));  // in two pieces
    EXPECT_TRUE(client.sendIndication("4", 63));
    EXPECT_TRUE(client.sendIndication("2"));
    // Two in one write, then one and a half, then the other half.
    PlayEngineIndicationMessage run[3] = {};
    for (int i = 0; i < 3; ++i) {
        snprintf(run[i].code, sizeof(run[i].code), "%d", i + 1);
        memset(run[i].extra, 'x', sizeof(run[i].extra));  // never read as a code
    }
    EXPECT_TRUE(client.send(run, 2 * sizeof(run[0])));
    EXPECT_TRUE(client.send(run + 2, sizeof(run[0]) / 2));
    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mCodes.size() == 5; }));
    EXPECT_EQ(5u, delegate.read(delegate.mCodes).size()) << "half an indication was passed on";
    EXPECT_TRUE(
        client.send(reinterpret_cast<char*>(run + 2) + sizeof(run[0]) / 2, sizeof(run[0]) / 2));
    // A descriptor passed with an indication: the server closes its copy, so the other end
    // of the pair reads the end of the stream once only the server held it.
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    UniqueFd watched(pair[1]);
    PlayEngineIndicationMessage marker = {};
    memcpy(marker.code, "abc", 3);  // no number: code 0
    EXPECT_TRUE(client.send(&marker, sizeof(marker), pair[0]));
    close(pair[0]);

    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mCodes.size() == 7; }));
    EXPECT_EQ((std::vector<int>{3, 4, 2, 1, 2, 3, 0}), delegate.read(delegate.mCodes));
    pollfd entry = {watched.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&entry, 1, static_cast<int>(kBound.count() * 1000)));
    char byte;
    EXPECT_EQ(0, read(watched.get(), &byte, 1));

    // Half an indication is lost with its connection: a new client starts afresh.
    EXPECT_TRUE(client.send(&marker, 20));
    PlayEngineSocketClient next(clientPath("next.socket"), serverPath);
    waitForAccepted(2);
    EXPECT_TRUE(next.sendIndication("3"));
    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mCodes.size() == 8; }));
    EXPECT_EQ(3, delegate.read(delegate.mCodes).back());

    SCOPED_TRACE("stopping ends the thread, closes the client and reports nothing");
    server.clearRunFlag();
    server.stop();
    EXPECT_FALSE(server.listening());
    EXPECT_EQ(-1, server.client());
    EXPECT_TRUE(next.waitForClose());
    EXPECT_EQ(1u, delegate.read(delegate.mGone).size()) << "only the displaced client is reported";
}

TEST(CommandSocketServer, AThreadThatCannotBeStartedLeavesTheServerStopped) {
    class NoThreads : public EnvWrapper {
    public:
        NoThreads() : EnvWrapper(Env::platform()) {}
        int startThread(pthread_t*, void* (*)(void*), void*) override { return EAGAIN; }
    } noThreads;
    RecordingDelegate delegate;
    CommandSocketServer unstartable(delegate);
    EXPECT_EQ(-1, unstartable.start(&noThreads));
    EXPECT_FALSE(unstartable.listening());
    unstartable.stop();  // nothing to join
}

}  // namespace
