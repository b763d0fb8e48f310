// The command socket server in process: real sockets under a temporary Android root, a
// delegate that records what the server tells it, and play-engine clients written against
// the wire codec. Covers accepting, refusing and displacing clients, the end of a client,
// the reassembly of indications and the closing of descriptors clients pass, and stopping.
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
#include "PlayEngineWire.h"
#include "TestRoot.h"

namespace {

const std::chrono::seconds kBound(5);  // catches a hang; never a timing goal

// Records the server's calls; prepareForClient answers what the test set.
class RecordingDelegate final : public CommandSocketServer::Delegate {
public:
    bool prepareForClient() override {
        std::lock_guard<std::mutex> guard(mLock);
        ++mPrepared;
        mChanged.notify_all();
        return mReady;
    }
    void clientAccepted(int fd) override {
        std::lock_guard<std::mutex> guard(mLock);
        mAccepted.push_back(fd);
        mChanged.notify_all();
    }
    void clientGone(PlayEngineLink::CaptureSet owed) override {
        std::lock_guard<std::mutex> guard(mLock);
        mGone.push_back(owed);
        mChanged.notify_all();
    }
    void indicationReceived(int code) override {
        std::lock_guard<std::mutex> guard(mLock);
        mCodes.push_back(code);
        mChanged.notify_all();
    }

    void setReady(bool ready) {
        std::lock_guard<std::mutex> guard(mLock);
        mReady = ready;
    }
    // Waits until `done` holds (evaluated under the lock); whether it did within the bound.
    bool waitFor(const std::function<bool()>& done) {
        std::unique_lock<std::mutex> lock(mLock);
        return mChanged.wait_for(lock, kBound, done);
    }
    int prepared() {
        std::lock_guard<std::mutex> guard(mLock);
        return mPrepared;
    }
    std::vector<int> accepted() {
        std::lock_guard<std::mutex> guard(mLock);
        return mAccepted;
    }
    std::vector<PlayEngineLink::CaptureSet> gone() {
        std::lock_guard<std::mutex> guard(mLock);
        return mGone;
    }
    std::vector<int> codes() {
        std::lock_guard<std::mutex> guard(mLock);
        return mCodes;
    }

    // Guarded by mLock; public to the predicates of waitFor.
    int mPrepared = 0;
    std::vector<int> mAccepted;
    std::vector<PlayEngineLink::CaptureSet> mGone;
    std::vector<int> mCodes;

private:
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mReady = true;
};

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// A play engine: bound to `ownPath` (none when empty), connected to the server.
class Client {
public:
    Client(const TestRoot& root, const std::string& ownPath) {
        mFd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!ownPath.empty()) {
            unlink(ownPath.c_str());
            sockaddr_un own = addressOf(ownPath);
            EXPECT_EQ(0, bind(mFd.get(), reinterpret_cast<sockaddr*>(&own), sizeof(own)));
        }
        sockaddr_un server = addressOf(root.resolve(PLAYENGINE_SOCKET_PATH));
        const auto deadline = std::chrono::steady_clock::now() + kBound;
        while (connect(mFd.get(), reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "the server does not listen";
                break;
            }
            usleep(5000);
        }
    }
    int fd() const { return mFd.get(); }

    void send(const void* data, size_t size, int passedFd = -1) {
        const iovec piece = {const_cast<void*>(data), size};
        EXPECT_EQ(static_cast<ssize_t>(size),
                  PlayEngineWire::send(mFd.get(), &piece, 1, &passedFd, passedFd >= 0 ? 1 : 0,
                                       MSG_NOSIGNAL));
    }
    void sendIndication(int code, size_t firstPiece = sizeof(PlayEngineIndicationMessage)) {
        PlayEngineIndicationMessage message;
        memset(&message, 0, sizeof(message));
        snprintf(message.code, sizeof(message.code), "%d", code);
        const char* bytes = reinterpret_cast<const char*>(&message);
        send(bytes, firstPiece);
        if (firstPiece < sizeof(message))
            send(bytes + firstPiece, sizeof(message) - firstPiece);
    }
    // True when the server has closed its end (end of stream within the bound); what it
    // sent before is read away.
    bool closedByServer() {
        for (;;) {
            pollfd entry = {mFd.get(), POLLIN, 0};
            if (poll(&entry, 1, static_cast<int>(kBound.count() * 1000)) != 1)
                return false;
            char bytes[64];
            const ssize_t got = recv(mFd.get(), bytes, sizeof(bytes), MSG_DONTWAIT);
            if (got == 0)
                return true;
            if (got < 0)
                return errno == ECONNRESET;
        }
    }
    // One message of up to `size` bytes with its descriptor, within the bound.
    ssize_t receive(void* data, size_t size, UniqueFd* fd) {
        pollfd entry = {mFd.get(), POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(kBound.count() * 1000)) != 1)
            return -1;
        PlayEngineWire::PassedDescriptors passed;
        const ssize_t bytes =
            PlayEngineWire::receive(mFd.get(), data, size, MSG_WAITALL, 1, &passed).bytes;
        if (passed.count() > 0)
            *fd = passed.take(0);
        return bytes;
    }

