#include "EngineDataPath.h"

#include <errno.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "FakeAgentAccess.h"
#include "PlayEngineProtocol.h"

Bytes pattern(size_t count, unsigned char seed) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(seed + i * 7);
    return bytes;
}

Bytes nalUnit(int startCodeLength, unsigned char header, size_t count, unsigned char seed) {
    Bytes bytes = pattern(count, seed);
    for (int i = 0; i < startCodeLength; ++i)
        bytes[i] = i + 1 == startCodeLength;
    bytes[startCodeLength] = header;
    return bytes;
}

int valueOf(CmmbSharedSemaphore* sem) {
    int value = -1;
    cmmb_sem_getvalue(sem, &value);
    return value;
}

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

EngineDataPath::EngineDataPath(const char* logMask, bool connectPlayEngine) {
    setenv("TAVO_LOGMASK", logMask, 1);
    engine = TavoMBBMSEngine::getInstance();
    agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
    if (agent == nullptr)
        mError = "the fake agent is not loaded";
    else if (engine->init(&callback, nullptr) != 0)
        mError = "init failed";
    else if (connectPlayEngine)
        mError = reader.connect(root.resolve("/data/app/cmmb.socket"),
                                root.path() + "/playengine.socket");
}

int EngineDataPath::startService(int session, int serviceID, int channelID, int freqDot) {
    IsmaPara isma;
    memset(&isma, 0, sizeof(isma));
    isma.serviceID = static_cast<uint16_t>(serviceID);
    agent->setNextChannelID(channelID);
    return engine->startTVService(session, freqDot, 1, 2, 3, &isma);
}

void EngineDataPath::frameStart(int channelID, const Bytes& multiplexFrame) {
    agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
        cb->onOutputAVStart(channelID, multiplexFrame.empty() ? nullptr : multiplexFrame.data(),
                            static_cast<int>(multiplexFrame.size()));
    });
}

void EngineDataPath::nal(int channelID, const Bytes& bytes, Pos pos, unsigned long tsBase,
                         unsigned long tsRelative) {
    Bytes copy = bytes;  // the agent's buffer, valid for the call
    agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
        cb->onClearVideoNalData(channelID, tsBase, tsRelative, copy.data(),
                                static_cast<unsigned short>(copy.size()), pos);
    });
}

void EngineDataPath::aac(int channelID, const Bytes& bytes, unsigned long tsBase) {
    Bytes copy = bytes;
    agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
        cb->onClearAudioAacFrame(channelID, tsBase, 0, copy.data(),
                                 static_cast<unsigned short>(copy.size()));
    });
}

void EngineDataPath::frameEnd(int channelID, bool withError) {
    agent->runOnAgentThread(
        [&](MBBMSAgentCallback* cb) { cb->onOutputAVEnd(channelID, withError); });
}

void EngineDataPath::playFrame(int channelID, int nals, int aacs, bool withError,
                               const Bytes& multiplexFrame) {
    frameStart(channelID, multiplexFrame);
    for (int i = 0; i < nals; ++i)
        nal(channelID, nalUnit(4, 0x41, 20 + i), MBBMSAgent::NAL_FRAGMENT_COMPLETE, 100 + i);
    for (int i = 0; i < aacs; ++i)
        aac(channelID, pattern(30 + i), 200 + i);
    frameEnd(channelID, withError);
}
