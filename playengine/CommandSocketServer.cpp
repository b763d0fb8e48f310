// The command thread: a Unix-domain stream server on "/data/app/cmmb.socket" that serves one
// play engine at a time.
//
// Threads: startCommandThread and stopCommandThread run under mLock (init, deinit and a
// failed init's roll-back). The command thread alone creates, accepts, receives from and
// decides to close the client connection; the play-engine link owns both descriptors and
// closes them under its lock, so that senders on other threads never reach a closed one.
// stopCommandThread shuts the listening socket down to wake the thread and closes it after
// the join.
//
// Who may connect: see CommandSocketFile.h for the socket file's mode; a connecting process
// must run under the engine's own uid, root, or a uid listed in the system property
// "persist.mbbms.playengine.uids". Any other client is closed at once with an ERROR line;
// the connected play engine stays.
//
// A play engine that goes away (it closes its end, the connection is reset, or a new client
// pushes it out) ends the snapshots it owed with EVENT_CAPTURE_FAIL and tells the shared
// buffers, which replace a buffer it left locked before the next frame is written into it.
// A newly accepted client receives the descriptors only after the buffers a departed reader
// still locks have been replaced, with frames held off meanwhile.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "AndroidPaths.h"
#include "CommandSocketFile.h"
#include "EngineLog.h"
#include "Env.h"
#include "IndicationAssembler.h"
#include "IndicationCode.h"
#include "TavoMBBMSEngineImpl.h"
#include "ThreadName.h"

namespace {

const char kSocketPath[] = "/data/app/cmmb.socket";
const int kPollTimeoutMs = 1000;
const int kListenBacklog = 1;
// After an accept that failed for want of resources (EMFILE, ENFILE, ENOBUFS, ENOMEM), the
// waiting connection is still reported, and a failed poll would fail again: the thread
// pauses this long instead of spinning.
const std::chrono::milliseconds kFailureBackOff(100);

// Poll set of the server: entry 0 is the listening socket, entry 1 the client or -1.
class ServerPollSet {
public:
    explicit ServerPollSet(int listeningFd) : mEntries{}, mCount(1) {
        mEntries[0].fd = listeningFd;
        mEntries[0].events = POLLRDNORM;
        mEntries[1].fd = -1;
        mEntries[1].events = POLLRDNORM;
    }

    // Result of poll(): 0 on a time-out. Events of an earlier pass are forgotten first, so a
    // failed poll reports none.
    int wait(int timeoutMs) {
        mEntries[0].revents = 0;
        mEntries[1].revents = 0;
        return poll(mEntries, mCount, timeoutMs);
    }

    short listeningEvents() const { return mEntries[0].revents; }
    short clientEvents() const { return mCount > 1 ? mEntries[1].revents : 0; }
    int client() const { return mEntries[1].fd; }
    bool hasClient() const { return mEntries[1].fd != -1; }

    void setClient(int fd) {
        mEntries[1].fd = fd;
        mEntries[1].revents = 0;
        mCount = 2;
    }
    void clearClient() {
        mEntries[1].fd = -1;
        mEntries[1].revents = 0;
        mCount = 1;
    }

private:
    pollfd mEntries[2];
    nfds_t mCount;  // entries polled: 1 without a client, 2 with one
};

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
// client has none.
bool peerPathExists(PeerAddress& peer, socklen_t peerLength) {
    size_t pathEnd = peerLength < sizeof(peer.address) ? peerLength : sizeof(peer.address);
    if (pathEnd < offsetof(sockaddr_un, sun_path))
        pathEnd = offsetof(sockaddr_un, sun_path);
    peer.raw[pathEnd] = '\0';
    const char* peerPath = peer.raw + offsetof(sockaddr_un, sun_path);
    struct stat status;
    return stat(peerPath, &status) == 0;
}

// Closes descriptors a client may have passed along with an indication; the engine attaches
// no meaning to control data.
void closePassedDescriptors(msghdr& message) {
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
            continue;
        size_t bytes = header->cmsg_len - CMSG_LEN(0);
        const unsigned char* data = CMSG_DATA(header);
        for (size_t i = 0; i + sizeof(int) <= bytes; i += sizeof(int)) {
            int fd;
            memcpy(&fd, data + i, sizeof(fd));
            UniqueFd passed(fd);  // closed at once
        }
    }
}

void stopCommandThreadOnExit() {
    TavoMBBMSEngineImpl::stopCommandThreadAtExit();
}

bool acceptFailedForResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

int TavoMBBMSEngineImpl::startCommandThread() {
    TLOG(ENGINE, "%s()", "startCommandThread");
    // Registered after the process-wide objects the thread uses were made, so it runs
    // before they are destroyed.
    static const bool exitHookRegistered = std::atexit(stopCommandThreadOnExit) == 0;
    (void)exitHookRegistered;
    mIsStarted.store(true);
    if (Env::current()->startThread(&mThreadCommand, runCommandThread, nullptr) != 0) {
        TLOG(ERROR, "Can't create thread for runCommandThread");
        mIsStarted.store(false);
        return -1;
    }
    mCommandThreadRunning = true;
    return 0;
}

