#include "PlayEngineReader.h"

#include <errno.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "PlayEngineProtocol.h"

PlayEngineReader::~PlayEngineReader() {
    for (unsigned s = 0; s < CMMB_SHARED_BUFFER_COUNT; ++s) {
        if (mBuffers[s] != nullptr)
            munmap(mBuffers[s], CMMB_SHARED_BUFFER_SIZE);
        if (mFds[s] >= 0)
            close(mFds[s]);
    }
    if (mSocket >= 0)
        close(mSocket);
}

namespace {

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    return address;
}

// Receives one command message, sent whole, and the descriptor it carries (or -1).
bool receiveCommand(int socket, PlayEngineCommandMessage* command, int* fd) {
    *fd = -1;
    struct pollfd entry = {socket, POLLIN, 0};
    alignas(cmsghdr) unsigned char control[PLAYENGINE_FD_CONTROL_SPACE];
    iovec whole = {command, sizeof(*command)};
    msghdr message;
    memset(&message, 0, sizeof(message));
    message.msg_iov = &whole;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    if (poll(&entry, 1, 20000) != 1 ||
        recvmsg(socket, &message, MSG_CMSG_CLOEXEC | MSG_WAITALL) != sizeof(*command))
        return false;
    for (cmsghdr* h = CMSG_FIRSTHDR(&message); h != nullptr; h = CMSG_NXTHDR(&message, h)) {
        if (h->cmsg_level == SOL_SOCKET && h->cmsg_type == SCM_RIGHTS)
            memcpy(fd, CMSG_DATA(h), sizeof(int));
    }
    return true;
}

}  // namespace

std::string PlayEngineReader::connect(const std::string& serverPath,
                                      const std::string& clientPath) {
    mSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un own = addressOf(clientPath), server = addressOf(serverPath);
    unlink(clientPath.c_str());
    if (mSocket < 0 || bind(mSocket, reinterpret_cast<sockaddr*>(&own), sizeof(own)) != 0)
        return "cannot bind " + clientPath;
    // The command thread may still be setting up its listening socket.
    for (int attempts = 0;
         ::connect(mSocket, reinterpret_cast<sockaddr*>(&server), sizeof(server)) != 0;) {
        if (++attempts > 2000)
            return "connect failed: " + std::string(strerror(errno));
        usleep(10000);
    }
    for (unsigned received = 0; received < CMMB_SHARED_BUFFER_COUNT; ++received) {
        PlayEngineCommandMessage command;
        int fd = -1;
        if (!receiveCommand(mSocket, &command, &fd))
            return "no sharebuffer command received";
        int s = command.session - '0';
        if (strncmp(command.command, PLAYENGINE_CMD_TEXT_SHAREBUFFER, sizeof(command.command)) ||
            s < 0 || s >= static_cast<int>(CMMB_SHARED_BUFFER_COUNT) || fd < 0)
            return "not a usable sharebuffer command";
        mFds[s] = fd;
        void* mapping =
            mmap(nullptr, CMMB_SHARED_BUFFER_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapping == MAP_FAILED)
            return "mmap of a received descriptor failed";
        mBuffers[s] = static_cast<CmmbSharedBuffer*>(mapping);
    }
    return "";
}

bool PlayEngineReader::readFrame(int session, ReadFrame* frame, int timeoutMs) {
    CmmbSharedBuffer* b = mBuffers[session];
    if (cmmb_sem_timedwait(&b->mutexDataAvailable, timeoutMs) != 0 ||
        cmmb_sem_timedwait(&b->mutexDataAccessable, timeoutMs) != 0)
        return false;
    frame->nals.clear();
    frame->aacs.clear();
    for (uint32_t i = 0; i < b->nalCount && i < CMMB_NAL_RECORD_SLOTS; ++i)
        frame->nals.emplace_back(b->data + b->nal[i].offset,
                                 b->data + b->nal[i].offset + b->nal[i].length);
    for (uint32_t i = 0; i < b->aacCount && i < CMMB_AAC_RECORD_SLOTS; ++i)
        frame->aacs.emplace_back(b->data + b->aac[i].offset,
                                 b->data + b->aac[i].offset + b->aac[i].length);
    b->nalCount = 0;
    b->aacCount = 0;
    cmmb_sem_post(&b->mutexDataAccessable);
    return true;
}
