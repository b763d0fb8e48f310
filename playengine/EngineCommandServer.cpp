// The engine's side of its command socket server: starting and stopping the command thread,
// and what the engine does when a play engine connects, leaves or needs its buffers ready.
//
// Threads: startCommandThread and stopCommandThread run under mLock (init, deinit and a
// failed init's roll-back). The delegate calls come on the command thread, with no lock of
// the server's held. The command thread runs only while the shared buffers exist (init
// creates them before it starts the thread, deinit destroys them after it has been joined).
#include <cstdlib>

#include "EngineLog.h"
#include "EngineSessions.h"
#include "TavoMBBMSEngineImpl.h"

int TavoMBBMSEngineImpl::startCommandThread() {
    TLOG(ENGINE, "%s()", "startCommandThread");
    // Registered after the process-wide objects the thread uses were made, so it runs before
    // they are destroyed.
    static const bool exitHookRegistered = std::atexit(stopCommandThreadAtExit) == 0;
    (void)exitHookRegistered;
    return mCommandServer.start(mEnv.load());
}

int TavoMBBMSEngineImpl::stopCommandThread() {
    TLOG(ENGINE, "%s()", "stopCommandThread");
    mCommandServer.stop();
    return 0;
}

int TavoMBBMSEngineImpl::method_onAccepted(int fd) {
    TLOG(CMD_PATH, "%s()", "method_onAccepted");
    (void)fd;  // the server's link holds the connection; commands go out through it
    sendPlayEngineCommand(CMD_SHAREBUFFER, 0, 0);
    return 0;
}

bool TavoMBBMSEngineImpl::prepareForClient() {
    // With frames held off no buffer is being written, so one can be replaced. Without a
    // session manager (init has not made it yet, or deinit has deleted it) no frame is
    // written either, but one may begin at any moment: nothing is replaced then, and a
    // client is refused rather than handed a buffer a departed reader still locks.
    const bool held = holdFrames();
    const bool ready =
        held ? mSharedBuffers.replaceAbandoned("runCommandThread") : !mSharedBuffers.anyAbandoned();
    if (ready)
        mSharedBuffers.readerConnected();  // from here on its buffers are not replaced under it
    releaseFrames(held);
    return ready;
}

void TavoMBBMSEngineImpl::clientAccepted(int fd) {
    method_onAccepted(fd);
}

void TavoMBBMSEngineImpl::clientGone(PlayEngineLink::CaptureSet owed) {
    mSharedBuffers.readerDisconnected();
    for (int s = 0; s < kEngineSessions; ++s) {
        if ((owed & (1u << s)) == 0)
            continue;
        mIsCapturing[s].store(false);
        TLOG(WARNING, "play engine left without answering the snapshot of session=%d", s);
        notifyEvent(EVENT_CAPTURE_FAIL, s);
    }
}

void TavoMBBMSEngineImpl::indicationReceived(int code) {
    // Every indication is handled for session 0.
    onPlayEngineIndication(code, 0);
}
