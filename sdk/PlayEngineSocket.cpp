#include "PlayEngineSocket.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "Deadline.h"
#include "PlayEngineWire.h"

namespace {

bool fillAddress(const std::string& path, sockaddr_un* address, socklen_t* length) {
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address->sun_path))
        return false;
    memcpy(address->sun_path, path.c_str(), path.size());
    *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

// Waits until `fd` is readable or `timeoutMs` (negative: no limit) has passed on the
// monotonic clock; a signal does not cut the wait short. poll's result.
int pollRestarting(int fd, int timeoutMs) {
    const int64_t deadline = monotonicMs() + timeoutMs;
    for (;;) {
        pollfd entry = {fd, POLLIN, 0};
        const int ready = poll(&entry, 1, timeoutMs);
        if (ready >= 0 || errno != EINTR)
            return ready;
        if (timeoutMs > 0)
            timeoutMs = remainingMs(deadline);
    }
}

}  // namespace

PlayEngineSocket::PlayEngineSocket(const std::string& enginePath, const std::string& ownPath)
    : mEnginePath(enginePath), mOwnPath(ownPath) {}

PlayEngineSocket::~PlayEngineSocket() {
    close();
    unlink(mOwnPath.c_str());
}

bool PlayEngineSocket::connect() {
    close();
    sockaddr_un own, engine;
    socklen_t ownLength = 0, engineLength = 0;
    if (!fillAddress(mOwnPath, &own, &ownLength) ||
        !fillAddress(mEnginePath, &engine, &engineLength)) {
        errno = ENAMETOOLONG;
        return false;
    }
    UniqueFd socketFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socketFd.valid())
        return false;
    // The engine checks that our path exists when it accepts us, so it is bound first and
    // kept until the connection is closed for good.
    unlink(mOwnPath.c_str());
    if (bind(socketFd.get(), reinterpret_cast<sockaddr*>(&own), ownLength) != 0)
        return false;
    int result;
    do {
        result = ::connect(socketFd.get(), reinterpret_cast<sockaddr*>(&engine), engineLength);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        int error = errno;
        unlink(mOwnPath.c_str());
        errno = error;
        return false;
    }
    mSocket = std::move(socketFd);
    return true;
}

void PlayEngineSocket::close() {
    mSocket.reset();
}

PlayEngineSocket::Result PlayEngineSocket::receive(PlayEngineCommandMessage* message, UniqueFd* fd,
                                                   int timeoutMs) {
    fd->reset();
    if (!mSocket.valid())
        return CLOSED;
    const int ready = pollRestarting(mSocket.get(), timeoutMs);
    if (ready == 0)
        return NOTHING_YET;
    if (ready < 0) {
        close();
        return FAILED;
    }

    memset(message, 0, sizeof(*message));
    PlayEngineWire::PassedDescriptors passed;
    const PlayEngineWire::Receipt receipt =
        PlayEngineWire::receive(mSocket.get(), message, sizeof(*message), MSG_WAITALL, 1, &passed);
    // A reset is the engine ending the connection too (it closed its end with our
    // indications still unread).
    if (receipt.bytes == 0 || (receipt.bytes < 0 && receipt.error == ECONNRESET)) {
        close();
        return CLOSED;
    }
    if (receipt.bytes < 0) {
        close();
        errno = receipt.error;
        return FAILED;
    }
    // A command carries at most one descriptor; more cut the control data.
    if (passed.count() > 0)
        *fd = passed.take(0);
    if (receipt.controlTruncated || receipt.bytes != static_cast<ssize_t>(sizeof(*message))) {
        // Descriptors were lost or the stream is out of step: start over.
        fd->reset();
        close();
        return CUT_SHORT;
    }
    return RECEIVED;
}

bool PlayEngineSocket::sendIndication(int code) {
    if (!mSocket.valid())
        return false;
    PlayEngineIndicationMessage indication;
    memset(&indication, 0, sizeof(indication));
    snprintf(indication.code, sizeof(indication.code), "%d", code);
    char* bytes = reinterpret_cast<char*>(&indication);
    size_t left = sizeof(indication);
    while (left > 0) {
        const iovec piece = {bytes, left};
        const ssize_t sent =
            PlayEngineWire::send(mSocket.get(), &piece, 1, nullptr, 0, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes += sent;
        left -= static_cast<size_t>(sent);
    }
    return true;
}
