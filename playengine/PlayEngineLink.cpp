#include "PlayEngineLink.h"

#include <errno.h>

#include <utility>

void PlayEngineLink::setListening(UniqueFd socket) {
    std::lock_guard<std::mutex> guard(mLock);
    mSocket = std::move(socket);
}

int PlayEngineLink::shutdownListening() {
    std::lock_guard<std::mutex> guard(mLock);
    if (!mSocket.valid())
        return 1;
    return ::shutdown(mSocket.get(), SHUT_RDWR);
}

void PlayEngineLink::closeListening() {
    std::lock_guard<std::mutex> guard(mLock);
    mSocket.reset();
}

bool PlayEngineLink::listening() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mSocket.valid();
}

void PlayEngineLink::attachClient(UniqueFd client) {
    std::lock_guard<std::mutex> guard(mLock);
    mFdCommand = std::move(client);
}

void PlayEngineLink::closeClient() {
    std::lock_guard<std::mutex> guard(mLock);
    mFdCommand.reset();
}

int PlayEngineLink::client() const {
    std::lock_guard<std::mutex> guard(mLock);
    return mFdCommand.get();
}

ssize_t PlayEngineLink::send(const msghdr& message, int* clientFd) {
    std::lock_guard<std::mutex> guard(mLock);
    *clientFd = mFdCommand.get();
    if (!mFdCommand.valid()) {
        errno = EBADF;
        return -1;
    }
    ssize_t sent;
    do {
        // Non-blocking: a play engine that stopped reading cannot hold the lock, and with it
        // every sender and the command thread. MSG_NOSIGNAL: one that went away must not take
        // this process with it.
        sent = ::sendmsg(mFdCommand.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent;
}
