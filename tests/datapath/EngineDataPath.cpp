#include "EngineDataPath.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "FakeAgentAccess.h"

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

void deliverFrame(MBBMSAgentCallback* agentSide, int channelID, Bytes* units, int count,
                  unsigned long tsBase) {
    agentSide->onOutputAVStart(channelID, nullptr, 0);
    for (int i = 0; i < count; ++i)
        agentSide->onClearVideoNalData(channelID, tsBase + i, 0, units[i].data(),
                                       static_cast<unsigned short>(units[i].size()),
                                       MBBMSAgent::NAL_FRAGMENT_COMPLETE);
    agentSide->onOutputAVEnd(channelID, false);
}

std::string PlayEngineReader::connect(const std::string& serverPath,
                                      const std::string& clientPath) {
    mConnection.reset(new EngineConnection(serverPath, clientPath));
    std::string error;
    // The command thread may still be setting up its listening socket.
    for (int attempts = 0; !mConnection->connect(&error); usleep(10000)) {
        if (++attempts > 2000)
            return error;
    }
    for (unsigned received = 0; received < CMMB_SHARED_BUFFER_COUNT; ++received) {
        EngineCommand command;
        struct stat status;
        if (mConnection->receive(&command, 20000) != EngineConnection::RECEIVED)
            return "no sharebuffer command received";
        const int s = command.session();
        if (command.text() != PLAYENGINE_CMD_TEXT_SHAREBUFFER || s < 0 ||
            s >= static_cast<int>(CMMB_SHARED_BUFFER_COUNT) || fstat(command.fd.get(), &status))
            return "not a usable sharebuffer command";
        mRegionSizes[s] = status.st_size;
        if (!mBuffers[s].map(std::move(command.fd), &error))
            return error;
    }
    return "";
}

bool PlayEngineReader::readFrame(int session, ReadFrame* frame, int timeoutMs) {
    CmmbSharedBuffer* b = buffer(session);
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

EngineDataPath::EngineDataPath(const char* logMask, bool connectPlayEngine,
                               const std::vector<std::pair<std::string, std::string>>& properties) {
    setenv("TAVO_LOGMASK", logMask, 1);
    for (const auto& property : properties)
        root.setProperty(property.first, property.second);
    engine = TavoMBBMSEngine::getInstance();
    agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
    if (agent == nullptr)
        mError = "the fake agent is not loaded";
    else if (engine->init(&callback, nullptr) != 0)
        mError = "init failed";
    else if (connectPlayEngine)
        mError = reader.connect(serverPath(), root.path() + "/playengine.socket");
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

// The agent's buffers are writable; each call gets its own copy.
void EngineDataPath::nal(int channelID, Bytes bytes, Pos pos, unsigned long tsBase,
                         unsigned long tsRelative) {
    agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
        cb->onClearVideoNalData(channelID, tsBase, tsRelative, bytes.data(),
                                static_cast<unsigned short>(bytes.size()), pos);
    });
}

void EngineDataPath::aac(int channelID, Bytes bytes, unsigned long tsBase) {
    agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
        cb->onClearAudioAacFrame(channelID, tsBase, 0, bytes.data(),
                                 static_cast<unsigned short>(bytes.size()));
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
