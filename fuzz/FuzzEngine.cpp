#include "FuzzEngine.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "FakeAgentAccess.h"

void fuzzFailure(const std::string& what) {
    fprintf(stderr, "fuzz finding: %s\n", what.c_str());
    abort();
}

FuzzEngine& FuzzEngine::instance() {
    // Never destroyed: the engine lives for the rest of the process, and the root with it.
    static FuzzEngine* engine = new FuzzEngine();
    return *engine;
}

FuzzEngine::FuzzEngine() {
    // Logging stays off unless a debugging session asks for it.
    const char* mask = getenv("TAVO_FUZZ_LOGMASK");
    const char* logFile = getenv("TAVO_FUZZ_LOG_FILE");
    setenv("TAVO_LOGMASK", mask != nullptr ? mask : "none", 1);
    setenv("TAVO_LOG_FILE", logFile != nullptr ? logFile : "/dev/null", 1);
    mEngine = TavoMBBMSEngineImpl::getInstance();
    mAgent = fakeAgentAt(mRoot.resolve("/system/lib/libsiano.so"));
    if (mAgent == nullptr)
        fuzzFailure("the fake agent is not loaded");
    if (mEngine->init(&mCallback, nullptr) != 0)
        fuzzFailure("engine init failed");
}

void FuzzEngine::startService(int session, int channelID) {
    IsmaPara isma;
    memset(&isma, 0, sizeof(isma));
    isma.serviceID = static_cast<uint16_t>(100 + session);
    mAgent->setNextChannelID(channelID);
    if (mEngine->startTVService(session, 20, 1, 2, 3, &isma) != 0)
        fuzzFailure("startTVService failed");
}
