// The play engine's side of the command socket: a fake client sends arbitrary byte streams,
// with descriptors (socketpair ends) passed by SCM_RIGHTS, into the engine's command thread,
// disconnects, reconnects and displaces itself with a second client. After each input the
// engine must still serve the client (a well-formed capture result reaches the application),
// and every descriptor the client passed must have been closed by the engine. The indication
// parser is also checked on its own against strtol.
//
// Input: operations (see the switch below); the first 32 bytes also feed the parser check.
#include <dirent.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "FuzzEngine.h"
#include "IndicationCode.h"
#include "PlayEngineProtocol.h"

namespace {

const int kWaitMs = 20000;  // bound on every wait for the engine: a hang is a finding

int openDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count - 1;  // the directory's own descriptor
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
    explicit FakeClient(const std::string& ownPath) : mPath(ownPath) {}
    ~FakeClient() { disconnect(); }

    // Connects and takes the two "sharebuffer" commands (closing their descriptors).
    void connect() {
        const FuzzEngine& engine = FuzzEngine::instance();
        mFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un own = address(mPath);
        unlink(mPath.c_str());
        if (bind(mFd, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0)
            fuzzFailure("client bind failed");
        sockaddr_un server = address(engine.root().resolve("/data/app/cmmb.socket"));
        for (int attempts = 0;
             ::connect(mFd, reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 0;
             ++attempts) {
            if (attempts > kWaitMs / 10)
                fuzzFailure("the engine's command socket does not accept");
            usleep(10000);
        }
        for (int i = 0; i < 2; ++i)
            takeCommand();
    }
    void disconnect() {
        if (mFd >= 0)
            close(mFd);
        mFd = -1;
    }
    bool connected() const { return mFd >= 0; }

    // Sends `size` bytes in one message with `descriptors` fresh socketpair ends attached;
    // the client's own copies are closed at once, so only the engine holds them.
    void send(const uint8_t* data, size_t size, int descriptors) {
        int pairs[3][2];
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(3 * sizeof(int))];
        iovec piece = {const_cast<uint8_t*>(data), size};
        msghdr message;
        memset(&message, 0, sizeof(message));
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        if (descriptors > 0) {
            message.msg_control = control;
            message.msg_controllen = CMSG_SPACE(descriptors * sizeof(int));
            cmsghdr* header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
            for (int i = 0; i < descriptors; ++i) {
                socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pairs[i]);
                memcpy(CMSG_DATA(header) + i * sizeof(int), &pairs[i][0], sizeof(int));
            }
        }
        // A message without bytes cannot carry descriptors on a stream socket.
        if (size > 0 && sendmsg(mFd, &message, MSG_NOSIGNAL) < 0 && errno != EPIPE &&
            errno != ECONNRESET)
            fuzzFailure(std::string("sendmsg failed: ") + strerror(errno));
        for (int i = 0; i < descriptors; ++i) {
            close(pairs[i][0]);
            close(pairs[i][1]);
        }
    }

    // Waits until the engine has received every byte sent so far.
    void waitUntilReceived() {
        for (int waited = 0;; ++waited) {
            int unread = 0;
            if (ioctl(mFd, SIOCOUTQ, &unread) != 0 || unread == 0)
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
        pollfd entry = {mFd, POLLIN, 0};
        if (poll(&entry, 1, kWaitMs) != 1)
            fuzzFailure("no sharebuffer command after connecting");
        PlayEngineCommandMessage command;
        alignas(cmsghdr) unsigned char control[PLAYENGINE_FD_CONTROL_SPACE];
        iovec piece = {&command, sizeof(command)};
        msghdr message;
        memset(&message, 0, sizeof(message));
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        if (recvmsg(mFd, &message, MSG_WAITALL | MSG_CMSG_CLOEXEC) != sizeof(command))
            fuzzFailure("short sharebuffer command");
        for (cmsghdr* h = CMSG_FIRSTHDR(&message); h != nullptr; h = CMSG_NXTHDR(&message, h)) {
            if (h->cmsg_level == SOL_SOCKET && h->cmsg_type == SCM_RIGHTS) {
                int fd;
                memcpy(&fd, CMSG_DATA(h), sizeof(fd));
                close(fd);
            }
        }
    }

    std::string mPath;
    int mFd = -1;
};

// The engine handled everything sent before: a capture success sent now, alone in the
// stream, reaches the application.
void expectServed(FakeClient& client) {
    CountingCallback& app = FuzzEngine::instance().callback();
    client.waitUntilReceived();
    const int before = app.events(EVENT_CAPTURE_SUCCESS);
    PlayEngineIndicationMessage success;
    memset(&success, 0, sizeof(success));
    success.code[0] = '3';
    client.send(reinterpret_cast<const uint8_t*>(&success), sizeof(success), 0);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWaitMs);
    while (app.events(EVENT_CAPTURE_SUCCESS) == before) {
        if (std::chrono::steady_clock::now() > deadline)
            fuzzFailure("the engine no longer handles indications");
        std::this_thread::yield();
    }
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
                position += length;
                break;
            }
            case 2:  // a whole 64-byte indication out of the next bytes
                if (size - position >= sizeof(PlayEngineIndicationMessage)) {
                    client.send(data + position, sizeof(PlayEngineIndicationMessage), op & 3);
                    position += sizeof(PlayEngineIndicationMessage);
                }
                break;
            case 3:  // disconnect and come back, or be displaced by a second client and return
                if (++reconnects > 2)
                    break;
                if (op & 1) {
                    client.waitUntilReceived();
                    client.disconnect();
                    client.connect();
                } else {
                    rival.connect();
                    rival.disconnect();
                    client.disconnect();
                    client.connect();
                }
                break;
        }
    }
    expectServed(client);
    if (openDescriptors() != descriptorsBefore)
        fuzzFailure("descriptors leaked: " + std::to_string(descriptorsBefore) + " before, " +
                    std::to_string(openDescriptors()) + " after");
    return 0;
}
