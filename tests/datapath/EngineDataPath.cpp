#include "EngineDataPath.h"

#include <cstdlib>
#include <cstring>

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

void EngineDataPath::nal(int channelID, const Bytes& bytes, MBBMSAgent::NAL_FRAGMENT_POS_IND pos,
                         unsigned long tsBase, unsigned long tsRelative) {
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
