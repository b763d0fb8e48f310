#include "PlayEngineReader.h"

#include <errno.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "PlayEngineProtocol.h"

MappedSharedBuffer::~MappedSharedBuffer() {
    if (mBuffer != nullptr)
        munmap(mBuffer, CMMB_SHARED_BUFFER_SIZE);
    if (mFd >= 0)
        close(mFd);
}

bool MappedSharedBuffer::adopt(int fd) {
    mFd = fd;
    void* mapping =
        mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED)
        return false;
    mBuffer = static_cast<CmmbSharedBuffer*>(mapping);
    return true;
}

PlayEngineReader::~PlayEngineReader() {
    if (mSocket >= 0)
        close(mSocket);
}

namespace {

bool fillAddress(sockaddr_un* address, const std::string& path) {
    memset(address, 0, sizeof(*address));
    address->sun_family = AF_UNIX;
    if (path.size() >= sizeof(address->sun_path))
        return false;
    memcpy(address->sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Receives one 96-byte command message and the descriptor it carries (or -1).
bool receiveCommand(int socket, PlayEngineCommandMessage* command, int* fd) {
    *fd = -1;
    size_t have = 0;
    unsigned char* bytes = reinterpret_cast<unsigned char*>(command);
    while (have < sizeof(*command)) {
        struct pollfd entry = {socket, POLLIN, 0};
        if (poll(&entry, 1, 20000) != 1)
            return false;
        alignas(cmsghdr) unsigned char control[PLAYENGINE_FD_CONTROL_SPACE];
        iovec piece = {bytes + have, sizeof(*command) - have};
        msghdr message;
        memset(&message, 0, sizeof(message));
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        ssize_t n = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
             header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_RIGHTS) {
                memcpy(fd, CMSG_DATA(header), sizeof(int));
            }
        }
        have += static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

std::string PlayEngineReader::connect(const std::string& serverPath,
                                      const std::string& clientPath) {
    mSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (mSocket < 0)
        return "socket failed";
    sockaddr_un own, server;
    if (!fillAddress(&own, clientPath) || !fillAddress(&server, serverPath))
        return "path too long";
    unlink(clientPath.c_str());
    if (bind(mSocket, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0)
        return "bind failed";
    // The command thread may still be setting up its listening socket.
    int attempts = 0;
    while (::connect(mSocket, reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 0) {
        if (++attempts > 2000)
            return "connect failed: " + std::string(strerror(errno));
        usleep(10000);
    }
    for (int received = 0; received < static_cast<int>(CMMB_SHARED_BUFFER_COUNT); ++received) {
        PlayEngineCommandMessage command;
        int fd = -1;
        if (!receiveCommand(mSocket, &command, &fd))
            return "no sharebuffer command received";
        if (strncmp(command.command, PLAYENGINE_CMD_TEXT_SHAREBUFFER, sizeof(command.command)) != 0)
            return "unexpected command " +
                   std::string(command.command, strnlen(command.command, 32));
        int session = command.session - '0';
        if (session < 0 || session >= static_cast<int>(CMMB_SHARED_BUFFER_COUNT) || fd < 0)
            return "sharebuffer without a usable session or descriptor";
        if (!mBuffers[session].adopt(fd))
            return "mmap of a received descriptor failed";
    }
    return "";
}

bool PlayEngineReader::readFrame(int session, ReadFrame* frame, int timeoutMs) {
    CmmbSharedBuffer* buffer = mBuffers[session].get();
    if (cmmb_sem_timedwait(&buffer->mutexDataAvailable, timeoutMs) != 0)
        return false;
    if (cmmb_sem_timedwait(&buffer->mutexDataAccessable, timeoutMs) != 0)
        return false;
    frame->nals.clear();
    frame->aacs.clear();
    for (uint32_t i = 0; i < buffer->nalCount && i < CMMB_NAL_RECORD_SLOTS; ++i) {
        const CmmbNalRecord& record = buffer->nal[i];
        const unsigned char* start = buffer->data + record.offset;
        frame->nals.push_back({record.tsBase, record.tsRelative,
                               std::vector<unsigned char>(start, start + record.length)});
    }
    for (uint32_t i = 0; i < buffer->aacCount && i < CMMB_AAC_RECORD_SLOTS; ++i) {
        const CmmbAacRecord& record = buffer->aac[i];
        const unsigned char* start = buffer->data + record.offset;
        frame->aacs.push_back({record.tsBase, record.tsRelative,
                               std::vector<unsigned char>(start, start + record.length)});
    }
    buffer->nalCount = 0;
    buffer->aacCount = 0;
    cmmb_sem_post(&buffer->mutexDataAccessable);
    return true;
}
