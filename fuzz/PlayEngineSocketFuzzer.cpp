// The play engine's side of the command socket: a fake client sends arbitrary byte streams,
// with descriptors passed by SCM_RIGHTS, into the engine's command thread,
// disconnects, reconnects and displaces itself with a second client. After each input the
// engine must still serve the client (it still receives and closes a passed descriptor);
// the stream of each connection, cut into consecutive 64-byte indications, must reach the
// application as exactly the capture results their codes name (a partial indication is lost
// with its connection); and every descriptor the client passed must have been closed by the
// engine. The indication parser is also checked on its own against strtol.
//
// Input: operations (see the switch below); the first 32 bytes also feed the parser check.
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FuzzEngine.h"
#include "IndicationCode.h"
#include "OpenDescriptors.h"
#include "PlayEngineProtocol.h"
#include "PlayEngineWire.h"
#include "UniqueHandle.h"

namespace {

const int kWaitMs = 20000;  // bound on every wait for the engine: a hang is a finding

// The command thread may hold a descriptor for a moment (a connection being closed), also
// when the count before was taken: a leak is a count that stays above where it was.
bool descriptorsSettleAt(int expected) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        if (openDescriptors() <= expected)
            return true;
        usleep(5000);
    }
    return false;
}

// The parser against strtol on a terminated copy, clamped to int.
void checkIndicationParser(const uint8_t* data, size_t size) {
    const size_t fieldSize = size < 32 ? size : 32;
    char* field = new char[fieldSize];  // exactly the field, so ASan sees any overrun
    memcpy(field, data, fieldSize);
    const int parsed = parseIndicationCode(field, fieldSize);
    char terminated[33] = {};
    memcpy(terminated, field, fieldSize);
    delete[] field;
    // strtol also takes "0x"-free decimal with the same white space and sign rules.
    long long expected = strtoll(terminated, nullptr, 10);
    if (expected > INT_MAX)
        expected = INT_MAX;
    if (expected < INT_MIN)
        expected = INT_MIN;
    if (parsed != expected)
        fuzzFailure("parseIndicationCode gave " + std::to_string(parsed) + ", strtol " +
                    std::to_string(expected));
}

// One play-engine client bound to its own path.
class FakeClient {
public:
    explicit FakeClient(const std::string& ownPath) : mPath(ownPath) {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            fuzzFailure(std::string("socketpair failed: ") + strerror(errno));
        mPassed[0].reset(ends[0]);
        mPassed[1].reset(ends[1]);
    }

