// The engine's recording operations: the initialisation check, then the engine's recording
// control (RecordingControl.h), which holds frames off through the session manager.
#include "EngineLog.h"
#include "SessionManager.h"
#include "TavoMBBMSEngineImpl.h"

int TavoMBBMSEngineImpl::startRecording(int session, int fd) {
    TLOG(ENGINE, "session=%d", session);
    RETURN_IF_NOT_INITIALIZED(-1);
    return mRecording.startRecording(session, fd);
}

int TavoMBBMSEngineImpl::stopRecording(int session) {
    TLOG(ENGINE, "session=%d", session);
    RETURN_IF_NOT_INITIALIZED(-1);
    return mRecording.stopRecording(session);
}

bool TavoMBBMSEngineImpl::isRecording(int session) {
    return mRecording.isRecording(session);
}

void TavoMBBMSEngineImpl::dataRecording(int session) {
    mRecording.dataRecording(session, sharedBuffer(session));
}

bool TavoMBBMSEngineImpl::holdFrames() {
    // Without a session manager no frame can be in progress. The manager stays installed
    // while held: deinit retires it only after its users are gone.
    SessionManagerSlot::Access manager(mSessionManager);
    return manager && manager->beginExclusive();
}

void TavoMBBMSEngineImpl::releaseFrames(bool held) {
    if (!held)
        return;
    SessionManagerSlot::Access manager(mSessionManager);
    if (manager)
        manager->endExclusive(true);
}

void TavoMBBMSEngineImpl::notifyRecordingEvent(EventType type, int session) {
    notifyEvent(type, session);
}
