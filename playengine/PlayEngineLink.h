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

#include <mutex>

#include "EngineSessions.h"
#include "UniqueHandle.h"

class PlayEngineLink {
public:
    PlayEngineLink() = default;
    PlayEngineLink(const PlayEngineLink&) = delete;
    PlayEngineLink& operator=(const PlayEngineLink&) = delete;

    // The listening socket, owned from here on (command thread).
    void setListening(UniqueFd socket);
    // True when the listening socket was set up by this process. A child forked from the
    // engine's process shares the socket itself: a shutdown there would end the engine's
    // server.
    bool listeningSetUpHere() const;
    // Shuts the listening socket down to wake a poll on it. 1 when there is none, else the
    // result of shutdown().
    int shutdownListening();
    void closeListening();
    bool listening() const;

    // Sessions whose "capture" request went to a client, as a bit set (bit n: session n).
    typedef unsigned CaptureSet;

    // Makes `client` the connected play engine (command thread). REQUIRES: no client.
    void attachClient(UniqueFd client);
    // Closes the client. Returns the sessions whose snapshot it still owed.
    CaptureSet closeClient();
    // The client answered a snapshot of `session`.
    void captureAnswered(int session);
    // The client's descriptor for the command thread's poll and receive, or -1. Only the
    // command thread closes or replaces the client, so the number stays valid on it.
    int client() const;

    // Sends one message made of `pieces` to the connected client without blocking, with `fd`
    // passed along when it is not negative; the number of bytes sent, or -1 with errno set
    // (EBADF with no client). *clientFd receives the descriptor used.
    // captureSession: the session of a "capture" request (the client then owes its answer),
    // or -1.
    ssize_t send(const iovec* pieces, size_t pieceCount, int fd, int* clientFd,
                 int captureSession = -1);

private:
    mutable std::mutex mLock;
    UniqueFd mSocket;              // listening socket; guarded by mLock
    pid_t mListeningOwner = 0;     // process that set mSocket up; guarded by mLock
    UniqueFd mFdCommand;           // connected play engine; guarded by mLock
    CaptureSet mCapturesOwed = 0;  // snapshots the connected client owes; guarded by mLock
};

#endif  // TAVO_PLAYENGINE_PLAY_ENGINE_LINK_H
