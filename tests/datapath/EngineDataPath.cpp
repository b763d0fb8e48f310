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
    size_t at = 0;
    if (startCodeLength == 4 && count >= 4) {
        bytes[0] = bytes[1] = bytes[2] = 0;
        bytes[3] = 1;
        at = 4;
    } else if (startCodeLength == 3 && count >= 3) {
        bytes[0] = bytes[1] = 0;
        bytes[2] = 1;
        at = 3;
    }
    if (at < count)
        bytes[at] = header;
    return bytes;
}

EngineDataPath::EngineDataPath(const Options& options) {
    setenv("TAVO_LOGMASK", options.logMask, 1);
    engine = TavoMBBMSEngine::getInstance();
    agent = fakeAgentAt(root.resolve("/system/lib/libsiano.so"));
    if (agent == nullptr) {
        mError = "the fake agent is not loaded";
        return;
    }
    if (engine->init(&callback, nullptr) != 0) {
        mError = "init failed";
        return;
    }
    if (options.connectPlayEngine) {
        mError = reader.connect(root.resolve("/data/app/cmmb.socket"),
                                root.path() + "/playengine.socket");
    }
}

EngineDataPath::~EngineDataPath() {
    if (engine != nullptr)
        engine->deinit();
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

void EngineDataPath::aac(int channelID, const Bytes& bytes, unsigned long tsBase,
                         unsigned long tsRelative) {
    Bytes copy = bytes;
    agent->runOnAgentThread([&](MBBMSAgentCallback* cb) {
        cb->onClearAudioAacFrame(channelID, tsBase, tsRelative, copy.data(),
                                 static_cast<unsigned short>(copy.size()));
    });
}

void EngineDataPath::frameEnd(int channelID, bool withError) {
    agent->runOnAgentThread(
        [&](MBBMSAgentCallback* cb) { cb->onOutputAVEnd(channelID, withError); });
}

int EngineDataPath::valueOf(CmmbSharedSemaphore* sem) {
    int value = -1;
    cmmb_sem_getvalue(sem, &value);
    return value;
}