private:
    UniqueFd mFd;
};

class CommandSocketServerTest : public ::testing::Test {
protected:
    CommandSocketServerTest() : root(""), server(delegate) {}

    void startServer() {
        ASSERT_EQ(0, server.start(Env::platform()));
        const auto deadline = std::chrono::steady_clock::now() + kBound;
        while (!server.listening() && std::chrono::steady_clock::now() < deadline)
            usleep(2000);
        ASSERT_TRUE(server.listening());
    }
    std::string clientPath(const char* name) const { return root.path() + "/" + name; }
    // Waits until `count` clients were accepted and returns the last one's descriptor.
    int waitForAccepted(size_t count) {
        EXPECT_TRUE(delegate.waitFor([&] { return delegate.mAccepted.size() >= count; }));
        const std::vector<int> accepted = delegate.accepted();
        return accepted.size() >= count ? accepted[count - 1] : -1;
    }

    TestRoot root;
    RecordingDelegate delegate;
    CommandSocketServer server;
};

TEST_F(CommandSocketServerTest, AnAcceptedClientIsReportedAndReachedThroughTheServer) {
    startServer();
    Client client(root, clientPath("pe.socket"));
    const int accepted = waitForAccepted(1);
    EXPECT_EQ(1, delegate.prepared());
    EXPECT_EQ(accepted, server.client());

    // A message with a descriptor goes out to that client.
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    UniqueFd kept(pair[0]), passedEnd(pair[1]);
    char text[8] = "command";
    const iovec piece = {text, sizeof(text)};
    int used = -2;
    EXPECT_EQ(static_cast<ssize_t>(sizeof(text)),
              server.send(&piece, 1, passedEnd.get(), &used, 1));
    EXPECT_EQ(accepted, used);
    char got[sizeof(text)] = {};
    UniqueFd arrived;
    ASSERT_EQ(static_cast<ssize_t>(sizeof(text)), client.receive(got, sizeof(got), &arrived));
    EXPECT_STREQ("command", got);
    EXPECT_TRUE(arrived.valid());
}

TEST_F(CommandSocketServerTest, ClientsWithoutAPathOrRefusedByTheDelegateAreClosedUnserved) {
    startServer();
    Client unbound(root, "");
    EXPECT_TRUE(unbound.closedByServer());
    EXPECT_EQ(0, delegate.prepared());  // refused before anything was made ready

    delegate.setReady(false);
    Client refused(root, clientPath("refused.socket"));
    EXPECT_TRUE(refused.closedByServer());
    EXPECT_EQ(1, delegate.prepared());
    EXPECT_TRUE(delegate.accepted().empty());
    EXPECT_EQ(-1, server.client());
}

TEST_F(CommandSocketServerTest, ANewcomerDisplacesTheClientWhichIsReportedGoneWithItsSnapshots) {
    startServer();
    Client first(root, clientPath("first.socket"));
    waitForAccepted(1);
    // A "capture" of session 1 goes to the first client, which then owes its answer.
    char text[4] = "cap";
    const iovec piece = {text, sizeof(text)};
    int used = -1;
    ASSERT_GT(server.send(&piece, 1, -1, &used, 1), 0);

    Client second(root, clientPath("second.socket"));
    const int secondFd = waitForAccepted(2);
    EXPECT_TRUE(first.closedByServer());
    ASSERT_EQ(1u, delegate.gone().size());
    EXPECT_EQ(1u << 1, delegate.gone()[0]);
    EXPECT_EQ(secondFd, server.client());
}

