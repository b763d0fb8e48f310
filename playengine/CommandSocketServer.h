// The command socket server: a Unix-domain stream server on "/data/app/cmmb.socket" that
// serves one play engine at a time, run by one thread of its own, the command thread.
//
// The server owns the listening socket (mSocket) and the connected client (mFdCommand), both
// held by its PlayEngineLink, the run flag of its thread (mIsStarted) and the thread itself
// (mThreadCommand). What a client means to the engine (the buffers it is handed, the
// snapshots it owes, the indications it sends) is the Delegate's business: the server tells
// it, on the command thread and holding no lock of its own.
//
// Who may connect: see CommandSocketFile.h for the socket file's mode; a connecting process
// must run under this process's uid, root, or a uid listed in the system property
// "persist.mbbms.playengine.uids", and must have bound its socket to a path that exists. Any
// other client is closed at once; the connected play engine stays unless a permitted
// newcomer displaces it.
//
// Threads: start, stop and stopAtExit are serialised by the owner (the engine calls them
// under its mLock); mThreadCommand and mThreadStarted are guarded by that serialisation. The
// command thread alone accepts, receives from and decides to close the client, and alone
// touches the poll set and the indication bookkeeping. Any thread may send through the link,
// whose lock guards both descriptors.
#ifndef TAVO_PLAYENGINE_COMMAND_SOCKET_SERVER_H
#define TAVO_PLAYENGINE_COMMAND_SOCKET_SERVER_H

#include <pthread.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>

#include "IndicationAssembler.h"
#include "PlayEngineLink.h"
#include "PlayEngineProtocol.h"
#include "PlayEngineWire.h"
#include "ServerPollSet.h"
#include "UniqueHandle.h"

class Env;

class CommandSocketServer {
public:
    // What the server needs from its owner. Every call comes on the command thread.
    class Delegate {
    public:
        // A permitted client is about to be accepted: make ready what it will be handed.
        // False refuses it (it is closed without being sent anything).
        virtual bool prepareForClient() = 0;
        // `fd`, now the connected client held by the link, was accepted: greet it.
        virtual void clientAccepted(int fd) = 0;
        // The connected client went (closed, reset, displaced, or its descriptor failed);
        // `owed`: the sessions whose snapshot it still owed.
        virtual void clientGone(PlayEngineLink::CaptureSet owed) = 0;
        // The client sent a whole indication whose code is `code`.
        virtual void indicationReceived(int code) = 0;

    protected:
        ~Delegate() = default;
    };

    // `socketPath`: the socket's Android path, resolved when the thread binds it.
    explicit CommandSocketServer(Delegate& delegate,
                                 const char* socketPath = PLAYENGINE_SOCKET_PATH);
    // Stops a thread still running.
    ~CommandSocketServer();
    CommandSocketServer(const CommandSocketServer&) = delete;
    CommandSocketServer& operator=(const CommandSocketServer&) = delete;

    // Sets the run flag and starts the command thread, which makes its system calls, sleeps
    // and back-offs through `env` (the Env of the engine's init) until it ends; 0, or -1 when
    // it cannot be created.
    int start(Env* env);
    // Clears the run flag: the thread ends at its next pass at the latest.
    void clearRunFlag() { mIsStarted.store(false); }
    // Shuts the listening socket down to wake the thread, joins it and closes the socket.
    void stop();
    // At process exit: stops a thread this process started, unless called on that thread or
    // the thread does not end within a bound (it may be held up by the exiting thread).
    void stopAtExit();

    // Any thread. See PlayEngineLink::send.
    ssize_t send(const iovec* pieces, size_t pieceCount, int fd, int* clientFd,
                 int captureSession = -1) {
        return mLink.send(pieces, pieceCount, fd, clientFd, captureSession);
    }
    // The connected client's descriptor, or -1.
    int client() const { return mLink.client(); }
    bool listening() const { return mLink.listening(); }
    void captureAnswered(int session) { mLink.captureAnswered(session); }

private:
    static void* runCommandThread(void* server);
    void serve();
    // Creates, binds and listens; the listening socket goes to the link. False when the
    // server cannot run.
    bool setUp();
    // One poll pass. False when the loop is to be left.
    bool runPass();
    // What came of a connection the listening socket reported.
    enum class Accepted {
        CLIENT,            // it is the client now
        NONE,              // refused, or nothing to accept after all
        LISTENING_FAILED,  // the listening socket is unusable: the loop ends
    };
    // Accepts and checks a connection; one that passes displaces the client before it.
    Accepted acceptClient();
    void receiveFromClient();
    // Hands the indication completed by `count` more bytes, if any, to the delegate.
    void dispatch(size_t count);
    // Closes the client and tells the delegate.
    void closeClient();
    // Closes both sockets as the thread ends; the delegate is not told.
    void tearDown();

    Delegate& mDelegate;
    const char* const mSocketPath;

    // Listening socket (mSocket) and client (mFdCommand); guarded by the link's own lock.
    PlayEngineLink mLink;
    std::atomic<bool> mIsStarted{false};  // run flag of the command thread

    // Guarded by the owner's serialisation of start, stop and stopAtExit. mEnv is set by
    // start before the thread exists and stays until the next start.
    Env* mEnv = nullptr;
    pthread_t mThreadCommand{};
    bool mThreadStarted = false;  // mThreadCommand holds a thread to join

    // Command thread only.
    ServerPollSet mPollSet;
    IndicationAssembler mIndications;           // of the connected client
    PlayEngineWire::PassedDescriptors mPassed;  // closed as soon as a receive brought them
};

#endif  // TAVO_PLAYENGINE_COMMAND_SOCKET_SERVER_H
