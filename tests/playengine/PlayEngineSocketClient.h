// A play engine's end of the engine's command socket, on the raw wire, for the tests of that
// socket: it binds its own path (or none) and connects, sends bytes and indications, receives
// 96-byte commands with the descriptor each carries, and sees the engine close its end.
#ifndef TAVO_TESTS_PLAYENGINE_PLAY_ENGINE_SOCKET_CLIENT_H
#define TAVO_TESTS_PLAYENGINE_PLAY_ENGINE_SOCKET_CLIENT_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "PlayEngineProtocol.h"
#include "PlayEngineWire.h"
#include "UniqueHandle.h"

struct ReceivedCommand {
    PlayEngineCommandMessage message;
    int bytes = -1;  // 96 for a whole message, 0 at end of stream, -1 on time-out or error
    int fd = -1;     // the passed descriptor, closed with the client
    bool truncated = false;
    std::string text() const { return std::string(message.command, strnlen(message.command, 32)); }
};

class PlayEngineSocketClient {
public:
    explicit PlayEngineSocketClient(std::string ownPath) : mOwnPath(std::move(ownPath)) {}
    // Connected at once to `serverPath`; a failure fails the test.
    PlayEngineSocketClient(std::string ownPath, const std::string& serverPath)
        : PlayEngineSocketClient(std::move(ownPath)) {
        EXPECT_TRUE(connectTo(serverPath)) << "the server does not listen";
    }
    ~PlayEngineSocketClient() { disconnect(); }
    PlayEngineSocketClient(const PlayEngineSocketClient&) = delete;
    PlayEngineSocketClient& operator=(const PlayEngineSocketClient&) = delete;

    // Binds the own path (unless empty) and connects, trying again (for a generous bound)
    // while the server comes up.
    bool connectTo(const std::string& serverPath) {
        const sockaddr_un server = address(serverPath), own = address(mOwnPath);
        for (int attempt = 0; attempt < 500; ++attempt) {
            disconnect();
            mSocket.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
            unlink(mOwnPath.c_str());
            if (!mOwnPath.empty() &&
                bind(mSocket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0)
                return false;
            if (connect(mSocket.get(), reinterpret_cast<const sockaddr*>(&server),
                        sizeof(server)) == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return false;
    }
    void disconnect() { mSocket.reset(); }
    int fd() const { return mSocket.get(); }

    // `size` bytes in one write, with `passedFd` attached when it is one.
    bool send(const void* data, size_t size, int passedFd = -1) {
        const iovec piece = {const_cast<void*>(data), size};
        return PlayEngineWire::send(mSocket.get(), &piece, 1, &passedFd, passedFd >= 0 ? 1 : 0,
                                    MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    // One indication with `code`, its first `firstPiece` bytes in a write of their own.
    bool sendIndication(const char* code, size_t firstPiece = sizeof(PlayEngineIndicationMessage)) {
        PlayEngineIndicationMessage indication = {};
        memcpy(indication.code, code, strlen(code) + 1);
        const char* bytes = reinterpret_cast<const char*>(&indication);
        return send(bytes, firstPiece) &&
               (firstPiece == sizeof(indication) ||
                send(bytes + firstPiece, sizeof(indication) - firstPiece));
    }

    ReceivedCommand receive(int timeoutMs = 10000) {
        ReceivedCommand command;
        errno = 0;
        pollfd entry = {mSocket.get(), POLLIN, 0};
        if (poll(&entry, 1, timeoutMs) <= 0)
            return command;
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
        iovec piece = {&command.message, sizeof(command.message)};
        msghdr header = {};
        header.msg_iov = &piece;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof(control);
        command.bytes =
            static_cast<int>(recvmsg(mSocket.get(), &header, MSG_CMSG_CLOEXEC | MSG_WAITALL));
        command.truncated = (header.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) != 0;
        cmsghdr* passed = command.bytes > 0 ? CMSG_FIRSTHDR(&header) : nullptr;
        if (passed != nullptr && passed->cmsg_type == SCM_RIGHTS) {
            memcpy(&command.fd, CMSG_DATA(passed), sizeof(int));
            mPassed.emplace_back(command.fd);
        }
        return command;
    }
    // True when the engine closes its end within a generous bound; what it sent before is
    // read away.
    bool waitForClose() {
        for (int i = 0; i < 100; ++i) {
            ReceivedCommand next = receive(100);
            if (next.bytes == 0 || (next.bytes < 0 && errno == ECONNRESET))
                return true;
        }
        return false;
    }

private:
    static sockaddr_un address(const std::string& path) {
        sockaddr_un result = {};
        result.sun_family = AF_UNIX;
        memcpy(result.sun_path, path.c_str(), std::min(path.size(), sizeof(result.sun_path) - 1));
        return result;
    }

    std::string mOwnPath;
    UniqueFd mSocket;
    std::vector<UniqueFd> mPassed;  // descriptors received, closed with the client
};

#endif  // TAVO_TESTS_PLAYENGINE_PLAY_ENGINE_SOCKET_CLIENT_H