    // Connects and takes the two "sharebuffer" commands (closing their descriptors).
    void connect() {
        const FuzzEngine& engine = FuzzEngine::instance();
        mFd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un own = address(mPath);
        unlink(mPath.c_str());
        if (bind(mFd.get(), reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0)
            fuzzFailure("client bind failed");
        sockaddr_un server = address(engine.root().resolve("/data/app/cmmb.socket"));
        for (int attempts = 0;
             ::connect(mFd.get(), reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 0;
             ++attempts) {
            if (attempts > kWaitMs / 10)
                fuzzFailure("the engine's command socket does not accept");
            usleep(10000);
        }
        for (int i = 0; i < 2; ++i)
            takeCommand();
    }
    void disconnect() { mFd.reset(); }
    bool connected() const { return mFd.valid(); }

    // Sends `size` bytes in one message with `descriptors` (up to 3) copies of one end of a
    // socketpair the client keeps: each copy arrives as a descriptor of its own that the
    // engine must close. (Fresh socketpairs per message cost half the target's time.)
    void send(const uint8_t* data, size_t size, int descriptors) {
        const int passed[3] = {mPassed[0].get(), mPassed[0].get(), mPassed[0].get()};
        sendWith(data, size, passed, descriptors);
    }
    // Sends `size` bytes in one message with `count` (up to 3) of the caller's descriptors.
    void sendWith(const uint8_t* data, size_t size, const int* descriptors, int count) {
        const iovec piece = {const_cast<uint8_t*>(data), size};
        // A message without bytes cannot carry descriptors on a stream socket.
        if (size > 0 &&
            PlayEngineWire::send(mFd.get(), &piece, 1, descriptors, static_cast<size_t>(count),
                                 MSG_NOSIGNAL) < 0 &&
            errno != EPIPE && errno != ECONNRESET)
            fuzzFailure(std::string("sendmsg failed: ") + strerror(errno));
    }

    // Waits until the engine has received every byte sent so far.
    void waitUntilReceived() {
        for (int waited = 0;; ++waited) {
            int unread = 0;
            if (ioctl(mFd.get(), SIOCOUTQ, &unread) != 0)
                fuzzFailure(std::string("SIOCOUTQ failed: ") + strerror(errno));
            if (unread == 0)
                return;
            if (waited > kWaitMs * 10)
                fuzzFailure("the engine stopped reading the client");
            usleep(100);
        }
    }

private:
    static sockaddr_un address(const std::string& path) {
        sockaddr_un a;
        memset(&a, 0, sizeof(a));
        a.sun_family = AF_UNIX;
        strncpy(a.sun_path, path.c_str(), sizeof(a.sun_path) - 1);
        return a;
    }
    void takeCommand() {
        pollfd entry = {mFd.get(), POLLIN, 0};
        if (poll(&entry, 1, kWaitMs) != 1)
            fuzzFailure("no sharebuffer command after connecting");
        PlayEngineCommandMessage command;
        PlayEngineWire::PassedDescriptors passed;  // closed when it goes out of scope
        if (PlayEngineWire::receive(mFd.get(), &command, sizeof(command), MSG_WAITALL, 1, &passed)
                .bytes != sizeof(command))
            fuzzFailure("short sharebuffer command");
    }

    std::string mPath;
    UniqueFd mFd;
    UniqueFd mPassed[2];  // the socketpair whose first end send() passes
};

// What the engine makes of one connection's byte stream: every 64 bytes are one indication,
// and the capture results their codes name are counted.
class IndicationStream {
public:
    void add(const uint8_t* data, size_t size) {
        mPartial.append(reinterpret_cast<const char*>(data), size);
        while (mPartial.size() >= sizeof(PlayEngineIndicationMessage)) {
            const int code = parseIndicationCode(mPartial.data(), 32);
            successes += code == 3;
            failures += code == 4;
            mPartial.erase(0, sizeof(PlayEngineIndicationMessage));
        }
    }
    // Zero bytes that complete a partial indication; none when the stream is at a boundary.
    size_t paddingToBoundary() const {
        return mPartial.empty() ? 0 : sizeof(PlayEngineIndicationMessage) - mPartial.size();
    }
    // The connection ended: its partial indication is lost.
    void connectionEnded() { mPartial.clear(); }

    int successes = 0;
    int failures = 0;

private:
    std::string mPartial;
};

// Waits until the engine has handled everything sent before. The stream is first completed
// to an indication boundary with zero bytes (counted in `stream`); then the marker, an
// indication of no known code (it reaches the application as nothing), carries one end of a
// fresh socketpair: the engine closes passed descriptors as it receives them, so the other
// end reads end-of-file once the marker is received. The command thread works in order, so
// every earlier indication has then reached the application.
void syncWithEngine(FakeClient& client, IndicationStream& stream) {
    const uint8_t zeros[sizeof(PlayEngineIndicationMessage)] = {};
    const size_t padding = stream.paddingToBoundary();
    if (padding > 0) {
        client.send(zeros, padding, 0);
        stream.add(zeros, padding);
    }
    client.waitUntilReceived();
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        fuzzFailure(std::string("socketpair failed: ") + strerror(errno));
    UniqueFd passedEnd(ends[0]);
    const UniqueFd watchedEnd(ends[1]);
    PlayEngineIndicationMessage marker;
    memset(&marker, 0, sizeof(marker));
    const int passed = passedEnd.get();
    client.sendWith(reinterpret_cast<const uint8_t*>(&marker), sizeof(marker), &passed, 1);
    passedEnd.reset();
    pollfd entry = {watchedEnd.get(), POLLIN, 0};
    char byte;
    if (poll(&entry, 1, kWaitMs) != 1 || read(watchedEnd.get(), &byte, 1) != 0)
        fuzzFailure("the engine no longer handles indications or keeps a passed descriptor");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzEngine& engine = FuzzEngine::instance();
    static FakeClient client(engine.root().path() + "/playengine-a.socket");
    static FakeClient rival(engine.root().path() + "/playengine-b.socket");
    checkIndicationParser(data, size);
    if (!client.connected())
        client.connect();
    const int descriptorsBefore = openDescriptors();
    CountingCallback& app = engine.callback();
    const int successesBefore = app.events(EVENT_CAPTURE_SUCCESS);
    const int failuresBefore = app.events(EVENT_CAPTURE_FAIL);
    IndicationStream stream;  // the client's connection, which starts at a boundary

    size_t position = 0;
    int reconnects = 0;
    while (position < size) {
        const uint8_t op = data[position++];
        switch (op >> 6) {
            case 0:
            case 1: {  // up to 127 bytes, with 0 to 3 descriptors
                size_t length = op & 0x7F;
                if (length > size - position)
                    length = size - position;
                client.send(data + position, length, position % 4);
                stream.add(data + position, length);
                position += length;
                break;
            }
            case 2:  // a whole 64-byte indication out of the next bytes
                if (size - position >= sizeof(PlayEngineIndicationMessage)) {
                    client.send(data + position, sizeof(PlayEngineIndicationMessage), op & 3);
                    stream.add(data + position, sizeof(PlayEngineIndicationMessage));
                    position += sizeof(PlayEngineIndicationMessage);
                }
                break;
            case 3:  // disconnect and come back, or be displaced by a second client and return
                if (++reconnects > 2)
                    break;
                // What the engine has not read yet when the connection ends is lost with it;
                // waiting makes it read everything, so only a partial indication is lost.
                client.waitUntilReceived();
                if (op & 1) {
                    client.disconnect();
                    client.connect();
                } else {
                    rival.connect();
                    rival.disconnect();
                    client.disconnect();
                    client.connect();
                }
                stream.connectionEnded();
                break;
        }
    }
    syncWithEngine(client, stream);
    const int reportedSuccesses = app.events(EVENT_CAPTURE_SUCCESS) - successesBefore;
    const int reportedFailures = app.events(EVENT_CAPTURE_FAIL) - failuresBefore;
    if (reportedSuccesses != stream.successes || reportedFailures != stream.failures)
        fuzzFailure("capture results reported: " + std::to_string(reportedSuccesses) + " and " +
                    std::to_string(reportedFailures) + " failures for " +
                    std::to_string(stream.successes) + " and " + std::to_string(stream.failures) +
                    " sent");
    if (!descriptorsSettleAt(descriptorsBefore))
        fuzzFailure("descriptors leaked: " + std::to_string(descriptorsBefore) + " before, " +
                    std::to_string(openDescriptors()) + " after");
    return 0;
}