int TavoMBBMSEngineImpl::stopCommandThread() {
    TLOG(ENGINE, "%s()", "stopCommandThread");
    // The link shuts the socket down under its lock, so the shutdown can never reach a
    // descriptor number the thread has closed and something else reused.
    if (mPlayEngineLink.listening()) {
        TLOG(CMD_PATH, "Calling shutdown()");
        const int result = mPlayEngineLink.shutdownListening();
        TLOG(CMD_PATH, "Calling shutdown() ...Done");
        if (result == 0) {
            TLOG(MAIN, "shutdown mSocket successfully");
        } else if (result < 0) {
            TLOG(ERROR, "shutdown mSocket failed, reason: %s", strerror(errno));
        }
    } else {
        TLOG(CMD_PATH, "No need to call shutdown() due to mSocket == -1");
    }
    TLOG(CMD_PATH, "Wait mThreadCommand exit...");
    if (mCommandThreadRunning) {
        pthread_join(mThreadCommand, nullptr);
        mCommandThreadRunning = false;
    }
    mPlayEngineLink.closeListening();  // the thread has stopped using it
    TLOG(CMD_PATH, "Wait mThreadCommand exit...Done");
    return 0;
}

void TavoMBBMSEngineImpl::stopCommandThreadAtExit() {
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine == nullptr)
        return;
    // A child forked from the engine's process has no command thread, but shares the
    // listening socket: it must leave the socket alone. When init or deinit runs on another
    // thread, it owns the command thread.
    if (!mPlayEngineLink.listeningSetUpHere())
        return;
    std::unique_lock<Mutex> lock(engine->mLock, std::try_to_lock);
    if (!lock.owns_lock() || !engine->mCommandThreadRunning ||
        pthread_equal(pthread_self(), engine->mThreadCommand))
        return;
    mIsStarted.store(false);
    mPlayEngineLink.shutdownListening();
    // The thread closes the listening socket as its last step but one. The wait is bounded:
    // a thread held up by the exiting thread itself (a frame it has open) is left to the
    // exit rather than waited for.
    for (int i = 0; i < 1000 && mPlayEngineLink.listening(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (mPlayEngineLink.listening())
        return;
    pthread_join(engine->mThreadCommand, nullptr);
    engine->mCommandThreadRunning = false;
}

int TavoMBBMSEngineImpl::method_onAccepted(int fd) {
    TLOG(CMD_PATH, "%s()", "method_onAccepted");
    mPlayEngineLink.attachClient(UniqueFd(fd));  // the link owns the connection from here on
    sendPlayEngineCommand(CMD_SHAREBUFFER, 0, 0);
    return 0;
}

void TavoMBBMSEngineImpl::endPlayEngineConnection() {
    const PlayEngineLink::CaptureSet owed = mPlayEngineLink.closeClient();
    // The command thread runs only while the buffers exist (init creates them before it
    // starts, deinit destroys them after it has been joined).
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine != nullptr)
        engine->mSharedBuffers.readerDisconnected();
    for (int s = 0; s < kEngineSessions; ++s) {
        if ((owed & (1u << s)) == 0)
            continue;
        mIsCapturing[s].store(false);
        TLOG(WARNING, "play engine left without answering the snapshot of session=%d", s);
        notifyEvent(EVENT_CAPTURE_FAIL, s);
    }
}

bool TavoMBBMSEngineImpl::prepareBuffersForClient() {
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine == nullptr)
        return false;
    SharedBufferSet& buffers = engine->mSharedBuffers;
    // With frames held off no buffer is being written, so one can be replaced. Without a
    // session manager (init has not made it yet, or deinit has deleted it) no frame is
    // written either, but one may begin at any moment: nothing is replaced then, and a
    // client is refused rather than handed a buffer a departed reader still locks.
    const bool held = engine->holdFrames();
    const bool ready =
        held ? buffers.replaceAbandoned("runCommandThread") : !buffers.anyAbandoned();
    if (ready)
        buffers.readerConnected();  // from here on its buffers are not replaced under it
    engine->releaseFrames(held);
    return ready;
}

