#include "PlayEngineLink.h"
#include "EngineSessions.h"
#include "MutexLock.h"
#include "PlayEngineWire.h"

#include <errno.h>
#include <unistd.h>

#include <utility>

void PlayEngineLink::setListening(UniqueFd socket) {
    MutexLock guard(mLock);
    mSocket = std::move(socket);
    mListeningOwner = getpid();
}

bool PlayEngineLink::listeningSetUpHere() const {
    MutexLock guard(mLock);
    return mSocket.valid() && mListeningOwner == getpid();
}

int PlayEngineLink::shutdownListening() {
    MutexLock guard(mLock);
    if (!mSocket.valid())
        return 1;
    return ::shutdown(mSocket.get(), SHUT_RDWR);
}

void PlayEngineLink::closeListening() {
    MutexLock guard(mLock);
    mSocket.reset();
}

bool PlayEngineLink::listening() const {
    MutexLock guard(mLock);
    return mSocket.valid();
}

void PlayEngineLink::attachClient(UniqueFd client) {
    MutexLock guard(mLock);
    mFdCommand = std::move(client);
    mCapturesOwed = 0;
}

PlayEngineLink::CaptureSet PlayEngineLink::closeClient() {
    MutexLock guard(mLock);
    mFdCommand.reset();
    const CaptureSet owed = mCapturesOwed;
    mCapturesOwed = 0;
    return owed;
}

void PlayEngineLink::captureAnswered(int session) {
    if (!isEngineSession(session))
        return;
    MutexLock guard(mLock);
    mCapturesOwed &= ~(1u << session);
}

int PlayEngineLink::client() const {
    MutexLock guard(mLock);
    return mFdCommand.get();
}

ssize_t PlayEngineLink::send(const iovec* pieces, size_t pieceCount, int fd, int* clientFd,
                             int captureSession) {
    MutexLock guard(mLock);
    *clientFd = mFdCommand.get();
    if (!mFdCommand.valid()) {
        errno = EBADF;
        return -1;
    }
    // Non-blocking: a play engine that stopped reading cannot hold the lock, and with it every
    // sender and the command thread. MSG_NOSIGNAL: one that went away must not take this
    // process with it.
    const ssize_t sent = PlayEngineWire::send(mFdCommand.get(), pieces, pieceCount, &fd,
                                              fd >= 0 ? 1 : 0, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0 && isEngineSession(captureSession))
        mCapturesOwed |= 1u << captureSession;
    return sent;
}
