#include "PlayEngineTestClient.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

ReceivedCommand::ReceivedCommand(ReceivedCommand&& other) noexcept
    : message(other.message), bytes(other.bytes), fd(other.fd), truncated(other.truncated) {
    other.fd = -1;
}

ReceivedCommand& ReceivedCommand::operator=(ReceivedCommand&& other) noexcept {
    if (this != &other) {
        if (fd >= 0)
            close(fd);
        message = other.message;
        bytes = other.bytes;
        fd = other.fd;
        truncated = other.truncated;
        other.fd = -1;
    }
    return *this;
}

ReceivedCommand::~ReceivedCommand() {
    if (fd >= 0)
        close(fd);
}

std::string ReceivedCommand::text() const {
    return std::string(message.command, strnlen(message.command, sizeof(message.command)));
}

PlayEngineTestClient::PlayEngineTestClient(const std::string& ownPath)
    : mOwnPath(ownPath), mFd(-1) {}

PlayEngineTestClient::~PlayEngineTestClient() {
    disconnect();
    if (!mOwnPath.empty())
        unlink(mOwnPath.c_str());
}

bool PlayEngineTestClient::connectTo(const std::string& serverPath) {
    disconnect();
    sockaddr_un server;
    memset(&server, 0, sizeof(server));
    server.sun_family = AF_UNIX;
    if (serverPath.size() >= sizeof(server.sun_path))
        return false;
    memcpy(server.sun_path, serverPath.c_str(), serverPath.size());

    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        mFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (mFd < 0)
            return false;
        if (!mOwnPath.empty()) {
            sockaddr_un own;
            memset(&own, 0, sizeof(own));
            own.sun_family = AF_UNIX;
            if (mOwnPath.size() >= sizeof(own.sun_path))
                return false;
            memcpy(own.sun_path, mOwnPath.c_str(), mOwnPath.size());
            unlink(mOwnPath.c_str());
            if (bind(mFd, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0)
                return false;
        }
        if (connect(mFd, reinterpret_cast<sockaddr*>(&server), sizeof(server)) == 0)
            return true;
        disconnect();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

void PlayEngineTestClient::disconnect() {
    if (mFd >= 0)
        close(mFd);
    mFd = -1;
}

ReceivedCommand PlayEngineTestClient::receive(int timeoutMs) {
    ReceivedCommand command;
    command.bytes = -1;
    pollfd entry = {mFd, POLLIN, 0};
    if (mFd < 0 || poll(&entry, 1, timeoutMs) <= 0)
        return command;

    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
    iovec piece = {&command.message, sizeof(command.message)};
    msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t received = recvmsg(mFd, &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
    command.bytes = static_cast<int>(received);
    command.truncated = (message.msg_flags & (MSG_CTRUNC | MSG_TRUNC)) != 0;
    if (received > 0) {
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
             header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS &&
                header->cmsg_len == CMSG_LEN(sizeof(int))) {
                memcpy(&command.fd, CMSG_DATA(header), sizeof(int));
            }
        }
    }
    return command;
}

bool PlayEngineTestClient::waitForClose(int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (mFd >= 0 && std::chrono::steady_clock::now() < deadline) {
        pollfd entry = {mFd, POLLIN, 0};
        if (poll(&entry, 1, 100) <= 0)
            continue;
        ReceivedCommand dropped = receive(0);
        if (dropped.bytes == 0 || (dropped.bytes < 0 && errno == ECONNRESET))
            return true;
    }
    return false;
}

bool PlayEngineTestClient::sendIndication(const std::string& code) {
    PlayEngineIndicationMessage indication;
    memset(&indication, 0, sizeof(indication));
    memcpy(indication.code, code.c_str(), std::min(code.size() + 1, sizeof(indication.code)));
    return sendRaw(&indication, sizeof(indication));
}

bool PlayEngineTestClient::sendRaw(const void* data, size_t size) {
    return send(mFd, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}