void* TavoMBBMSEngineImpl::runCommandThread(void*) {
    nameCurrentThread("tavo-command");
    TLOG(CMD_PATH, "thread of runCommandThread start");

    // Non-blocking, so that a connection withdrawn between poll and accept cannot block the
    // thread in accept (accept then fails and the pass ends).
    UniqueFd listeningSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int listening = listeningSocket.get();
    if (listening < 0) {
        TLOG(ERROR, "create server socket error");
        return nullptr;
    }
    char path[sizeof(sockaddr_un::sun_path)];
    if (resolveAndroidPath(kSocketPath, path, sizeof(path)) != 0 ||
        bindCommandSocket(listening, path, commandSocketMode()) != 0) {
        TLOG(ERROR, "bind server socket error");
        return nullptr;
    }
    if (listen(listening, kListenBacklog) != 0) {
        TLOG(ERROR, "listen on server socket error");
        return nullptr;
    }

    TLOG(CMD_PATH, "server is accepting client... ... ... ...");
    ServerPollSet pollSet(listening);
    mPlayEngineLink.setListening(std::move(listeningSocket));
    IndicationAssembler indications;  // of the connected client
    auto endClient = [&] {
        pollSet.clearClient();
        endPlayEngineConnection();
    };

    while (mIsStarted.load()) {
        const int ready = pollSet.wait(kPollTimeoutMs);
        if (ready == 0)
            continue;  // time-out: look at the run flag again
        // Woken by the shutdown of stopCommandThread: the run flag is already cleared.
        if (!mIsStarted.load())
            break;
        if (ready < 0) {
            // Interrupted, or short of memory for a moment: no events to look at.
            if (errno != EINTR)
                std::this_thread::sleep_for(kFailureBackOff);
            continue;
        }
        const short listeningEvents = pollSet.listeningEvents();
        // POLLHUP: shut down (by another process sharing it, since the run flag is still
        // set); accept would fail at once, for ever.
        if (listeningEvents & (POLLERR | POLLHUP | POLLNVAL)) {
            TLOG(ERROR, "error on listening socket");
            break;
        }

        if (listeningEvents & POLLRDNORM) {
            PeerAddress peer;
            memset(&peer, 0, sizeof(peer));
            socklen_t peerLength = sizeof(peer.address);
            UniqueFd accepted(accept4(listening, reinterpret_cast<sockaddr*>(&peer.address),
                                      &peerLength, SOCK_CLOEXEC));
            if (!accepted.valid()) {
                const int error = errno;
                TLOG(WARNING, "accept on listening socket error");
                if (error == EBADF || error == EINVAL || error == ENOTSOCK) {
                    TLOG(ERROR, "error on listening socket");
                    break;
                }
                if (acceptFailedForResources(error))
                    std::this_thread::sleep_for(kFailureBackOff);
                continue;
            }
            // Credentials first: a client that may not connect is closed before it can push
            // the connected play engine out.
            long peerUid = -1;
            if (!peerAllowed(accepted.get(), &peerUid)) {
                TLOG(ERROR, "client of uid %ld is not allowed to connect, closed", peerUid);
                accepted.reset();
            } else {
                if (pollSet.hasClient()) {
                    TLOG(ERROR, "only two client is allowed, now force close former one");
                    endClient();
                }
                const int client = accepted.get();
                if (!peerPathExists(peer, peerLength)) {
                    TLOG(ERROR, "socket file not exist!");
                    accepted.reset();
                } else if (!prepareBuffersForClient()) {
                    TLOG(ERROR,
                         "buffers a departed play engine still holds cannot be replaced now, "
                         "client %d closed",
                         client);
                    accepted.reset();
                } else {
                    TLOG(CMD_PATH, "client %d is accepted", client);
                    indications.reset();
                    pollSet.setClient(client);
                    method_onAccepted(accepted.release());
                    continue;
                }
            }
        }

        if (!pollSet.hasClient()) {
            TLOG(WARNING, "no connected client yet");
            continue;
        }
        const short clientEvents = pollSet.clientEvents();
        if (clientEvents & POLLNVAL) {
            TLOG(ERROR, "Other read error occur");
            endClient();
            continue;
        }
        if (!(clientEvents & (POLLERR | POLLHUP | POLLRDNORM)))
            continue;

        // At most the rest of the indication being assembled, so that a receive never takes
        // bytes of the next one.
        iovec piece = {indications.freeSpaceStart(), indications.freeSpace()};
        // Room for one passed descriptor; received control data is discarded.
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
        msghdr message;
        memset(&message, 0, sizeof(message));
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        TLOG(CMD_PATH, "recvmsg ... ...");
        const ssize_t received =
            recvmsg(pollSet.client(), &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (received > 0) {
            closePassedDescriptors(message);
            if (indications.received(static_cast<size_t>(received))) {
                const PlayEngineIndicationMessage& indication = indications.message();
                onPlayEngineIndication(
                    parseIndicationCode(indication.code, sizeof(indication.code)), 0);
            }
        } else if (received == 0) {
            TLOG(WARNING, "Connection closed by client");
            endClient();
        } else if (errno == ECONNRESET) {
            TLOG(ERROR, "Connection reset by client");
            endClient();
        } else if (errno != EAGAIN && errno != EINTR) {
            TLOG(ERROR, "Other read error occur");
        }
    }

    mPlayEngineLink.closeListening();
    // The client goes with the server: a play engine sees its connection end and can come
    // back to the next server, and no descriptor outlives the thread that owns it. Snapshots
    // it owes are not reported here: deinit holds mLock, and the application is not called
    // while it does.
    if (pollSet.hasClient()) {
        pollSet.clearClient();
        mPlayEngineLink.closeClient();
    }
    TLOG(CMD_PATH, "thread of runCommandThread exit");
    return nullptr;
}