TEST_F(CommandSocketServerTest, ALeavingClientIsReportedAndSendsFailUntilTheNextOne) {
    startServer();
    {
        Client client(root, clientPath("pe.socket"));
        waitForAccepted(1);
    }
    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mGone.size() == 1; }));
    EXPECT_EQ(0u, delegate.gone()[0]);
    char text[2] = "x";
    const iovec piece = {text, 1};
    int used = 0;
    errno = 0;
    EXPECT_EQ(-1, server.send(&piece, 1, -1, &used));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, used);

    Client again(root, clientPath("pe.socket"));
    const int accepted = waitForAccepted(2);
    EXPECT_EQ(accepted, server.client());
}

TEST_F(CommandSocketServerTest, IndicationsAreReassembledAndPassedDescriptorsClosed) {
    startServer();
    Client client(root, clientPath("pe.socket"));
    waitForAccepted(1);

    client.sendIndication(3, 10);  // in two pieces
    client.sendIndication(4, 63);
    client.sendIndication(2);
    // Two in one write, then one and a half, then the other half.
    PlayEngineIndicationMessage run[3];
    memset(run, 0, sizeof(run));
    for (int i = 0; i < 3; ++i) {
        snprintf(run[i].code, sizeof(run[i].code), "%d", i + 1);
        memset(run[i].extra, 'x', sizeof(run[i].extra));  // never read as a code
    }
    client.send(run, 2 * sizeof(run[0]));
    client.send(run + 2, sizeof(run[0]) / 2);
    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mCodes.size() == 5; }));
    EXPECT_EQ(5u, delegate.codes().size()) << "half an indication was passed on";
    client.send(reinterpret_cast<char*>(run + 2) + sizeof(run[0]) / 2, sizeof(run[0]) / 2);
    // A descriptor passed with an indication: the server closes its copy, so the other end
    // of the pair reads the end of the stream once only the server held it.
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    UniqueFd watched(pair[1]);
    PlayEngineIndicationMessage marker;
    memset(&marker, 0, sizeof(marker));
    memcpy(marker.code, "abc", 3);  // no number: code 0
    client.send(&marker, sizeof(marker), pair[0]);
    close(pair[0]);

    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mCodes.size() == 7; }));
    EXPECT_EQ((std::vector<int>{3, 4, 2, 1, 2, 3, 0}), delegate.codes());
    pollfd entry = {watched.get(), POLLIN, 0};
    ASSERT_EQ(1, poll(&entry, 1, static_cast<int>(kBound.count() * 1000)));
    char byte;
    EXPECT_EQ(0, read(watched.get(), &byte, 1));

    // Half an indication is lost with its connection: a new client starts afresh.
    client.send(&marker, 20);
    Client next(root, clientPath("next.socket"));
    waitForAccepted(2);
    next.sendIndication(3);
    ASSERT_TRUE(delegate.waitFor([&] { return delegate.mCodes.size() == 8; }));
    EXPECT_EQ(3, delegate.codes().back());
}

TEST_F(CommandSocketServerTest, StoppingEndsTheThreadClosesTheClientAndReportsNothing) {
    startServer();
    Client client(root, clientPath("pe.socket"));
    waitForAccepted(1);
    server.clearRunFlag();
    server.stop();
    EXPECT_FALSE(server.listening());
    EXPECT_EQ(-1, server.client());
    EXPECT_TRUE(client.closedByServer());
    EXPECT_TRUE(delegate.gone().empty());

    // It starts again on the same path, a left-over socket file notwithstanding.
    startServer();
    Client again(root, clientPath("pe.socket"));
    waitForAccepted(2);
}

TEST_F(CommandSocketServerTest, AThreadThatCannotBeStartedLeavesTheServerStopped) {
    class NoThreads : public EnvWrapper {
    public:
        NoThreads() : EnvWrapper(Env::platform()) {}
        int startThread(pthread_t*, void* (*)(void*), void*) override { return EAGAIN; }
    } noThreads;
    CommandSocketServer unstartable(delegate);
    EXPECT_EQ(-1, unstartable.start(&noThreads));
    EXPECT_FALSE(unstartable.listening());
    unstartable.stop();  // nothing to join
}

}  // namespace
