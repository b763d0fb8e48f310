// The command thread's work: set-up, poll passes, accepting, receiving and closing clients.
//
// A play engine that goes away (it closes its end, the connection is reset, or a new client
// pushes it out) is reported to the delegate, which ends the snapshots it owed and tells the
// shared buffers. A newly accepted client is reported only after the delegate has made ready
// what it will be handed.
//
// Log lines of the thread name runCommandThread, those of start and stop startCommandThread
// and stopCommandThread: the engine operations they belong to.
#include "CommandSocketServer.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

#include "AndroidPaths.h"
#include "CommandSocketFile.h"
#include "EngineLog.h"
#include "Env.h"
#include "IndicationCode.h"
#include "ThreadName.h"

namespace {

const char kThread[] = "runCommandThread";
const char kStart[] = "startCommandThread";
const char kStop[] = "stopCommandThread";
const int kPollTimeoutMs = 1000;
const int kListenBacklog = 1;
// After an accept that failed for want of resources (EMFILE, ENFILE, ENOBUFS, ENOMEM), the
// waiting connection is still reported, and a failed poll would fail again: the thread
// pauses this long instead of spinning.
const std::chrono::milliseconds kFailureBackOff(100);
// stopAtExit waits this many steps of kExitWaitStep for the thread to end.
const int kExitWaitSteps = 1000;
const std::chrono::milliseconds kExitWaitStep(1);

// A Unix address with room for a terminating zero after the longest path.
union PeerAddress {
    sockaddr_un address;
    char raw[sizeof(sockaddr_un) + 1];
};

// The credentials of the process at the other end of `client`, checked against who may
// connect. Sets *uid (-1 when they cannot be read).
bool peerAllowed(int client, long* uid) {
    ucred credentials;
    socklen_t length = sizeof(credentials);
    *uid = -1;
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return false;
    *uid = static_cast<long>(credentials.uid);
    return credentials.uid == geteuid() || credentials.uid == 0 ||
           uidListedAsPlayEngine(credentials.uid);
}

// True when the client bound its socket to a path that exists; an unbound (or abstract)
// client has none. The length comes from accept and is bounded here.
bool peerPathExists(const PeerAddress& accepted, socklen_t peerLength) {
    PeerAddress peer = accepted;
    size_t pathEnd = peerLength < sizeof(peer.address) ? peerLength : sizeof(peer.address);
    if (pathEnd < offsetof(sockaddr_un, sun_path))
        pathEnd = offsetof(sockaddr_un, sun_path);
    peer.raw[pathEnd] = '\0';
    const char* peerPath = peer.raw + offsetof(sockaddr_un, sun_path);
    struct stat status;
    return stat(peerPath, &status) == 0;
}

bool acceptFailedForResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

CommandSocketServer::CommandSocketServer(Delegate& delegate, const char* socketPath)
    : mDelegate(delegate), mSocketPath(socketPath) {}

CommandSocketServer::~CommandSocketServer() {
    if (mThreadStarted) {
        clearRunFlag();
        stop();
    }
}

int CommandSocketServer::start(Env* env) {
    mEnv = env;
    mIsStarted.store(true);
    if (mEnv->startThread(&mThreadCommand, runCommandThread, this) != 0) {
        TLOG_FOR(kStart, ERROR, "Can't create thread for runCommandThread");
        mIsStarted.store(false);
        return -1;
    }
    mThreadStarted = true;
    return 0;
}

void CommandSocketServer::stop() {
    // The link shuts the socket down under its lock, so the shutdown can never reach a
    // descriptor number the thread has closed and something else reused.
    if (mLink.listening()) {
        TLOG_FOR(kStop, CMD_PATH, "Calling shutdown()");
        const int result = mLink.shutdownListening();
        TLOG_FOR(kStop, CMD_PATH, "Calling shutdown() ...Done");
        if (result == 0) {
            TLOG_FOR(kStop, MAIN, "shutdown mSocket successfully");
        } else if (result < 0) {
            TLOG_FOR(kStop, ERROR, "shutdown mSocket failed, reason: %s", strerror(errno));
        }
    } else {
        TLOG_FOR(kStop, CMD_PATH, "No need to call shutdown() due to mSocket == -1");
    }
    TLOG_FOR(kStop, CMD_PATH, "Wait mThreadCommand exit...");
    if (mThreadStarted) {
        pthread_join(mThreadCommand, nullptr);
        mThreadStarted = false;
    }
    mLink.closeListening();  // the thread has stopped using it
    TLOG_FOR(kStop, CMD_PATH, "Wait mThreadCommand exit...Done");
}

void CommandSocketServer::stopAtExit() {
    // A child forked from this process has no command thread, but shares the listening
    // socket: it must leave the socket alone.
    if (!mLink.listeningSetUpHere() || !mThreadStarted ||
        pthread_equal(pthread_self(), mThreadCommand))
        return;
    clearRunFlag();
    mLink.shutdownListening();
    // The thread closes the listening socket as its last step but one. The wait is bounded:
    // a thread held up by the exiting thread itself (a frame it has open) is left to the
    // exit rather than waited for.
    for (int i = 0; i < kExitWaitSteps && mLink.listening(); ++i)
        mEnv->sleepFor(kExitWaitStep);
    if (mLink.listening())
        return;
    pthread_join(mThreadCommand, nullptr);
    mThreadStarted = false;
}

void* CommandSocketServer::runCommandThread(void* server) {
    nameCurrentThread("tavo-command");
    TLOG_FOR(kThread, CMD_PATH, "thread of runCommandThread start");
    static_cast<CommandSocketServer*>(server)->serve();
    TLOG_FOR(kThread, CMD_PATH, "thread of runCommandThread exit");
    return nullptr;
}

void CommandSocketServer::serve() {
    if (!setUp())
        return;
    while (mIsStarted.load() && runPass()) {
    }
    tearDown();
}

bool CommandSocketServer::setUp() {
    // Non-blocking, so that a connection withdrawn between poll and accept cannot block the
    // thread in accept (accept then fails and the pass ends).
    UniqueFd listening(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listening.valid()) {
        TLOG_FOR(kThread, ERROR, "create server socket error");
        return false;
    }
    char path[sizeof(sockaddr_un::sun_path)];
    if (resolveAndroidPath(mSocketPath, path, sizeof(path)) != 0 ||
        bindCommandSocket(listening.get(), path, commandSocketMode()) != 0) {
        TLOG_FOR(kThread, ERROR, "bind server socket error");
        return false;
    }
    if (listen(listening.get(), kListenBacklog) != 0) {
        TLOG_FOR(kThread, ERROR, "listen on server socket error");
        return false;
    }
    TLOG_FOR(kThread, CMD_PATH, "server is accepting client... ... ... ...");
    mPollSet.setListening(listening.get());
    mLink.setListening(std::move(listening));
    return true;
}

bool CommandSocketServer::runPass() {
    const int ready = mPollSet.wait(kPollTimeoutMs);
    if (ready == 0)
        return true;  // time-out: look at the run flag again
    // Woken by the shutdown of stop: the run flag is already cleared.
    if (!mIsStarted.load())
        return false;
    if (ready < 0) {
        // Interrupted, or short of memory for a moment: no events to look at.
        if (errno != EINTR)
            mEnv->sleepFor(kFailureBackOff);
        return true;
    }
    const short listeningEvents = mPollSet.listeningEvents();
    // POLLHUP: shut down (by another process sharing it, since the run flag is still set);
    // accept would fail at once, for ever.
    if (listeningEvents & (POLLERR | POLLHUP | POLLNVAL)) {
        TLOG_FOR(kThread, ERROR, "error on listening socket");
        return false;
    }
    if (listeningEvents & POLLRDNORM) {
        const Accepted accepted = acceptClient();
        if (accepted == Accepted::LISTENING_FAILED)
            return false;
        if (accepted == Accepted::CLIENT)
            return true;  // a new client has no events of this pass
    }
    if (!mPollSet.hasClient()) {
        TLOG_FOR(kThread, WARNING, "no connected client yet");
        return true;
    }
    const short clientEvents = mPollSet.clientEvents();
    if (clientEvents & POLLNVAL) {
        TLOG_FOR(kThread, ERROR, "Other read error occur");
        closeClient();
        return true;
    }
    if (clientEvents & (POLLERR | POLLHUP | POLLRDNORM))
        receiveFromClient();
    return true;
}

CommandSocketServer::Accepted CommandSocketServer::acceptClient() {
    PeerAddress peer;
    memset(&peer, 0, sizeof(peer));
    socklen_t peerLength = sizeof(peer.address);
    UniqueFd accepted(accept4(mPollSet.listening(), reinterpret_cast<sockaddr*>(&peer.address),
                              &peerLength, SOCK_CLOEXEC));
    if (!accepted.valid()) {
        const int error = errno;
        TLOG_FOR(kThread, WARNING, "accept on listening socket error");
        if (error == EBADF || error == EINVAL || error == ENOTSOCK) {
            TLOG_FOR(kThread, ERROR, "error on listening socket");
            return Accepted::LISTENING_FAILED;
        }
        if (acceptFailedForResources(error))
            mEnv->sleepFor(kFailureBackOff);
        return Accepted::NONE;
    }
    // Credentials first: a client that may not connect is closed before it can push the
    // connected play engine out.
    long peerUid = -1;
    if (!peerAllowed(accepted.get(), &peerUid)) {
        TLOG_FOR(kThread, ERROR, "client of uid %ld is not allowed to connect, closed", peerUid);
        return Accepted::NONE;
    }
    if (mPollSet.hasClient()) {
        TLOG_FOR(kThread, ERROR, "only two client is allowed, now force close former one");
        closeClient();
    }
    const int client = accepted.get();
    if (!peerPathExists(peer, peerLength)) {
        TLOG_FOR(kThread, ERROR, "socket file not exist!");
        return Accepted::NONE;
    }
    if (!mDelegate.prepareForClient()) {
        TLOG_FOR(kThread, ERROR,
                 "buffers a departed play engine still holds cannot be replaced now, "
                 "client %d closed",
                 client);
        return Accepted::NONE;
    }
    TLOG_FOR(kThread, CMD_PATH, "client %d is accepted", client);
    mIndications.reset();
    mPollSet.setClient(client);
    mLink.attachClient(std::move(accepted));  // the link owns the connection from here on
    mDelegate.clientAccepted(client);
    return Accepted::CLIENT;
}

void CommandSocketServer::receiveFromClient() {
    TLOG_FOR(kThread, CMD_PATH, "recvmsg ... ...");
    // At most the rest of the indication being assembled, so that a receive never takes bytes
    // of the next one.
    const PlayEngineWire::Receipt receipt =
        PlayEngineWire::receive(mPollSet.client(), mIndications.freeSpaceStart(),
                                mIndications.freeSpace(), MSG_DONTWAIT, 1, &mPassed);
    // Descriptors a client passes along mean nothing to the engine: closed at once.
    mPassed.clear();
    if (receipt.bytes > 0) {
        dispatch(static_cast<size_t>(receipt.bytes));
    } else if (receipt.bytes == 0) {
        TLOG_FOR(kThread, WARNING, "Connection closed by client");
        closeClient();
    } else if (receipt.error == ECONNRESET) {
        TLOG_FOR(kThread, ERROR, "Connection reset by client");
        closeClient();
    } else if (receipt.error != EAGAIN && receipt.error != EWOULDBLOCK) {
        TLOG_FOR(kThread, ERROR, "Other read error occur");
    }
}

void CommandSocketServer::dispatch(size_t count) {
    if (!mIndications.received(count))
        return;
    const PlayEngineIndicationMessage& indication = mIndications.message();
    mDelegate.indicationReceived(parseIndicationCode(indication.code, sizeof(indication.code)));
}

void CommandSocketServer::closeClient() {
    mPollSet.clearClient();
    const PlayEngineLink::CaptureSet owed = mLink.closeClient();
    mDelegate.clientGone(owed);
}

void CommandSocketServer::tearDown() {
    mLink.closeListening();
    mPollSet.setListening(-1);
    // The client goes with the server: a play engine sees its connection end and can come
    // back to the next server, and no descriptor outlives the thread that owns it. Snapshots
    // it owes are not reported here: the owner stops the thread holding its own lock, and
    // the application is not called while it does.
    if (mPollSet.hasClient()) {
        mPollSet.clearClient();
        mLink.closeClient();
    }
}
