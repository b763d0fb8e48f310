#include "FrameReader.h"

#include <errno.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "PlayEngineProtocol.h"

namespace {

const int kPollMs = 5;
const int kLockWaitMs = 200;
const int kSessions = CMMB_SHARED_BUFFER_COUNT;

bool fillAddress(const std::string& path, sockaddr_un* address, socklen_t* length) {
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address->sun_path))
        return false;
    memcpy(address->sun_path, path.c_str(), path.size());
    *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

}  // namespace

FrameReader::FrameReader(const std::string& enginePath, const std::string& ownPath)
    : mEnginePath(enginePath), mOwnPath(ownPath) {
    for (auto& fetched : mFetched)
        fetched.store(0);
}

FrameReader::~FrameReader() {
    mStop.store(true);
    if (mThread.joinable())
        mThread.join();
    unlink(mOwnPath.c_str());
}

bool FrameReader::start(std::string* error) {
    sockaddr_un own, engine;
    socklen_t ownLength, engineLength;
    if (!fillAddress(mOwnPath, &own, &ownLength) ||
        !fillAddress(mEnginePath, &engine, &engineLength)) {
        *error = "socket path empty or too long";
        return false;
    }
    UniqueFd socketFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socketFd.valid()) {
        *error = std::string("socket: ") + strerror(errno);
        return false;
    }
    unlink(mOwnPath.c_str());
    if (bind(socketFd.get(), reinterpret_cast<sockaddr*>(&own), ownLength) != 0) {
        *error = "bind " + mOwnPath + ": " + strerror(errno);
        return false;
    }
    if (connect(socketFd.get(), reinterpret_cast<sockaddr*>(&engine), engineLength) != 0) {
        *error = "connect " + mEnginePath + ": " + strerror(errno);
        return false;
    }
    mSocket = std::move(socketFd);
    mThread = std::thread(&FrameReader::run, this);
    return true;
}

void FrameReader::run() {
    while (!mStop.load()) {
        pollfd entry = {mSocket.get(), POLLIN, 0};
        if (mSocket.valid() && poll(&entry, 1, kPollMs) > 0)
            receiveCommand();
        else if (!mSocket.valid())
            usleep(kPollMs * 1000);
        for (int session = 0; session < kSessions; ++session)
            fetchFrame(session);
    }
}

void FrameReader::receiveCommand() {
    PlayEngineCommandMessage command;
    memset(&command, 0, sizeof(command));
    alignas(cmsghdr) unsigned char control[PLAYENGINE_FD_CONTROL_SPACE];
    iovec piece = {&command, sizeof(command)};
    msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    ssize_t received = recvmsg(mSocket.get(), &message, MSG_CMSG_CLOEXEC | MSG_WAITALL);
    UniqueFd passed;
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
         header = CMSG_NXTHDR(&message, header)) {
        if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
            int fd;
            memcpy(&fd, CMSG_DATA(header), sizeof(fd));
            passed.reset(fd);
        }
    }
    if (received != static_cast<ssize_t>(sizeof(command))) {
        mSocket.reset();  // the engine went away, or the stream is out of step
        return;
    }
    const std::string text(command.command, strnlen(command.command, sizeof(command.command)));
    const int session = command.session - '0';
    if (text == PLAYENGINE_CMD_TEXT_SHAREBUFFER && passed.valid() && session >= 0 &&
        session < kSessions && !mMappings[session].valid()) {
        // A region smaller than the layout would fault on access: refuse it.
        struct stat info;
        if (fstat(passed.get(), &info) != 0 || info.st_size < CMMB_SHARED_BUFFER_SIZE)
            return;
        void* address = mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED,
                             passed.get(), 0);
        if (address != MAP_FAILED) {
            mMappings[session] = UniqueMapping(address, CMMB_SHARED_BUFFER_SIZE);
            mBuffersMapped.fetch_add(1);
        }
    } else if (text == PLAYENGINE_CMD_TEXT_CAPTURE) {
        PlayEngineIndicationMessage indication;
        memset(&indication, 0, sizeof(indication));
        snprintf(indication.code, sizeof(indication.code), "%d", IMAGE_CAPTURE_FAIL);
        send(mSocket.get(), &indication, sizeof(indication), MSG_NOSIGNAL);
        mCaptures.fetch_add(1);
    }
}

void FrameReader::fetchFrame(int session) {
    if (!mMappings[session].valid())
        return;
    auto* shared = static_cast<CmmbSharedBuffer*>(mMappings[session].get());
    if (cmmb_sem_trywait(&shared->mutexDataAvailable) != 0)
        return;
    if (cmmb_sem_timedwait(&shared->mutexDataAccessable, kLockWaitMs) != 0)
        return;
    // Read once: the counts belong to another process's writer.
    const uint32_t nalCount = shared->nalCount, aacCount = shared->aacCount;
    shared->nalCount = 0;
    shared->aacCount = 0;
    cmmb_sem_post(&shared->mutexDataAccessable);
    if (nalCount != 0 || aacCount != 0)
        mFetched[session].fetch_add(1);
}
