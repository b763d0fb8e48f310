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
// Who may connect: the socket file gets mode 0660 whatever the umask, and a connecting
// process must run under the engine's own uid, root, or a uid listed in the system property
// "persist.mbbms.playengine.uids" (decimal uids separated by commas or spaces). Any other
// client is closed at once with an ERROR line; the connected play engine stays.
//
// A play engine that goes away (it closes its end, the connection is reset, or a new client
// pushes it out before its hang-up was read) may have died holding a buffer lock. Once no process
// that received the buffers lives any more (ReaderProcesses), the engine takes such locks back
// (onPlayEngineGone).
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "AndroidPaths.h"
#include "EngineLog.h"
#include "Env.h"
#include "IndicationCode.h"
#include "Properties.h"
#include "ReaderProcesses.h"
#include "TavoMBBMSEngineImpl.h"

namespace {

const char kSocketPath[] = "/data/app/cmmb.socket";
const char kAllowedUidsProperty[] = "persist.mbbms.playengine.uids";
const mode_t kSocketFileMode = 0660;
// After a play engine has gone, the thread looks this often whether its process has ended,
// for at most kReaderExitWait; a process that lives on keeps its locks.
const std::chrono::milliseconds kReaderExitPoll(10);
const std::chrono::milliseconds kReaderExitWait(2000);
const int kPollTimeoutMs = 1000;
const int kListenBacklog = 1;

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

// Closes the client and forgets it everywhere.
void dropClient(ServerPollSet& pollSet, PlayEngineLink& link) {
    pollSet.clearClient();
    link.closeClient();
}

// True when `uid` appears in the property's list of decimal uids.
bool listedInProperty(uid_t uid) {
    char value[PROPERTY_VALUE_MAX];
    property_get(kAllowedUidsProperty, value, "");
    const char* cursor = value;
    while (*cursor != '\0') {
        char* end = nullptr;
        const unsigned long listed = strtoul(cursor, &end, 10);
        if (end == cursor) {
            ++cursor;  // a separator
            continue;
        }
        if (listed == static_cast<unsigned long>(uid))
            return true;
        cursor = end;
    }
    return false;
}

// The credentials of the process at the other end of `client`, checked against who may
// connect. Sets *uid (-1 when they cannot be read) and *pid.
bool peerAllowed(int client, long* uid, pid_t* pid) {
    ucred credentials;
    socklen_t length = sizeof(credentials);
    *uid = -1;
    *pid = 0;
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return false;
    *uid = static_cast<long>(credentials.uid);
    *pid = credentials.pid;
    return credentials.uid == geteuid() || credentials.uid == 0 ||
           listedInProperty(credentials.uid);
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

}  // namespace

int TavoMBBMSEngineImpl::startCommandThread() {
    TLOG(ENGINE, "%s()", "startCommandThread");
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

int TavoMBBMSEngineImpl::method_onAccepted(int fd) {
    TLOG(CMD_PATH, "%s()", "method_onAccepted");
    mPlayEngineLink.attachClient(UniqueFd(fd));  // the link owns the connection from here on
    sendPlayEngineCommand(CMD_SHAREBUFFER, 0, 0);
    return 0;
}

void* TavoMBBMSEngineImpl::runCommandThread(void*) {
    TLOG(CMD_PATH, "thread of runCommandThread start");

    // Non-blocking, so that a connection withdrawn between poll and accept cannot block the
    // thread in accept (accept then fails and the pass ends).
    UniqueFd listeningSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int listening = listeningSocket.get();
    if (listening < 0) {
        TLOG(ERROR, "create server socket error");
        return nullptr;
    }

    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (resolveAndroidPath(kSocketPath, address.sun_path, sizeof(address.sun_path)) != 0) {
        TLOG(ERROR, "bind server socket error");
        return nullptr;
    }
    unlink(address.sun_path);
    socklen_t addressLength =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
    if (bind(listening, reinterpret_cast<sockaddr*>(&address), addressLength) != 0) {
        TLOG(ERROR, "bind server socket error");
        return nullptr;
    }
    // Whatever the process's umask: only the owner and its group may connect. Nothing is
    // accepted before listen, and accepted clients are checked by credentials as well.
    if (chmod(address.sun_path, kSocketFileMode) != 0) {
        TLOG(ERROR, "bind server socket error");
        unlink(address.sun_path);
        return nullptr;
    }
    if (listen(listening, kListenBacklog) != 0) {
        TLOG(ERROR, "listen on server socket error");
        return nullptr;
    }

    TLOG(CMD_PATH, "server is accepting client... ... ... ...");
    ServerPollSet pollSet(listening);
    mPlayEngineLink.setListening(std::move(listeningSocket));

    // Processes that received the buffers, and whether a play engine has gone whose locks
    // may have to be taken back once no such process lives: then, when to look next and when
    // to stop looking. The wait runs on the clock, not on wake-ups, so that a busy new
    // client neither cuts it short nor makes the thread read /proc at every message.
    using Clock = std::chrono::steady_clock;
    ReaderProcesses readers;
    bool readerGone = false;
    Clock::time_point nextReaderCheck, readerWaitEnd;
    // Every end of a connection while the server runs starts that wait, however it was seen.
    auto endClient = [&] {
        dropClient(pollSet, mPlayEngineLink);
        readerGone = true;
        nextReaderCheck = Clock::now();
        readerWaitEnd = nextReaderCheck + kReaderExitWait;
    };

    while (mIsStarted.load()) {
        int pollTimeoutMs = kPollTimeoutMs;
        if (readerGone) {
            const Clock::time_point now = Clock::now();
            if (now >= nextReaderCheck) {
                nextReaderCheck = now + kReaderExitPoll;
                if (!readers.anyAlive()) {
                    readerGone = false;
                    onPlayEngineGone();
                } else if (now >= readerWaitEnd) {
                    readerGone = false;  // they live on: their locks are their own
                }
            }
            if (readerGone) {
                const auto untilCheck =
                    std::chrono::ceil<std::chrono::milliseconds>(nextReaderCheck - Clock::now());
                pollTimeoutMs = static_cast<int>(std::max<long long>(untilCheck.count(), 0));
            }
        }
        if (pollSet.wait(pollTimeoutMs) == 0)
            continue;  // time-out: look at the run flag again
        // Woken by the shutdown of stopCommandThread: the run flag is already cleared.
        if (!mIsStarted.load())
            break;

        short listeningEvents = pollSet.listeningEvents();
        if (listeningEvents & POLLERR) {
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
                TLOG(WARNING, "accept on listening socket error");
                continue;
            }
            // Credentials first: a client that may not connect is closed before it can push
            // the connected play engine out.
            long peerUid = -1;
            pid_t peerPid = 0;
            if (!peerAllowed(accepted.get(), &peerUid, &peerPid)) {
                TLOG(ERROR, "client of uid %ld is not allowed to connect, closed", peerUid);
                accepted.reset();
            } else {
                if (pollSet.hasClient()) {
                    TLOG(ERROR, "only two client is allowed, now force close former one");
                    endClient();
                }
                const int client = accepted.get();
                // The client's own path; an unbound (or abstract) client has none and is refused.
                size_t pathEnd =
                    peerLength < sizeof(peer.address) ? peerLength : sizeof(peer.address);
                if (pathEnd < offsetof(sockaddr_un, sun_path))
                    pathEnd = offsetof(sockaddr_un, sun_path);
                peer.raw[pathEnd] = '\0';
                const char* peerPath = peer.raw + offsetof(sockaddr_un, sun_path);
                struct stat status;
                if (stat(peerPath, &status) != 0) {
                    TLOG(ERROR, "socket file not exist!");
                    accepted.reset();
                } else {
                    TLOG(CMD_PATH, "client %d is accepted", client);
                    readers.add(peerPid);
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
        short clientEvents = pollSet.clientEvents();
        if (!(clientEvents & (POLLERR | POLLRDNORM)))
            continue;

        PlayEngineIndicationMessage indication;
        memset(&indication, 0, sizeof(indication));
        iovec pieces[2] = {{indication.code, sizeof(indication.code)},
                           {indication.extra, sizeof(indication.extra)}};
        // Room for one passed descriptor; received control data is discarded.
        alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(int))];
        msghdr message;
        memset(&message, 0, sizeof(message));
        message.msg_iov = pieces;
        message.msg_iovlen = 2;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        TLOG(CMD_PATH, "recvmsg ... ...");
        ssize_t received = recvmsg(pollSet.client(), &message, MSG_CMSG_CLOEXEC);
        if (received > 0) {
            closePassedDescriptors(message);
            onPlayEngineIndication(parseIndicationCode(indication.code, sizeof(indication.code)),
                                   0);
        } else if (received == 0) {
            TLOG(WARNING, "Connection closed by client");
            endClient();
        } else if (errno == ECONNRESET) {
            TLOG(ERROR, "Connection reset by client");
            endClient();
        } else {
            TLOG(ERROR, "Other read error occur");
        }
    }

    mPlayEngineLink.closeListening();
    // The client goes with the server: a play engine sees its connection end and can come
    // back to the next server, and no descriptor outlives the thread that owns it.
    if (pollSet.hasClient())
        dropClient(pollSet, mPlayEngineLink);
    TLOG(CMD_PATH, "thread of runCommandThread exit");
    return nullptr;
}
