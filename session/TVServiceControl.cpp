// TV service control: the application's start and stop of a TV session, and the address
// under which a session's stream is known. Application threads; serialised with each other
// and with frame delivery by the session manager, not by mLock.
#include <cstdio>

#include "EngineGuard.h"
#include "EngineLog.h"
#include "SessionManager.h"
#include "TavoMBBMSEngineImpl.h"

int TavoMBBMSEngineImpl::startTVService(int session, int freqDot, int start, int count, int mod,
                                        IsmaPara* isma) {
    if (isma == nullptr) {
        TLOG(ENGINE, "session=%d, freqDot=%d, serviceID=%d", session, freqDot, -1);
        TLOG(ERROR, "no IsmaPara given, session=%d not started", session);
        return -1;
    }
    TLOG(ENGINE, "session=%d, freqDot=%d, serviceID=%d", session, freqDot,
         static_cast<int>(isma->serviceID));
    RETURN_IF_NOT_INITIALIZED(-1);

    SessionManagerSlot::Access manager(mSessionManager);
    if (!manager)
        return -1;
    return manager->start(session, freqDot, start, count, mod, isma);
}

int TavoMBBMSEngineImpl::stopTVService(int session) {
    TLOG(ENGINE, "session=%d", session);
    RETURN_IF_NOT_INITIALIZED(-1);

    // The access lasts through the reset too: deinit destroys the buffers only after the
    // session manager's last user has gone. Without a manager, deinit is under way and
    // takes the buffers down anyway.
    SessionManagerSlot::Access manager(mSessionManager);
    if (!manager)
        return -1;
    const int result = manager->stop(session);
    // Whatever the detach gave, the session's buffer is emptied, so that a frame still being
    // written for it is discarded. Only sessions 0 and 1 have a buffer.
    if (session >= 0 && session < static_cast<int>(CMMB_SHARED_BUFFER_COUNT)) {
        resetSharedBuffer(session);
    }
    return result;
}

void TavoMBBMSEngineImpl::getTVServiceUrl(int session, char* url) {
    // The caller's buffer must hold the text: 27 bytes for a one-digit session number.
    sprintf(url, "cmmb://127.0.0.1/session=%d", session);
    TLOG(ENGINE, "url for session=%d is %s", session, url);
}
