// The engine's recording operations: the initialisation check, then the engine's recording
// control (RecordingControl.h), which holds frames off through the session manager.
#include "EngineGuard.h"
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
    // The manager stays a user of the slot until releaseFrames, so that deinit cannot retire
    // it, and a later init cannot install another, while frames are held off through it.
    // Without a session manager no frame can be in progress.
    SessionManager* manager = mSessionManager.acquire();
    if (manager == nullptr || !manager->beginExclusive()) {
        mSessionManager.release();
        return false;
    }
    mFramesHeldOffBy = manager;
    return true;
}

void TavoMBBMSEngineImpl::releaseFrames(bool held) {
    if (!held)
        return;
    SessionManager* manager = mFramesHeldOffBy;
    mFramesHeldOffBy = nullptr;
    manager->endExclusive(true);
    mSessionManager.release();
}

void TavoMBBMSEngineImpl::notifyRecordingEvent(EventType type, int session) {
    notifyEvent(type, session);
}

Env* TavoMBBMSEngineImpl::env() {
    return mEnv.load();
}
