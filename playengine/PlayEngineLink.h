// The engine's end of the play-engine connection: the listening socket, the connected
// client, and one lock under which every send and every close happens. A command can
// therefore never go out on a descriptor that was closed and reused for something else: a
// send either reaches the client that is connected at that moment or fails.
//
// The link also remembers, per session, whether a "capture" request went to the connected
// client and is still unanswered, so that the snapshots in progress can be ended when that
// client goes.
//
// Threads: the command thread creates and accepts, receives from the client and decides
// when it goes; application threads and the command thread send; the server's stop shuts the
// listening socket down to wake the command thread. mLock guards both descriptors; it is
// held only for a close, a shutdown or one non-blocking send, never while waiting.
#ifndef TAVO_PLAYENGINE_PLAY_ENGINE_LINK_H
#define TAVO_PLAYENGINE_PLAY_ENGINE_LINK_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "EngineSessions.h"
#include "Mutex.h"
#include "ThreadAnnotations.h"
#include "UniqueHandle.h"

class PlayEngineLink {
public:
    PlayEngineLink() = default;
    PlayEngineLink(const PlayEngineLink&) = delete;
    PlayEngineLink& operator=(const PlayEngineLink&) = delete;

    // The listening socket, owned from here on (command thread).
    void setListening(UniqueFd socket) EXCLUDES(mLock);
    // True when the listening socket was set up by this process. A child forked from the
    // engine's process shares the socket itself: a shutdown there would end the engine's
    // server.
    bool listeningSetUpHere() const EXCLUDES(mLock);
    // Shuts the listening socket down to wake a poll on it. 1 when there is none, else the
    // result of shutdown().
    int shutdownListening() EXCLUDES(mLock);
    void closeListening() EXCLUDES(mLock);
    bool listening() const EXCLUDES(mLock);

    // Sessions whose "capture" request went to a client, as a bit set (bit n: session n).
    typedef unsigned CaptureSet;

    // Makes `client` the connected play engine (command thread). There must be no client.
    void attachClient(UniqueFd client) EXCLUDES(mLock);
    // Closes the client. Returns the sessions whose snapshot it still owed.
    CaptureSet closeClient() EXCLUDES(mLock);
    // The client answered a snapshot of `session`.
    void captureAnswered(int session) EXCLUDES(mLock);
    // The client's descriptor for the command thread's poll and receive, or -1. Only the
    // command thread closes or replaces the client, so the number stays valid on it.
    int client() const EXCLUDES(mLock);

    // Sends one message made of `pieces` to the connected client without blocking, with `fd`
    // passed along when it is not negative; the number of bytes sent, or -1 with errno set
    // (EBADF with no client). *clientFd receives the descriptor used.
    // captureSession: the session of a "capture" request (the client then owes its answer),
    // or -1.
    ssize_t send(const iovec* pieces, size_t pieceCount, int fd, int* clientFd,
                 int captureSession = -1) EXCLUDES(mLock);

private:
    mutable Mutex mLock;
    UniqueFd mSocket GUARDED_BY(mLock);           // listening socket
    pid_t mListeningOwner GUARDED_BY(mLock) = 0;  // process that set mSocket up
    UniqueFd mFdCommand GUARDED_BY(mLock);        // connected play engine
    // Snapshots the connected client owes.
    CaptureSet mCapturesOwed GUARDED_BY(mLock) = 0;
};

#endif  // TAVO_PLAYENGINE_PLAY_ENGINE_LINK_H
