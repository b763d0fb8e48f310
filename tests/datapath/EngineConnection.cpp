#include "EngineConnection.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>

namespace {

bool fillAddress(const std::string& path, sockaddr_un* address) {
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address->sun_path))
        return false;
    memcpy(address->sun_path, path.c_str(), path.size());
    return true;
}

socklen_t addressLength(const sockaddr_un& address) {
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path) + 1);
}

}  // namespace

std::string EngineCommand::text() const {
    return std::string(message.command, strnlen(message.command, sizeof(message.command)));
}

int EngineCommand::session() const {
    return message.session >= '0' && message.session <= '9' ? message.session - '0' : -1;
}

EngineConnection::EngineConnection(const std::string& enginePath, const std::string& ownPath)
    : mEnginePath(enginePath), mOwnPath(ownPath) {}

EngineConnection::~EngineConnection() {
    close();
    unlink(mOwnPath.c_str());
}

bool EngineConnection::connect(std::string* error) {
    close();
    sockaddr_un own, engine;
    if (!fillAddress(mOwnPath, &own) || !fillAddress(mEnginePath, &engine)) {
        *error = "socket path empty or too long";
        return false;
    }
    UniqueFd socketFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socketFd.valid()) {
        *error = std::string("socket: ") + strerror(errno);
        return false;
    }
    // Our own path must exist while the engine accepts us; a left-over file is replaced.
    unlink(mOwnPath.c_str());
    if (bind(socketFd.get(), reinterpret_cast<sockaddr*>(&own), addressLength(own)) != 0) {
        *error = "bind " + mOwnPath + ": " + strerror(errno);
        return false;
    }
    int result;
    do {
        result =
            ::connect(socketFd.get(), reinterpret_cast<sockaddr*>(&engine), addressLength(engine));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        *error = "connect " + mEnginePath + ": " + strerror(errno);
        unlink(mOwnPath.c_str());
        return false;
    }
    mSocket = std::move(socketFd);
    return true;
}

void EngineConnection::close() {
    mSocket.reset();
}

EngineConnection::ReceiveResult EngineConnection::receive(EngineCommand* command, int timeoutMs) {
    if (!mSocket.valid())
        return CLOSED;
    pollfd entry = {mSocket.get(), POLLIN, 0};
    int ready = poll(&entry, 1, timeoutMs);
    if (ready <= 0)
        return NOTHING_YET;  // time-out, or a signal to look at

    memset(&command->message, 0, sizeof(command->message));
    command->fd.reset();
    alignas(cmsghdr) unsigned char control[PLAYENGINE_FD_CONTROL_SPACE];
    iovec piece = {&command->message, sizeof(command->message)};
    msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t received;
    do {
        received = recvmsg(mSocket.get(), &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
    } while (received < 0 && errno == EINTR);
    if (received <= 0) {
        close();
        return CLOSED;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        int fd;
        memcpy(&fd, CMSG_DATA(header), sizeof(fd));
        command->fd.reset(fd);
    }
    if (received != static_cast<ssize_t>(sizeof(command->message))) {
        // A command cut short: the stream is out of step, so start over with a new connection.
        fprintf(stderr, "playengine: short command (%zd bytes), reconnecting\n", received);
        close();
        return CLOSED;
    }
    return RECEIVED;
}

bool EngineConnection::sendIndication(int code) {
    if (!mSocket.valid())
        return false;
    PlayEngineIndicationMessage indication;
    memset(&indication, 0, sizeof(indication));
    snprintf(indication.code, sizeof(indication.code), "%d", code);
    ssize_t sent;
    do {
        sent = send(mSocket.get(), &indication, sizeof(indication), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(sizeof(indication));
}
