// The exported status functions of the play-engine link (TavoMBBMSEngineStatus.h): plain C
// entry points over the engine's connection and buffer state.
#include "TavoMBBMSEngineStatus.h"

#include "TavoMBBMSEngineImpl.h"

int TavoMBBMSEngineImpl::playEngineConnectedStatus() {
    // Only reads mInstance: asking must not create the engine. The server lives as long as
    // the engine; it has a client only between an accept on the command thread and the end
    // of that connection.
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine == nullptr)
        return 0;
    return engine->mCommandServer.client() >= 0 ? 1 : 0;
}

int TavoMBBMSEngineImpl::playEngineHoldsBufferStatus(int session) {
    // Only reads mInstance: asking must not create the engine.
    TavoMBBMSEngineImpl* engine = mInstance.load();
    if (engine == nullptr)
        return -1;
    // The set exists as long as the engine; its buffers only between init and deinit, which
    // readerHolds answers under each buffer's own mutex.
    return engine->mSharedBuffers.readerHolds(session);
}

extern "C" int tavo_mbbms_playengine_connected(void) {
    return TavoMBBMSEngineImpl::playEngineConnectedStatus();
}

extern "C" int tavo_mbbms_playengine_holds_buffer(int session) {
    return TavoMBBMSEngineImpl::playEngineHoldsBufferStatus(session);
}
